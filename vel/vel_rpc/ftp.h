/// FTP and FTP with explicit TLS.
#pragma once

#include <istream>
#include <list>
#include <memory>
#include <ostream>
#include <string>

namespace vel_rpc {

/// One server and one login; the connection is kept between calls.
///
/// TLS is used when the server offers it (its certificate is then verified). The data connection
/// goes to the address of the control connection, whatever the server says. A path without "/" at
/// its beginning starts where the login leads to; one with "..", a control byte or 0xFF is refused.
/// Failures throw vel_err::Error: "network" (no answer, no trusted certificate), "unauthorized"
/// (login refused; this object does not try it again), "storage" with object "missed" or "refused"
/// (value: step, path and the server's reply). No error holds a password. From the environment:
/// BACKUP2_CA_FILE instead of the system's certificate authorities.
class Ftp {
public:
    /// `address`: "host" or "host:port", also with "ftp://" (TLS when offered), "ftps://" (TLS from
    /// the start) or "ftpes://" (TLS required) before it. `timeout`: seconds to connect, and
    /// without a byte, or with less than 16 a second.
    Ftp(const std::string& address, const std::string& user, const std::string& password,
        int timeout);
    ~Ftp();
    Ftp(Ftp&&) noexcept;
    Ftp& operator=(Ftp&&) noexcept;

    /// 0: active (without TLS, also where the server offers it; an error where the address wants
    /// it), 1: passive.
    void SetMode(int mode);
    void Get(const std::string& path, std::ostream& out);
    /// Uploads under a temporary name in the same folder, compares the stored size with what was
    /// sent, renames. False: the server refused the data (no room, no right); throws for all other
    /// failures. The temporary is removed then, or by the next upload of this path. Where the
    /// server replaces no file, the old one is moved aside until the new one has its name; what a
    /// killed program left aside the next List of the folder, or Get, brings back.
    bool Put(std::istream& in, const std::string& path);
    /// Appends the bare names in the folder; of a file its own name, of what does not exist
    /// nothing. An empty folder is told from a failure. Temporaries of uploads are left out.
    void List(const std::string& dir, std::list<std::string>& out);
    /// A file, or a folder with all it holds.
    void Delete(const std::string& path);
    /// One folder; an existing one is no error.
    void MkPath(const std::string& path);

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace vel_rpc
