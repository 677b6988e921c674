#include <sys/stat.h>
#include <unistd.h>

#include <ctime>

#include <gtest/gtest.h>

#include "vel/vel_file.h"

#include "backup_common/backup2_misc.h"

#include "tests/backup_common/fixtures.h"

namespace backup2 {
namespace {

using Names = std::vector<std::string>;

class InfoFiles : public testing::Test {
protected:
    /// GetInfoFiles below `dir`, as names relative to it, sorted.
    Names Found(const std::string& dir, const std::string& user, const std::string& date) const {
        std::list<std::string> paths{"old"};
        GetInfoFiles(paths, dir, true, user, date);
        Names names;
        for (const std::string& path : paths) names.push_back(fs::relative(path, dir));
        std::sort(names.begin(), names.end());
        return names;
    }

    FdCheck descriptors_;
    LogCapture log_;
    WorkDir work_;
    const std::string admin_ = work_.Path() + "/var/backup/qorvel", user_ = work_.Path() + "/own";
};

TEST_F(InfoFiles, ServiceFileIsFlatWhereItExistsElseNested) {
    EXPECT_EQ(GetInfoFile(user_, "bob", "2024-01-31"), user_ + "//2024-01-31/2024-01-31.bob.info");
    EXPECT_EQ(GetIndexFile(admin_, "bob#3", "custom"), admin_ + "//bob/custom/custom.bob#3.tgz");
    MakeFile(admin_ + "/2024-01-31.bob.info", "");
    EXPECT_EQ(GetInfoFile(admin_, "bob", "2024-01-31"), admin_ + "//2024-01-31.bob.info");
    EXPECT_EQ(GetIndexFile(admin_, "bob", "2024-01-31"),
              admin_ + "//bob/2024-01-31/2024-01-31.bob.tgz");
}

TEST_F(InfoFiles, LinksInTheirPlaceAreRefused) {
    WriteFile(work_.Path() + "/secret", "type=full");
    fs::create_directories(user_);
    const std::string info = user_ + "/2024-01-31.bob.info";
    fs::create_symlink(work_.Path() + "/secret", info);
    const std::string refused = "Path is symlink_link";
    EXPECT_EQ(Failure([&] { GetInfo(info); }), refused);
    EXPECT_EQ(Failure([&] { GetInfoFile(user_, "bob", "2024-01-31"); }), refused);
    EXPECT_EQ(Failure([&] { CheckLinkPath(info); }), refused);
    EXPECT_EQ(Found(user_, "", ""), Names());
}

TEST_F(InfoFiles, SearchFindsBothLayoutsOfOneUserAndDate) {
    for (const std::string& base : {admin_, user_}) {
        for (const char* name :
             {"2024-01-31.bob.info", "2024-01-31.bob.tgz", ".2024-01-31.bob.info",
              "2024-02-01.bob/2024-02-01.bob.info", "bob/2024-01-31/2024-01-31.bob.info",
              "bob/2024-02-01/2024-02-01.bob#r.info", "bob/custom/custom.bob.info",
              "bob/2024-02-30/2024-02-30.bob.info", "eve/2024-01-31/2024-01-31.eve.info"}) {
            MakeFile(base + "/" + name, "");
        }
        fs::create_directories(base + "/2024-03-01.bob.info");
        fs::create_directory_symlink(base + "/eve", base + "/mallory");
        fs::create_directory_symlink(base + "/eve/2024-01-31", base + "/bob/2024-03-03");
    }
    const Names everything = {"2024-01-31.bob.info", "bob/2024-01-31/2024-01-31.bob.info",
                              "bob/2024-02-01/2024-02-01.bob#r.info", "bob/custom/custom.bob.info",
                              "eve/2024-01-31/2024-01-31.eve.info"};
    EXPECT_EQ(Found(admin_, "", ""), everything);
    EXPECT_EQ(Found(user_, "", "2024-02-01"),
              Names({"2024-02-01.bob/2024-02-01.bob.info", everything[2]}))
        << "any folder of a user's own tree";
    EXPECT_EQ(Found(admin_, "eve", ""), Names({everything[4]}));
    EXPECT_EQ(Found(admin_, "bob", "2024-01-31"), Names({everything[0], everything[1]}));
    EXPECT_EQ(Found(admin_, "", "custom"), Names({everything[3]}));
    EXPECT_THROW(Found(work_.Path() + "/missing", "", ""), vel_err::Error);
}

TEST_F(InfoFiles, LocalDirectoryIsMadeForItsUser) {
    EXPECT_EQ(MkLocalDir(admin_, "nobody", "2024-01-31"), admin_ + "/nobody/2024-01-31");
    EXPECT_EQ(MkLocalDir(user_, "no-such-user", "d"), user_ + "/d");
    const struct stat made = vel_file::Info(admin_ + "/nobody/2024-01-31").Stat();
    EXPECT_EQ(made.st_mode & 07777, 0440u);
    EXPECT_NE(made.st_uid, 0u);
    EXPECT_EQ(vel_file::Info(user_ + "/d").Stat().st_uid, 0u);
    EXPECT_EQ(GetLocalBackupPath(user_ + "/x"), user_ + "/x");
    MakeFile(user_ + "/a.info", "");
    EXPECT_EQ(GetLocalBackupPath(user_ + "/x"), user_);

    WriteSystemFile(user_ + "/file", "content");  // dated one hour back
    EXPECT_EQ(ReadFile(user_ + "/file"), "content");
    const time_t age = ::time(nullptr) - vel_file::Info(user_ + "/file").Stat().st_mtime;
    EXPECT_TRUE(age >= 3600 && age < 7200) << age;
}

TEST_F(InfoFiles, LinkNeverEmptiesAnExistingFile) {
    const std::string a = work_.Path() + "/a", b = work_.Path() + "/b", other = work_.Path() + "/c";
    WriteFile(a, "new");
    for (const std::string& target : {b, b, a}) Link(a, target);
    EXPECT_TRUE(fs::equivalent(a, b));
    EXPECT_EQ(ReadFile(a) + ReadFile(b), "newnew");
    fs::remove(b);
    WriteFile(b, "old");
    fs::create_hard_link(b, other);
    Link(a, b);
    EXPECT_EQ(ReadFile(b) + ReadFile(other), "newold") << "replaced, never written into";
    EXPECT_THROW(Link(work_.Path() + "/missing", b), vel_err::Error);
    EXPECT_EQ(ReadFile(b), "new");
}

/// Status of a child that tries to mark the directory: 0 marked, 1 busy.
int MarkInAnotherProcess(const std::string& dir) {
    return WaitForChild(StartChild([&] {
        const std::string failure = Failure([&] {
            const Lock lock(dir);
            ::_exit(0);  // as a killed process ends
        });
        return failure == "lock busy" ? 1 : 2;
    }));
}

TEST_F(InfoFiles, DirectoryInUseIsMarkedForOtherProcesses) {
    const std::string marker = user_ + "/.backup.inuse";
    { const Lock nothing(user_); }
    EXPECT_FALSE(fs::exists(user_));
    fs::create_directory(user_);
    {
        const Lock lock(user_);
        EXPECT_EQ(MarkInAnotherProcess(user_), 1);
        EXPECT_TRUE(fs::exists(marker));
    }
    EXPECT_FALSE(fs::exists(marker));
    EXPECT_EQ(MarkInAnotherProcess(user_), 0);
    EXPECT_TRUE(fs::exists(marker));
    {
        const Lock lock(user_);
        fs::rename(marker, user_ + "/moved");
        WriteFile(marker, "another's");
    }
    EXPECT_EQ(ReadFile(marker), "another's") << "only the own marker is removed";
}

TEST_F(InfoFiles, FailedBackupIsDeletedByTheCopyTool) {
    MakeTool("backup2_cp", "printf '%s|' \"$@\"; exit 7");
    DelBackupOnError("/b", "a 'b$(x)", "2024-01-31");
    EXPECT_TRUE(log_.Mentions("Code: 7. Str: --delete|/b//2024-01-31/2024-01-31.a 'b$(x).info|"));
    fs::create_symlink("/", "2024-01-31.bob.info");
    EXPECT_NO_THROW(DelBackupOnError("", "bob", "2024-01-31"));
    EXPECT_TRUE(log_.Mentions("symlink_link"));
}

}  // namespace
}  // namespace backup2
