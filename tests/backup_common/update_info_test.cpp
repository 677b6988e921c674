#include <sys/stat.h>

#include <gtest/gtest.h>

#include "vel/str.h"

#include "tests/backup_common/fixtures.h"

namespace backup2 {
namespace {

class InfoUpdate : public testing::Test {
protected:
    InfoUpdate() {
        for (const char* name : {"Fred", "F2024-01-21.bob.tgz.2", "2024-01-28.bob.tgz"}) {
            MakeFile("store/" + std::string(name), "");
        }
    }
    /// The new text for a storage with these parameters.
    static std::string Update(const std::string& token, const std::string& file,
                              const std::string& text) {
        WriteFile(file, text);
        const auto element = vel_xml::Xml::FromString("<storage>" + token + "</storage>");
        UpdateInfo(element.GetRoot(), file, "bob/2024-01-31");
        return ReadFile(file);
    }

    const WorkDir work_;
};

TEST_F(InfoUpdate, DescribesTheTarget) {
    const std::string plain = "type=local;path=store", password = "arch_password=c2VjcmV0",
                      secret = plain + ";" + password;
    const std::string hash =  // sha256 of "secret"
        "key_hash=2bb80d537b1da3e38bd30361aa855686bde0eacd7162fef6a25fe97bf527a25b|";
    const struct {
        std::string token, file, before, after;  // "|" for line ends
    } cases[] = {
        {plain, "i.info", "", "last-slice=bob/2024-01-31"},
        {plain, "i.info", "a=b=c|key_hash=x|last-slice=bob/d/F.bob.tgz.part2|role-x=y 9|size=100",
         "a=b=c|key_hash=x|last-slice=bob/2024-01-31/F.bob.tgz.part2|role-x=y 9|size=100"},
        {secret, "i.info", "last-slice=bob/d/F.bob.tgz.part2|size=100|",
         hash + "last-slice=bob/2024-01-31/F.bob.tgz.aes.part2|size=97"},
        {secret, "i.info", "last-slice=F.bob.tgz",
         hash + "last-slice=bob/2024-01-31/F.bob.tgz.aes|size=-31"},
        {plain, "i.info", "key_hash=x|last-slice=bob/d/F.bob.tgz.aes|size=100",
         "last-slice=bob/2024-01-31/F.bob.tgz|size=100"},
        {secret, "i.info", "key_hash=x|last-slice=F.bob.tgz.aes|size=100",
         hash + "last-slice=bob/2024-01-31/F.bob.tgz.aes|size=100"},
        {plain, "b#.info", "last-slice=l|role-a=bob/d/F.bob#a.tgz.aes 99 x|role-b=x|roles=y 9",
         "last-slice=bob/2024-01-31/l|role-a=bob/2024-01-31/F.bob#a.tgz 97|"
         "role-b=bob/2024-01-31/x -31|roles=y 9"},
        {plain, "i.info", "base=F2024-01-28.bob.tgz.aes",  // not on the top level
         "base=bob/2024-01-28/F2024-01-28.bob.tgz|last-slice=bob/2024-01-31"},
        {secret, "i.info", "base=F2024-01-21.bob.tgz|last-slice=x.aes",
         "base=F2024-01-21.bob.tgz.aes|" + hash + "last-slice=bob/2024-01-31/x.aes"},
        {password, "i.info", "base=a/F2024-01-21.bob.tgz|last-slice=x.aes",  // nothing to list
         "base=a/F2024-01-21.bob.tgz.aes|" + hash + "last-slice=bob/2024-01-31/x.aes"},
    };
    for (const auto& c : cases) {
        const std::string text = str::Replace(c.before, "|", "\n");
        EXPECT_EQ(str::Replace(Update(c.token, c.file, text), "\n", "|"), c.after) << c.before;
    }
}

TEST_F(InfoUpdate, ReplacesTheFileOrLeavesIt) {
    WriteFile("i.info", "");
    ASSERT_EQ(::chmod("i.info", 0640), 0);
    fs::create_hard_link("i.info", "second name");
    Update("type=local;path=store", "i.info", "size=1\n");
    EXPECT_EQ(vel_file::Info("i.info").Stat().st_mode & 07777, 0640u);
    EXPECT_EQ(ReadFile("second name"), "size=1\n");
    const std::string text = "base=F2024-01-28.bob.tgz\nsize=1\n";
    EXPECT_EQ(Failure([&] { Update("type=tape", "i.info", text); }), "Unknown storage type 'tape'");
    EXPECT_EQ(ReadFile("i.info"), text);
}

}  // namespace
}  // namespace backup2
