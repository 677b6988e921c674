#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "vel/vel_env.h"
#include "vel/vel_file.h"

#include "tests/backup_common/fixtures.h"

namespace backup2 {
namespace {

using Names = std::vector<std::string>;
using List = std::list<std::string>;

class SettingsTest : public testing::Test {
protected:
    SettingsTest() { fs::create_directories(root_ + "/data"); }

    std::unique_ptr<Settings> Make(const std::string& elements) const {
        return MakeSettings("bob", local_, elements);
    }
    std::string Files(const std::string& inner = "") const {
        return "<files root=\"" + root_ + "\">" + inner + "</files>";
    }
    static Names In(const std::string& dir) {
        Names names;
        for (const auto& entry : fs::directory_iterator(dir))
            names.push_back(entry.path().filename());
        std::sort(names.begin(), names.end());
        return names;
    }
    std::string Refusal(const std::string& elements) const {
        return Failure([&] { Make(elements); });
    }

    FdCheck descriptors_;
    LogCapture log_;
    WorkDir work_;
    const std::string local_ = work_.Path() + "/local", root_ = work_.Path() + "/bob";
    EnvGuard token_{"BACKUP_TOKEN", "type=ftp"}, slice_{"BACKUP_SLICE", "7M"},
        prefix_{"BACKUP_COMMAND_PREFIX", "nice -n 19"};
    const std::string spec_ = "<system><spec type=\"user\" name=\"bob\"/></system>";
};

TEST_F(SettingsTest, EnvironmentStandsInForMissingElementsOnly) {
    const auto without = Make("<command_prefix/>");
    EXPECT_EQ(without->command_prefix(), "nice -n 19");
    EXPECT_EQ(without->slice_size(), "7M");
    EXPECT_EQ(without->storage().at("BACKUP_TOKEN"), "type=ftp");
    EXPECT_TRUE(without->empty());
    const auto with = Make(Files() + "<storage/>");
    EXPECT_EQ(with->slice_size(), "");
    EXPECT_EQ(with->storage().at("BACKUP_TOKEN"), "");
}

TEST_F(SettingsTest, RequestNamesTheUserAndTheKindOfData) {
    const FakePanel panel({HttpAnswer("<doc><local_dir>" + local_ + "</local_dir></doc>")});
    Settings("panel", "b&b", true, "a b");
    Settings("panel", "b&b", false, "a b");
    const std::string want = "\r\nfunc=backup2.item.info&elid=b%26b&role=a%20b&userdata=";
    EXPECT_TRUE(panel.Requests().at(0).ends_with(want + "on")) << panel.Requests()[0];
    EXPECT_TRUE(panel.Requests().at(1).ends_with(want + "off")) << panel.Requests()[1];
}

TEST_F(SettingsTest, WithoutFilesTheRootIsAnEmptyFolderOfItsOwn) {
    MakeFile(local_ + "/.backup2/left/by a crash", "");
    {
        const auto settings = Make(spec_);
        EXPECT_EQ(settings->root(), local_ + "/.backup2");
        EXPECT_EQ(settings->system(), local_ + "/.backup2/.system");
        EXPECT_EQ(In(settings->root()), Names({".system"}));
        settings->Init();  // reads the same document again
        EXPECT_EQ(In(settings->system()), Names({"user.bob"}));
    }
    EXPECT_EQ(In(local_), Names());
    EXPECT_EQ(vel_file::Info(local_).Stat().st_mode & 07777, 0700u);
}

TEST_F(SettingsTest, MarkersNameTheSystemDataToSave) {
    MakeFile(root_ + "/.system/db.stale", "of a killed job");
    const std::string elements =
        Files() +
        "<system><spec type=\"db\" name=\"mysql.shop\"/><spec type=\"db\" name=\"mysql.a.b\"/>"
        "<spec type=\"db\" name=\"mysql.out\"/><spec type=\"db\" name=\"plain\"/>"
        "<spec type=\"user\" name=\"mysql.out\"/><spec type=\"user\" name=\"mysql.out\"/>"
        "</system><exclude_db><exclude>out</exclude><exclude></exclude></exclude_db>";
    {
        const auto settings = Make(elements);
        EXPECT_EQ(In(settings->system()),
                  Names({"db.mysql.a.b", "db.mysql.shop", "user.mysql.out"}));
        EXPECT_EQ(vel_file::Info(settings->system()).Stat().st_mode & 07777, 0700u);
        MakeFile(settings->system() + "/dump/made/by/a tool", "x");
    }
    EXPECT_EQ(In(root_), Names({"data"}));
}

TEST_F(SettingsTest, PlantedLinkStopsTheJobAndNothingElse) {
    MakeFile(work_.Path() + "/canary/file", "");
    fs::create_directory_symlink(work_.Path() + "/canary", root_ + "/.system");
    EXPECT_EQ(Refusal(Files() + spec_), "Path is symlink_link");
    EXPECT_EQ(In(work_.Path() + "/canary"), Names({"file"}));
    fs::remove(root_ + "/.system");
    ASSERT_EQ(::mkfifo((root_ + "/.system").c_str(), 0600), 0);
    EXPECT_EQ(Refusal(Files() + spec_), "sys mkdir");

    const std::string home = work_.Path() + "/home", site = home + "/site";  // both are nobody's
    fs::create_directory(home);
    fs::create_directory_symlink(work_.Path() + "/canary", site);
    ASSERT_EQ(::chown(home.c_str(), 65534, 0) + ::lchown(site.c_str(), 65534, 0), 0);
    EXPECT_EQ(Refusal("<files root=\"" + site + "\"/>" + spec_), "sys open");
    EXPECT_EQ(In(work_.Path() + "/canary"), Names({"file"}));
}

TEST_F(SettingsTest, MarkerNeverLiesElsewhere) {
    for (const char* name : {"a/b", "/../../x", "/"}) {
        const std::string specs =
            "<system><spec type=\"user\" name=\"bob\"/><spec type=\"db\" name=\"" +
            std::string(name) + "\"/></system>";
        EXPECT_EQ(Refusal(Files() + specs), "file bad_name") << name;
        EXPECT_EQ(Refusal(specs), "file bad_name") << name;
        EXPECT_EQ(In(root_), Names({"data"}));
        EXPECT_EQ(In(local_), Names());
    }
    EXPECT_EQ(Refusal(Files() + "<system><spec type=\".\" name=\"\"/></system>"), "file bad_name");
}

TEST_F(SettingsTest, FolderSwappedDuringTheJobCostsNobodyAFile) {
    MakeFile(work_.Path() + "/canary/file", "");
    auto settings = Make(Files() + spec_);
    fs::rename(root_ + "/.system", root_ + "/moved");
    fs::create_directory_symlink(work_.Path() + "/canary", root_ + "/.system");
    EXPECT_THROW(settings->Init(), vel_err::AssertError);
    EXPECT_EQ(settings->system(), "");
    settings.reset();
    EXPECT_EQ(In(work_.Path() + "/canary"), Names({"file"}));
    EXPECT_EQ(In(root_ + "/moved"), Names()) << "the markers are gone, wherever they are now";
    EXPECT_TRUE(log_.Mentions("Cannot remove '" + root_ + "/.system'"));
}

}  // namespace
}  // namespace backup2
