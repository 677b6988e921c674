#include <sys/stat.h>

#include <gtest/gtest.h>

#include "tests/backup_common/fixtures.h"

namespace backup2 {
namespace {

/// sha256 of "secret", whose base64 is c2VjcmV0.
const std::string kHash = "2bb80d537b1da3e38bd30361aa855686bde0eacd7162fef6a25fe97bf527a25b";

/// Tokens of storages that hold the files "top" on their top level.
class InfoUpdate : public testing::Test {
protected:
    InfoUpdate() {
        for (const char* name : {"Fred", "F2024-01-21.bob.tgz.2", "2024-01-28.bob.tgz"}) {
            MakeFile("store/" + std::string(name), "");
        }
    }
    static std::string Update(const std::string& token, const std::string& file,
                              const std::string& text) {
        WriteFile(file, text);
        const auto element = vel_xml::Xml::FromString("<storage>" + token + "</storage>");
        UpdateInfo(element.GetRoot(), file, "bob/2024-01-31");
        return ReadFile(file);
    }

    const WorkDir work_;
    const std::string plain_ = "type=local;path=store",
                      secret_ = "type=local;path=store;arch_password=c2VjcmV0";
};

TEST_F(InfoUpdate, DescribesTheTarget) {
    const struct {
        const char* what;
        std::string token, file, before, after;
    } cases[] = {
        {"nothing there", plain_, "i.info", "", "last-slice=bob/2024-01-31\n"},
        {"other keys stay", plain_, "i.info",
         "a=b=c\nkey_hash=x\nlast-slice=bob/d/F.bob.tgz.part2\nrole-x=y 100\nsize=100\n",
         "a=b=c\nkey_hash=x\nlast-slice=bob/2024-01-31/F.bob.tgz.part2\nrole-x=y 100\nsize=100\n"},
        {"plain to encrypted", secret_, "i.info", "last-slice=bob/d/F.bob.tgz.part2\nsize=100\n",
         "key_hash=" + kHash + "\nlast-slice=bob/2024-01-31/F.bob.tgz.aes.part2\nsize=97\n"},
        {"a size of its own", secret_, "i.info", "last-slice=F.bob.tgz",
         "key_hash=" + kHash + "\nlast-slice=bob/2024-01-31/F.bob.tgz.aes\nsize=-31\n"},
        {"encrypted to plain", plain_, "i.info",
         "key_hash=x\nlast-slice=bob/d/F.bob.tgz.aes\nsize=100\n",
         "last-slice=bob/2024-01-31/F.bob.tgz\nsize=100\n"},
        {"encrypted to encrypted", secret_, "i.info",
         "key_hash=x\nlast-slice=F.bob.tgz.aes\nsize=100\n",
         "key_hash=" + kHash + "\nlast-slice=bob/2024-01-31/F.bob.tgz.aes\nsize=100\n"},
        {"roles of a master", plain_, "b#.info",
         "last-slice=l\nrole-a=bob/d/F.bob#a.tgz.aes 100 hash\nrole-b=x\nroles=y 100\n",
         "last-slice=bob/2024-01-31/l\nrole-a=bob/2024-01-31/F.bob#a.tgz 97\n"
         "role-b=bob/2024-01-31/x -31\nroles=y 100\n"},
        {"base elsewhere", plain_, "i.info", "base=F2024-01-28.bob.tgz.aes\n",
         "base=bob/2024-01-28/F2024-01-28.bob.tgz\nlast-slice=bob/2024-01-31\n"},
        {"base on the top level", secret_, "i.info", "base=F2024-01-21.bob.tgz\nlast-slice=x.aes\n",
         "base=F2024-01-21.bob.tgz.aes\nkey_hash=" + kHash + "\nlast-slice=bob/2024-01-31/x.aes\n"},
        {"base with a folder", "arch_password=c2VjcmV0", "i.info",  // a storage that has no listing
         "base=bob/2024-01-21/F2024-01-21.bob.tgz\nlast-slice=x.aes\n",
         "base=bob/2024-01-21/F2024-01-21.bob.tgz.aes\nkey_hash=" + kHash +
             "\nlast-slice=bob/2024-01-31/x.aes\n"},
    };
    for (const auto& c : cases) EXPECT_EQ(Update(c.token, c.file, c.before), c.after) << c.what;
}

TEST_F(InfoUpdate, ReplacesTheFileOrLeavesIt) {
    WriteFile("i.info", "");
    ASSERT_EQ(::chmod("i.info", 0640), 0);
    const auto inode = vel_file::Info("i.info").Stat().st_ino;
    fs::create_hard_link("i.info", "second name");
    Update(plain_, "i.info", "size=1\n");
    EXPECT_EQ(vel_file::Info("i.info").Stat().st_mode & 07777, 0640u);
    EXPECT_NE(vel_file::Info("i.info").Stat().st_ino, inode);
    EXPECT_EQ(ReadFile("second name"), "size=1\n");
    const std::string text = "base=F2024-01-28.bob.tgz\nsize=1\n";
    EXPECT_EQ(Failure([&] { Update("type=tape", "i.info", text); }), "Unknown storage type 'tape'");
    EXPECT_EQ(ReadFile("i.info"), text);
}

}  // namespace
}  // namespace backup2
