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
/// goes to the address of the control connection, whatever the server says. Paths are absolute;
/// one with CR, LF or NUL is refused. Failures throw vel_err::Error: "network" (no answer),
/// "unauthorized" (login refused), "storage" with object "missed" or "refused" (value: step, path
/// and the server's reply). No error holds a password.
class Ftp {
public:
    /// `address`: "host" or "host:port", also with "ftp://" (TLS when offered), "ftps://" (TLS from
    /// the start) or "ftpes://" (TLS required) before it. `timeout`: seconds to connect, and
    /// without a byte.
    Ftp(const std::string& address, const std::string& user, const std::string& password,
        int timeout);
    ~Ftp();
    Ftp(Ftp&&) noexcept;
    Ftp& operator=(Ftp&&) noexcept;

    /// 0: active (never with TLS: a clear error says so where TLS is required), 1: passive.
    void SetMode(int mode);
    void Get(const std::string& path, std::ostream& out);
    /// Uploads under a temporary name in the same folder, compares the stored size with what was
    /// sent, renames. False: the server refused the data (no room, no right); throws for all other
    /// failures. The temporary is removed then.
    bool Put(std::istream& in, const std::string& path);
    /// Appends the bare names in the folder; an empty folder is told from a failure.
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
