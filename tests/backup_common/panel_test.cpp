// What the library says to other panels, and what it answers.
#include <gtest/gtest.h>

#include "vel/str.h"
#include "vel/vel_xml.h"

#include "backup_common/backup2_misc.h"
#include "backup_common/backup2_storage.h"

#include "tests/backup_common/fixtures.h"
#include "tests/support/evil_server.h"

namespace backup2 {
namespace {

using End = EvilAnswer::End;

constexpr char kPassword[] = "canary";

EvilAnswer Doc(const std::string& content) {
    return {Answer("200 OK", "<doc>" + content + "</doc>")};
}
EvilAnswer Auth(const std::string& id) { return Doc("<auth id=\"" + id + "\"/>"); }
const EvilAnswer kRefused = Doc("<error type=\"auth\"><msg>No</msg></error>");
const EvilAnswer kKeyTaken = Doc("<ok/>");

std::string BodyOf(const std::string& request) {
    return request.substr(request.find("\r\n\r\n") + 4);
}

/// Each test works in a scratch install root and shows no secret.
class Panels : public testing::Test {
protected:
    ~Panels() override {
        for (const char* secret : {kPassword, "admin-session", "first-session", "second-session"})
            EXPECT_FALSE(log_.Mentions(secret)) << secret;
    }
    std::string SessionFrom(const std::vector<EvilAnswer>& answers) {
        const EvilServer server(answers);
        return Authorize(server.Url() + "/panel", "root", kPassword, "bob & co");
    }
    const WorkDir work_;
    const FdCheck fds_;
    const LogCapture log_;
};

TEST_F(Panels, ASessionTakesThreeRequests) {
    const EvilServer server({Auth("admin-session"), kKeyTaken, Auth("first-session")});
    EXPECT_EQ(Authorize(server.Url() + "/panel", "root", kPassword, "bob & co"), "first-session");
    const auto requests = server.Requests();
    ASSERT_EQ(requests.size(), 3U);
    for (const std::string& request : requests)
        EXPECT_TRUE(request.starts_with("POST /panel HTTP/1.1\r\n")) << request;
    EXPECT_EQ(BodyOf(requests[0]), "func=auth&username=root&password=canary");
    const std::string key = requests[1].substr(requests[1].rfind('=') + 1);
    EXPECT_EQ(key.size(), 32U);
    EXPECT_EQ(key.find_first_not_of("0123456789abcdef"), std::string::npos) << key;
    const std::string who = "auth=admin-session&username=bob%20%26%20co&key=" + key;
    EXPECT_EQ(BodyOf(requests[1]), "func=session.newkey&" + who);
    EXPECT_EQ(BodyOf(requests[2]), "func=auth&" + who + "&checkcookie=no");
    const EvilServer again({Auth("admin-session"), kKeyTaken, Auth("first-session")});
    Authorize(again.Url(), "root", kPassword, "bob");
    EXPECT_EQ(again.Requests()[1].find(key), std::string::npos);  // never the same key
}

TEST_F(Panels, ARefusedStepGivesNoSessionAndOneLine) {
    EXPECT_EQ(SessionFrom({kRefused}), "");
    EXPECT_TRUE(log_.Has(4, "Cant authorize admin: 'root'"));
    EXPECT_EQ(SessionFrom({Doc("<auth/>")}), "");
    EXPECT_EQ(SessionFrom({Auth("admin-session"), kRefused}), "");
    EXPECT_TRUE(log_.Has(4, "Cant authorize user: 'bob & co'"));
    EXPECT_EQ(SessionFrom({Auth("admin-session"), kKeyTaken, kRefused}), "");
    EXPECT_TRUE(log_.Has(4, "User auth node empty"));
    EXPECT_EQ(Failure([&] { SessionFrom({{Answer("502 Bad Gateway", "<html>")}}); }),
              "panel bad_answer");
    EXPECT_EQ(Failure([&] { Authorize("http://127.0.0.1:1", "root", kPassword, "bob"); }),
              "network 127.0.0.1");
}

TEST_F(Panels, TheAnswerIsAStatus) {
    const std::pair<const char*, const char*> cases[] = {
        {"ok", "ok"}, {"", "ERR "}, {"OK", "ERR OK"}, {"a < b & c", "ERR a < b & c"}};
    for (const auto& [result, want] : cases) {
        const std::string answer = DecorateAnswer(result);
        EXPECT_EQ(vel_xml::Xml::FromString(answer).GetNode("/doc/status").Str(), want);
    }
}

TEST_F(Panels, APasswordFitsTheBackupItWasMadeWith) {
    const BackupToken token("type=local;arch_password=" + str::base64::Encode("secret"));
    const std::string hash = "key_hash=" + token.Hash() + "\n";
    const std::string admin = "var/backup/qorvel/bob/2024-01-31/2024-01-31.bob.info",
                      own = "var/backup/qorvel.private/bob/2024-01-31/2024-01-31.bob.info";
    const auto check = [&](const BackupToken& offered, bool is_own) {
        return Failure([&] { CheckPassword(offered, "bob", "2024-01-31", is_own); });
    };
    const BackupToken other("type=local;arch_password=" + str::base64::Encode("other")), none("");
    MakeFile(admin, hash);
    EXPECT_EQ(check(token, false), "none");
    EXPECT_EQ(check(other, false), "backup2_invalid_password");
    EXPECT_EQ(check(none, false), "backup2_invalid_password");
    EXPECT_EQ(check(token, true), "sys open");  // there is no copy
    MakeFile(own, "type=full\n");
    EXPECT_EQ(check(other, true), "none");
    MakeFile(own, "key_hash=\n");
    EXPECT_EQ(check(none, true), "none");
    EXPECT_EQ(check(token, true), "backup2_invalid_password");
}

TEST_F(Panels, OnlyTheExactTextIsAWrongPassword) {
    const std::pair<const char*, const char*> cases[] = {
        {"Type: 'backup2_invalid_password'", "backup2_invalid_password"},
        {"backup2_invalid_password", "backup2_create_download"},
        {"Type: 'backup2_invalid_password' ", "backup2_create_download"},
        {"", "backup2_create_download"},
    };
    for (const auto& [what, want] : cases) {
        const std::map<std::string, std::string> page = {
            {"func", "backup2.download"}, {"sok", "ok"}, {"out", "html"}, {"error_type", want}};
        EXPECT_EQ(FillDownloadError(what), page) << what;
    }
}

// ---- Fetching from another panel ----------------------------------------------------------------

/// A log-in, the answer to the check, another log-in, the download.
std::vector<EvilAnswer> Dialogue(const EvilAnswer& check, const EvilAnswer& download) {
    return {Auth("admin-session"), kKeyTaken, Auth("first-session"),   check,
            Auth("admin-session"), kKeyTaken, Auth("second-session&"), download};
}

TEST_F(Panels, TheCheckIsOnlyAnAdvice) {
    const std::pair<EvilAnswer, const char*> checks[] = {
        {Doc("<status>ok</status>"), nullptr},
        {Doc("<status>ERR no backup</status>"), "Remote call cgi return error: 'ERR no backup'"},
        {{Answer("500 Oops", "<doc><status>ERR </status></doc>")},
         "Remote call cgi return error: 'ERR '"},
        {{Answer("404 Not Found", "<html><p>")}, "Remote panel has old version"},
        {{Answer("200 OK", "")}, "Remote panel has old version"},
        {Doc("<error type=\"func\"/>"), "Remote panel has old version"},
        {{Answer("200 OK", std::string(1025, ' '))}, "Remote call cgi failed: '"},
        {{"", End::Rst}, "Remote call cgi failed: '"},
    };
    for (const auto& [check, line] : checks) {
        SCOPED_TRACE(check.bytes);
        const LogCapture log;
        const EvilServer server(Dialogue(check, {Answer("200 OK", "an archive")}));
        EXPECT_TRUE(FetchRemoteManager(server.Url() + "/a/path", "root", kPassword, "bob", "file"));
        EXPECT_EQ(ReadFile("file"), "an archive");
        EXPECT_EQ(log.Events().size(), line ? 1U : 0U);
        EXPECT_TRUE(!line || log.Mentions(line));
        const auto requests = server.Requests();
        ASSERT_EQ(requests.size(), 8U);
        EXPECT_TRUE(requests[3].starts_with("POST /velcgi/backup2_download HTTP/1.1\r\n"));
        EXPECT_EQ(BodyOf(requests[3]), "nodownload=on&auth=first-session");
        EXPECT_TRUE(requests[7].starts_with(
            "GET /velcgi/backup2_download?auth=second-session& HTTP/1.1\r\n"))
            << requests[7];
    }
}

TEST_F(Panels, AFailedDownloadLeavesNothing) {
    const auto fetch = [](const std::vector<EvilAnswer>& answers) {
        const EvilServer server(answers);
        bool fetched = true;
        const std::string failure = Failure(
            [&] { fetched = FetchRemoteManager(server.Url(), "root", kPassword, "bob", "file"); });
        EXPECT_FALSE(fs::exists("file"));
        return failure == "none" && !fetched ? "refused" : failure;
    };
    const EvilAnswer ok = Doc("<status>ok</status>");
    const std::string failed = "backup2_admin_import fetch_failed";
    EXPECT_EQ(fetch({kRefused}), "refused");
    auto second_refused = Dialogue(ok, kRefused);
    second_refused[4] = kRefused;
    EXPECT_EQ(fetch(second_refused), "refused");
    EXPECT_EQ(fetch(Dialogue(ok, {Answer("404 Not Found", "none")})), failed);
    const std::string whole = Answer("200 OK", "an archive");
    EXPECT_EQ(fetch(Dialogue(ok, {whole.substr(0, whole.size() - 1)})), failed);
    EXPECT_EQ(fetch(Dialogue(ok, {Answer("302 Found", "", "Location: http://localhost:1/\r\n")})),
              failed);
}

}  // namespace
}  // namespace backup2
