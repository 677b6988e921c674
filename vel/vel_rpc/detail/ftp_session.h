/// The steps of FTP on one libcurl handle, whose connection is kept between them.
#pragma once

#include <cstdint>
#include <functional>
#include <istream>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace vel_rpc::detail {

/// The server's answer to a step: one line, without control bytes and without the password.
struct FtpReply {
    bool ok = false;
    int status = 0;      ///< 226, 550
    std::string text{};  ///< "550 No such file"
};

/// Paths are absolute and without control bytes. Every step may throw, besides what its source or
/// sink throws, vel_err::Error: "network" (no answer, a cut transfer, no trusted certificate) or
/// "unauthorized" (login refused; every later step throws it at once and asks nobody). A step that
/// the server refuses is a reply that is not ok.
class FtpSession {
public:
    FtpSession(const std::string& address, const std::string& user, const std::string& password,
               int timeout);
    ~FtpSession();
    FtpSession(const FtpSession&) = delete;
    FtpSession& operator=(const FtpSession&) = delete;

    void SetActive(bool active);
    /// For messages: "ftp://host:port".
    const std::string& Server() const;
    /// The folder that the login leads to.
    std::string Home();

    /// Sends the commands until one is refused; one that begins with "*" may be.
    FtpReply Command(const std::string& step, const std::vector<std::string>& commands);
    /// Makes the folder the current one, if that is possible.
    FtpReply Enter(const std::string& step, const std::string& folder);
    /// Enters the folder and runs a command that lists it, line by line. `entered` tells which of
    /// the two a reply that is not ok belongs to.
    FtpReply List(const std::string& step, const std::string& folder, const std::string& command,
                  const std::function<void(std::string_view)>& take_line, bool& entered);
    /// All bytes that the server announced, or it throws.
    FtpReply Receive(const std::string& step, const std::string& path, std::ostream& out);
    /// Runs `before`, then sends the stream to its end; `sent` counts.
    FtpReply Send(const std::string& step, const std::string& path, std::istream& in,
                  const std::vector<std::string>& before, uint64_t& sent);

private:
    class State;
    std::unique_ptr<State> state_;
};

}  // namespace vel_rpc::detail
