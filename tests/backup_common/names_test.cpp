#include <gtest/gtest.h>

#include "backup_common/backup2_misc.h"
#include "backup_common/backup2_storage.h"

#include "tests/backup_common/fixtures.h"

namespace backup2 {
namespace {

using Words = std::vector<std::string>;

TEST(Names, SliceNumbersAreStripped) {
    Check(StripSliceNumber, {"base.tgz -> base", "base.tgz.aes -> base", "base00.tgz.7 -> base00",
                             "base00.tgz.aes.part12 -> base00", "a.tgz.b.tgz -> a",
                             "a.tgz.b.tgz.aes -> a.tgz.b", "a.tgz.bcdef.tgz.3 -> a.tgz.bcdef",
                             "base.3.dar -> base", "a.b.c.31.dar -> a.b.c", ".tgz -> "});
    for (const std::string name :
         {"x.tgz.1", "base1.tgz.2", "", "name", "a.dar", ".dar", "abcdef.dar"}) {
        EXPECT_EQ(Failure([&] { StripSliceNumber(name); }), "Bad backup filename") << name;
    }
}

TEST(Names, DateStandsBehindAtMostOneMark) {
    Check(GetDate, {"2024-01-31.user.tgz -> 2024-01-31", "F2024-01-31.user.tgz -> 2024-01-31",
                    "FI2024-01-31.user.tgz -> I2024-01-3", "custom_x -> custom", "Custom -> ustom",
                    "2 -> 2", "F -> "});
    EXPECT_THROW(GetDate(""), std::out_of_range);
}

TEST(Names, UserStandsBeforeTheExtension) {
    Check(GetUserName, {"2024-01-31.bob.tgz -> bob", "F2024-01-31.bob#2.tgz.4 -> bob",
                        "2024-01-31.bob.tgz.aes.part3 -> bob", "2024-01-31.bob#.info -> bob",
                        "2024-01-31.a.b.info -> a.b", "2024-01-31.bob.tar -> ", "bob.tgz -> ",
                        "d.tgz.info.tgz -> tgz.info", " -> "});
}

TEST(Names, EncryptionIsReadFromTheLastPart) {
    for (const char* name : {"x.tgz.aes", "x.tgz.aes.part2", "x.aes", "a/b.c/x.tgz.aes"}) {
        EXPECT_TRUE(IsEncrypted(name)) << name;
    }
    for (const char* name :
         {"", "x.tgz.aes.1", "x.aes.info", "x.info", "x.tgz", "x.tgz.part1", "part", "x.AES"}) {
        EXPECT_FALSE(IsEncrypted(name)) << name;
    }
    EXPECT_EQ(GetExtByInfo({}), ".tgz");
    EXPECT_EQ(GetExtByInfo({{"key_hash", ""}}), ".tgz.aes");
    EXPECT_EQ(GetExtByInfo({{"last-slice", "bob/d/x.tgz.aes.part3"}}), ".tgz.aes");
    EXPECT_EQ(GetExtByInfo({{"last-slice", "bob/d/x.tgz.aes.3"}}), ".tgz");
}

TEST(Names, FileNameFollowsTheToken) {
    const BackupToken with("type=local;arch_password=YQ=="), without("type=local");
    const auto both = [&](const std::string& path) {
        return GetName(with, path) + " " + GetName(without, path);
    };
    Check(both, {"b.tgz -> b.tgz.aes b.tgz", "/dir.tgz/b.tgz.3 -> b.tgz.aes.3 b.tgz.3",
                 "b.tgz.aes.3 -> b.tgz.aes.3 b.tgz.3", "d/b.tgz.aes -> b.tgz.aes b.tgz",
                 "b.tgz.tgz.part1 -> b.tgz.tgz.aes.part1 b.tgz.tgz.part1",
                 "b.tgz.aes.info -> b.tgz.aes.info b.tgz.aes.info", "b.3.dar -> b.3.dar b.3.dar"});
    EXPECT_EQ(GetExtByToken(with) + " " + GetExtByToken(without), ".tgz.aes .tgz");
}

TEST(Names, PlaceOnTheStorageComesFromTheBareName) {
    Check(GetPath, {"F2024-01-31.bob.tgz -> bob/2024-01-31/F2024-01-31.bob.tgz",
                    "/x/../y//2024-01-31.bob#r.info -> bob/2024-01-31/2024-01-31.bob#r.info",
                    "C2024-01-31.bob.tgz.part1 -> bob/custom/C2024-01-31.bob.tgz.part1",
                    "custom.bob.info -> bob/custom/custom.bob.info",
                    "2024-01-31.tar -> 2024-01-31/2024-01-31.tar"});
    EXPECT_THROW(GetPath(""), std::out_of_range);
}

TEST(Names, SmallOnes) {
    EXPECT_EQ(ConcatPath("", "b") + " " + ConcatPath("a", "b"), "b a//b");
    EXPECT_TRUE(IsAdminData("/usr/local/vel5/var/backup/qorvel"));
    EXPECT_FALSE(IsAdminData("var/backup/qorvel/") || IsAdminData("var/backup/qorvel.private"));
    EXPECT_EQ(ParseErrorFiles("data/a\tdenied\nType: 'sys'\tx\n\nb c\nType:\n"), "data/a\nb c");
    EXPECT_EQ(Cmdline2Vector("  nice  -n 'b c'\n"), Words({"nice", "-n", "'b", "c'"}));
}

}  // namespace
}  // namespace backup2
