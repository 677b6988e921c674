#include "vel/vel_client.h"

#include <gtest/gtest.h>

#include "vel/vel_err.h"

#include "tests/support/fake_panel.h"
#include "tests/support/work_dir.h"
#include "tests/vel/fixtures.h"

namespace {

class Client : public testing::Test {
protected:
    vel_client::Local Local() { return {"panel", "unit"}; }
    std::string FailureOf(const std::string& answer) {
        const WorkDir work;
        const FakePanel panel({answer});
        return Failure([this] { Local().Query("func=x"); });
    }
    const FdCheck fds_;
};

TEST_F(Client, ValuesTravelEncodedInTheBody) {
    const WorkDir work;
    FakePanel panel({HttpAnswer("<doc><a>1</a><a>2</a></doc>")});
    const auto answer = Local().Query("func=x&elid=?&b=?&c=?", "a&b?", "", "\xff \n=");
    EXPECT_EQ(answer.value("a"), "1");
    EXPECT_EQ(answer.value("none"), "");
    const std::string request = panel.Requests().at(0);
    EXPECT_TRUE(request.starts_with("POST / HTTP/1.1\r\n")) << request;
    EXPECT_NE(request.find("User-Agent: unit\r\n"), std::string::npos) << request;
    EXPECT_TRUE(request.ends_with("\r\n\r\nfunc=x&elid=a%26b%3F&b=&c=%FF%20%0A%3D")) << request;
    EXPECT_THROW(Local().Query("func=x", "too many"), vel_err::AssertError);
}

TEST_F(Client, ErrorAnswersBecomeErrors) {
    const std::string error = "<doc><error type='missed' object='user'>";
    const std::pair<std::string, std::string> cases[] = {
        {HttpAnswer(error + "<value>bob</value><msg>No such user</msg></error></doc>"),
         "missed|user|bob"},
        {HttpAnswer(error + "<msg>No user</msg></error></doc>"), "missed|user|No user"},
        {HttpAnswer(error + "</error></doc>", "500 Oops"), "missed|user|"},
        {HttpAnswer("<doc><error type='locked'/></doc>"), "locked||"},
        {HttpAnswer("<doc/>", "404 Not Found"), "panel|bad_answer|panel: status 404"},
        {HttpAnswer(""), "panel|bad_answer|panel: status 200, not an XML document"},
        {HttpAnswer("<doc><token>hunter2</token>"),
         "panel|bad_answer|panel: status 200, not an XML document"},
        {HttpAnswer(std::string((64 << 20) + 1, ' ')), "panel|bad_answer|panel: over 64 MiB"},
    };
    for (const auto& [answer, want] : cases) EXPECT_EQ(FailureOf(answer), want);
    for (const std::string& broken :
         {std::string(), std::string("HTTP/1.1 200 OK\r\nContent-Length: "
                                     "99\r\n\r\n<doc/>")}) {
        EXPECT_TRUE(FailureOf(broken).starts_with("panel|unreachable|panel: ")) << broken;
    }
}

TEST_F(Client, ALockedPanelIsAskedAgainUntilTheWaitIsOver) {
    const WorkDir work;
    const std::string locked = HttpAnswer("<doc><error type='locked'/></doc>");
    FakePanel panel({locked, HttpAnswer("<doc><a>1</a></doc>"), locked});
    EXPECT_EQ(Local().WaitLocked(true).Query("func=x").value("a"), "1");
    EXPECT_EQ(panel.Requests().size(), 2U);
    const EnvGuard impatient("VEL_LOCK_WAIT", "0");
    EXPECT_THROW(Local().WaitLocked(true).Query("func=x"), vel_err::Error);
}

}  // namespace
