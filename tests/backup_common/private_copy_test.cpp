// The administrator's storage is a local one; the copy tool is a stand-in that writes down what it
// is given, with the bytes.
#include <gtest/gtest.h>

#include "vel/str.h"

#include "tests/backup_common/fixtures.h"

namespace backup2 {
namespace {

class PrivateCopies : public testing::Test {
protected:
    PrivateCopies() {
        SetTool("");
        fs::create_directories("store");
    }
    /// Lines "<user>:<arguments>:<bytes>:<slices that lie in the temporary directory>" go to
    /// "calls".
    static void SetTool(const std::string& more) {
        MakeTool("backup2_cp",
                 "for last; do :; done\n"
                 "case $1 in --server) echo \"limits:$*\" >>calls; exit 3;; esac\n"
                 "arguments=$(echo \"$*\" | sed 's|var/backup/qorvel/bob/.private/|TMP/|')\n"
                 "slices=$(find var/backup/qorvel/bob/.private -type f | wc -l)\n"
                 "echo \"$BACKUP_STORAGE:$arguments:$(head -n 1 \"$last\"):$slices\" >>calls\n"
                 "[ \"$BACKUP_TOKEN\" = 'type=local;path=own' ] || exit 9\n" +
                     more);
    }
    /// A backup of bob: its info file, and slices, indexes and more info files, which hold their
    /// own names.
    static void MakeBackup(const std::string& date, const std::string& info,
                           std::initializer_list<std::string> slices,
                           std::initializer_list<std::string> records) {
        const std::string folder = "bob/" + date + "/";
        for (const std::string& name : slices) MakeFile("store/" + folder + name, name + "\n");
        for (const std::string& name : records) {
            MakeFile(kAdmin + folder + name, str::EndsWith(name, ".info") ? "" : name + "\n");
        }
        MakeFile(kAdmin + folder + date + ".bob.info", info);
    }
    static void MakePlain(const std::string& date, const std::string& mark,
                          const std::string& more) {
        const std::string base = date + ".bob", slice = mark + base + ".tgz";
        MakeBackup(date, "last-slice=bob/" + date + "/" + slice + "\n" + more, {slice},
                   {base + ".tgz"});
    }
    static void Copy(const std::string& date, const std::string& user = "bob") {
        std::error_code none;
        fs::remove("calls", none);
        auto settings = vel_xml::Xml::FromString(
            "<doc><storage local_dir='var/backup/qorvel'>type=local;path=store</storage>"
            "<backup local='yes'/></doc>");
        const auto node = vel_xml::Xml::FromString("<storage local_dir='" + kOwn + "' user='" +
                                                   user + "'>type=local;path=own</storage>");
        CopyToPrivate(settings, date, node.GetRoot());
    }
    static std::string Calls() { return fs::exists("calls") ? ReadFile("calls") : ""; }
    static std::string Limits(const std::string& date) {
        return "limits:--server --path " + kOwn + " --date " + date + " --storage bob\n";
    }
    static std::string Put(const std::string& file) {
        return "bob:--put TMP/bob/" + file + ":" + vel_file::Name(file) + ":1\n";
    }
    /// Uploads of an index and of an info file whose first line is this.
    static std::string Records(const std::string& folder, const std::string& index,
                               const std::string& first = "base=") {
        const std::string info = index.substr(0, index.size() - 4) + ".info";
        return "bob:--put --no-delete " + kAdmin + "bob/" + folder + index + ":" + index +
               ":0\nbob:--put --no-delete " + kOwn + "/" + folder + info + ":" + first + ":0\n";
    }
    static std::string Journal() {
        return fs::exists(kOwn + "/.cleanup") ? ReadFile(kOwn + "/.cleanup") : "none";
    }

    inline static const std::string kAdmin = "var/backup/qorvel/",
                                    kOwn = "var/backup/qorvel.private/bob";
    LogCapture log_;
    const WorkDir work_;
    const EnvGuard token_{"BACKUP_TOKEN"}, storage_{"BACKUP_STORAGE"};
};

TEST_F(PrivateCopies, SlicesGoInOrderOneAtATimeThenTheRecords) {
    const std::string day = "2024-01-31", folder = day + "/", f = "F" + day + ".bob";
    MakeBackup(
        day,
        "last-slice=bob/" + folder + f + ".tgz.part3\nnot-role=x\n" + "role-a=bob/" + folder + f +
            "#a.tgz 12 hash\n" + "role-b=bob/" + folder + f + "#b.tgz.part0 12\n",
        {f + ".tgz.part1", f + ".tgz.part2", f + ".tgz.part3", f + "#a.tgz"},
        {day + ".bob.tgz", day + ".bob#a.tgz", day + ".bob#a.info", f + "#b.tgz", f + "#b.info"});
    Copy(day);
    const std::string slice = "last-slice=bob/" + day;
    EXPECT_EQ(Calls(), Limits(day) + Records(folder, f + "#b.tgz", slice) +
                           Put(folder + f + "#a.tgz") + Records(folder, day + ".bob#a.tgz", slice) +
                           Put(folder + f + ".tgz.part3") + Put(folder + f + ".tgz.part2") +
                           Put(folder + f + ".tgz.part1") +
                           Records(folder, day + ".bob.tgz", slice + "/" + f + ".tgz.part3"));
    EXPECT_EQ(ReadFile(kOwn + "/" + folder + day + ".bob.tgz"), day + ".bob.tgz\n");
    EXPECT_EQ(Journal(), "");
    EXPECT_FALSE(fs::exists(kAdmin + "bob/.private"));
    EXPECT_TRUE(log_.Has(
        8, "CopyToPrivate admin_local_dir = var/backup/qorvel, date = " + day + " user = bob"));
    EXPECT_TRUE(log_.Mentions("Limits of the storage of 'bob' finished with error 3"));
}

TEST_F(PrivateCopies, CustomAndEncryptedNamesFindTheirPlainIndex) {
    const std::string slice = "C2024-01-31.bob.tgz.aes";
    MakeBackup("custom", "key_hash=x\nlast-slice=bob/custom/" + slice + "\n", {slice},
               {"custom.bob.tgz"});
    Copy("custom");
    EXPECT_NE(Calls().find(Put("custom/" + slice)), std::string::npos) << Calls();
    EXPECT_NE(Calls().find(Records("custom/", "custom.bob.tgz",
                                   "last-slice=bob/custom/C2024-01-31.bob.tgz")),
              std::string::npos)
        << Calls();
    // The hash says encrypted, the name says nothing.
    MakePlain("2024-01-30", "F", "key_hash=x\n");
    Copy("2024-01-30");
    EXPECT_TRUE(log_.Mentions("F2024-01-30.bob.tgz' has neither the archive's ending"));
    EXPECT_NE(Calls().find(Put("2024-01-30/F2024-01-30.bob.tgz")), std::string::npos) << Calls();
}

TEST_F(PrivateCopies, MissingOrUnfinishedBaseIsCopiedFirst) {
    MakePlain("2024-01-28", "F", "");
    for (const std::string base :
         {"F2024-01-28.bob.tgz", "bob/2024-01-28/F2024-01-28.bob.tgz.aes"}) {
        MakePlain("2024-01-31", "I", "base=" + base + "\n");
        fs::remove_all(kOwn);
        Copy("2024-01-31");
        EXPECT_EQ(Calls().find(Limits("2024-01-28") + Put("2024-01-28/F2024-01-28.bob.tgz")), 0u)
            << Calls();
        EXPECT_NE(Calls().find(Limits("2024-01-31")), std::string::npos) << Calls();
        const std::string only = Limits("2024-01-31");
        Copy("2024-01-31");
        EXPECT_EQ(Calls().find(only), 0u) << "it is there: " << Calls();
        fs::rename(kOwn + "/2024-01-28/2024-01-28.bob.tgz",
                   kOwn + "/2024-01-28/F2024-01-28.bob.tgz");
        Copy("2024-01-31");
        EXPECT_EQ(Calls().find(only), 0u) << "under its own name: " << Calls();
        Cleanup(kOwn, "type=local;path=own", "bob", "2024-01-28", false);
        Copy("2024-01-31");
        EXPECT_EQ(Calls().find(Limits("2024-01-28")), 0u) << "its copying was cut: " << Calls();
        EXPECT_EQ(Journal(), "");
    }
}

TEST_F(PrivateCopies, FailureLeavesTheJournalLineAndNoTemporary) {
    const std::string line = "type=local;path=own\t2024-01-31.bob\n";
    const std::string failed = "Failed to upload file to user storage";
    MakePlain("2024-01-31", "F", "");
    for (const std::string call : {"*TMP*", "*--no-delete*.tgz", "*.info"}) {
        fs::remove_all(kOwn);
        SetTool("case $arguments in " + call + ") echo no room >&2; exit 4;; esac");
        EXPECT_EQ(Failure([] { Copy("2024-01-31"); }), failed) << call;
        EXPECT_EQ(Journal(), line) << call;
        EXPECT_FALSE(fs::exists(kAdmin + "bob/.private"));
    }
    EXPECT_TRUE(log_.Mentions("bob.info' finished with error 4. Output: no room"));
    fs::remove("store/bob/2024-01-31/F2024-01-31.bob.tgz");
    EXPECT_NE(Failure([] { Copy("2024-01-31"); }), "none");
    EXPECT_EQ(Calls(), Limits("2024-01-31")) << "what cannot be fetched is not stored";
    MakeBackup("2024-01-30", "type=full\n", {}, {});
    Copy("2024-01-30");
    EXPECT_EQ(Calls(), Limits("2024-01-30")) << "no archives";
    EXPECT_EQ(Journal(), line + line) << "of the two failures, and none of the last";
}

TEST_F(PrivateCopies, ForeignNamesAreRefusedBeforeAnythingHappens) {
    const std::string own = "bob/2024-01-31/F2024-01-31.bob";
    for (const std::string& bad : std::initializer_list<std::string>{
             "last-slice=", "last-slice=F2024-01-31.bob.tgz", "last-slice=/" + own + ".tgz",
             "last-slice=" + own + ".tgz.part1000001", "last-slice=" + own + ".tgz.part2000000000",
             "last-slice=bob/2024-01-31/../../../etc/F2024-01-31.bob.tgz",
             "last-slice=bob/2024-01-31/../2024-01-31/F2024-01-31.bob.tgz",
             "last-slice=al/2024-01-31/F2024-01-31.al.tgz",
             "last-slice=bob/2024-01-31/F2024-01-31.al.tgz",
             "last-slice=bob/2024-01-30/F2024-01-30.bob.tgz",
             "last-slice=bob/2024-01-31/2024-01-31.bob.info", "role-x=x.tgz 1",
             "base=../F2024-01-28.bob.tgz", "base=F2024-01-28.al.tgz", "base=F2024-01-31.bob.tgz",
             "base=I2024-02-01.bob.tgz"}) {
        MakeBackup("2024-01-31", bad + "\n", {"F2024-01-31.bob.tgz"}, {});
        EXPECT_NE(Failure([] { Copy("2024-01-31"); }).find("does not belong to this backup"),
                  std::string::npos)
            << bad;
        EXPECT_EQ(Calls() + Journal(), "none") << bad;
    }
    MakeBackup("2024-01-31", "base=\n", {}, {});
    EXPECT_NE(Failure([] { Copy("2024-01-31"); }).find("basic_string::substr"), std::string::npos);
    for (const char* user : {"", "..", "a/b", "-r"}) {
        EXPECT_THROW(Copy("2024-01-31", user), std::runtime_error) << user;
    }
    EXPECT_THROW(Copy("../x"), std::runtime_error);
}

}  // namespace
}  // namespace backup2
