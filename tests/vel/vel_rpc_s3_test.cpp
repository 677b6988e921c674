#include <signal.h>

#include <sstream>

#include <gtest/gtest.h>

#include "vel/str.h"
#include "vel/vel_hash.h"
#include "vel/vel_rpc/detail/s3_upload.h"
#include "vel/vel_rpc/s3.h"

#include "tests/support/evil_server.h"
#include "tests/support/server.h"
#include "tests/support/support.h"
#include "tests/vel/fixtures.h"

namespace {

using vel_rpc::S3;
using Names = std::vector<std::string>;

constexpr std::size_t kMiB = 1 << 20;
constexpr int kNow = -1;  // hours: servers round the time of a beginning up

/// A credential like that of `server`, with members replaced or added.
std::string Credential(Server& server, const std::map<std::string, std::string>& other = {}) {
    std::map<std::string, std::string> members = {{"part_size", "5"}, {"path_style", "yes"}};
    for (const char* name : {"endpoint", "region", "bucket", "access_key", "secret_key"}) {
        members[name] = server[name];
    }
    for (const auto& [name, value] : other) members[name] = value;
    std::string json;
    for (const auto& [name, value] : members) {
        str::Append(json, "\"" + name + "\":\"" + value + "\"", ",");
    }
    return str::base64::Encode("{" + json + "}");
}

Server& Ceph() {
    static Server server("s3_ceph");
    return server;
}

Server& Swift() {
    static Server server("s3_swift");
    return server;
}

int Put(S3& s3, const std::string& path, const std::string& bytes) {
    std::istringstream in(bytes);
    return s3.Put(path, in, "");
}

std::string Get(S3& s3, const std::string& path) {
    std::ostringstream out;
    s3.Get(path, out);
    return out.str();
}

Names List(S3& s3, const std::string& path) {
    Names names;
    s3.List(path, names);
    return names;
}

/// Gives `size` bytes, then throws or runs `then` once and goes on.
class Source : public std::istream, private std::streambuf {
public:
    Source(std::string bytes, std::size_t size, std::function<void()> then)
        : std::istream(this), bytes_(std::move(bytes)), size_(size), then_(std::move(then)) {
        exceptions(badbit);
        setg(bytes_.data(), bytes_.data(), bytes_.data() + size_);
    }

private:
    std::streambuf::int_type underflow() override {
        if (std::exchange(size_, bytes_.size()) == bytes_.size()) {
            return std::streambuf::traits_type::eof();
        }
        then_();
        setg(eback(), gptr(), bytes_.data() + bytes_.size());
        return std::streambuf::traits_type::to_int_type(*gptr());
    }
    std::string bytes_;
    std::size_t size_;
    const std::function<void()> then_;
};

/// Both makes of servers.
class S3Server : public testing::TestWithParam<Server& (*)()> {
protected:
    Server& server_ = GetParam()();
    S3 s3_{Credential(server_)};
};

INSTANTIATE_TEST_SUITE_P(All, S3Server, testing::Values(&Ceph, &Swift),
                         [](const auto& row) { return row.index == 0 ? "Ceph" : "Swift"; });

TEST_P(S3Server, StoresWhatItIsGivenInOneRequestOrInParts) {
    for (const std::size_t size : {std::size_t{0}, std::size_t{1}, 5 * kMiB - 1, 5 * kMiB,
                                   5 * kMiB + 1, 10 * kMiB, 17 * kMiB}) {
        SCOPED_TRACE(size);
        const std::string bytes = RandomBytes(size, 3);
        EXPECT_EQ(Put(s3_, "/sizes//one", bytes), 201);
        EXPECT_TRUE(Get(s3_, "sizes/one") == bytes);
    }
    s3_.RmDir("/sizes");
}

TEST_P(S3Server, KeysAreBytes) {
    std::string ascii = "keys/", high = "keys/\xd1\x8e\xe2\x82\xac", odd = "keys/";
    for (char c = ' '; c <= '~'; ++c) ascii += c == '/' ? '_' : c;
    for (char c = 1; c < ' '; ++c) odd += c;
    for (const std::string& key : {ascii, high, odd + "\x7f", std::string("keys/a%2Fb"),
                                   std::string("keys/ a + b "), std::string("keys/%")}) {
        SCOPED_TRACE(key);
        ASSERT_EQ(Put(s3_, key, key), 201);
        EXPECT_EQ(Get(s3_, key), key);
        EXPECT_EQ(List(s3_, key), Names{key.substr(5)});
    }
    EXPECT_NE(Failure([&] { List(s3_, "keys/"); }).find("not a name"), std::string::npos);
    s3_.Delete(odd + "\x7f");
    Names want = {" a + b ", "%", "a%2Fb", ascii.substr(5), high.substr(5)},
          got = List(s3_, "keys/");
    std::sort(want.begin(), want.end());
    std::sort(got.begin(), got.end());
    EXPECT_EQ(got, want);
    ASSERT_EQ(Put(s3_, odd, ""), 201);
    s3_.RmDir("keys");
    EXPECT_EQ(List(s3_, "keys/"), Names());
}

TEST_P(S3Server, FoldersAreWhatLiesInThem) {
    for (const char* key : {"/f/bob/1/a", "/f/bob/1/b", "/f/bob/10/c", "/f/bobby/d", "/f/bob/e"}) {
        ASSERT_EQ(Put(s3_, key, "x"), 201);
    }
    s3_.MkPath("/f/empty/x");
    EXPECT_EQ(List(s3_, "/f/"), Names({"bob", "bobby"}));
    EXPECT_EQ(List(s3_, "/f//bob/"), Names({"e", "1", "10"}));
    EXPECT_EQ(List(s3_, "/f/bob"), Names());
    EXPECT_EQ(List(s3_, "/f/none/"), Names());
    s3_.RmDir("/f/bob/1");
    EXPECT_EQ(List(s3_, "/f/bob/"), Names({"e", "10"}));
    s3_.Delete("/f/bob/e");
    s3_.RmDir("/f/bob/");
    s3_.RmDir("/f/bob");
    EXPECT_EQ(List(s3_, "/f/"), Names({"bobby"}));
    s3_.RmDir("/f");
    EXPECT_TRUE(Failure([&] { Get(s3_, "/f/bobby/d"); }).starts_with("storage|missed|S3: get"));
}

TEST_P(S3Server, AFailedUploadLeavesTheOldFileAndNoParts) {
    ASSERT_EQ(Put(s3_, "/half/one", "old"), 201);
    Source broken(RandomBytes(17 * kMiB, 4), 12 * kMiB,
                  [] { throw std::runtime_error("the archiver died"); });
    EXPECT_THROW(s3_.Put("/half/one", broken, ""), std::runtime_error);
    EXPECT_EQ(Get(s3_, "/half/one"), "old");
    EXPECT_EQ(s3_.AbortStale("/", kNow), 0);
    s3_.Delete("/half/one");
}

TEST_P(S3Server, UploadsOfAKilledProgramAreSweptWhenTheyAreOld) {
    vel_rpc::detail::S3Bucket bucket(Credential(server_));
    for (const char* key : {"sweep/a b", "sweep/b"}) bucket.BeginUpload(key);
    const std::string id = bucket.BeginUpload("other/c"), part = "part";
    EXPECT_EQ(bucket.NewestPart("other/c", id), 0);
    for (const int number : {1, 7}) {
        const std::string md5 = vel_hash::Digest(vel_hash::HashType::Md5, part);
        const auto sent = bucket.PartRequest("other/c", id, number, part, md5);
        ASSERT_TRUE(bucket.Connection().SendRetried(sent).Ok());
    }
    EXPECT_NEAR(static_cast<double>(bucket.NewestPart("other/c", id)),
                static_cast<double>(std::time(nullptr)), 3000);
    EXPECT_EQ(s3_.AbortStale("/", 1), 0);
    EXPECT_EQ(s3_.AbortStale("/sweep/", kNow), 2);
    EXPECT_EQ(s3_.AbortStale("/", kNow), 1);
    EXPECT_EQ(s3_.AbortStale("/", kNow), 0);
    EXPECT_EQ(bucket.NewestPart("other/c", id), 0) << "it is gone";
}

TEST_P(S3Server, ADeadCredentialIsToldFromARefusal) {
    for (const auto& [member, value] :
         std::map<std::string, std::string>{{"access_key", "nobody"}, {"secret_key", "canary"}}) {
        S3 dead(Credential(server_, {{member, value}}));
        EXPECT_EQ(Put(dead, "/a", "x"), 401);
        EXPECT_EQ(Put(dead, "/a", RandomBytes(6 * kMiB, 1)), 401);
        const std::string failure = Failure([&] { List(dead, "/"); });
        EXPECT_TRUE(failure.starts_with("unauthorized|storage|S3: list ''")) << failure;
        EXPECT_EQ(failure.find("canary"), std::string::npos);
    }
    S3 elsewhere(Credential(server_, {{"bucket", "none-such"}}));
    EXPECT_TRUE(
        Failure([&] { Put(elsewhere, "/a", "x"); }).starts_with("storage|refused|S3: put 'a'"));
    S3 forgotten(Credential(server_));
    forgotten.DropToken();
    EXPECT_EQ(Put(forgotten, "/a", "x"), 401);
}

TEST(S3Ceph, MoreKeysThanOnePage) {
    S3 s3(Credential(Ceph()));
    Names want;
    for (int i = 1000; i < 2205; ++i) {
        want.push_back("2024-03-01.user" + std::to_string(i));
        ASSERT_EQ(Put(s3, "/many/" + want.back(), ""), 201);
    }
    EXPECT_EQ(List(s3, "/many/"), want);
    s3.RmDir("/many");
    EXPECT_EQ(List(s3, "/many/"), Names());
}

TEST(S3Ceph, NoRoomIsAnAnswerAndLeavesNothing) {
    S3 s3(Credential(Ceph(), {{"access_key", "CKLIMITED"}, {"bucket", "limited"}}));
    EXPECT_EQ(Put(s3, "/small", "x"), 201);
    EXPECT_EQ(Put(s3, "/big", RandomBytes(17 * kMiB, 5)), 507);
    EXPECT_EQ(List(s3, "/"), Names{"small"});
    EXPECT_EQ(s3.AbortStale("/", kNow), 0);
}

TEST(S3Ceph, CertificatesAreVerified) {
    const auto names = [] {
        S3 s3(Credential(Ceph(), {{"endpoint", Ceph()["tls_endpoint"]}}));
        return List(s3, "/none/");
    };
    const EnvGuard quick("BACKUP2_RETRY_MS", "1");
    EXPECT_TRUE(Failure(names).starts_with("network|S3|SSL certificate problem"));
    const EnvGuard known("BACKUP2_CA_FILE", Ceph()["ca"]);
    EXPECT_EQ(names(), Names());
}

TEST(S3Ceph, AnUploadSurvivesTheDeathOfOneDaemonOfThree) {
    Server cluster("s3_ceph", {{"CEPH_OSDS", "3"}});
    S3 s3(Credential(cluster));
    const std::string bytes = RandomBytes(40 * kMiB, 6);
    Source source(bytes, 20 * kMiB, [&] { ::kill(str::Int(cluster["osd_pids"]), SIGKILL); });
    EXPECT_EQ(s3.Put("/one", source, ""), 201);
    EXPECT_TRUE(Get(s3, "/one") == bytes);
    EXPECT_EQ(s3.AbortStale("/", kNow), 0);
}

/// Against prepared answers.
class S3Evil : public testing::Test {
protected:
    static std::string For(const EvilServer& server) {
        return str::base64::Encode("{\"endpoint\":\"" + server.Url() +
                                   R"(","bucket":"bkt","access_key":"AK","secret_key":"canary"})");
    }
    static std::string Xml(const std::string& text) { return Answer("200 OK", text); }
    static std::string FailureOf(const std::string& listing, const std::string& path = "/d/") {
        const EvilServer server({{Xml(listing)}});
        S3 s3(For(server));
        return Failure([&] { List(s3, path); });
    }
    const EnvGuard quick_{"BACKUP2_RETRY_MS", "1"};
};

TEST_F(S3Evil, ListingsThatLieAreRefused) {
    const auto list = [](const std::string& content) {
        return "<ListBucketResult>" + content + "</ListBucketResult>";
    };
    const auto key = [&](const std::string& name) {
        return list("<Contents><Key>" + name + "</Key></Contents>");
    };
    for (const char* name :
         {"d/../x", "d/..", "d/.", "/etc/passwd", "d/a/b", "other", "", "d/a&#10;b"}) {
        const std::string failure = FailureOf(key(name));
        EXPECT_TRUE(failure.starts_with("storage|refused|S3: list 'd/': not a name")) << failure;
    }
    for (const char* folder : {"d/../", "d//", "", "/"}) {
        EXPECT_NE(FailureOf(list(std::string("<CommonPrefixes><Prefix>") + folder +
                                 "</Prefix></CommonPrefixes>")),
                  "none");
    }
    const std::string more = "<IsTruncated>true</IsTruncated>";
    for (const std::string& page :
         {list(more), list(more + "<NextContinuationToken>x</NextContinuationToken>")}) {
        EXPECT_NE(FailureOf(page).find("it does not end"), std::string::npos);
    }
    const std::string end = "</NextContinuationToken>", token = "<NextContinuationToken>";
    std::vector<EvilAnswer> idle;
    for (int i = 0; i < 200; ++i)
        idle.push_back({Xml(list(more + token + std::to_string(i) + end))});
    const EvilServer never_ends(idle);
    S3 waiting(For(never_ends));
    EXPECT_TRUE(Failure([&] { List(waiting, "/d/"); }).ends_with("it does not end"));
    for (const char* text :
         {"", "<html/>", "<ListBucketResult>", "<Error><Code>Odd</Code></Error>"}) {
        EXPECT_TRUE(FailureOf(text).starts_with("storage|refused|S3: list 'd/'")) << text;
    }
    EXPECT_EQ(FailureOf(key(std::string("d/") + std::string(300, 'n'))), "none");
    EXPECT_EQ(FailureOf(key("d/")), "none") << "a mark of the folder itself";
}

TEST_F(S3Evil, OldUploadsThatStillMoveAreNotSwept) {
    const auto upload = [](const char* key) {
        return std::string("<Upload><Key>d/") + key + "</Key><UploadId>" + key +
               "</UploadId><Initiated>2020-01-01T00:00:00.000Z</Initiated></Upload>";
    };
    const auto parts = [](const char* year, const char* more) {
        return Xml(std::string("<ListPartsResult>") + more + "<Part><LastModified>" + year +
                   "-01-01T00:00:00.000Z</LastModified></Part></ListPartsResult>");
    };
    const EvilServer server(
        {{Xml("<ListMultipartUploadsResult>" + upload("moves") + upload("dead") + upload("done") +
              "</ListMultipartUploadsResult>")},
         {parts("2020",
                "<IsTruncated>true</IsTruncated>"
                "<NextPartNumberMarker>1000</NextPartNumberMarker>")},
         {parts("2999", "")},
         {parts("2020", "")},
         {Answer("204 No Content")},
         {Answer("404 Not Found", "<Error><Code>NoSuchUpload</Code></Error>")}});
    S3 s3(For(server));
    EXPECT_EQ(s3.AbortStale("/d/", 24), 1);
    const Names requests = server.Requests();
    ASSERT_EQ(requests.size(), 7U);
    EXPECT_TRUE(requests[2].starts_with("GET /bkt/d/moves?part-number-marker=1000&uploadId=moves"));
    EXPECT_TRUE(requests[4].starts_with("DELETE /bkt/d/dead?uploadId=dead"));
}

TEST_F(S3Evil, RemovesNothingElsewhere) {
    const EvilServer server(
        {{Xml("<ListBucketResult><Contents><Key>other/x</Key></Contents></ListBucketResult>")}});
    S3 s3(For(server));
    EXPECT_TRUE(Failure([&] { s3.RmDir("/d"); }).ends_with("lists what lies elsewhere"));
    for (const char* root : {"", "/", "//"}) {
        EXPECT_TRUE(Failure([&] { s3.RmDir(root); }).ends_with("all that the bucket holds"));
    }
    EXPECT_EQ(server.Requests().size(), 1U);
}

TEST_F(S3Evil, AnErrorInsideASuccessIsFoundAndTheUploadAborted) {
    const std::string body = RandomBytes(16 * kMiB, 8);
    vel_hash::Hash md5(vel_hash::HashType::Md5);
    md5.Update(body);
    const std::string etag = "ETag: \"" + str::hex::Encode(md5.Str()) + "\"\r\n";
    const std::string begun =
        "<InitiateMultipartUploadResult><UploadId>U1</UploadId>"
        "</InitiateMultipartUploadResult>";
    const EvilServer server({{Xml(begun)},
                             {Answer("200 OK", "", etag)},
                             {Xml("<Error><Code>InternalError</Code></Error>")},
                             {Xml("<Error><Code>InvalidPart</Code></Error>")},
                             {Answer("204 No Content")}});
    S3 s3(For(server));
    const std::string failure = Failure([&] { Put(s3, "/a", body); });
    EXPECT_EQ(failure, "storage|refused|S3: complete upload of 'a': status 200 InvalidPart");
    const Names requests = server.Requests();
    ASSERT_EQ(requests.size(), 5U);
    EXPECT_TRUE(requests[0].starts_with("POST /bkt/a?uploads= HTTP/1.1\r\n"));
    EXPECT_TRUE(requests[4].starts_with("DELETE /bkt/a?uploadId=U1 HTTP/1.1\r\n"));
}

TEST_F(S3Evil, WhatIsStoredMustBeWhatWasSent) {
    const std::string md5 = "900150983cd24fb0d6963f7d28e17f72";  // of "abc"
    const std::pair<const char*, std::string> cases[] = {
        {"4", md5}, {"3", std::string(32, '0')}, {"3", ""}};
    for (const auto& [size, etag] : cases) {
        const std::string head = std::string("HTTP/1.1 200 OK\r\nConnection: close\r\n") +
                                 "ETag: \"" + etag + "\"\r\nContent-Length: " + size + "\r\n\r\n";
        const EvilServer server({{Answer("200 OK")}, {head}, {Answer("204 No Content")}});
        S3 s3(For(server));
        EXPECT_TRUE(
            Failure([&] { Put(s3, "/a", "abc"); }).starts_with("storage|refused|S3: put 'a'"));
        EXPECT_TRUE(server.Requests().back().starts_with("DELETE /bkt/a "));
    }
}

TEST_F(S3Evil, CredentialsThatLeadElsewhereAreRefused) {
    const std::map<std::string, std::string> good = {{"endpoint", "http://127.0.0.1:1"},
                                                     {"bucket", "bkt"},
                                                     {"access_key", "canary"},
                                                     {"secret_key", "canary"}};
    const std::pair<const char*, const char*> cases[] = {
        {"endpoint", "file:///etc"}, {"endpoint", "http://u@h"}, {"endpoint", "http:///x"},
        {"endpoint", "http://h/?q"}, {"bucket", "../b"},         {"bucket", ""},
        {"bucket", "b/c"},           {"region", "a/b"},          {"path_style", "maybe"},
        {"part_size", "4"},          {"access_key", ""},         {"secret_key", ""}};
    for (const auto& [member, value] : cases) {
        auto members = good;
        members[member] = value;
        std::string json;
        for (const auto& [n, v] : members) str::Append(json, "\"" + n + "\":\"" + v + "\"", ",");
        EXPECT_EQ(Failure([&] { S3 s3(str::base64::Encode("{" + json + "}")); }),
                  std::string("storage|bad_credential|S3: ") + member);
    }
}

TEST(S3Parts, TenThousandHoldTheLargestObject) {
    uint64_t total = 0, last = 0;
    for (int n = 1; n <= 10'000; ++n) total += last = vel_rpc::detail::PartSize(16 * kMiB, n);
    EXPECT_EQ(vel_rpc::detail::PartSize(16 * kMiB, 1000), 16 * kMiB);
    EXPECT_GE(total >> 40, 5U);
    EXPECT_LE(last >> 30, 4U) << "a part has at most 5 GiB";
}

}  // namespace
