/// A panel that gives every request the same answer.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>

/// Listens on var/run/panel1.sock below the working directory while the object lives.
class FakePanel {
public:
    explicit FakePanel(const std::string& answer)
        : answer_("HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: " +
                  std::to_string(answer.size()) + "\r\n\r\n" + answer) {
        listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, "var/run/panel1.sock");
        ::unlink(address.sun_path);
        if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            ::listen(listener_, 8) != 0) {
            throw std::runtime_error("the fake panel cannot listen");
        }
        thread_ = std::thread([this] { Serve(); });
    }
    FakePanel(const FakePanel&) = delete;
    FakePanel& operator=(const FakePanel&) = delete;
    ~FakePanel() {
        ::shutdown(listener_, SHUT_RDWR);  // ends the waiting accept
        thread_.join();
        ::close(listener_);
    }
    /// Body of the last request; call it after the answer came.
    const std::string& Request() const { return request_; }

private:
    void Serve() {
        for (int fd; (fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;
             ::close(fd)) {
            ReadRequest(fd);
            std::size_t sent = 0;
            for (ssize_t n = 1; n > 0 && sent<answer_.size(); sent += n> 0 ? std::size_t(n) : 0) {
                n = ::send(fd, answer_.data() + sent, answer_.size() - sent, MSG_NOSIGNAL);
            }
        }
    }
    void ReadRequest(int fd) {
        std::string head;
        std::size_t body = std::string::npos, size = 0;
        char bytes[4096];
        for (ssize_t n; body == std::string::npos || head.size() < body + size;) {
            if ((n = ::recv(fd, bytes, sizeof bytes, 0)) <= 0) return;
            head.append(bytes, std::size_t(n));
            if (body != std::string::npos || head.find("\r\n\r\n") == std::string::npos) continue;
            body = head.find("\r\n\r\n") + 4;
            const auto length = head.find("Content-Length: ");
            if (length != std::string::npos) size = std::stoul(head.substr(length + 16));
        }
        request_ = head.substr(body);
    }

    std::string answer_, request_;
    int listener_ = -1;
    std::thread thread_;
};
