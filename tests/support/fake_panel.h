/// A panel that gives prepared answers.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

inline std::string HttpAnswer(const std::string& body, const std::string& status = "200 OK") {
    return "HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\nConnection: close\r\n\r\n" + body;
}

/// Listens on var/run/<name>.sock below the working directory while the object lives. Each
/// connection gets the next answer, byte for byte; the last answer serves all that follow.
class FakePanel {
public:
    explicit FakePanel(std::vector<std::string> answers, const std::string& name = "panel")
        : answers_(std::move(answers)) {
        listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, ("var/run/" + name + ".sock").c_str());
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
        ::shutdown(listener_, SHUT_RDWR);  // ends a waiting accept
        thread_.join();
        ::close(listener_);
    }
    /// The requests so far, head and body; call it when the answers have come.
    const std::vector<std::string>& Requests() const { return requests_; }

private:
    void Serve() {
        for (std::size_t i = 0; !answers_.empty(); i += i + 1 < answers_.size() ? 1 : 0) {
            const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) return;
            requests_.push_back(ReadRequest(fd));
            Send(fd, answers_[i]);
            ::close(fd);
        }
    }
    static void Send(int fd, const std::string& answer) {
        for (std::size_t done = 0; done < answer.size();) {
            const ssize_t n = ::send(fd, &answer[done], answer.size() - done, MSG_NOSIGNAL);
            if (n <= 0) return;  // the client has heard enough
            done += static_cast<std::size_t>(n);
        }
    }
    static std::string ReadRequest(int fd) {
        std::string text;
        char buffer[4096];
        for (;;) {
            const std::size_t head = text.find("\r\n\r\n"), length = text.find("Content-Length: ");
            if (head != std::string::npos && length != std::string::npos &&
                text.size() >= head + 4 + std::stoul(text.substr(length + 16))) {
                return text;
            }
            const ssize_t n = ::read(fd, buffer, sizeof buffer);
            if (n <= 0) return text;
            text.append(buffer, static_cast<std::size_t>(n));
        }
    }

    std::vector<std::string> answers_, requests_;
    int listener_ = -1;
    std::thread thread_;
};
