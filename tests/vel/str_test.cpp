#include "vel/str.h"

#include <algorithm>
#include <climits>
#include <limits>

#include <gtest/gtest.h>

#include "vel/test.h"
#include "vel/vel_env.h"

#include "tests/vel/fixtures.h"

namespace {

std::string EveryByte() {
    std::string s;
    for (int i = 0; i < 256; ++i) s += static_cast<char>(i);
    return s;
}

TEST(Str, EveryByteSurvivesEachEncoding) {
    const std::string all = EveryByte();
    for (std::size_t cut = 0; cut <= all.size(); ++cut) {
        const std::string s = all.substr(cut);
        ASSERT_EQ(str::base64::Decode(str::base64::Encode(s)), s) << cut;
        ASSERT_EQ(str::hex::Decode(str::hex::Encode(s)), s) << cut;
        ASSERT_EQ(str::url::Decode(str::url::Encode(s)), s) << cut;
        ASSERT_EQ(str::badchars::Unescape(str::badchars::Escape(s, all, '\\'), '\\'), s) << cut;
    }
}

TEST(Str, DecodersTakeNonsenseWithoutFailing) {
    EXPECT_EQ(str::base64::Decode("Zm\n9v!Yg==tail"), "foob");
    EXPECT_EQ(str::base64::Decode("Z"), "");
    EXPECT_EQ(str::hex::Decode("0Fz12"), std::string("\x0f\0", 2));
    EXPECT_EQ(str::url::Decode("a+b%2"), "a b%2");
    EXPECT_EQ(str::url::Decode("%zz%41%"), "%zzA%");
    EXPECT_EQ(str::badchars::Unescape("\\q\\400\\07\\", '\\'), "\\q\\400\\07\\");
}

TEST(Str, NumbersAreReadLenientlyAndSaturate) {
    const int64_t max = std::numeric_limits<int64_t>::max(), min = -max - 1;
    const std::pair<std::string, int64_t> cases[] = {{"", 0},
                                                     {" \t+42x", 42},
                                                     {"-7", -7},
                                                     {"- 7", 0},
                                                     {"x1", 0},
                                                     {"2147483648", 2147483648},
                                                     {"-2147483649", -2147483649},
                                                     {"9223372036854775807", max},
                                                     {"9223372036854775808", max},
                                                     {"-9223372036854775808", min},
                                                     {"-99999999999999999999", min}};
    for (const auto& [text, want] : cases) {
        EXPECT_EQ(str::Int64(text), want) << text;
        EXPECT_EQ(str::Int(text), std::clamp<int64_t>(want, INT_MIN, INT_MAX)) << text;
    }
}

TEST(Test, DatesAndAddressesAreExact) {
    EXPECT_TRUE(test::Date("2024-02-29") && test::Date("0000-01-01"));
    for (const char* bad : {"2023-02-29", "2024-13-01", "2024-00-10", "2024-1-01", "2024-01-0x",
                            "2024/01/01", "+024-01-01", "2024-01-011", ""}) {
        EXPECT_FALSE(test::Date(bad)) << bad;
    }
    EXPECT_TRUE(test::Ip6("::ffff:1.2.3.4"));
    for (const std::string& bad : {std::string("[::1]"), std::string("fe80::1%eth0"),
                                   std::string("1.2.3.4"), std::string("::1\0x", 5)}) {
        EXPECT_FALSE(test::Ip6(bad)) << bad;
    }
}

TEST(Env, NamesThatTheSystemCannotHoldAreRefusedWithoutShowingTheValue) {
    vel_env::SetEnv("VEL_TEST", "a=b");
    EXPECT_EQ(vel_env::GetEnv("VEL_TEST"), "a=b");
    vel_env::UnsetEnv("VEL_TEST");
    EXPECT_EQ(vel_env::GetEnv("VEL_TEST"), "");
    for (const std::string& name : {std::string(), std::string("a=b"), std::string("a\0b", 3)}) {
        const std::string failure = Failure([&name = name] { vel_env::SetEnv(name, "secret"); });
        EXPECT_TRUE(failure.starts_with("sys|")) << failure;
        EXPECT_EQ(failure.find("secret"), std::string::npos);
    }
}

}  // namespace
