// What only the local storage does; the rest is in tests/contract.
#include <pwd.h>
#include <sys/stat.h>
#include <sys/statfs.h>

#include <gtest/gtest.h>

#include "vel/vel_file.h"

#include "backup_common/backup2_storage.h"

#include "tests/backup_common/fixtures.h"

namespace backup2 {
namespace {

class LocalStorage : public testing::Test {
protected:
    std::shared_ptr<Storage> Open(const std::string& more = "") const {
        return GetStorage(BackupToken("type=local;path=" + base_ + more));
    }
    std::shared_ptr<Storage> OpenEncrypted() const { return Open(";arch_password=c2VjcmV0"); }
    static struct stat Stat(const std::string& path) { return vel_file::Info(path, false).Stat(); }

    TempDir dir_;
    const std::string base_ = dir_ / "base", in_ = dir_ / "in", out_ = dir_ / "out";
    LogCapture log_;
};

TEST_F(LocalStorage, ArchiveBelongsToTheUserOfItsBareName) {
    const std::pair<std::string, std::string> cases[] = {
        {"2024-03-01.nobody.tgz", "nobody"},
        {"a.root.tgz/2024-03-01.nobody#r.info", "nobody"},
        {"2024-03-01.no-such-user.tgz", "root"},
        {"nobody/name", "root"}};
    for (const auto& [name, owner] : cases) {
        WriteFile(in_, "x");
        MakeFile(base_ + "/" + name + ".dir", "");  // makes the directories
        ASSERT_TRUE(Open()->Put(name, in_));
        const struct stat st = Stat(base_ + "/" + name);
        EXPECT_EQ(st.st_uid, ::getpwnam(owner.c_str())->pw_uid) << name;
        EXPECT_EQ(st.st_gid, 0u);
        EXPECT_EQ(st.st_mode & 07777, 0440u);
        fs::remove(in_);
    }
}

TEST_F(LocalStorage, PlainArchiveIsLinkedAndTheStoredFileItselfStays) {
    WriteFile(in_, "bytes");
    const auto storage = Open();
    storage->MkDir("");
    ASSERT_TRUE(storage->Put("a.tgz", in_));
    EXPECT_EQ(Stat(base_ + "/a.tgz").st_ino, Stat(in_).st_ino);
    ASSERT_TRUE(storage->Put("a.tgz", in_)) << "the same file under its other name";
    ASSERT_TRUE(storage->Put("a.tgz", base_ + "/a.tgz")) << "the stored file itself";
    EXPECT_EQ(ReadFile(in_), "bytes");
    EXPECT_EQ(ReadFile(base_ + "/a.tgz"), "bytes");
}

TEST_F(LocalStorage, EncryptingNeverWritesThroughOtherNamesOfAFile) {
    const std::string archive = base_ + "/F2024-03-01.bob.tgz.aes", other = dir_ / "other";
    const auto storage = OpenEncrypted();
    storage->MkDir("");
    MakeFile(archive, "shared");
    fs::create_hard_link(archive, other);
    WriteFile(in_, "new");
    ASSERT_TRUE(storage->Put("F2024-03-01.bob.tgz.aes", in_));
    EXPECT_EQ(ReadFile(other), "shared") << "hard link";

    fs::remove(archive);
    fs::create_symlink(other, archive);
    ASSERT_TRUE(storage->Put("F2024-03-01.bob.tgz.aes", in_));
    EXPECT_EQ(ReadFile(other), "shared") << "symbolic link";

    WriteFile(archive, "own plain bytes");
    ASSERT_TRUE(storage->Put("F2024-03-01.bob.tgz.aes", archive)) << "the source is the target";
    storage->Get("F2024-03-01.bob.tgz.aes", out_);
    EXPECT_EQ(ReadFile(out_), "own plain bytes");
    EXPECT_EQ(Stat(archive).st_mode & 07777, 0440u);
}

TEST_F(LocalStorage, FileThatWouldFillItsFileSystemIsRefused) {
    struct statfs disk {};
    ASSERT_EQ(::statfs(dir_.Path().c_str(), &disk), 0);
    const uint64_t free = uint64_t(disk.f_bavail) * uint64_t(disk.f_frsize);
    Open()->MkDir("");
    WriteFile(in_, "");
    // A file of holes takes no room, so it may be as big as the file system has free, and more.
    fs::resize_file(in_, free * 2);
    EXPECT_FALSE(Open()->Put("a.tgz", in_));
    EXPECT_FALSE(OpenEncrypted()->Put("a.tgz.aes", in_));
    fs::remove(in_);
    EXPECT_ANY_THROW(Open()->Put("a.tgz", in_));
    EXPECT_TRUE(fs::is_empty(base_));
    WriteFile(in_, "");
    fs::resize_file(in_, free / 2);
    EXPECT_TRUE(Open()->Put("a.tgz", in_));
}

TEST_F(LocalStorage, ClearRemovesTheBaseButNeverTheRoot) {
    const auto storage = Open();
    storage->MkDir("bob");
    EXPECT_EQ(Stat(base_ + "/bob").st_mode & 07777, 0751u);
    storage->Clear();
    EXPECT_FALSE(fs::exists(base_));
    storage->MkDir("bob");
    EXPECT_TRUE(fs::exists(base_ + "/bob")) << "made directories are forgotten";
    for (const std::string path : {"/", "//x/..", "..", "."}) {
        GetStorage(BackupToken("type=local;path=" + path))->Clear();
        EXPECT_TRUE(log_.Has(4, "Invalid path '" + path + "'"));
    }
    storage->RmDir("bob");
    EXPECT_EQ(dir_.Names(), std::vector<std::string>())
        << "the last directory takes the base along";
}

}  // namespace
}  // namespace backup2
