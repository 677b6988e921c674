#include <sstream>

#include <gtest/gtest.h>

#include "vel/str.h"
#include "vel/vel_client.h"
#include "vel/vel_proc.h"
#include "vel/vel_rpc/fetch_file.h"

#include "tests/support/evil_server.h"
#include "tests/support/support.h"
#include "tests/vel/fixtures.h"

namespace {

using vel_rpc::FetchFile;
using vel_rpc::HttpQuery;
using End = EvilAnswer::End;

constexpr char kSecret[] = "canary";
const std::string kQuery = "?auth=canary";

std::string Redirect(const std::string& status, const std::string& to) {
    return Answer(status, "a page", "Location: " + to + "\r\n");
}

class Fetch : public testing::Test {
protected:
    ~Fetch() override {
        EXPECT_FALSE(log_.Mentions(kSecret));
        vel_rpc::TrustPanels({});
    }
    /// "fetched" or "failed", with what stands in the place of the target then.
    std::string Result(const std::string& url, int flags = 0) {
        const TempDir dir;
        const std::string target = dir / "file";
        WriteFile(target, "old");
        const bool fetched = FetchFile(url + kQuery, target, flags);
        EXPECT_EQ(dir.Names(), std::vector<std::string>{"file"});
        return (fetched ? "fetched " : "failed ") + ReadFile(target);
    }
    const FdCheck fds_;
    ChildCheck children_;
    const LogCapture log_;
};

TEST_F(Fetch, AFileAppearsOnlyWhenAllOfItCame) {
    const std::string whole = Answer("200 OK", "whole");
    const EvilServer other({{whole}});
    const std::pair<const char*, std::vector<EvilAnswer>> cases[] = {
        {"fetched whole", {{whole}}},
        {"fetched whole", {{Redirect("302 Found", "/there?x=1")}, {whole}}},
        {"failed old", {{Answer("404 Not Found", "a page")}}},
        {"failed old", {{Answer("500 Oops", "a page")}}},
        {"failed old", {{Answer("206 Partial Content", "a part")}}},
        {"failed old", {{whole.substr(0, whole.size() - 1)}}},
        {"failed old", {{whole.substr(0, whole.size() - 1), End::Rst}}},
        {"failed old", {{"HTTP/1.1 200 OK\r\n\r\nwhole?"}}},
        {"failed old", {{Redirect("302 Found", other.Url())}, {whole}}},
        {"failed old", {{Redirect("302 Found", "http://localhost/")}, {whole}}},
        {"failed old", {{Redirect("302 Found", "file:///etc/hostname")}, {whole}}},
        {"failed old", {{Redirect("302 Found", "/again")}}},
    };
    for (const auto& [want, answers] : cases) {
        SCOPED_TRACE(answers[0].bytes);
        const EvilServer server(answers);
        EXPECT_EQ(Result(server.Url() + "/file"), want);
        EXPECT_LE(server.Requests().size(), 6U);
    }
    EXPECT_TRUE(other.Requests().empty());  // nobody else sees the session
    const EvilServer mute({{whole.substr(0, whole.size() - 1), End::Mute}});
    const EnvGuard impatient("BACKUP2_STALL_SECONDS", "1");
    EXPECT_EQ(Result(mute.Url() + "/file"), "failed old");
    EXPECT_EQ(Result("http://127.0.0.1:1/file"), "failed old");
    EXPECT_EQ(Result("file:///etc/hostname"), "failed old");
}

TEST_F(Fetch, QueriesKeepTheirLimits) {
    const EvilServer server({{Answer("404 Not Found", "12345")}, {Answer("200 OK", "12345")}});
    const auto ask = [&server](std::size_t limit, bool accept) {
        HttpQuery query;
        query.SetMaxSize(limit);
        query.SetTimeout(10);
        if (accept) query.AcceptAnyResponse();
        std::ostringstream out;
        const std::string failure =
            Failure([&] { query.Post(server.Url() + "/a", "auth=x&b=%26", out); });
        return failure == "none" ? out.str() : failure;
    };
    EXPECT_EQ(ask(5, true), "12345");
    EXPECT_EQ(ask(5, false), "12345");
    EXPECT_TRUE(ask(4, true).starts_with("storage|refused|"));
    const std::string request = server.Requests().at(0);
    EXPECT_TRUE(request.ends_with("\r\n\r\nauth=x&b=%26")) << request;
    EXPECT_NE(request.find("application/x-www-form-urlencoded"), std::string::npos) << request;

    const EvilServer missing({{Answer("404 Not Found", "12345")}});
    std::ostringstream out;
    EXPECT_EQ(Failure([&] { HttpQuery().Get(missing.Url(), out); }), "http|127.0.0.1|status 404");
    HttpQuery hasty;
    hasty.SetTimeout(1);
    const EvilServer mute({{"", End::Mute}});
    EXPECT_TRUE(Failure([&] { hasty.Get(mute.Url(), out); }).starts_with("network|127.0.0.1|"));
}

TEST_F(Fetch, APostIsRepeatedOnlyWhereTheServerAsksForTheSame) {
    for (const char* status : {"302 Found", "307 Temporary Redirect"}) {
        const EvilServer server({{Redirect(status, "/b")}, {Answer("200 OK", "there")}});
        HttpQuery query;
        query.AcceptAnyResponse();
        std::ostringstream out;
        query.Post(server.Url() + "/a", "body", out);
        const bool same = str::StartsWith(status, "307");
        EXPECT_EQ(out.str(), same ? "there" : "a page");
        EXPECT_TRUE(server.Requests().back().starts_with(same ? "POST /b " : "POST /a "));
    }
}

/// Serves the files of the working directory; its certificate is its own authority and holds the
/// address, but no name.
class TlsServer {
public:
    TlsServer() {
        const int made =
            vel_proc::Execute(
                {"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
                 "-nodes", "-days", "2", "-subj", "/CN=test", "-addext",
                 "subjectAltName=IP:127.0.0.1", "-keyout", dir_ / "key", "-out", Certificate()},
                vel_proc::kJoinErrors)
                .Result();
        EXPECT_EQ(made, 0);
        // Whole answers; it takes the query for a part of the name.
        WriteFile(dir_ / "file" + kQuery, Answer("200 OK", "whole"));
        WriteFile(dir_ / "endless" + kQuery, "HTTP/1.1 200 OK\r\n\r\nwhole?");
        server_ = vel_proc::Execute("cd " + dir_.Path() +
                                        " && exec openssl s_server -accept 127.0.0.1:0 -HTTP "
                                        "-cert cert -key key",
                                    vel_proc::kStream | vel_proc::kJoinErrors);
        std::string line;
        while (std::getline(server_.Out(), line) && !str::StartsWith(line, "ACCEPT ")) continue;
        port_ = str::RGetWord(line, ":");
    }
    std::string Certificate() const { return dir_ / "cert"; }
    std::string Url(const std::string& host) const { return "https://" + host + ":" + port_; }

private:
    const TempDir dir_;
    vel_proc::Execute server_;
    std::string port_;
};

TEST_F(Fetch, CertificatesAreVerifiedUnlessTheCallerSaysOtherwise) {
    const TlsServer server;
    const std::string url = server.Url("127.0.0.1") + "/file",
                      named = server.Url("localhost") + "/file";
    EXPECT_EQ(Result(url), "failed old");
    std::ostringstream out;
    vel_client::Remote panel(url);
    EXPECT_TRUE(Failure([&] { panel.Query("func=auth"); }).starts_with("network|127.0.0.1|"));
    EXPECT_EQ(Result(url, vel_rpc::kAnyCertificate), "fetched whole");
    vel_rpc::TrustPanels({server.Certificate(), false});
    EXPECT_EQ(Result(url), "fetched whole");
    EXPECT_EQ(Result(server.Url("127.0.0.1") + "/endless"), "failed old");
    EXPECT_EQ(Result(named), "failed old");
    vel_rpc::TrustPanels({"", true});
    EXPECT_EQ(Result(named), "fetched whole");
}

TEST_F(Fetch, APanelsDocumentIsGivenWhateverItSays) {
    const std::string error = "<doc><error type=\"auth\"/></doc>";
    const EvilServer server({{Answer("200 OK", "<doc><a>1</a></doc>")},
                             {Answer("500 Oops", error)},
                             {Answer("200 OK", "<html>" + std::string(kSecret))},
                             {Answer("200 OK", std::string((1 << 20) + 1, ' '))}});
    vel_client::Remote panel(server.Url() + "/path");
    panel.AddParam("username", "first");
    panel.AddParam("password", kSecret + std::string("&\n"));
    panel.AddParam("username",
                   "b\xc3\xb6"
                   "b");
    EXPECT_EQ(panel.Query("func=auth").GetNode("/doc/a").Str(), "1");
    panel.ClearParams();
    EXPECT_EQ(panel.Query("func=auth").GetNode("/doc/error").GetProp("type"), "auth");
    const std::string garbage = Failure([&] { panel.Query("func=auth"); });
    EXPECT_TRUE(garbage.starts_with("panel|bad_answer|127.0.0.1:")) << garbage;
    EXPECT_EQ(garbage.find(kSecret), std::string::npos) << garbage;
    EXPECT_TRUE(Failure([&] { panel.Query("func=auth"); }).starts_with("storage|refused|"));
    const std::string request = server.Requests().at(0);
    EXPECT_TRUE(request.starts_with("POST /path HTTP/1.1\r\n")) << request;
    EXPECT_TRUE(request.ends_with("\r\n\r\nfunc=auth&password=canary%26%0A&username=b%C3%B6b"))
        << request;
    EXPECT_TRUE(server.Requests().at(1).ends_with("\r\n\r\nfunc=auth"));
}

}  // namespace
