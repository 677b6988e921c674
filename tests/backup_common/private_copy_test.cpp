// The administrator's storage is a local one; the copy tool is a stand-in that writes down what it
// is given.
#include <gtest/gtest.h>

#include "vel/str.h"

#include "tests/backup_common/fixtures.h"

namespace backup2 {
namespace {

const std::string kAdmin = "var/backup/qorvel/bob/", kOwn = "var/backup/qorvel.private/bob/";

class PrivateCopies : public testing::Test {
protected:
    PrivateCopies() {
        SetTool();
        fs::create_directories("store");
    }
    /// Adds a line to "calls": "limits" or "<what> <path> <BACKUP_STORAGE> <slices there>", with T
    /// for the temporary folder, A for the administrator's and P for the private one, J for
    /// "2024-01-". Slices hold their own names.
    static void SetTool() {
        MakeTool("backup2_cp",
                 "for last; do :; done; slices=\n"
                 "case $last in */.private/*) [ \"$(cat $last)\" = \"${last##*/}\" ] || exit 8;\n"
                 "  slices=\" $(find ${last%/*} -type f | wc -l)\";; esac\n"
                 "echo \"$* $BACKUP_STORAGE$slices\" | sed 's|" +
                     kAdmin + ".private/bob|T|;s|" + kAdmin + "|A/|;s|" + kOwn +
                     "|P/|;s|--put --no-delete|keep|;s|--put|data|;" +
                     "s|--server --path P/ --date|limits|;s|2024-01-|J|g' >>calls\n" +
                     "[ $1 != --server ] || exit 3\n" +
                     "[ \"$BACKUP_TOKEN\" = 'type=local;path=own' ] || exit 9");
    }
    /// A backup of bob with these slices, indexes and other info files.
    static void MakeBackup(const std::string& date, const std::string& info,
                           std::initializer_list<std::string> slices,
                           std::initializer_list<std::string> records) {
        for (const auto& name : slices) MakeFile("store/bob/" + date + "/" + name, name);
        for (const auto& name : records) MakeFile(kAdmin + date + "/" + name, "");
        MakeFile(kAdmin + date + "/" + date + ".bob.info", info);
    }
    /// What the tool was called for, and the journal's text; or why it failed.
    static std::string Copy(const std::string& date, const std::string& user = "bob") {
        WriteFile("calls", "");
        auto settings = vel_xml::Xml::FromString(
            "<doc><storage local_dir='var/backup/qorvel'>type=local;path=store</storage>"
            "<backup local='yes'/></doc>");
        const auto node = vel_xml::Xml::FromString("<storage local_dir='" + kOwn + "' user='" +
                                                   user + "'>type=local;path=own</storage>");
        const std::string failure = Failure([&] { CopyToPrivate(settings, date, node.GetRoot()); });
        EXPECT_FALSE(fs::exists(kAdmin + ".private"));
        const std::string journal = fs::exists(kOwn) ? ReadFile(kOwn + ".cleanup") : "";
        return (failure == "none" ? ReadFile("calls") : failure + "\n") + journal;
    }

    LogCapture log_;
    const WorkDir work_;
    const EnvGuard token_{"BACKUP_TOKEN"}, storage_{"BACKUP_STORAGE"};
};

TEST_F(PrivateCopies, SlicesGoInOrderOneAtATimeThenTheRecords) {
    const std::string place = "bob/2024-01-31/F2024-01-31.bob";
    MakeBackup("2024-01-31",
               "last-slice=" + place + ".tgz.part2\nnot-role=x\nrole-a=" + place +
                   "#a.tgz 12 x\nrole-b=" + place + "#b.tgz.part0 12\n",
               {"F2024-01-31.bob.tgz.part1", "F2024-01-31.bob.tgz.part2", "F2024-01-31.bob#a.tgz"},
               {"2024-01-31.bob.tgz", "2024-01-31.bob#a.tgz", "2024-01-31.bob#a.info",
                "F2024-01-31.bob#b.tgz", "F2024-01-31.bob#b.info"});
    EXPECT_EQ(Copy("2024-01-31"),
              "limits J31 --storage bob \n"
              "keep A/J31/FJ31.bob#b.tgz bob\nkeep P/J31/FJ31.bob#b.info bob\n"
              "data T/J31/FJ31.bob#a.tgz bob 1\n"
              "keep A/J31/J31.bob#a.tgz bob\nkeep P/J31/J31.bob#a.info bob\n"
              "data T/J31/FJ31.bob.tgz.part2 bob 1\n"
              "data T/J31/FJ31.bob.tgz.part1 bob 1\n"
              "keep A/J31/J31.bob.tgz bob\nkeep P/J31/J31.bob.info bob\n");
    EXPECT_EQ(ReadFile(kOwn + "2024-01-31/2024-01-31.bob#a.info"), "last-slice=bob/2024-01-31");
    EXPECT_TRUE(fs::exists(kOwn + "2024-01-31/2024-01-31.bob.tgz"));
    EXPECT_TRUE(log_.Has(
        8, "CopyToPrivate admin_local_dir = var/backup/qorvel, date = 2024-01-31 user = bob"));
    EXPECT_TRUE(log_.Mentions("Limits of the storage of 'bob' finished with error 3"));
}

TEST_F(PrivateCopies, ForeignNamesAreRefusedBeforeAnythingHappens) {
    const std::string own = "bob/2024-01-31/F2024-01-31.bob.tgz";
    for (const std::string& bad : std::initializer_list<std::string>{
             "last-slice=", "last-slice=F2024-01-31.bob.tgz", "last-slice=/" + own,
             "last-slice=" + own + ".part1000001", "last-slice=" + own + ".part2000000000",
             "last-slice=bob/2024-01-31/../../../etc/F2024-01-31.bob.tgz",
             "last-slice=bob/2024-01-31/../2024-01-31/F2024-01-31.bob.tgz",
             "last-slice=al/2024-01-31/F2024-01-31.al.tgz",
             "last-slice=bob/2024-01-31/F2024-01-31.al.tgz",
             "last-slice=bob/2024-01-30/F2024-01-30.bob.tgz",
             "last-slice=bob/2024-01-31/2024-01-31.bob.info", "role-x=x.tgz 1",
             "base=../F2024-01-28.bob.tgz", "base=F2024-01-28.al.tgz", "base=F2024-01-31.bob.tgz",
             "base=I2024-02-01.bob.tgz"}) {
        MakeBackup("2024-01-31", bad + "\n", {"F2024-01-31.bob.tgz"}, {});
        EXPECT_TRUE(str::EndsWith(Copy("2024-01-31"), "does not belong to this backup\n")) << bad;
        EXPECT_TRUE(ReadFile("calls").empty()) << bad;
    }
    MakeBackup("2024-01-31", "base=\n", {}, {});
    EXPECT_NE(Copy("2024-01-31").find("basic_string::substr"), std::string::npos);
    for (const char* user : {"", "..", "a/b", "-r"}) {
        EXPECT_TRUE(str::EndsWith(Copy("2024-01-31", user), "not belong to this backup\n")) << user;
    }
    EXPECT_TRUE(str::EndsWith(Copy("../x"), "not belong to this backup\n"));
}

}  // namespace
}  // namespace backup2
