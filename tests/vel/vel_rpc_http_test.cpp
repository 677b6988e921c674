#include <sstream>

#include <gtest/gtest.h>

#include "vel/str.h"
#include "vel/vel_proc.h"
#include "vel/vel_rpc/detail/http.h"

#include "tests/support/evil_server.h"
#include "tests/support/support.h"
#include "tests/vel/fixtures.h"

namespace {

using vel_rpc::detail::Http;
using vel_rpc::detail::Request;
using vel_rpc::detail::Response;
using End = EvilAnswer::End;

constexpr char kSecret[] = "canary";

/// Breaks, or makes the reader wait, after the first bytes.
class OddSource : public std::istream, private std::streambuf {
public:
    enum Kind { Throws, Waits };
    explicit OddSource(Kind kind) : std::istream(this), kind_(kind) { exceptions(badbit); }

private:
    std::streambuf::int_type underflow() override {
        if (step_++ == 0) {
            setg(text_, text_, text_ + 5);
            return 'f';
        }
        if (kind_ == Throws) throw std::runtime_error("the archiver died");
        vel_proc::Sleep(3000);
        return std::streambuf::traits_type::eof();
    }
    const Kind kind_;
    int step_ = 0;
    char text_[6] = "first";
};

class HttpCore : public testing::Test {
protected:
    Request Ask(const EvilServer& server, std::ostream* sink = nullptr) {
        Request request;
        request.url = server.Url() + "/a?key=" + kSecret;
        request.headers = {std::string("Authorization: Bearer ") + kSecret};
        request.sink = sink;
        return request;
    }
    std::string FailureOf(const std::vector<EvilAnswer>& answers, std::ostream* sink = nullptr) {
        const EvilServer server(answers);
        const std::string failure = Failure([&] { Http("Cloud").Send(Ask(server, sink)); });
        EXPECT_EQ(failure.find(kSecret), std::string::npos) << failure;
        return failure;
    }
    const FdCheck fds_;
    const EnvGuard quick_{"BACKUP2_RETRY_MS", "1"}, proxy_{"http_proxy", "http://127.0.0.1:1"};
};

TEST_F(HttpCore, ACutAnswerIsAFailureWhereverAndHoweverItWasCut) {
    const std::string bytes = RandomBytes(100'000, 1), whole = Answer("200 OK", bytes);
    const std::size_t head = whole.size() - bytes.size();
    for (const End end : {End::Fin, End::Rst}) {
        for (const std::size_t at : {std::size_t{0}, std::size_t{1}, std::size_t{17}, head - 2,
                                     head, head + 1, head + 50'000, whole.size() - 1}) {
            SCOPED_TRACE(at);
            std::ostringstream out;
            const std::string failure = FailureOf({{whole.substr(0, at), end}}, &out);
            EXPECT_TRUE(failure.starts_with("network|Cloud|")) << failure;
            EXPECT_TRUE(bytes.starts_with(out.str()));
        }
        const std::string chunked =
            "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nfirst";
        EXPECT_TRUE(FailureOf({{chunked, end}}).starts_with("network|Cloud|"));
    }
}

TEST_F(HttpCore, BadServersEndInAClearFailure) {
    const EnvGuard impatient("BACKUP2_STALL_SECONDS", "1");
    std::ostringstream out;
    EXPECT_EQ(FailureOf({{"", End::Mute}}),
              "network|Cloud|hardly a byte came or went for too long");
    const std::string whole = Answer("200 OK", "12345678"),
                      half = whole.substr(0, whole.size() - 4);
    EXPECT_EQ(FailureOf({{half, End::Mute}}, &out),
              "network|Cloud|hardly a byte came or went for too long");
    const std::string endless = "HTTP/1.1 200 OK\r\nContent-Length: 99999\r\n\r\n";
    EXPECT_EQ(FailureOf({{endless, End::Trickle}}, &out),
              "network|Cloud|hardly a byte came or went for too long");
    EXPECT_TRUE(
        FailureOf({{"HTTP/1.1 200 OK\r\nA: " + std::string(9000, 'x') + "\r\n", End::Endless}})
            .starts_with("network|Cloud|"));
    EXPECT_TRUE(FailureOf({{"220 ftp ready\r\n"}}).starts_with("network|Cloud|"));
    Request request;
    request.url = "file:///etc/passwd";
    EXPECT_TRUE(Failure([&] { Http("Cloud").Send(request); }).starts_with("network|Cloud|"));
}

TEST_F(HttpCore, RedirectsAndErrorsAreAnswersAndNeverReachTheSink) {
    for (const char* status : {"302 Found", "404 Not Found", "500 Oops"}) {
        const EvilServer server({{Answer(status, "a page", "Location: file:///etc/passwd\r\n")}});
        std::ostringstream out;
        const Response response = Http("Cloud").Send(Ask(server, &out));
        EXPECT_EQ(response.status, str::Int(status));
        EXPECT_EQ(response.body, "a page");
        EXPECT_EQ(response.Header("location"), "file:///etc/passwd");
        EXPECT_EQ(out.str(), "");
    }
    const EvilServer server({{"HTTP/1.1 500 Oops\r\n\r\nwords without end", End::Endless}});
    EXPECT_EQ(Http("Cloud").Send(Ask(server)).body.size(), std::size_t{64} << 10);
}

TEST_F(HttpCore, WhatTheSourceAndTheSinkThrowPasses) {
    const EvilServer server({{Answer("200 OK", "0123456789")}});
    Request request = Ask(server);
    request.method = "PUT";
    OddSource broken(OddSource::Throws);
    request.source = &broken;
    EXPECT_THROW(Http("Cloud").SendRetried(request), std::runtime_error);
    while (server.Requests().empty()) vel_proc::Sleep(1);  // it may still be reading
    EXPECT_FALSE(server.Requests().back().ends_with("\r\n0\r\n\r\n")) << "looks complete";
    std::istringstream brief("abc");
    request.source = &brief;
    request.size = 4;
    EXPECT_EQ(Failure([&] { Http("Cloud").Send(request); }),
              "storage|source|the data to be sent ended too early");
    std::ofstream full;
    full.rdbuf()->pubsetbuf(nullptr, 0);
    full.open("/dev/full");
    EXPECT_EQ(Failure([&] { Http("Cloud").Send(Ask(server, &full)); }),
              "storage|sink|the received data cannot be written");
    std::ostringstream out;
    Request bounded = Ask(server, &out);
    bounded.max_answer = 9;
    EXPECT_EQ(Failure([&] { Http("Cloud").Send(bounded); }),
              "storage|refused|Cloud: the answer is too long");
}

TEST_F(HttpCore, ASlowSourceIsNoStall) {
    const EnvGuard impatient("BACKUP2_STALL_SECONDS", "2");
    const EvilServer server({{Answer("200 OK", "ok")}});
    OddSource slow(OddSource::Waits);
    Request request = Ask(server);
    request.method = "PUT";
    request.source = &slow;
    EXPECT_EQ(Http("Cloud").Send(request).body, "ok");
}

TEST_F(HttpCore, OnlyWhatFailedForAMomentIsRepeated) {
    const EvilAnswer ok{Answer("200 OK", "ok")}, cut{"HTTP/1.1 200 OK\r\n"};
    const auto with = [](const char* status) {
        return EvilAnswer{Answer(status, "", "Retry-After: 0\r\n")};
    };
    const struct {
        std::vector<EvilAnswer> answers;
        long status;
        std::size_t requests;
    } cases[] = {
        {{with("503 Later"), cut, with("429 Slowly"), {""}, ok}, 200, 5},
        {{with("502 Bad")}, 502, 5},
        {{with("507 Full"), ok}, 507, 1},
        {{with("404 None"), ok}, 404, 1},
    };
    for (const auto& c : cases) {
        const EvilServer server(c.answers);
        EXPECT_EQ(Http("Cloud").SendRetried(Ask(server)).status, c.status);
        EXPECT_EQ(server.Requests().size(), c.requests);
    }
    std::ostringstream out;  // has taken bytes: no repetition may add more
    const EvilServer server({{"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n1234"}, ok});
    EXPECT_TRUE(
        Failure([&] { Http("Cloud").SendRetried(Ask(server, &out)); }).starts_with("network"));
    EXPECT_EQ(server.Requests().size(), 1U);
}

TEST_F(HttpCore, ExcerptsQuoteWordsAndNothingElse) {
    const std::pair<const char*, const char*> cases[] = {
        {R"({"error_summary":"path/not_found/.."})", "path/not_found/.."},
        {R"({"error":{"code":403,"errors":[{"reason":"rate"}],"message":"Too\nfast"}})",
         "rate: Too fast"},
        {R"({"message":"gone","description":"x","error":"NotFound"})", "NotFound: gone"},
        {R"({"error":"invalid_grant","error_description":"Revoked","token":"canary"})",
         "invalid_grant: Revoked"},
        {"<?xml version='1.0'?><Error xmlns='x'><Code>SlowDown</Code><Message>Wait</Message>"
         "<StringToSign>canary</StringToSign></Error>",
         "SlowDown: Wait"},
        {"<html>canary</html", ""},
        {"[1]", ""},
        {"", ""},
    };
    for (const auto& [body, want] : cases) EXPECT_EQ(vel_rpc::detail::Excerpt(body), want) << body;
    const std::string endless = R"({"message":")" + std::string(999, 'x') + "\"}";
    EXPECT_EQ(vel_rpc::detail::Excerpt(endless).size(), 200U);
}

TEST_F(HttpCore, ACredentialIsReadWholeOrRefusedUnquoted) {
    const auto read = [](const std::string& json) {
        return vel_rpc::detail::ReadCredential("Cloud", str::base64::Encode(json));
    };
    EXPECT_EQ(read(R"({"a":"b\u00e9","c":""})"),
              (std::map<std::string, std::string>{{"a", "b\xc3\xa9"}, {"c", ""}}));
    for (const char* json : {"", "canary", "[\"canary\"]", R"({"a":1})", R"({"a":"canary")"}) {
        EXPECT_EQ(Failure([&] { read(json); }), "storage|bad_credential|Cloud") << json;
    }
}

}  // namespace
