#include "vel/vel_client.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include "vel/vel_err.h"

#include "tests/support/work_dir.h"

namespace {

std::string Ok(const std::string& body, const std::string& status = "200 OK") {
    return "HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\nConnection: close\r\n\r\n" + body;
}

/// Answers one connection after the other on var/run/panel.sock with prepared bytes, and keeps
/// what was asked.
class FakePanel {
public:
    explicit FakePanel(std::vector<std::string> answers) : answers_(std::move(answers)) {
        listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, "var/run/panel.sock");
        if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            ::listen(listener_, 8) != 0) {
            throw std::runtime_error("no socket");
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
    /// The requests so far; call when the answers are used up.
    const std::vector<std::string>& Requests() const { return requests_; }

private:
    void Serve() {
        for (const std::string& answer : answers_) {
            const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) return;
            requests_.push_back(ReadRequest(fd));
            std::size_t done = 0;
            while (done < answer.size()) {
                const ssize_t n = ::send(fd, &answer[done], answer.size() - done, MSG_NOSIGNAL);
                if (n <= 0) break;  // the client has heard enough
                done += static_cast<std::size_t>(n);
            }
            ::close(fd);
        }
    }

    static std::string ReadRequest(int fd) {
        std::string text;
        char buffer[4096];
        for (;;) {
            const std::size_t head = text.find("\r\n\r\n");
            const std::size_t length = text.find("Content-Length: ");
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

class Client : public testing::Test {
protected:
    vel_client::Local Local() { return {"panel", "unit"}; }
    std::string FailureOf(const std::string& answer) {
        const WorkDir work;
        const FakePanel panel({answer});
        try {
            Local().Query("func=x");
        } catch (const vel_err::Error& e) {
            return e.type() + "|" + e.object() + "|" + e.value();
        }
        return "no failure";
    }
    const FdCheck fds_;
};

TEST_F(Client, ValuesTravelEncodedInTheBody) {
    const WorkDir work;
    FakePanel panel({Ok("<doc><a>1</a><a>2</a></doc>")});
    const auto answer = Local().Query("func=x&elid=?&b=?&c=?", "a&b?", "", "\xff \n=");
    EXPECT_EQ(answer.value("a"), "1");
    EXPECT_EQ(answer.value("none"), "");
    const std::string& request = panel.Requests().at(0);
    EXPECT_TRUE(request.starts_with("POST / HTTP/1.1\r\n")) << request;
    EXPECT_NE(request.find("User-Agent: unit\r\n"), std::string::npos) << request;
    EXPECT_TRUE(request.ends_with("\r\n\r\nfunc=x&elid=a%26b%3F&b=&c=%FF%20%0A%3D")) << request;
    EXPECT_THROW(Local().Query("func=x", "too many"), vel_err::AssertError);
}

TEST_F(Client, ErrorAnswersBecomeErrors) {
    const std::string error = "<doc><error type='missed' object='user'>";
    const std::pair<std::string, std::string> cases[] = {
        {Ok(error + "<value>bob</value><msg>No such user</msg></error></doc>"), "missed|user|bob"},
        {Ok(error + "<msg>No user</msg></error></doc>"), "missed|user|No user"},
        {Ok("<doc><error type='denied'/></doc>"), "denied||"},
        {Ok(error + "</error></doc>", "500 Oops"), "missed|user|"},
        {Ok("<doc><error type='locked'/></doc>"), "locked||"},
        {Ok("<doc/>", "404 Not Found"), "panel|bad_answer|panel: status 404"},
        {Ok(""), "panel|bad_answer|panel: status 200, not an XML document"},
        {Ok("<doc><token>hunter2</token>"),
         "panel|bad_answer|panel: status 200, not an XML document"},
        {Ok(std::string((64 << 20) + 1, ' ')), "panel|bad_answer|panel: over 64 MiB"},
    };
    for (const auto& [answer, want] : cases) EXPECT_EQ(FailureOf(answer), want);
    for (const std::string& broken :
         {std::string(), std::string("HTTP/1.1 200 OK\r\nContent-Length: "
                                     "99\r\n\r\n<doc/>")}) {
        EXPECT_TRUE(FailureOf(broken).starts_with("panel|unreachable|panel: ")) << broken;
    }
}

TEST_F(Client, AMissingOrDeadPanelIsNamed) {
    const WorkDir work;
    const auto failure = [this] {
        try {
            Local().WaitLocked(true).Query("func=x&key=?", "secret");
        } catch (const vel_err::Error& e) {
            return std::string(e.what());
        }
        return std::string();
    };
    const std::string missing = failure();
    EXPECT_NE(missing.find("panel: no socket var/run/panel.sock"), std::string::npos) << missing;
    { const FakePanel panel({}); }  // its socket stays, nobody listens
    const std::string dead = failure();
    EXPECT_NE(dead.find("'unreachable' Value: 'panel: "), std::string::npos) << dead;
    EXPECT_EQ((missing + dead).find("secret"), std::string::npos);
}

TEST_F(Client, ALockedPanelIsAskedAgainUntilTheWaitIsOver) {
    const WorkDir work;
    const std::string locked = Ok("<doc><error type='locked'/></doc>");
    FakePanel panel({locked, Ok("<doc><a>1</a></doc>"), locked});
    EXPECT_EQ(Local().WaitLocked(true).Query("func=x").value("a"), "1");
    EXPECT_EQ(panel.Requests().size(), 2U);
    const EnvGuard impatient("VEL_LOCK_WAIT", "0");
    EXPECT_THROW(Local().WaitLocked(true).Query("func=x"), vel_err::Error);
}

}  // namespace
