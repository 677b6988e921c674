/// Answers that lie, and what each of the clients does by itself.
#include <string>

#include "vel/str.h"
#include "vel/vel_err.h"
#include "vel/vel_rpc/detail/cloud_parts.h"
#include "vel/vel_rpc/detail/oauth.h"
#include "vel/vel_rpc/dropbox.h"

#include "tests/support/evil_server.h"
#include "tests/vel/clouds.h"

namespace clouds {
namespace {

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
        return GetParam().open(str::base64::Encode(
            R"({"access_token":"SECRET","refresh_token":"SECRET2","api":")" + api.Url() + "\"}"));
    }

    EnvGuard retry_{"BACKUP2_RETRY_MS", "1"};
};

INSTANTIATE_TEST_SUITE_P(Clouds, CloudAnswers, AllRows(), NameOf);

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
        const std::string type = is_folder ? "application/vnd.google-apps.folder" : "text/plain";
        const std::string item = R"({"name":")" + name + R"(","parents":[")" + folder +
                                 R"("],"mimeType":")" + type + "\"}";
        const std::string id = Ask(
            "POST", item, server_["api"] + "/drive/v3/files",
            {"Authorization: Bearer " + server_["access_token"], "Content-Type: application/json"},
            "id");
        return id.substr(1, id.size() - 2);
    }
};

INSTANTIATE_TEST_SUITE_P(Clouds, GoogleDriveOnly, testing::Values(GoogleDriveRow()), NameOf);

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
    EXPECT_EQ(State("folders"), "[]");
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

INSTANTIATE_TEST_SUITE_P(Clouds, YandexOnly, testing::Values(YandexRow()), NameOf);

TEST_P(YandexOnly, WhatTheServiceDoesLaterIsWaitedFor) {
    Control(R"({"always_async":true,"slow":3})");
    EXPECT_EQ(Life(*cloud_, "x"), "");
    ASSERT_EQ(Put(*cloud_, "/x", "old"), 201);
    Control(R"({"always_async":true,"fail_operation":true})");
    EXPECT_EQ(Kind([&] { Put(*cloud_, "/x", "new"); }), "storage|refused");
    EXPECT_EQ(Stored(), OnlyX("old"));
}

TEST_P(YandexOnly, WhatKilledUploadsLeftIsSweptAndNothingElse) {
    const std::string left = "backup2-upload-0123456789abcdef";
    for (const char* name : {"/a/b/c/", "/a/", "/other/"}) {
        ASSERT_EQ(Put(*cloud_, name + left, "half"), 201);
        ASSERT_EQ(Put(*cloud_, name + ("x" + left), "a name of the user's"), 201);
    }
    cloud_->MkPath("/a/" + left + "0");
    EXPECT_EQ(cloud_->AbortStale("/a/", 1), 0) << "they are young";
    EXPECT_EQ(cloud_->AbortStale("/none/", -1), 0);
    EXPECT_EQ(cloud_->AbortStale("/a/", -1), 2);
    EXPECT_EQ(List(*cloud_, "/a/b/c/"), Names{"x" + left});
    EXPECT_EQ(List(*cloud_, "/other/").size(), 2u);
}

TEST(CloudParts, TimesOfEveryProvider) {
    const auto time = [](const char* iso) {
        std::time_t seconds = 0;
        const std::string failure =
            Failure([&] { seconds = vel_rpc::detail::TimeOf("S", "list", iso); });
        return failure == "none" ? std::to_string(seconds) : failure;
    };
    for (const char* iso : {"2024-01-31T12:00:00Z", "2024-01-31T12:00:00.123Z",
                            "2024-01-31T12:00:00", "2024-01-31T15:00:00+03:00"}) {
        EXPECT_EQ(time(iso), "1706702400") << iso;
    }
    for (const char* iso : {"", "yesterday", "2024-01-31", "2024-01-31T12:00:00 x"}) {
        EXPECT_EQ(time(iso), std::string("storage|refused|S: list: not a time: \"") + iso + "\"");
    }
}

vel_rpc::Dropbox DropboxAt(const EvilServer& api) {
    return vel_rpc::Dropbox(
        str::base64::Encode(R"({"access_token":"T","api":")" + api.Url() + "\"}"));
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
}  // namespace clouds
