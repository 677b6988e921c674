// Backups that go because their user has gone, or because they were only made for an import.
#include <gtest/gtest.h>

#include "backup_common/backup2_misc.h"

#include "tests/backup_common/fixtures.h"

namespace backup2 {
namespace {

constexpr char kToken[] = "path=/srv;type=local";

class RemovedUsers : public testing::Test {
protected:
    RemovedUsers() { MakeTool("backup2_cp", Script("0")); }
    /// Notes its arguments, one a line, and the storage it is given.
    static std::string Script(const std::string& status) {
        return "printf '%s\\n' \"$@\" \"token=$BACKUP_TOKEN\" > called; echo went wrong; exit " +
               status;
    }
    /// What the copy tool was called with when the panel gives these answers.
    std::string Calls(const std::vector<std::string>& answers, const std::string& user = "bob",
                      const std::string& uid = "1001") {
        fs::remove("called");
        std::vector<std::string> http;
        for (const std::string& answer : answers)
            http.push_back(HttpAnswer("<doc>" + answer + "</doc>"));
        const FakePanel panel(http, "qorvel");
        failure_ = Failure([&] { CheckDeletedUser(user, "2024-01-31", uid); });
        requests_ = panel.Requests();
        return fs::exists("called") ? ReadFile("called") : "";
    }
    static std::string Deletion(const std::string& dir, const std::string& user,
                                const std::string& token) {
        return "--delete\n" + GetInfoFile(dir, user, "2024-01-31") + "\n--force\ntoken=" + token +
               "\n";
    }
    const WorkDir work_;
    const LogCapture log_;
    const EnvGuard token_{"BACKUP_TOKEN", kToken}, hurry_{"VEL_LOCK_WAIT", "0"};
    std::string failure_;
    std::vector<std::string> requests_;
};

const std::string kSettings = "<local_dir>/a b'$(x)/dir</local_dir>";

TEST_F(RemovedUsers, OnlyAnotherUidDeletes) {
    const std::string deletion = Deletion("/a b'$(x)/dir", "bob", "");
    EXPECT_EQ(Calls({"<uid>1001</uid>", kSettings}), "");
    EXPECT_EQ(requests_.size(), 1U);
    EXPECT_EQ(Calls({"<uid>1002</uid>", kSettings}), deletion);
    EXPECT_EQ(Calls({"", kSettings}), deletion);
    EXPECT_EQ(Calls({"<error type='missed' object='user'/>", kSettings}), deletion);
    EXPECT_EQ(Calls({"<uid>01001</uid>", kSettings}), deletion);
    EXPECT_TRUE(requests_.at(0).ends_with("\r\n\r\nfunc=user.edit&elid=bob"));
    EXPECT_EQ(Calls({"", kSettings}, "b&b"), Deletion("/a b'$(x)/dir", "b&b", ""));
    EXPECT_TRUE(requests_.at(0).ends_with("func=user.edit&elid=b%26b"));
    EXPECT_EQ(failure_, "none");
    EXPECT_EQ(Calls({"", kSettings}, "root"), "");
    EXPECT_TRUE(requests_.empty());
}

TEST_F(RemovedUsers, APanelThatCannotTellDeletesNothing) {
    EXPECT_EQ(Calls({"<error type='locked'/>"}) + failure_, "locked");
    EXPECT_EQ(Calls({"<error type='internal' object='panel'/>"}) + failure_, "internal panel");
    EXPECT_EQ(Calls({"<uid>"}) + failure_, "panel bad_answer");
    EXPECT_EQ(Calls({"", "<error type='internal'/>"}) + failure_, "internal");
    EXPECT_EQ(Failure([] { CheckDeletedUser("bob", "2024-01-31", "1001"); }), "panel unreachable");
    EXPECT_FALSE(fs::exists("called"));
}

TEST_F(RemovedUsers, AFailedDeletionIsOnlyLogged) {
    MakeTool("backup2_cp", Script("5"));
    Calls({"", kSettings});
    EXPECT_EQ(failure_, "none");
    EXPECT_TRUE(log_.Has(4, "Cant delete backup for removed user 5. Output: went wrong\n"));
}

TEST_F(RemovedUsers, ABackupForAnImportGoesFromItsStorage) {
    const std::string dir = work_.Path() + "/local dir";
    const auto settings = MakeSettings("bob", dir, "<storage>type=s3;path=/p</storage>");
    DeleteAfterImport(*settings, "bob", "2024-01-31");
    EXPECT_EQ(ReadFile("called"), Deletion(dir, "bob", "path=/p;type=s3"));
    EXPECT_TRUE(log_.Has(5, "Backup is disabled. Delete backup after import " +
                                GetInfoFile(dir, "bob", "2024-01-31")));
    MakeTool("backup2_cp", "kill -9 $$");
    DeleteAfterImport(*settings, "bob", "2024-01-31");
    EXPECT_TRUE(log_.Has(4, "Cant delete backup after import. 137. Output: "));
}

}  // namespace
}  // namespace backup2
