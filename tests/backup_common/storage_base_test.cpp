// What the base class promises for every kind of storage, tried on one that keeps its files in
// memory and fails where it is told to.
#include <gtest/gtest.h>

#include "backup_common/backup2_storage.h"

#include "tests/backup_common/fixtures.h"

namespace backup2 {
namespace {

constexpr char kArchive[] = "bob/2024-03-01/F2024-03-01.bob.tgz.aes";
constexpr char kToken[] = "type=memory;path=/b;arch_password=c2VjcmV0";

class MemoryStorage final : public Storage {
public:
    explicit MemoryStorage(const std::string& token) : Storage(BackupToken(token)) {}

    /// How a download reports that its sink takes no more bytes.
    enum class OnBrokenSink { LetThrough, OwnError, Silence };

    std::map<std::string, std::string> files;
    bool down = false;
    OnBrokenSink on_broken_sink = OnBrokenSink::LetThrough;

    void GetArch(const std::string& name, std::ostream& out) override {
        try {
            out << files.at(name) << std::flush;
        } catch (const vel_err::Error&) {
            if (on_broken_sink == OnBrokenSink::LetThrough) throw;
            if (on_broken_sink == OnBrokenSink::OwnError) throw vel_err::Error("get_failed", name);
        }
    }
    bool PutArch(const std::string&, std::istream& in) override {
        in.get();
        if (down) throw vel_err::Error("connection_lost");
        return false;
    }
    void RealMkDir(const std::string&) override {}
    void Delete(const std::string& name) override { files.erase(name); }
    void List(std::list<std::string>&, const std::string&) override {}
    void RmDir(const std::string&) override {}
};

class StorageBase : public testing::Test {
protected:
    FdCheck descriptors_;
    TempDir dir_;
    MemoryStorage storage_{kToken};
    const std::string in_ = dir_ / "in", out_ = dir_ / "out";
    const std::string big_ = RandomBytes(8 << 20, 1);  // more than any pipe or buffer holds
};

TEST_F(StorageBase, DeadDecoderIsTheCauseWhateverTheBackEndSays) {
    storage_.files[kArchive] = big_;
    WriteFile(out_, "old");
    FakePrograms programs;
    programs.Add("openssl", "head -c 3000000 /dev/zero >&2; exit 1");  // nobody listens to it
    using Sink = MemoryStorage::OnBrokenSink;
    for (const Sink sink : {Sink::LetThrough, Sink::OwnError, Sink::Silence}) {
        storage_.on_broken_sink = sink;
        EXPECT_EQ(Failure([&] { storage_.Get(kArchive, out_); }), "Fail to decode") << int(sink);
    }
    EXPECT_EQ(ReadFile(out_), "old");
    EXPECT_EQ(dir_.Names(), std::vector<std::string>({"out"}));
}

TEST_F(StorageBase, UploadThatStopsEarlyEndsTheEncoder) {
    WriteFile(in_, big_);
    EXPECT_FALSE(storage_.Put(kArchive, in_)) << "no room";
    storage_.down = true;
    EXPECT_EQ(Failure([&] { storage_.Put(kArchive, in_); }), "connection_lost");
}

TEST_F(StorageBase, SizeOfAnEncryptedFileIsEstimated) {
    const MemoryStorage open("type=memory");
    const std::string local = dir_ / "F2024-03-01.bob.tgz.aes";
    const std::pair<std::size_t, uint64_t> cases[] = {{0, 0}, {32, 1}, {33, 33}, {1000, 993}};
    for (const auto& [size, want] : cases) {
        WriteFile(local, std::string(size, 'x'));
        EXPECT_EQ(storage_.Size(local), want);
        EXPECT_EQ(open.Size(local), size);
    }
    const std::string place = "bob/2024-03-01/F2024-03-01.bob.tgz";
    EXPECT_EQ(open.GetFileInfo(local), place + " 1000");
    EXPECT_EQ(storage_.GetFileInfo(local), place + ".aes 993 " + BackupToken(kToken).Hash());
}

TEST_F(StorageBase, RootAndWhatClimbsOutIsNoValidPath) {
    LogCapture log;
    for (const char* path : {"", "/", "//", "/x/..", ".", "..", "x/../.."}) {
        EXPECT_EQ(storage_.GetValidPath(path), "") << path;
        EXPECT_TRUE(log.Has(4, "Invalid path '" + std::string(path) + "'")) << path;
    }
    EXPECT_EQ(storage_.GetValidPath("/b//c/../d/"), "/b/d");
}

}  // namespace
}  // namespace backup2
