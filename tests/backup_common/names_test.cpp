#include <gtest/gtest.h>

#include "vel/vel_err.h"

#include "backup_common/backup2_misc.h"
#include "backup_common/backup2_storage.h"

namespace backup2 {
namespace {

struct Case {
    std::string name, want;
};

/// The message of the assertion that the call raises; "" when it raises none.
template <class Call>
std::string Assertion(const Call& call) {
    try {
        call();
    } catch (const vel_err::AssertError& e) {
        return e.message();
    }
    return "";
}

TEST(Names, SliceNumbersAreStripped) {
    const Case cases[] = {
        {"base.tgz", "base"},
        {"base.tgz.aes", "base"},
        {"base00.tgz.7", "base00"},
        {"base00.tgz.aes.part12", "base00"},
        {"a.tgz.b.tgz", "a"},
        {"a.tgz.b.tgz.aes", "a.tgz.b"},
        {"a.tgz.bcdef.tgz.3", "a.tgz.bcdef"},
        {"base.3.dar", "base"},
        {"a.b.c.31.dar", "a.b.c"},
        {".tgz", ""},
    };
    for (const auto& [name, want] : cases) EXPECT_EQ(StripSliceNumber(name), want) << name;
    for (const std::string name :
         {"x.tgz.1", "base1.tgz.2", "", "name", "a.dar", ".dar", "abcdef.dar"}) {
        EXPECT_EQ(Assertion([&] { StripSliceNumber(name); }), "Bad backup filename") << name;
    }
}

TEST(Names, DateStandsBehindAtMostOneMark) {
    const Case cases[] = {
        {"2024-01-31.user.tgz", "2024-01-31"},
        {"F2024-01-31.user.tgz", "2024-01-31"},
        {"FI2024-01-31.user.tgz", "I2024-01-3"},
        {"custom_x", "custom"},
        {"customer", "custom"},
        {"Custom", "ustom"},
        {"2", "2"},
        {"F", ""},
    };
    for (const auto& [name, want] : cases) EXPECT_EQ(GetDate(name), want) << name;
    EXPECT_THROW(GetDate(""), std::out_of_range);
}

TEST(Names, UserStandsBeforeTheExtension) {
    const Case cases[] = {
        {"2024-01-31.bob.tgz", "bob"},
        {"F2024-01-31.bob#2.tgz.4", "bob"},
        {"2024-01-31.bob.tgz.aes.part3", "bob"},
        {"2024-01-31.bob#.info", "bob"},
        {"2024-01-31.a.b.info", "a.b"},
        {"2024-01-31.bob", ""},
        {"2024-01-31.bob.tar", ""},
        {"bob.tgz", ""},
        {"d.tgz.info.tgz", "tgz.info"},
        {"", ""},
    };
    for (const auto& [name, want] : cases) EXPECT_EQ(GetUserName(name), want) << name;
}

TEST(Names, EncryptionIsReadFromTheLastPart) {
    for (const char* name : {"x.tgz.aes", "x.tgz.aes.part2", "x.aes", "a/b.c/x.tgz.aes"}) {
        EXPECT_TRUE(IsEncrypted(name)) << name;
    }
    for (const char* name :
         {"", "x.tgz.aes.1", "x.aes.info", "x.info", "x.tgz", "x.tgz.part1", "part", "x.AES"}) {
        EXPECT_FALSE(IsEncrypted(name)) << name;
    }
}

TEST(Names, FileNameFollowsTheToken) {
    const struct {
        std::string path, encrypted, plain;
    } cases[] = {
        {"b.tgz", "b.tgz.aes", "b.tgz"},
        {"/dir.tgz/b.tgz.3", "b.tgz.aes.3", "b.tgz.3"},
        {"b.tgz.aes.3", "b.tgz.aes.3", "b.tgz.3"},
        {"d/b.tgz.aes", "b.tgz.aes", "b.tgz"},
        {"b.tgz.tgz.part1", "b.tgz.tgz.aes.part1", "b.tgz.tgz.part1"},
        {"b.info", "b.info", "b.info"},
        {"b.tgz.aes.info", "b.tgz.aes.info", "b.tgz.aes.info"},
        {"b.3.dar", "b.3.dar", "b.3.dar"},
    };
    const BackupToken with("type=local;arch_password=YQ=="), without("type=local");
    for (const auto& c : cases) {
        EXPECT_EQ(GetName(with, c.path), c.encrypted) << c.path;
        EXPECT_EQ(GetName(without, c.path), c.plain) << c.path;
    }
    EXPECT_EQ(GetExtByToken(with) + " " + GetExtByToken(without), ".tgz.aes .tgz");
    EXPECT_EQ(GetExtByInfo({}), ".tgz");
    EXPECT_EQ(GetExtByInfo({{"key_hash", ""}}), ".tgz.aes");
    EXPECT_EQ(GetExtByInfo({{"last-slice", "bob/d/x.tgz.aes.part3"}}), ".tgz.aes");
    EXPECT_EQ(GetExtByInfo({{"last-slice", "bob/d/x.tgz.aes.3"}}), ".tgz");
}

TEST(Names, PlaceOnTheStorageComesFromTheBareName) {
    const Case cases[] = {
        {"F2024-01-31.bob.tgz", "bob/2024-01-31/F2024-01-31.bob.tgz"},
        {"/x/../y//2024-01-31.bob#r.info", "bob/2024-01-31/2024-01-31.bob#r.info"},
        {"C2024-01-31.bob.tgz.part1", "bob/custom/C2024-01-31.bob.tgz.part1"},
        {"custom.bob.info", "bob/custom/custom.bob.info"},
        {"2024-01-31.tar", "2024-01-31/2024-01-31.tar"},
    };
    for (const auto& [path, want] : cases) EXPECT_EQ(GetPath(path), want) << path;
    EXPECT_THROW(GetPath(""), std::out_of_range);
}

TEST(Names, SmallOnes) {
    EXPECT_EQ(ConcatPath("", "b"), "b");
    EXPECT_EQ(ConcatPath("a", "b"), "a//b");
    EXPECT_EQ(ConcatPath("a/", ""), "a///");
    EXPECT_EQ(TruncateName(std::string(32, 'x')).size(), 32u);
    EXPECT_EQ(TruncateName(std::string(32, 'x') + "y"), std::string(32, 'x'));
    EXPECT_TRUE(IsAdminData("/usr/local/vel5/var/backup/qorvel") &&
                IsAdminData("var/backup/qorvel"));
    EXPECT_FALSE(IsAdminData("var/backup/qorvel/") || IsAdminData("var/backup/qorvel.private"));
    EXPECT_EQ(GetReportFile("7"), "var/backup2_restore_report.7.xml");
    EXPECT_EQ(ParseErrorFiles("data/a\tdenied\nType: 'sys'\tx\n\nb c\nType:\n"), "data/a\nb c");
}

TEST(Names, CommandLinesSplitAtSpacesOnly) {
    using Words = std::vector<std::string>;
    EXPECT_EQ(Cmdline2Vector("nice -n 19"), Words({"nice", "-n", "19"}));
    EXPECT_EQ(Cmdline2Vector("  nice  -n   19 "), Words({"nice", "-n", "19"}));
    EXPECT_EQ(Cmdline2Vector("a 'b c'\n"), Words({"a", "'b", "c'"}));
    EXPECT_EQ(Cmdline2Vector(""), Words());
    EXPECT_EQ(Cmdline2Vector("   "), Words());

    const auto convertors = GetExternalConvertors();
    EXPECT_EQ(convertors.size(), 2u);
    EXPECT_EQ(convertors.begin()->first + convertors.begin()->second,
              "Plesksbin/backup2_plesk_conv");
    EXPECT_EQ(convertors.at("cPanel"), "sbin/backup2_cpanel_conv");
}

}  // namespace
}  // namespace backup2
