/// The FTP client, against two real servers and one that lies.
#include <algorithm>
#include <functional>
#include <list>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>

#include "vel/vel_err.h"
#include "vel/vel_rpc/ftp.h"

#include "tests/support/server.h"
#include "tests/support/support.h"
#include "tests/vel/fixtures.h"
#include "tests/vel/lying_ftp.h"

namespace {

using Names = std::vector<std::string>;

constexpr int kPassive = 1, kActive = 0;

Names List(vel_rpc::Ftp& ftp, const std::string& dir) {
    std::list<std::string> names;
    ftp.List(dir, names);
    names.remove(".");
    names.remove("..");
    Names sorted(names.begin(), names.end());
    std::sort(sorted.begin(), sorted.end());
    return sorted;
}

std::string Get(vel_rpc::Ftp& ftp, const std::string& path) {
    std::ostringstream out;
    ftp.Get(path, out);
    return out.str();
}

bool Put(vel_rpc::Ftp& ftp, const std::string& path, const std::string& bytes) {
    std::istringstream in(bytes);
    return ftp.Put(in, path);
}

vel_rpc::Ftp Client(Server& server, const std::string& scheme = "") {
    return vel_rpc::Ftp(scheme + server["host"] + ":" + server["port"], server["user"],
                        server["password"], 20);
}

struct Row {
    std::string name, server, tls, bind, scheme;
    int mode;
    bool is_first = false;  // of its make
};

void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }

const Row kRows[] = {
    {"pureftpd", "pureftpd", "0", "127.0.0.1", "", kPassive, true},
    {"pureftpd_active_ip6", "pureftpd", "1", "::1", "", kActive},
    {"pureftpd_tls", "pureftpd", "2", "127.0.0.1", "", kPassive},
    {"proftpd_ip6", "proftpd", "0", "::1", "ftp://", kPassive, true},
    {"proftpd_active", "proftpd", "0", "127.0.0.1", "", kActive},
    {"proftpd_tls", "proftpd", "2", "127.0.0.1", "ftpes://", kPassive},
    {"proftpd_tls_from_the_start", "proftpd", "3", "127.0.0.1", "ftps://", kPassive},
};

class FtpServers : public testing::TestWithParam<Row> {
protected:
    vel_rpc::Ftp Open() {
        const std::string host = GetParam().bind == "::1" ? "[::1]" : server_["host"];
        vel_rpc::Ftp ftp(GetParam().scheme + host + ":" + server_["port"], server_["user"],
                         server_["password"], 20);
        ftp.SetMode(GetParam().mode);
        return ftp;
    }
    std::string Stored(const std::string& path) { return server_["root"] + path; }

    const FdCheck descriptors_;
    Server server_{GetParam().server, {{"FTP_TLS", GetParam().tls}, {"FTP_BIND", GetParam().bind}}};
    const EnvGuard ca_{"BACKUP2_CA_FILE", server_["ca"]};
    vel_rpc::Ftp ftp_ = Open();
};

TEST_P(FtpServers, BytesComeBackAndReplaceOlderOnes) {
    ftp_.MkPath("/d");
    for (const std::size_t size :
         {std::size_t{20} << 20, std::size_t{64 << 10} + 1, std::size_t{1}, std::size_t{0}}) {
        const std::string bytes = RandomBytes(size, 3);
        ASSERT_TRUE(Put(ftp_, "/d/x", bytes)) << size;
        EXPECT_TRUE(ReadFile(Stored("/d/x")) == bytes) << size;
        EXPECT_TRUE(Get(ftp_, "/d/x") == bytes) << size;
        EXPECT_EQ(List(ftp_, "/d"), Names({"x"}));
    }
}

TEST_P(FtpServers, NamesMayHoldEveryOtherByte) {
    std::string odd, high;
    for (char c = ' '; c < '\x7f'; ++c) odd += c == '/' || c == '\\' ? '|' : c;
    for (int c = 0x80; c < 0xff; ++c) high += static_cast<char>(c);
    const std::string folder = "/%2F ;type=d/ -[x]#";
    ftp_.MkPath("/%2F ;type=d");
    ftp_.MkPath(folder);
    for (const std::string& name :
         {odd, high, std::string("-rf"), std::string(" a b"), std::string("x;type=a"),
          std::string("..."), std::string("~")}) {
        SCOPED_TRACE(name);
        const std::string path = folder + "/" + name;
        ASSERT_TRUE(Put(ftp_, path, "bytes"));
        EXPECT_EQ(ReadFile(Stored(path)), "bytes");
        EXPECT_EQ(Get(ftp_, path), "bytes");
        EXPECT_EQ(List(ftp_, folder + "/"), Names({name}));
        ftp_.Delete(path);
        EXPECT_EQ(List(ftp_, folder), Names());
    }
    for (const char c : {'\r', '\n', '\0', '\x01', '\xff'}) {
        const std::string path = std::string("/x") + c + "DELE /%2F ;type=d";
        EXPECT_NE(Failure([&] { Put(ftp_, path, ""); }), "none") << int{c};
        EXPECT_NE(Failure([&] { List(ftp_, path); }), "none") << int{c};
    }
    EXPECT_EQ(List(ftp_, "/"), Names({"%2F ;type=d"}));
}

TEST_P(FtpServers, FoldersAreListedWholeAndRemovedWithAllTheyHold) {
    std::filesystem::create_directories(Stored("/many/deep/er"));
    Names names{"deep"};
    const int files = GetParam().is_first ? 2000 : 20;
    for (int i = 0; i < files; ++i) {
        names.push_back("F2024-01-31.user" + std::to_string(10'000 + i) + ".tgz.aes");
        WriteFile(Stored("/many/" + names.back()), "x");
    }
    WriteFile(Stored("/kept"), "kept");
    for (const char* name : {"/many/deep/er/.hidden", "/many/deep/-x"})
        WriteFile(Stored(name), "x");
    std::filesystem::create_symlink("/kept", Stored("/many/deep/link"));
    ASSERT_EQ(::system(("chown -R nobody " + Stored("")).c_str()), 0);
    std::sort(names.begin(), names.end());
    EXPECT_EQ(List(ftp_, "/many/"), names);
    ftp_.Delete("/many");
    EXPECT_EQ(List(ftp_, ""), Names({"kept"}));
    EXPECT_EQ(List(ftp_, "/many"), Names()) << "its folder was the current one";
    ftp_.MkPath("/many");
    ftp_.MkPath("/many");
    EXPECT_EQ(List(ftp_, "/many"), Names());
    EXPECT_NE(Failure([&] { ftp_.MkPath("/kept"); }), "none") << "a file";
    EXPECT_NE(Failure([&] { ftp_.Delete("/"); }), "none");
}

TEST_P(FtpServers, WhatIsMissingIsToldFromWhatIsRefused) {
    EXPECT_THAT(Failure([&] { Get(ftp_, "/none"); }), testing::StartsWith("storage|missed|ftp"));
    EXPECT_THAT(Failure([&] { ftp_.Delete("/no/ne"); }), testing::StartsWith("storage|missed|ftp"));
    EXPECT_EQ(List(ftp_, "/none"), Names());
    EXPECT_EQ(List(ftp_, "/none/at/all/"), Names());
    ASSERT_TRUE(Put(ftp_, "x", "relative to the login's folder"));
    EXPECT_EQ(List(ftp_, "/x/"), Names({"x"}));
    std::filesystem::create_directory(Stored("/shut"));
    std::filesystem::permissions(Stored("/shut"), std::filesystem::perms::none);
    EXPECT_THAT(Failure([&] { List(ftp_, "/shut"); }), testing::HasSubstr("list /shut"));
    EXPECT_NE(Failure([&] { ftp_.Delete("/shut"); }), "none");
}

INSTANTIATE_TEST_SUITE_P(All, FtpServers, testing::ValuesIn(kRows),
                         [](const auto& row) { return row.param.name; });

TEST(Ftp, FullServerIsNoErrorAndKeepsTheOldFile) {
    for (const char* tls : {"0", "2"}) {
        Server server("pureftpd", {{"FTP_QUOTA_MB", "1"}, {"FTP_TLS", tls}});
        const EnvGuard ca("BACKUP2_CA_FILE", server["ca"]);
        vel_rpc::Ftp ftp = Client(server);
        ASSERT_TRUE(Put(ftp, "/x", "old"));
        bool stored = false;  // the reply is lost when the server does not read to the end
        const std::string failure =
            Failure([&] { stored = Put(ftp, "/x", std::string(30 << 20, 'x')); });
        EXPECT_THAT(failure, testing::AnyOf("none", testing::HasSubstr("no room"))) << tls;
        EXPECT_FALSE(stored);
        EXPECT_EQ(List(ftp, "/"), Names({".ftpquota", "x"}));
        EXPECT_EQ(Get(ftp, "/x"), "old");
        ASSERT_TRUE(Put(ftp, "/y", std::string((1 << 20) - 3, 'y')));
        EXPECT_FALSE(Put(ftp, "/x", "new"));
        EXPECT_EQ(List(ftp, "/"), Names({".ftpquota", "x", "y"}));
        EXPECT_EQ(Get(ftp, "/x"), "old");
    }
}

TEST(Ftp, ReplacesWhereTheServerDoesNot) {
    Server server("proftpd", {{"FTP_OVERWRITE", "off"}});
    vel_rpc::Ftp ftp = Client(server);
    ASSERT_TRUE(Put(ftp, "/x", "old"));
    ASSERT_TRUE(Put(ftp, "/x", "new"));
    EXPECT_EQ(Get(ftp, "/x"), "new");
    ftp.MkPath("/d");
    ASSERT_TRUE(Put(ftp, "/d/y", "kept"));
    EXPECT_NE(Failure([&] { Put(ftp, "/d", "in place of a folder"); }), "none");
    EXPECT_EQ(Get(ftp, "/d/y"), "kept");
    const auto left = [&] {
        return std::distance(std::filesystem::directory_iterator(server["root"]), {});
    };
    EXPECT_EQ(left(), 2) << "nothing is left";
    // What a program leaves that is killed between the two renames, and then after them.
    const std::string file = server["root"] + "/x", aside = server["root"] + "/backup2-aside-x";
    for (const bool listed : {true, false}) {
        std::filesystem::rename(file, aside);
        if (listed) {
            EXPECT_EQ(List(ftp, "/"), Names({"d", "x"}));
        }
        EXPECT_EQ(Get(ftp, "/x"), "new");
    }
    std::filesystem::copy(file, aside);
    ASSERT_TRUE(Put(ftp, "/x", "newest"));
    std::filesystem::copy(file, aside);
    EXPECT_EQ(List(ftp, "/"), Names({"d", "x"}));
    EXPECT_EQ(Get(ftp, "/x"), "newest");
    EXPECT_EQ(left(), 2) << "nothing is left";
}

TEST(Ftp, ARefusedLoginIsNotTriedAgain) {
    for (const auto& [reply, kind, again] :
         {std::tuple{"530 No", "unauthorized|", false},
          {"421 Too many users", "network|", true},
          {"530 Sorry, the maximum number of clients (2) from your host are already connected.",
           "network|", true}}) {
        LyingFtp server({{"PASS", reply}}, "");
        vel_rpc::Ftp ftp(server.Address(), "u", "canary", 20);
        std::list<std::string> names;
        for (const std::function<void()>& call : std::vector<std::function<void()>>{
                 [&] { Put(ftp, "/d/x", "1"); }, [&] { ftp.List("/d/", names); },
                 [&] { ftp.MkPath("/d"); }}) {
            const std::string failure = Failure(call);
            EXPECT_THAT(failure, testing::StartsWith(kind));
            EXPECT_THAT(failure, testing::HasSubstr(reply));
        }
        EXPECT_EQ(server.Logins() > 1, again) << reply;
    }
}

TEST(Ftp, SpeaksTheNewestTlsWhereTheServerInsists) {
    Server server("proftpd", {{"FTP_TLS", "2"}, {"FTP_TLS_PROTOCOL", "TLSv1.3"}});
    const EnvGuard ca("BACKUP2_CA_FILE", server["ca"]);
    vel_rpc::Ftp ftp = Client(server);
    EXPECT_TRUE(Put(ftp, "/x", "new"));
}

TEST(Ftp, LoginsAndCertificatesAreNotTakenOnTrust) {
    Server server("pureftpd", {{"FTP_TLS", "1"}}), plain("pureftpd");
    const auto put = [&](Server& to, const std::string& scheme, const std::string& password) {
        vel_rpc::Ftp ftp(scheme + to["host"] + ":" + to["port"], to["user"], password, 20);
        return Failure([&] { Put(ftp, "/x", "x"); });
    };
    EXPECT_THAT(put(server, "", server["password"]),
                testing::AllOf(testing::StartsWith("network|"), testing::HasSubstr("certificate")));
    EXPECT_THAT(put(plain, "ftpes://", plain["password"]), testing::HasSubstr("not offer TLS"));
    EXPECT_THAT(put(plain, "", "canary"),
                testing::AllOf(testing::StartsWith("unauthorized|ftp://"),
                               testing::Not(testing::HasSubstr("canary"))));
    for (const char* scheme : {"ftps://", "ftpes://"}) {
        vel_rpc::Ftp ftp(scheme + plain["host"], "u", "p", 20);
        EXPECT_THAT(Failure([&] { ftp.SetMode(kActive); }), testing::HasSubstr("active mode"));
    }
    for (const char* address : {"", "sftp://h", "::1", "[::1", "u@h", "h/x", "h:1:2", "h\r\nx"})
        EXPECT_NE(Failure([&] { vel_rpc::Ftp ftp(address, "u", "p", 20); }), "none") << address;
}

struct Lie {
    const char* name;
    LyingFtp::Replies replies;
    std::string data, step, want;  // part of the failure; "=" and what comes of it
    std::string end = "226 Done";
    int mode = kPassive;
};

const LyingFtp::Replies kNoFacts{{"MLSD", "500 What?"}};

const Lie kLies[] = {
    {"cut upload", {{"SIZE", "213 5"}}, "", "put", "was sent 6 bytes and says: 213 5"},
    {"no size", {{"SIZE", "500 What?"}}, "123456", "put", "=1"},
    {"no size, cut upload", {{"SIZE", "502 No"}}, "12345", "put", "6 bytes and says: 213 5"},
    {"no size, no way back", {{"SIZE", "502 No"}, {"RETR", "550 No"}}, "", "put", "says: 550 No"},
    {"lost upload", {{"SIZE", "550 None"}}, "", "put", "storage|refused"},
    {"full at the end", {}, "", "put", "=0", "552 Full"},
    {"full at the start", {{"STOR", "452 Full"}}, "", "put", "=0"},
    {"failed at the end", {}, "", "put", "451 Broken", "451 Broken"},
    {"no end", {}, "", "put", "network|", ""},
    {"gone after the data", {}, "", "put", "network|", "-"},
    {"rename refused, and the old file stays",
     {{"RNTO", "553 No"}, {"DELE /d/x", "-"}},
     "",
     "put",
     "553 No"},
    {"cut download", {}, "1234", "get", "network|"},
    {"cut download, size unknown", {{"SIZE", "500 What?"}}, "1234", "get", "426 Cut", "426 Cut"},
    {"cut download, connection gone", {{"SIZE", "500 No"}}, "1234", "get", "network|", "-"},
    {"other host", {{"EPSV", "500 No"}, {"PASV", "227 (10,9,8,7,%)"}}, "123456", "get", "=123456"},
    {"other peer", {}, "123456", "get", "came from 127.0.0.2", "226 Done", kActive},
    {"mute", {{"", ""}}, "", "get", "network|"},
    {"mute later", {{"CWD", ""}}, "", "list", "network|"},
    {"slow download", {{"SIZE", "213 1000"}}, "~", "get", "hardly a byte"},
    {"slow download, size unknown", {{"SIZE", "500 No"}}, "~", "get", "hardly a byte"},
    {"slow listing", {}, "~", "list", "hardly a byte"},
    {"reset download", {}, "!", "get", "network|"},
    {"reset upload", {}, "!", "put long", "network|"},
    {"mute upload", {}, "~", "put long", "hardly a byte"},
    {"endless reply", {{"TYPE", "200-" + std::string(300'000, 'x')}}, "", "get", "network|"},
    {"password told", {{"PASS", "530 'canary' is wrong"}}, "", "get", "530 '***' is wrong"},
    {"climbing name", {}, "type=file; ../x\r\n", "list", "lists a name that is none: \"../x\""},
    {"absolute name", kNoFacts, "/etc/passwd\r\n", "list", "\"/etc/passwd\""},
    {"other folder's name", kNoFacts, "/d2/x\r\n", "list", "\"/d2/x\""},
    {"name without facts", {}, "x\r\n", "list", "=."},
    {"facts", {}, "Type=cdir; /d\r\nsize=1;type=pdir; ..\r\ntype=file;  x \n", "list", "= x "},
    {"names", kNoFacts, "/d/x\r\n\r\n..\ny", "list", "=..|x|y"},
    {"empty as 550", {{"MLSD", "502 No"}, {"NLST", "550 No"}, {"LIST", "150 No"}}, "", "list", "="},
    {"closed folder",
     {{"MLSD", "502 No"}, {"NLST", "550 No"}, {"LIST", "550 No"}},
     "",
     "list",
     "550 No"},
    {"listing with a limit", {}, "type=file; x\r\n", "list", "truncated", "226 Output truncated"},
    {"cut listing", {}, "type=file; x\r\n", "list", "426 Cut", "426 Cut"},
    {"busy folder", {{"CWD", "450 Busy"}}, "", "list", "450 Busy"},
};

/// Whether the client has to find out that nothing more comes.
bool IsMute(const Lie& lie) {
    return lie.data == "~" || lie.end.empty() ||
           std::any_of(lie.replies.begin(), lie.replies.end(),
                       [](const auto& reply) { return reply.second.empty(); });
}

TEST(Ftp, LiesAreFoundOut) {
    for (const Lie& lie : kLies) {
        SCOPED_TRACE(lie.name);
        const FdCheck descriptors;
        LyingFtp server(lie.replies, lie.data, lie.end);
        std::string got = "=";
        {
            vel_rpc::Ftp ftp(server.Address(), "u", "canary", IsMute(lie) ? 1 : 20);
            ftp.SetMode(lie.mode);
            const std::string failure = Failure([&] {
                if (lie.step == "put") got += Put(ftp, "/d/x", "123456") ? "1" : "0";
                if (lie.step == "put long") Put(ftp, "/d/x", std::string(32 << 20, 'x'));
                if (lie.step == "get") got += Get(ftp, "/d/x");
                if (lie.step != "list") return;
                std::list<std::string> names;
                ftp.List("/d/", names);
                for (const std::string& name : names) got += (got == "=" ? "" : "|") + name;
            });
            if (failure != "none") got = failure;
        }
        if (lie.want[0] == '=') {
            EXPECT_EQ(got, lie.want);
        } else {
            EXPECT_THAT(got, testing::HasSubstr(lie.want));
        }
        EXPECT_THAT(got, testing::Not(testing::HasSubstr("canary")));
    }
}

}  // namespace
