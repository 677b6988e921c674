/// An FTP server on loopback whose answers a test prepares.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

/// An honest server says what `Replies` holds by default, for a whole command or for its first
/// word; a command without a reply gets 500. In a reply "%" is where the passive port goes (its
/// number, or "high,low" after a "227"). One that begins with "-" ends the connection afterwards;
/// an empty one is never given. Data of "~" are ten bytes a second without an end, and an upload is
/// not read then; "!" resets the data connection.
struct LyingFtp {
    using Replies = std::map<std::string, std::string>;

    LyingFtp(const Replies& lies, std::string data, std::string end = "226 Done")
        : data_(std::move(data)), end_(std::move(end)) {
        for (const auto& [command, reply] : lies) replies_[command] = reply;
        listener_ = Listen(control_);
        passive_ = Listen(data_port_);
        thread_ = std::thread([this] { Serve(); });
    }
    LyingFtp(const LyingFtp&) = delete;
    LyingFtp& operator=(const LyingFtp&) = delete;
    ~LyingFtp() {
        stop_ = true;
        for (const int fd : {listener_, passive_.load()}) ::shutdown(fd, SHUT_RDWR);
        thread_.join();
        for (const int fd : {listener_, passive_.load()}) ::close(fd);
    }
    std::string Address() const { return "127.0.0.1:" + std::to_string(control_); }
    int Logins() const { return logins_; }  ///< passwords received

private:
    static int Listen(int& port) {
        const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto* const any = reinterpret_cast<sockaddr*>(&address);
        if (::bind(fd, any, size) != 0 || ::listen(fd, 8) != 0 ||
            ::getsockname(fd, any, &size) != 0)
            throw std::runtime_error("the server cannot listen");
        port = ntohs(address.sin_port);
        return fd;
    }
    static void Send(int fd, const std::string& bytes) {
        ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }
    void Serve() {
        while (!stop_) {
            const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) return;
            const timeval limit{0, 50'000};
            ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
            if (Reply(fd, "")) Talk(fd);
            ::close(fd);
        }
    }
    void Talk(int fd) {
        std::string input;
        char buffer[4096];
        while (!stop_) {
            const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
            if (n == 0 || (n < 0 && errno != EAGAIN)) return;
            input.append(buffer, n > 0 ? static_cast<std::size_t>(n) : 0);
            for (std::size_t end; (end = input.find("\r\n")) != input.npos;) {
                commands_.push_back(input.substr(0, end));
                input.erase(0, end + 2);
                if (!Obey(fd, commands_.back())) return;
            }
        }
    }
    bool Obey(int fd, const std::string& command) {
        const std::string verb = command.substr(0, command.find(' '));
        if (verb == "PASS") ++logins_;
        if (verb == "EPSV" || verb == "PASV") Renew();
        if (verb == "EPRT")
            peer_port_ = std::atoi(&command[command.rfind('|', command.size() - 2) + 1]);
        if (!Reply(fd, replies_.count(command) > 0 ? command : verb)) return false;
        const bool data = replies_.count(verb) > 0 && replies_[verb].find("150") == 0;
        if (!data) return true;
        Transfer(verb == "STOR");
        return end_.empty() || Say(fd, end_);
    }
    /// The connection of a transfer that was refused must not serve the next one.
    void Renew() {
        ::close(passive_);
        passive_ = Listen(data_port_);
    }
    bool Reply(int fd, const std::string& verb) {
        const auto found = replies_.find(verb);
        return Say(fd, found == replies_.end() ? "500 What?" : found->second);
    }
    bool Say(int fd, std::string reply) {
        const bool last = !reply.empty() && reply[0] == '-';
        if (last) reply.erase(0, 1);
        const std::size_t mark = reply.find('%');
        if (mark != reply.npos) {
            const std::string port =
                reply.find("227") == 0
                    ? std::to_string(data_port_ / 256) + "," + std::to_string(data_port_ % 256)
                    : std::to_string(data_port_);
            reply.replace(mark, 1, port);
        }
        if (!reply.empty()) Send(fd, reply + "\r\n");
        return !last;
    }
    /// Until the other side has gone.
    void Trickle(int fd, bool mute) const {
        for (pollfd gone{fd, POLLRDHUP, 0}; !stop_ && ::poll(&gone, 1, 100) == 0;) {
            if (!mute) Send(fd, "x");
        }
    }
    /// The other side's port, from an address that is not the control connection's.
    int ConnectFromElsewhere() const {
        const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = inet_addr("127.0.0.2");
        ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<uint16_t>(peer_port_));
        ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
        return fd;
    }
    void Transfer(bool upload) {
        const int fd = peer_port_ > 0 ? ConnectFromElsewhere()
                                      : ::accept4(passive_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) return;
        char buffer[1 << 16];
        if (data_ == "~") {
            Trickle(fd, upload);
        } else if (data_ == "!") {
            const linger now{1, 0};
            ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &now, sizeof now);
            if (std::exchange(upload, false)) ::recv(fd, buffer, sizeof buffer, 0);
        } else if (!upload) {
            Send(fd, data_);
        }
        while (upload && ::recv(fd, buffer, sizeof buffer, 0) > 0) {
        }
        ::close(fd);
    }

    Replies replies_{{"", "220-Welcome\r\n 220 not yet\r\n220 Ready"},
                     {"USER", "331 Password?"},
                     {"PASS", "230-Hello\r\n 550 of you\r\n230 are in"},
                     {"PWD", "257 \"/\""},
                     {"EPSV", "229 (|||%|)"},
                     {"EPRT", "200 Good"},
                     {"TYPE", "200 Type"},
                     {"CWD", "250-Here\r\n250 you are"},
                     {"SIZE", "213 6"},
                     {"STOR", "150 Go"},
                     {"RETR", "150 Comes"},
                     {"MLSD", "150 Comes"},
                     {"NLST", "150 Comes"},
                     {"DELE", "550 None"},
                     {"RNFR", "350 To?"},
                     {"RNTO", "250 Renamed"},
                     {"QUIT", "-221 Bye"}};
    const std::string data_, end_;
    std::vector<std::string> commands_;
    std::atomic<bool> stop_{false};
    std::atomic<int> passive_{-1}, logins_{0};
    int listener_ = -1, control_ = 0, data_port_ = 0, peer_port_ = 0;
    std::thread thread_;
};
