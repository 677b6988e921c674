// The archiver and the copy tool are stand-ins that keep their arguments, one file a call.
#include <gtest/gtest.h>

#include "vel/vel_env.h"

#include "tests/backup_common/fixtures.h"

namespace backup2 {
namespace {

class Run : public testing::Test {
protected:
    Run() {
        Tool("qortar", 0);
        Tool("backup2_cp", 0);
        fs::create_directories(root_);
        MakeFile("./base", "");
        WriteFile("info", "");
    }
    static void Tool(const std::string& name, int status) {
        MakeTool(name, "printf '%s|' \"$@\" >" + name +
                           ".argv; printf '%s' \"$BACKUP_TOKEN\" >env; "
                           "echo out; echo err >&2; exit " +
                           std::to_string(status));
    }
    /// The arguments of a tool's last call, "|" behind each.
    static std::string Arguments(const std::string& name) { return ReadFile(name + ".argv"); }
    std::unique_ptr<Settings> Make(const std::string& user, const std::string& elements) const {
        return MakeSettings(user, work_.Path() + "/l", elements);
    }
    std::string Files(const std::string& folders) const {
        return "<files root=\"" + root_ + "\">" + folders + "</files>";
    }

    LogCapture log_;
    WorkDir work_;
    const std::string root_ = work_.Path() + "/bob";
    EnvGuard token_{"BACKUP_TOKEN"}, slice_{"BACKUP_SLICE"}, prefix_{"BACKUP_COMMAND_PREFIX"};
};

TEST_F(Run, ArchiverGetsEverySettingInItsOrder) {
    const auto settings =
        Make("al'ice", Files("<folder>docs</folder><folder>-x y</folder>") +
                           "<command_prefix>env  A=b</command_prefix>"
                           "<exclude_file><i>*.tmp</i><i>/docs/*</i><i/><i>*</i></exclude_file>"
                           "<system><spec type=\"user\" name=\"alice\"/></system>"
                           "<storage slice_size=\"100M\">type=local</storage>");
    WriteFile("50% $(x).info", "");
    BackupLocal(*settings, "50% $(x).info", "F a.tgz", "-l", "base");
    EXPECT_EQ(Arguments("qortar"),
              "--create|F a.tgz|--slice|100M|--user|al'ice|--root|" + root_ +
                  "|--save-listing|-l|--base|base|--exclude|data*.tmp|--exclude|/docs/*|--exclude||"
                  "--exclude|data*|--execute|"
                  "sbin/backup2_cp --put --info-file '50%% $(x).info' --%c %p/%f|"
                  "--backup-hook|.system/|--backup-hook-execute|"
                  "sbin/backup2_system --%c --user 'al'\\''ice' --manager panel %p/%f|"
                  ".system|docs|-x y|");
    EXPECT_EQ(Arguments("backup2_cp"),
              "--put|--info-file|50% $(x).info|--isolated|--no-delete|-l|");
    EXPECT_FALSE(fs::exists("50% $(x).info")) << "the working file goes after the last upload";
}

TEST_F(Run, OptionsWithoutASettingAreLeftOut) {
    BackupLocal(*Make("root", Files("<folder>d</folder>")), "info", "a", "l", "missing base");
    EXPECT_EQ(Arguments("qortar"), "--create|a|--slice||--root|" + root_ +
                                       "|--save-listing|l|--execute|"
                                       "sbin/backup2_cp --put --info-file info --%c %p/%f|d|");
}

TEST_F(Run, FailureKeepsTheInfoFileAndShowsWhatTheToolSaid) {
    const auto settings = Make("bob", Files(""));
    const auto failed = [&] {
        EXPECT_EQ(Failure([&] { BackupLocal(*settings, "info", "a", "l", ""); }),
                  "Failed to create backup");
    };
    Tool("qortar", 1);
    failed();
    EXPECT_TRUE(log_.Has(3, "qortar finished with error 1. Output: out\nerr\n"));
    EXPECT_FALSE(fs::exists("backup2_cp.argv")) << "no listing of a failed archive";
    Tool("qortar", 0);
    Tool("backup2_cp", 3);
    failed();
    EXPECT_TRUE(log_.Has(3, "final backup2_cp call finished with error 3. Output: out\nerr\n"));
    EXPECT_TRUE(fs::exists("info"));
    fs::remove("sbin/qortar");
    failed();
    EXPECT_TRUE(log_.Mentions("qortar finished with error 127."));
}

TEST_F(Run, ToolsGetTheTokenWithThePasswordInTheirEnvironment) {
    const auto settings =
        Make("bob", Files("") + "<storage>type=local;arch_password=YQ==</storage>");
    SetStorageEnv(*settings, "", "", "pass");
    EXPECT_EQ(vel_env::GetEnv("BACKUP_TOKEN"), "arch_password=cGFzcw==;type=local");
    EXPECT_EQ(settings->storage().at("BACKUP_TOKEN"), "type=local;arch_password=YQ==");
    BackupLocal(*settings, "info", "a", "l", "");
    EXPECT_EQ(ReadFile("env"), "arch_password=cGFzcw==;type=local");
    SetStorageEnv(*settings, "", "", "");
    EXPECT_EQ(vel_env::GetEnv("BACKUP_TOKEN"), "arch_password=YQ==;type=local");
}

}  // namespace
}  // namespace backup2
