/// A server on loopback, or on a Unix socket, that gives prepared answers and ends connections the
/// way it is told.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

/// What one connection gets after its request was read.
struct EvilAnswer {
    // Endless: `bytes` again and again; Trickle: some ten more bytes a second.
    enum End { Fin, Rst, Mute, Endless, Trickle };
    std::string bytes;
    End end = Fin;
};

inline std::string Answer(const std::string& status, const std::string& body = "",
                          const std::string& headers = "") {
    return "HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\nConnection: close\r\n" + headers + "\r\n" + body;
}

/// Each connection gets the next answer; the last one serves all that follow.
class EvilServer {
public:
    explicit EvilServer(std::vector<EvilAnswer> answers) : answers_(std::move(answers)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        Listen(address);
        port_ = ntohs(address.sin_port);
    }
    EvilServer(std::vector<EvilAnswer> answers, const std::string& path)
        : answers_(std::move(answers)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, path.c_str());
        ::unlink(address.sun_path);
        Listen(address);
    }
    EvilServer(const EvilServer&) = delete;
    EvilServer& operator=(const EvilServer&) = delete;
    ~EvilServer() {
        stop_ = true;
        ::shutdown(listener_, SHUT_RDWR);
        thread_.join();
        ::close(listener_);
    }
    std::string Url() const { return "http://127.0.0.1:" + std::to_string(port_); }
    /// Head and body of each request so far.
    std::vector<std::string> Requests() const {
        const std::lock_guard lock(mutex_);
        return requests_;
    }

private:
    template <class Address>
    void Listen(Address& address) {
        auto* const any = reinterpret_cast<sockaddr*>(&address);
        socklen_t size = sizeof address;
        listener_ = ::socket(any->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (::bind(listener_, any, size) != 0 || ::listen(listener_, 8) != 0 ||
            ::getsockname(listener_, any, &size) != 0) {
            throw std::runtime_error("the server cannot listen");
        }
        thread_ = std::thread([this] { Serve(); });
    }
    void Serve() {
        for (std::size_t i = 0; !stop_ && !answers_.empty(); i += i + 1 < answers_.size() ? 1 : 0) {
            const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) return;
            const timeval limit{0, 100'000};
            ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
            ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
            ReadRequest(fd);
            Give(fd, answers_[i]);
            ::close(fd);
        }
    }
    void Give(int fd, const EvilAnswer& answer) {
        bool sent = Send(fd, answer.bytes);
        while (answer.end == EvilAnswer::Endless && sent && !stop_) sent = Send(fd, answer.bytes);
        while (answer.end == EvilAnswer::Trickle && sent && !stop_) {
            ::usleep(100'000);
            sent = Send(fd, ".");
        }
        if (answer.end == EvilAnswer::Mute) Read(fd);
        if (answer.end == EvilAnswer::Rst) {
            const linger now{1, 0};
            ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &now, sizeof now);
        }
    }
    bool Send(int fd, const std::string& bytes) {
        for (std::size_t done = 0; done < bytes.size() && !stop_;) {
            const ssize_t n = ::send(fd, &bytes[done], bytes.size() - done, MSG_NOSIGNAL);
            if (n < 0 && errno != EAGAIN) return false;
            done += n > 0 ? static_cast<std::size_t>(n) : 0;
        }
        return true;
    }
    /// What comes next; "" at the end.
    std::string Read(int fd) {
        char buffer[1 << 16];
        while (!stop_) {
            const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
            if (n >= 0) return std::string(buffer, static_cast<std::size_t>(n));
            if (errno != EAGAIN) break;
        }
        return "";
    }
    static bool IsWhole(const std::string& text) {
        const std::size_t end = text.find("\r\n\r\n");
        if (end == std::string::npos) return false;
        const std::string head = text.substr(0, end);
        if (head.find("Transfer-Encoding: chunked") != std::string::npos) {
            return text.ends_with("\r\n0\r\n\r\n");
        }
        const std::size_t length = head.find("Content-Length: ");
        return length == std::string::npos ||
               text.size() >= end + 4 + std::stoul(head.substr(length + 16));
    }
    void ReadRequest(int fd) {
        std::string text;
        bool welcomed = false;
        while (!IsWhole(text)) {
            const std::string more = Read(fd);
            if (more.empty()) break;
            text += more;
            if (welcomed || text.substr(0, 4096).find("Expect: 100-continue") == text.npos)
                continue;
            welcomed = Send(fd, "HTTP/1.1 100 Continue\r\n\r\n");
        }
        const std::lock_guard lock(mutex_);
        requests_.push_back(text);
    }

    const std::vector<EvilAnswer> answers_;
    mutable std::mutex mutex_;
    std::vector<std::string> requests_;
    std::atomic<bool> stop_{false};
    int listener_ = -1, port_ = 0;
    std::thread thread_;
};
