/// What all three clients do alike.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <regex>
#include <sstream>

#include <gmock/gmock.h>

#include "vel/str.h"
#include "vel/vel_rpc/detail/json.h"

#include "tests/vel/clouds.h"

namespace clouds {
namespace {

/// A command: one answer, or connection, that goes wrong.
std::string Fault(const std::string& kind, const std::string& path, const std::string& more) {
    return "{\"" + kind + "\":{\"path\":" + vel_rpc::detail::Quoted(path) + "," + more + "}}";
}

INSTANTIATE_TEST_SUITE_P(Clouds, CloudClient, AllRows(), NameOf);

TEST_P(CloudClient, StoresEverySizeAndReplacesIt) {
    for (const std::size_t size : {std::size_t{0}, 16 * kMiB, 16 * kMiB + 1, kThreeChunks}) {
        SCOPED_TRACE(size);
        const std::string bytes = RandomBytes(size, 1), name = "/made/with parents/x.tgz";
        ASSERT_EQ(Put(*cloud_, name, bytes), 201);
        EXPECT_EQ(Stored(), (std::map<std::string, std::string>{{name, Sha256(bytes)}}));
        EXPECT_TRUE(Get(*cloud_, "made//with parents/x.tgz") == bytes);
    }
    EXPECT_EQ(State("open_uploads"), "0");
    EXPECT_THAT(State("slow_names"), testing::AnyOf("", "[]"));
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
    const std::string before = State("requests");
    for (const std::string& name : Names{"\xff", std::string("a\0b", 3), ".."}) {
        EXPECT_EQ(Kind([&] { Put(*cloud_, "/d/" + name, "x"); }), "storage|refused");
        EXPECT_EQ(Kind([&] { List(*cloud_, "/d/" + name + "/"); }), "storage|refused");
    }
    EXPECT_EQ(State("requests"), before);
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
    Control(R"({"expire":true})");
    EXPECT_EQ(Life(*cloud_, "x"), "");
    EXPECT_EQ(State("refreshes"), "1");
    Control(Fault("fail", row.steps[0], R"("status":401)"));
    EXPECT_EQ(Life(*cloud_, RandomBytes(row.resumes ? kTwoChunks : 1, 2)), "");
    EXPECT_EQ(State("refreshes"), "2");
    Control(R"({"expire":true})");
    EXPECT_EQ(Life(*Open(), "first credential") == "", !row.turns_refresh);
    EXPECT_EQ(Life(*cloud_, "renewed once more"), "");
    Control(R"({"revoke":true})");
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
        const std::string faults[] = {
            Fault("fail", step, "\"status\":" + std::to_string(GetParam().busy_status)),
            Fault("fail", step, R"("status":503,"after":true)"),
            Fault("cut", step, R"("after":0,"how":"rst")")};
        for (const std::string& fault : faults) {
            SCOPED_TRACE(fault);
            Control(R"({"reset":true})");
            Control(fault);
            EXPECT_EQ(Life(*Open(), bytes.substr(0, is_long ? GetParam().size : 5)), "");
            EXPECT_TRUE(std::regex_search(State("requests"), std::regex(in_json)));
        }
    }
    Control(R"({"rate_limit":3,"retry_after":0})");
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
        Control(Fault("cut", row.upload,
                      "\"after\":" + std::to_string(after) + ",\"how\":\"" + how + "\""));
        const std::string kind = Kind([&] { EXPECT_EQ(Put(*cloud_, "/x", bytes), 201); });
        EXPECT_EQ(kind, row.resumes ? "none" : "network|" + row.service);
        EXPECT_EQ(Stored(), OnlyX(row.resumes ? bytes : "old"));
    }
    const auto before = Stored();
    Control(Fault("cut", row.upload, R"("after":70000,"how":"rst","times":1000)"));
    EXPECT_EQ(Kind([&] { Put(*cloud_, "/x", bytes + "more"); }), "network|" + row.service);
    EXPECT_EQ(Stored(), before);
}

TEST_P(CloudClient, LeavesTheOldFileWhenThereIsNoRoom) {
    ASSERT_EQ(Put(*cloud_, "/x", "old"), 201);
    for (const std::size_t size : {2 * kMiB, kTwoChunks}) {  // the second chunk is one too much
        Control("{\"quota\":" + std::to_string(size - 1) + "}");
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
    for (const std::string name : {"", ".", "..", "../x", "/etc/passwd", "a\\u0000b"}) {
        Control(R"({"names":["good",")" + name + "\"]}");
        const std::string failure = Failure([&] { EXPECT_EQ(List(*cloud_, "/"), Names{}); });
        EXPECT_TRUE(str::StartsWith(failure, "storage|refused|" + GetParam().service)) << failure;
    }
    const std::string long_name(300, 'n');
    Control(R"({"names":[")" + long_name + "\"]}");
    EXPECT_EQ(List(*cloud_, "/"), Names{long_name});
    Control(R"({"names":["one","two"],"endless":true})");
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

}  // namespace
}  // namespace clouds
