/// The clients of Dropbox, Google Drive and Yandex Disk, against servers that speak the providers'
/// protocols strictly: what a client does against the protocol fails the test, whatever comes of
/// it.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "vel/str.h"
#include "vel/vel_err.h"
#include "vel/vel_hash.h"
#include "vel/vel_rpc/detail/oauth.h"
#include "vel/vel_rpc/dropbox.h"
#include "vel/vel_rpc/google_drive.h"
#include "vel/vel_rpc/yandex.h"

#include "tests/support/evil_server.h"
#include "tests/support/server.h"
#include "tests/support/support.h"
#include "tests/vel/fixtures.h"

namespace {

using nlohmann::json;
using Names = std::vector<std::string>;

constexpr std::size_t kMiB = 1 << 20;
constexpr std::size_t kTwoChunks = 16 * kMiB + 5, kThreeChunks = 32 * kMiB + 5;

/// A prepared answer; "@" is where the server is that takes or gives bytes.
struct Prepared {
    std::string status, body = "", headers = "";
};

/// A provider, and how it deviates from the others.
struct Row {
    std::string server, service;
    int busy_status;     // of the provider's own, besides 429 and 5xx
    bool resumes;        // an upload that broke off goes on
    bool folds_case;     // names are compared without case
    bool turns_refresh;  // a refresh ends the old refresh token
    std::string upload;  // matches the requests that carry bytes of long files
    std::size_t size;    // of a file that makes the client send all of these
    Names steps;         // match each kind of request
    /// The answers up to the upload of one file whose bytes the service damages, and then.
    std::vector<Prepared> liar;
    std::string removal;  // the request that must come last then
    std::vector<Prepared> before_download;
    std::function<std::unique_ptr<vel_rpc::Cloud>(const std::string& credential)> open = {};
    std::function<std::string(vel_rpc::Cloud&)> credential = {};
};

template <class Client>
Row Make(Row row) {
    row.open = [](const std::string& credential) { return std::make_unique<Client>(credential); };
    row.credential = [](vel_rpc::Cloud& cloud) { return static_cast<Client&>(cloud).Credential(); };
    return row;
}

// clang-format off
Row DropboxRow() {
    return Make<vel_rpc::Dropbox>(
        {"dropbox", "Dropbox", 409, true, true, false, "upload_session", kThreeChunks,
         {"upload_session/start", "upload_session/append_v2", "upload_session/finish",
          "files/upload$", "get_metadata", "download", "list_folder$", "continue", "delete_v2",
          "create_folder"},
         {{"200 OK", R"({"size":5,"content_hash":"00"})"},
          {"200 OK", R"({".tag":"file","name":"x"})"}, {"200 OK", "{}"}},
         "POST /2/files/delete_v2", {}});
}

Row GoogleDriveRow() {
    return Make<vel_rpc::GoogleDrive>(
        {"google_drive", "Google Drive", 403, true, false, false, "upload_id", kTwoChunks,
         {"uploadType=resumable&fields", "upload_id", "uploadType=multipart", "files.q=",
          "alt=media", R"(v3/files/[^?"]*$)", "v3/files.fields=id$"},
         {{"200 OK", R"({"files":[]})"}, {"200 OK", "", "Location: @/session\r\n"},
          {"204 No Content"}},
         "DELETE /drive/v3/files/X",
         {{"200 OK", R"({"files":[{"id":"d","name":"x","mimeType":"m"}]})"},
          {"302 Found", "", "Location: @/there\r\n"}}});
}

Row YandexRow() {
    return Make<vel_rpc::Yandex>(
        {"yandex", "Yandex Disk", 423, false, false, true, "upload-target", 5,
         {"resources/upload", "upload-target", "resources/move", "resources/download",
          "disk/[0-9a-f]", "operations", "fields=type", "permanently", "path=disk%3A%2Ff%2Fg$"},
         {{"200 OK", R"({"href":"@/up"})"}, {"200 OK", R"({"size":5,"md5":"00"})"},
          {"204 No Content"}},
         "DELETE /v1/disk/resources", {{"200 OK", R"({"href":"@/there"})"}}});
}
// clang-format on

const auto kRows = testing::Values(DropboxRow(), GoogleDriveRow(), YandexRow());
constexpr auto kNameOf = [](const testing::TestParamInfo<Row>& row) { return row.param.server; };

std::string Sha256(const std::string& bytes) {
    vel_hash::Hash hash(vel_hash::HashType::Sha256);
    hash.Update(bytes);
    return str::hex::Encode(hash.Str());
}

int Put(vel_rpc::Cloud& cloud, const std::string& path, const std::string& bytes) {
    std::istringstream in(bytes);
    return cloud.Put(path, in, "");
}

std::string Get(vel_rpc::Cloud& cloud, const std::string& path) {
    std::ostringstream out;
    cloud.Get(path, out);
    return out.str();
}

Names List(vel_rpc::Cloud& cloud, const std::string& path) {
    Names names;
    cloud.List(path, names);
    std::sort(names.begin(), names.end());
    return names;
}

/// "unauthorized", "storage|missed", "network|Dropbox"...: without the words.
template <class Call>
std::string Kind(const Call& call) {
    const std::string failure = Failure(call);
    return failure.substr(0, failure.rfind('|'));
}

/// Every operation once, in a folder of its own; what went wrong, or "".
std::string Life(vel_rpc::Cloud& cloud, const std::string& bytes) {
    try {
        cloud.MkPath("/f/g");
        if (Put(cloud, "/f/g/a.tgz", bytes) != 201) return "Put";
        for (const char* name : {"b", "c"}) {
            if (Put(cloud, std::string("/f/g/") + name, "") != 201) return "Put of nothing";
        }
        if (List(cloud, "/f/g/") != Names{"a.tgz", "b", "c"}) return "List";
        if (List(cloud, "/f/g/b") != Names{"b"}) return "List of a file";
        if (Get(cloud, "/f/g/a.tgz") != bytes) return "Get";
        cloud.Delete("/f/g/b");
        if (List(cloud, "/f/g/") != Names{"a.tgz", "c"}) return "Delete";
        cloud.RmDir("/f");
        return List(cloud, "/").empty() ? "" : "RmDir";
    } catch (const vel_err::Error& e) {
        return e.what();
    }
}

class CloudClient : public testing::TestWithParam<Row> {
protected:
    void TearDown() override { EXPECT_EQ(State()["violations"], json::array()); }

    json Ask(const std::string& method, const std::string& body, const std::string& url,
             const std::vector<std::string>& headers = {}) {
        vel_rpc::detail::Http http("test");
        vel_rpc::detail::Request request;
        std::ostringstream answer;
        request.method = method;
        request.url = url;
        request.headers = headers;
        request.body = body;
        request.sink = &answer;
        EXPECT_EQ(http.Send(request).status, 200) << body;
        return json::parse(answer.str());
    }
    void Control(std::initializer_list<std::pair<const char*, json>> commands) {
        json all;
        for (const auto& [name, value] : commands) all[name] = value;
        Ask("POST", all.dump(), server_["control"]);
    }
    json State() { return Ask("GET", "", server_["control"]); }
    /// path -> SHA-256
    std::map<std::string, std::string> Stored() {
        std::map<std::string, std::string> stored;
        const json state = State();
        for (const auto& [path, file] : state["files"].items()) stored[path] = file[1];
        return stored;
    }
    /// What a server holds whose only file is /x.
    static std::map<std::string, std::string> OnlyX(const std::string& bytes) {
        return {{"/x", Sha256(bytes)}};
    }
    std::unique_ptr<vel_rpc::Cloud> Open() {
        json members;
        for (const char* name :
             {"api", "access_token", "refresh_token", "client_id", "client_secret"}) {
            members[name] = server_[name];
        }
        return GetParam().open(str::base64::Encode(members.dump()));
    }

    FdCheck fds_;
    EnvGuard retry_{"BACKUP2_RETRY_MS", "1"};
    Server server_{GetParam().server};
    std::unique_ptr<vel_rpc::Cloud> cloud_ = Open();
};

INSTANTIATE_TEST_SUITE_P(Clouds, CloudClient, kRows, kNameOf);

TEST_P(CloudClient, StoresEverySizeAndReplacesIt) {
    for (const std::size_t size : {std::size_t{0}, 16 * kMiB, 16 * kMiB + 1, kThreeChunks}) {
        SCOPED_TRACE(size);
        const std::string bytes = RandomBytes(size, 1), name = "/made/with parents/x.tgz";
        ASSERT_EQ(Put(*cloud_, name, bytes), 201);
        EXPECT_EQ(Stored(), (std::map<std::string, std::string>{{name, Sha256(bytes)}}));
        EXPECT_TRUE(Get(*cloud_, "made//with parents/x.tgz") == bytes);
    }
    EXPECT_EQ(State()["open_uploads"], 0);
    EXPECT_EQ(State().value("slow_names", json::array()), json::array());
}

TEST_P(CloudClient, SearchesAndListsNamesOfEveryKind) {
    Names names = {"\"q\"", "'", "100%", "a+b&c=d#e?f", "b\\c", "x:y;z", std::string(250, 'n')};
    for (const std::string& name : names) ASSERT_EQ(Put(*cloud_, "/d/" + name, name), 201) << name;
    EXPECT_EQ(List(*cloud_, "/d/"), (std::sort(names.begin(), names.end()), names));
    for (const std::string& name : names) {
        EXPECT_EQ(List(*cloud_, "/d/" + name), Names{name});
        cloud_->Delete("/d/" + name);
    }
    EXPECT_TRUE(Stored().empty());  // nor in a bin
    const json before = State()["requests"];
    for (const std::string& name : Names{"\xff", std::string("a\0b", 3), ".."}) {
        EXPECT_EQ(Kind([&] { Put(*cloud_, "/d/" + name, "x"); }), "storage|refused");
        EXPECT_EQ(Kind([&] { List(*cloud_, "/d/" + name + "/"); }), "storage|refused");
    }
    EXPECT_EQ(State()["requests"], before);
}

TEST_P(CloudClient, TellsFilesFoldersAndNothingApart) {
    for (int twice = 0; twice < 2; ++twice) cloud_->MkPath("/a/b/c");
    ASSERT_EQ(Put(*cloud_, "/a/file", "1"), 201);
    EXPECT_EQ(List(*cloud_, "/a/"), (Names{"b", "file"}));
    EXPECT_EQ(List(*cloud_, ""), Names{"a"});
    for (const char* nothing : {"/a/b/c/", "/a/b", "/none", "/none/", "/none/x"}) {
        EXPECT_EQ(List(*cloud_, nothing), Names{}) << nothing;
    }
    EXPECT_EQ(List(*cloud_, "/A/FILE"), GetParam().folds_case ? Names{"file"} : Names{});
    EXPECT_EQ(Kind([&] { cloud_->Delete("/none"); }), "storage|missed");
    EXPECT_EQ(Kind([&] { Get(*cloud_, "/none"); }), "storage|missed");
    EXPECT_NE(Kind([&] { cloud_->Delete("/a"); }), "none");
    EXPECT_EQ(Kind([&] { cloud_->RmDir("/"); }), "storage|refused");
    EXPECT_EQ(List(*cloud_, "/a/"), (Names{"b", "file"}));
    for (int twice = 0; twice < 2; ++twice) cloud_->RmDir("/a/b/");
    EXPECT_EQ(List(*cloud_, "/a/"), Names{"file"});
}

TEST_P(CloudClient, RefreshesTokensThatEndAndTellsDeadOnes) {
    const auto& row = GetParam();
    Control({{"expire", true}});
    EXPECT_EQ(Life(*cloud_, "x"), "");
    EXPECT_EQ(State()["refreshes"], 1);
    Control({{"fail", {{"path", row.steps[0]}, {"status", 401}}}});
    EXPECT_EQ(Life(*cloud_, RandomBytes(row.resumes ? kTwoChunks : 1, 2)), "");
    EXPECT_EQ(State()["refreshes"], 2);
    EXPECT_EQ(Life(*row.open(row.credential(*cloud_)), "kept"), "");
    Control({{"expire", true}});
    EXPECT_EQ(Life(*Open(), "first credential") == "", !row.turns_refresh);

    cloud_ = row.open(row.credential(*cloud_));
    Control({{"revoke", true}});
    EXPECT_EQ(Put(*cloud_, "/x", "x"), 401);
    EXPECT_EQ(Kind([&] { List(*cloud_, "/"); }), "unauthorized|" + row.service);
    EXPECT_EQ(Kind([&] { cloud_->MkPath("/m"); }), "unauthorized|" + row.service);
}

TEST_P(CloudClient, GivesTheTokenBackAndForgetsIt) {
    cloud_->DropToken();
    EXPECT_EQ(Kind([&] { List(*cloud_, "/"); }), "unauthorized|" + GetParam().service);
    EXPECT_EQ(Put(*cloud_, "/x", "x"), 401);
    EXPECT_EQ(Put(*Open(), "/x", "x"), 401);  // nobody else may use it either
}

TEST_P(CloudClient, WorksOnWhenOneAnswerOfAnyKindFails) {
    const std::string bytes = RandomBytes(kThreeChunks, 3);
    for (const std::string& step : GetParam().steps) {
        const bool is_long = std::regex_search(step, std::regex(GetParam().upload));
        const std::string in_json = str::Replace(step, "$", "\"");
        const json busy{{"path", step}, {"status", GetParam().busy_status}};
        const json late{{"path", step}, {"status", 503}, {"after", true}};
        const json cut{{"path", step}, {"after", 0}, {"how", "rst"}};
        for (const auto& [kind, fault] : {std::pair{"fail", busy}, {"fail", late}, {"cut", cut}}) {
            SCOPED_TRACE(fault.dump());
            Control({{"reset", true}});
            Control({{kind, fault}});
            EXPECT_EQ(Life(*Open(), bytes.substr(0, is_long ? GetParam().size : 5)), "");
            EXPECT_TRUE(std::regex_search(State()["requests"].dump(), std::regex(in_json)));
        }
    }
    Control({{"rate_limit", 3}, {"retry_after", 0}});
    EXPECT_EQ(Life(*cloud_, "x"), "");
}

TEST_P(CloudClient, GoesOnWithOrGivesUpAnUploadThatBreaksOff) {
    const auto& row = GetParam();
    const std::string bytes = RandomBytes(kTwoChunks, 4);
    ASSERT_EQ(Put(*cloud_, "/x", "old"), 201);
    const std::size_t last = row.resumes ? 16 * kMiB - 1 : kTwoChunks - 1;  // of a request
    for (const auto& [how, after] : {std::pair{"fin", std::size_t{0}},
                                     {"rst", 8 * kMiB + 7},
                                     {"fin", 8 * kMiB + 7},
                                     {"rst", last}}) {
        SCOPED_TRACE(how + std::to_string(after));
        Control({{"cut", {{"path", row.upload}, {"after", after}, {"how", how}}}});
        const std::string kind = Kind([&] { EXPECT_EQ(Put(*cloud_, "/x", bytes), 201); });
        EXPECT_EQ(kind, row.resumes ? "none" : "network|" + row.service);
        EXPECT_EQ(Stored(), OnlyX(row.resumes ? bytes : "old"));
    }
    const auto before = Stored();
    Control({{"cut", {{"path", row.upload}, {"after", 70000}, {"how", "rst"}, {"times", 1000}}}});
    EXPECT_EQ(Kind([&] { Put(*cloud_, "/x", bytes + "more"); }), "network|" + row.service);
    EXPECT_EQ(Stored(), before);
}

TEST_P(CloudClient, LeavesTheOldFileWhenThereIsNoRoom) {
    ASSERT_EQ(Put(*cloud_, "/x", "old"), 201);
    for (const std::size_t size : {2 * kMiB, kTwoChunks}) {  // the second chunk is one too much
        Control({{"quota", size - 1}});
        EXPECT_EQ(Put(*cloud_, "/x", RandomBytes(size, 5)), 507) << size;
        EXPECT_EQ(Stored(), OnlyX("old"));
    }
}

TEST_P(CloudClient, StoresNothingOfASourceThatBreaks) {
    struct Broken : std::stringbuf {
        using std::stringbuf::stringbuf;
        int_type underflow() override { throw std::runtime_error("the archiver failed"); }
    };
    for (const std::size_t size : {std::size_t{1}, kTwoChunks}) {
        Broken bytes(std::string(size, 'x'), std::ios::in);
        std::istream in(&bytes);
        EXPECT_NE(Kind([&] { cloud_->Put("/x", in, ""); }), "none");
        EXPECT_TRUE(Stored().empty());
    }
}

TEST_P(CloudClient, HandsNoEvilNameOnAndEndsEveryListing) {
    for (const std::string& name :
         Names{"", ".", "..", "../x", "/etc/passwd", std::string("a\0b", 3)}) {
        Control({{"names", json::array({"good", name})}});
        const std::string failure = Failure([&] { EXPECT_EQ(List(*cloud_, "/"), Names{}); });
        EXPECT_TRUE(str::StartsWith(failure, "storage|refused|" + GetParam().service)) << failure;
    }
    Control({{"names", json::array({std::string(300, 'n')})}});
    EXPECT_EQ(List(*cloud_, "/"), Names{std::string(300, 'n')});
    Control({{"names", json::array({"one", "two"})}, {"endless", true}});
    EXPECT_EQ(Kind([&] { List(*cloud_, "/"); }), "storage|refused");
}

#if defined(__has_feature)
constexpr bool kSanitized = __has_feature(address_sanitizer);  // keeps what is given free
#else
constexpr bool kSanitized = false;
#endif

TEST_P(CloudClient, NeedsLittleMemoryForABigFile) {
    struct Zeros : std::streambuf {  // 128 MiB, and counts what it is given
        int_type underflow() override {
            if (left-- == 0) return traits_type::eof();
            setg(block.data(), block.data(), block.data() + block.size());
            return 0;
        }
        std::streamsize xsputn(const char*, std::streamsize size) override {
            return count += size, size;
        }
        std::string block = std::string(kMiB, '\0');
        std::streamsize left = 128, count = 0;
    };
    const pid_t child = ::fork();
    if (child == 0) {
        Zeros zeros;
        std::iostream stream(&zeros);
        const bool stored = cloud_->Put("/big", stream, "") == 201;
        stream.clear();
        cloud_->Get("/big", stream);
        ::_exit(stored && zeros.count == std::streamsize{128} << 20 ? 0 : 1);
    }
    int status = -1;
    rusage usage{};
    ASSERT_EQ(::wait4(child, &status, 0, &usage), child);
    EXPECT_EQ(status, 0);
    EXPECT_LT(usage.ru_maxrss, (kSanitized ? 512 : 96) << 10);  // KiB
}

/// Of a service whose answers are prepared.
class CloudAnswers : public testing::TestWithParam<Row> {
protected:
    static std::vector<EvilAnswer> At(const std::string& url, const std::vector<Prepared>& all) {
        std::vector<EvilAnswer> result;
        for (const Prepared& answer : all) {
            result.push_back({Answer(answer.status, str::Replace(answer.body, "@", url),
                                     str::Replace(answer.headers, "@", url))});
        }
        return result;
    }
    static std::unique_ptr<vel_rpc::Cloud> Open(const EvilServer& api) {
        return GetParam().open(str::base64::Encode(json{
            {"api", api.Url()},
            {"access_token", "SECRET"},
            {"refresh_token", "SECRET2"}}.dump()));
    }

    EnvGuard retry_{"BACKUP2_RETRY_MS", "1"};
};

INSTANTIATE_TEST_SUITE_P(Clouds, CloudAnswers, kRows, kNameOf);

TEST_P(CloudAnswers, OfStoredBytesThatDifferAreFoundAndTheFileRemoved) {
    EvilServer bytes({{Answer("200 OK", R"({"id":"X","size":"5","md5Checksum":"00"})")}});
    EvilServer api(At(bytes.Url(), GetParam().liar));
    EXPECT_EQ(Kind([&] { Put(*Open(api), "/x", "bytes"); }), "storage|refused");
    EXPECT_TRUE(str::StartsWith(api.Requests().back(), GetParam().removal))
        << api.Requests().back();
}

TEST_P(CloudAnswers, OfTheWrongShapeAreErrorsThatNameTheService) {
    const std::string deep(100000, '[');
    for (const std::string& body :
         Names{"", "{", "null", "[]", "5", "{\"a\":\"\xff\"}", deep, "{\"x\":" + deep,
               std::string(5 * kMiB, ' '),
               R"({"files":[{"id":1}],"entries":[5],"type":"dir","_embedded":[]})",
               R"({"files":{},"entries":{},"type":7,"_embedded":{"items":{},"total":-1}})"}) {
        SCOPED_TRACE(body.substr(0, 60));
        EvilServer api({{Answer("200 OK", body)}});
        const auto cloud = Open(api);
        for (const std::string& failure :
             {Failure([&] { List(*cloud, "/"); }), Failure([&] { Put(*cloud, "/x", "x"); })}) {
            EXPECT_TRUE(str::StartsWith(failure, "storage|refused|" + GetParam().service))
                << failure;
        }
    }
}

TEST_P(CloudAnswers, ThatQuoteTheTokenDoNotBringItIntoTheError) {
    for (const char* status : {"400 Bad Request", "401 Unauthorized", "409 Conflict"}) {
        EvilServer api({{Answer(status, R"({"error":"SECRET","message":"no SECRET2"})")}});
        const auto cloud = Open(api);
        const std::string failure = Failure([&] { cloud->MkPath("/x"); });
        EXPECT_NE(failure, "none");
        EXPECT_EQ(failure.find("SECRET"), std::string::npos) << failure;
    }
}

TEST_P(CloudAnswers, ThatPointElsewhereNeverTakeTheTokenAlong) {
    if (GetParam().before_download.empty()) return;  // the bytes come with the first answer
    const auto get = [](const std::string& where) {
        EvilServer api(At(where, GetParam().before_download));
        std::string bytes;
        const std::string kind = Kind([&] { bytes = Get(*Open(api), "/x"); });
        return kind + " " + bytes;
    };
    EvilServer other({{Answer("200 OK", "elsewhere")}});
    EXPECT_EQ(get(other.Url()), "none elsewhere");
    ASSERT_EQ(other.Requests().size(), 1u);
    EXPECT_EQ(other.Requests()[0].find("Authorization"), std::string::npos);
    for (const char* target : {"file:///etc/passwd", "//evil/x", "ftp://evil/x", "gopher:x", ""}) {
        EXPECT_EQ(get(target), "storage|refused ") << target;
    }
    EvilServer endless({{"HTTP/1.1 200 OK\r\n\r\nhalf"}});
    EXPECT_EQ(get(endless.Url()), "storage|refused ") << "nobody can tell whether that is all";
    EvilServer circle({{Answer("302 Found", "", "Location: /again\r\n")}});
    EXPECT_EQ(get(circle.Url()), "storage|refused ");
    EXPECT_LE(circle.Requests().size(), 6u);
}

TEST(CloudAccount, LeavesHttpsOnlyForHttps) {
    const vel_rpc::detail::Account account({"S", "Bearer", {}, "", &vel_rpc::detail::JudgeStatus},
                                           str::base64::Encode("{}"));
    const auto taken = [&](const char* from, const char* to) {
        return Kind([&] { account.CheckTarget("get", from, to); }) == "none";
    };
    for (const char* to : {"https://b/x", "HTTPS://b/"}) EXPECT_TRUE(taken("https://a/", to));
    for (const char* to : {"http://b/", "https://b/"}) EXPECT_TRUE(taken("http://a/", to));
    for (const char* to : {"http://a/", "", "file:///x", "https:b", "https://b/\r\nX: y"}) {
        EXPECT_FALSE(taken("https://a/", to)) << to;
    }
}

class GoogleDriveOnly : public CloudClient {
protected:
    /// Makes one more item, as another machine may do at the same time; its id.
    std::string Add(const std::string& name, const std::string& folder, bool is_folder) {
        const json item{
            {"name", name},
            {"parents", json::array({folder})},
            {"mimeType", is_folder ? "application/vnd.google-apps.folder" : "text/plain"}};
        return Ask("POST", item.dump(), server_["api"] + "/drive/v3/files",
                   {"Authorization: Bearer " + server_["access_token"],
                    "Content-Type: application/json"})["id"];
    }
};

INSTANTIATE_TEST_SUITE_P(Clouds, GoogleDriveOnly, testing::Values(GoogleDriveRow()), kNameOf);

TEST_P(GoogleDriveOnly, NamesMayExistTwice) {
    const std::string first = Add("d", "root", true), second = Add("d", "root", true);
    Add("x", first, false), Add("x", second, false), Add("y", second, false);
    EXPECT_EQ(List(*cloud_, "/d/"), (Names{"x", "y"}));
    ASSERT_EQ(Put(*cloud_, "/d/x", "new"), 201);
    EXPECT_EQ(Get(*cloud_, "/d/x"), "new");
    EXPECT_EQ(Stored().size(), 2u);  // the new x, and y
    Add("y", first, false);
    cloud_->Delete("/d/y");
    EXPECT_EQ(List(*cloud_, "/d/"), Names{"x"});
    cloud_->RmDir("/d");
    EXPECT_EQ(State()["folders"], json::array());
}

TEST_P(GoogleDriveOnly, FoldersThatSomebodyElseReplacedAreFoundAgain) {
    cloud_->MkPath("/d/e");
    Open()->RmDir("/d");
    Put(*Open(), "/d/e/new", "1");
    EXPECT_EQ(List(*cloud_, "/d/e/"), Names{"new"});
    Open()->RmDir("/d");
    EXPECT_EQ(Put(*cloud_, "/d/e/own", "2"), 201);
    EXPECT_EQ(Get(*cloud_, "/d/e/own"), "2");
}

class YandexOnly : public CloudClient {};

INSTANTIATE_TEST_SUITE_P(Clouds, YandexOnly, testing::Values(YandexRow()), kNameOf);

TEST_P(YandexOnly, WhatTheServiceDoesLaterIsWaitedFor) {
    Control({{"always_async", true}, {"slow", 3}});
    EXPECT_EQ(Life(*cloud_, "x"), "");
    ASSERT_EQ(Put(*cloud_, "/x", "old"), 201);
    Control({{"always_async", true}, {"fail_operation", true}});
    EXPECT_EQ(Kind([&] { Put(*cloud_, "/x", "new"); }), "storage|refused");
    EXPECT_EQ(Stored(), OnlyX("old"));
}

vel_rpc::Dropbox DropboxAt(const EvilServer& api) {
    return vel_rpc::Dropbox(
        str::base64::Encode(json{{"api", api.Url()}, {"access_token", "T"}}.dump()));
}

TEST(DropboxOnly, AListingThatWasResetBeginsAgain) {
    const auto page = [](const std::string& name, const char* more) {
        return EvilAnswer{Answer("200 OK", R"({"entries":[{".tag":"file","name":")" + name +
                                               R"("}],"cursor":"c","has_more":)" + more + "}")};
    };
    EvilServer api(
        {page("gone", "true"),
         {Answer("409 Conflict", R"({"error_summary":"reset/.","error":{".tag":"reset"}})")},
         page("there", "true"),
         page("too", "false")});
    vel_rpc::Dropbox cloud = DropboxAt(api);
    EXPECT_EQ(List(cloud, "/"), (Names{"there", "too"}));
}

TEST(DropboxOnly, AnUploadGoesOnWithinAChunk) {
    const std::string bytes = RandomBytes(16 * kMiB + 10, 7), rest = bytes.substr(16 * kMiB + 4);
    EvilServer api(
        {{Answer("200 OK", R"({"session_id":"s"})")},
         {Answer("409 Conflict", R"({"error":{".tag":"lookup_failed","lookup_failed":)"
                                 R"({".tag":"incorrect_offset","correct_offset":16777220}}})")},
         {Answer("400 Bad Request")}});
    vel_rpc::Dropbox cloud = DropboxAt(api);
    EXPECT_EQ(Kind([&] { Put(cloud, "/x", bytes); }), "storage|refused");
    const std::string last = api.Requests().back();
    EXPECT_TRUE(str::EndsWith(last, "\r\n\r\n" + rest));
    EXPECT_NE(last.find(R"("offset":16777220)"), std::string::npos);
    EXPECT_NE(last.find(Sha256(str::hex::Decode(Sha256(rest)))), std::string::npos);
}

}  // namespace
