#include "tests/contract/storage_contract.h"

#include <algorithm>

#include "vel/str.h"
#include "vel/vel_err.h"
#include "vel/vel_file.h"
#include "vel/vel_proc.h"

#include "backup_common/backup2_misc.h"

namespace {

constexpr char kDir[] = "bob/2024-03-01";
constexpr char kArchive[] = "bob/2024-03-01/F2024-03-01.bob.tgz.aes";
constexpr char kInfo[] = "bob/2024-03-01/2024-03-01.bob.info";

class StorageContract : public testing::TestWithParam<Backend> {
protected:
    void SetUp() override { site_ = GetParam().start(); }

    static std::shared_ptr<backup2::Storage> Open(backup2::BackupToken token,
                                                  const std::string& password) {
        token.SetParam("arch_password", str::base64::Encode(password));
        return backup2::GetStorage(token);
    }
    std::shared_ptr<backup2::Storage> Open(const std::string& password) const {
        return Open(site_->Token(), password);
    }
    std::shared_ptr<backup2::Storage> Open() const { return Open(GetParam().password); }
    std::shared_ptr<backup2::Storage> OpenForUpload() const {
        return Open(site_->UploadToken(), GetParam().password);
    }
    bool Encrypted() const { return !GetParam().password.empty(); }

    void Put(const std::string& name, const std::string& bytes) const {
        std::filesystem::remove(in_);  // a storage may have linked it
        WriteFile(in_, bytes);
        const auto storage = OpenForUpload();
        storage->MkDir(vel_file::SplitPath(name).dir);
        ASSERT_TRUE(storage->Put(name, in_));
    }
    std::string Get(const std::string& name) const {
        Open()->Get(name, out_);
        return ReadFile(out_);
    }
    std::vector<std::string> List(const std::string& dir) const {
        std::list<std::string> names{"kept"};
        Open()->List(names, dir);
        EXPECT_EQ(names.front(), "kept") << "a listing is appended";
        std::vector<std::string> sorted(std::next(names.begin()), names.end());
        std::sort(sorted.begin(), sorted.end());
        return sorted;
    }

    FdCheck descriptors_;
    ChildCheck children_;
    std::unique_ptr<Site> site_;
    TempDir work_;
    const std::string in_ = work_ / "in", out_ = work_ / "out";
};

using Names = std::vector<std::string>;

TEST_P(StorageContract, GetReturnsTheBytesThatPutStored) {
    for (const std::size_t size :
         std::vector<std::size_t>{0, 1, 15, 16, 17, 1 << 20}) {  // around the cipher's block
        SCOPED_TRACE(size);
        const std::string bytes = RandomBytes(size, 7);
        for (const char* name : {kArchive, kInfo}) {
            Put(name, bytes);
            EXPECT_TRUE(Get(name) == bytes) << name;
        }
    }
}

TEST_P(StorageContract, ArchivesLieEncryptedForPlainOpenssl) {
    Put(kArchive, "archive");
    Put(kInfo, "type=full\n");
    EXPECT_EQ(site_->Stored(kInfo), "type=full\n");
    std::string plain = site_->Stored(kArchive);
    if (Encrypted()) {
        WriteFile(work_ / "stored", plain);
        vel_proc::Execute openssl(
            {"openssl", "enc", "-d", "-aes-256-cbc", "-pass", "env:P", "-in", work_ / "stored"}, 0);
        plain = openssl.SetEnv("P", GetParam().password).Str();
    }
    EXPECT_EQ(plain, "archive");
}

TEST_P(StorageContract, ListsDirectoriesFilesAndNothing) {
    Put(kArchive, "1");
    Put(kInfo, "2");
    EXPECT_EQ(List(kDir), Names({"2024-03-01.bob.info", "F2024-03-01.bob.tgz.aes"}));
    EXPECT_EQ(List("bob"), Names({"2024-03-01"}));
    EXPECT_EQ(List(""), Names({"bob"}));
    if (GetParam().lists_files) {
        EXPECT_EQ(List(kInfo), Names({"2024-03-01.bob.info"}));
    }
    EXPECT_EQ(List("bob/2024-03-02"), Names());
}

TEST_P(StorageContract, NamesAreBytesNotWords) {
    const std::string names[] = {" a b ", "q'\"q",   "a;b&c|d", "two\nlines", "-rf",
                                 "--",    "$(x)`x`", "*?[a]~#", "\\",         "\x01\x7f\xc3\xff"};
    for (const std::string& name : names) {
        SCOPED_TRACE(name);
        if (name.find_first_of(GetParam().forbidden_bytes) != std::string::npos) continue;
        const std::string full = std::string(kDir) + "/" + name + ".bob.tgz.aes";
        const std::string local = work_ / name;
        WriteFile(local, name);
        const auto storage = OpenForUpload();
        storage->MkDir(kDir);
        ASSERT_TRUE(storage->Put(full, local));
        Open()->Get(full, local + ".out");
        EXPECT_EQ(ReadFile(local + ".out"), name);
        EXPECT_EQ(List(kDir), Names({name + ".bob.tgz.aes"}));
        Open()->Delete(full);
    }
}

TEST_P(StorageContract, SecondPutReplacesTheFirst) {
    Put(kArchive, "a long first text, longer than one block of the cipher");
    Put(kArchive, "second");
    EXPECT_EQ(Get(kArchive), "second");
}

TEST_P(StorageContract, FailedGetLeavesTheLocalFile) {
    WriteFile(out_, "old");
    EXPECT_ANY_THROW(Open()->Get(kArchive, out_));
    EXPECT_EQ(ReadFile(out_), "old");
    EXPECT_EQ(work_.Names(), Names({"out"}));
}

TEST_P(StorageContract, WrongPasswordLeavesTheLocalFile) {
    if (!Encrypted()) return;
    WriteFile(out_, "old");
    int refused = 0;
    for (int i = 0; i < 6; ++i) {  // openssl takes 1 of 256 wrong passwords for right
        Put(kArchive, "archive");
        try {
            Open("another")->Get(kArchive, out_);
            WriteFile(out_, "old");
        } catch (const std::runtime_error& e) {
            EXPECT_STREQ(e.what(), "Fail to decode");
            ++refused;
        }
        EXPECT_EQ(ReadFile(out_), "old");
    }
    EXPECT_GE(refused, 3);
}

TEST_P(StorageContract, DyingEncoderIsNoSuccess) {
    if (!Encrypted()) return;
    WriteFile(in_, RandomBytes(1 << 20, 1));
    FakePrograms programs;
    for (const char* end : {"exit 1", "kill -9 $$"}) {
        programs.Add("openssl", std::string("head -c 1000 /dev/zero; ") + end);
        const auto storage = OpenForUpload();
        storage->MkDir(kDir);
        try {
            storage->Put(kArchive, in_);
            EXPECT_FALSE(GetParam().reports_dead_encoder) << end;
        } catch (const std::runtime_error& e) {
            EXPECT_STREQ(e.what(), "Fail to encode");
        }
    }
}

TEST_P(StorageContract, NoChildSeesASecretInItsArguments) {
    FakePrograms programs;
    const std::string seen = work_ / "seen";
    for (const char* program : {"openssl", "ssh", "scp", "sh"}) programs.Record(program, seen);
    LogCapture log;
    Put(kArchive, "archive");
    EXPECT_EQ(Get(kArchive), "archive");
    if (!Encrypted()) return;
    const std::string& password = GetParam().password;
    for (const std::string& secret :
         {password, vel_proc::Escape(password), str::base64::Encode(password)}) {
        EXPECT_EQ(ReadFile(seen).find(secret), std::string::npos);
        EXPECT_FALSE(log.Mentions(secret));
    }
    EXPECT_NE(ReadFile(seen).find("-aes-256-cbc"), std::string::npos) << "nothing was recorded";
}

TEST_P(StorageContract, MadeDirectoryIsAskedForOnce) {
    if (!GetParam().keeps_empty_dirs) return;
    const auto storage = OpenForUpload();
    storage->MkDir(kDir);
    EXPECT_EQ(List("bob"), Names({"2024-03-01"}));
    Open()->RmDir(kDir);
    storage->MkDir(kDir);
    EXPECT_EQ(List("bob"), Names());
}

TEST_P(StorageContract, DeletesOneFile) {
    Put(kArchive, "1");
    Put(kInfo, "2");
    const auto storage = Open();
    storage->Delete(kArchive);
    EXPECT_EQ(List(kDir), Names({"2024-03-01.bob.info"}));
    if (GetParam().delete_of_missing_throws) {
        EXPECT_THROW(storage->Delete(kArchive), vel_err::Error);
    } else {
        EXPECT_NO_THROW(storage->Delete(kArchive));
    }
}

TEST_P(StorageContract, RemovesADirectoryAndItsParentWhenThatIsEmpty) {
    Put(kArchive, "1");
    Put("bob/2024-03-02/2024-03-02.bob.info", "2");
    Open()->RmDir(kDir);
    EXPECT_EQ(List("bob"), Names({"2024-03-02"}));
    Put("eve/2024-03-02/2024-03-02.eve.info", "3");
    Open()->RmDir("bob/2024-03-02");
    EXPECT_EQ(List(""), Names({"eve"}));
    EXPECT_NO_THROW(Open()->RmDir("bob/2024-03-02")) << "missing";
}

INSTANTIATE_TEST_SUITE_P(All, StorageContract, testing::ValuesIn(Backends()),
                         [](const auto& row) { return row.param.name; });

}  // namespace

void PrintTo(const Backend& backend, std::ostream* out) { *out << backend.name; }
