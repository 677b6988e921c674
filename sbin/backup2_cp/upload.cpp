#include "sbin/backup2_cp/upload.h"

#include <sys/statvfs.h>

#include <algorithm>
#include <future>
#include <optional>
#include <stdexcept>

#include "vel/str.h"
#include "vel/vel_file.h"
#include "vel/vel_log.h"
#include "vel/vel_tool.h"

#include "backup_common/backup2_misc.h"

#include "sbin/backup2_cp/errors.h"
#include "sbin/backup2_cp/storage_mount.h"
#include "sbin/backup2_cp/workspace.h"

namespace backup2_cp {

namespace {

const vel_log::Module logger("backup2_cp");
constexpr std::size_t kProbeSize = 1024;

vel_file::Info RegularFile(const std::string& path) {
    const vel_file::Info info(path, false);
    if (!info.Exists()) throw std::runtime_error(path + ": no such file");
    if (!info.IsFile()) throw std::runtime_error(path + ": not a regular file");
    return info;
}

bool SameState(const vel_file::Info& a, const vel_file::Info& b) {
    const auto &x = a.Stat(), &y = b.Stat();
    return x.st_dev == y.st_dev && x.st_ino == y.st_ino && x.st_size == y.st_size &&
           x.st_mtim.tv_sec == y.st_mtim.tv_sec && x.st_mtim.tv_nsec == y.st_mtim.tv_nsec;
}

bool SameInode(const vel_file::Info& a, const vel_file::Info& b) {
    return a.Exists() && b.Exists() && a.Stat().st_dev == b.Stat().st_dev &&
           a.Stat().st_ino == b.Stat().st_ino;
}

/// A plain file reaches a local storage as a hard link and then belongs to the user, who could
/// change every other name of it: what has, or keeps, another name goes there as a copy.
bool NeedsCopy(const Target& target, const std::string& local, const std::string& stored,
               bool keep) {
    if (!target.Token().IsLocal() || target.Encrypts(stored) || target.IsStored(local, stored)) {
        return false;
    }
    const vel_file::Info source(local, false), there(target.LocalPath(stored), false);
    const nlink_t own = SameInode(source, there) ? 2 : 1;
    return keep || source.Stat().st_nlink > own;
}

/// Digest of a file on a second thread, while this one uploads it; behind that where the system has
/// no second one to give.
class Summing {
public:
    explicit Summing(const std::string& path)
        : sums_(std::async([this, path] { return SumFile(path, &stop_); })) {}
    ~Summing() { stop_ = true; }  // the future waits
    Sums Result() { return sums_.get(); }

private:
    std::atomic<bool> stop_{false};
    std::future<Sums> sums_;
};

/// What lies on the storage now. Kinds that stream have compared it themselves with what they were
/// `sent` (docs/storage.md, "What proves an upload"); a server behind ssh adds it up where it lies.
Sums SumStored(const Target& target, backup2::Storage& storage, const std::string& stored,
               const Sums& sent) {
    if (target.Streams()) return sent;
    if (const auto there = storage.StoredSum(stored)) return {there->first, there->second};
    SumStream sums;
    target.ReadStored(stored, sums);
    return sums.Result();
}

void CheckSums(const Target& target, const std::string& stored, const SliceSums& sums) {
    const bool encrypted = target.Encrypts(stored);
    const uint64_t wanted = encrypted ? EncryptedSize(sums.plain.size) : sums.plain.size;
    if (sums.stored.size != wanted) {
        throw std::runtime_error("stored " + str::Str(sums.stored.size) + " bytes instead of " +
                                 str::Str(wanted));
    }
    if (!encrypted && sums.stored != sums.plain) {
        throw std::runtime_error("the stored bytes differ from the file's");
    }
}

/// On a local storage the cipher would write into an earlier object, which its user may hold open.
/// A plain file takes the earlier one's place in one step.
void MakePlace(const Target& target, const std::string& stored) {
    if (target.Token().IsLocal() && target.Encrypts(stored)) {
        vel_file::Remove(target.LocalPath(stored));
    }
}

/// What an attempt reports: it has sent all only when that is proved.
class UploadProgress {
public:
    explicit UploadProgress(uint64_t size) : left_(size) { progress_.Total(size, 1); }
    /// The encrypted form is longer than the file.
    void Sent(uint64_t size) {
        const uint64_t told = std::min(size, left_ > 0 ? left_ - 1 : 0);
        left_ -= told;
        progress_.Add(told, 0);
    }
    void Done() { progress_.Add(left_, 1); }

private:
    vel_tool::Progress progress_{"upload"};
    uint64_t left_;
};

/// One attempt at one upload.
SliceSums PutOnce(const Target& target, const std::string& local, const std::string& stored,
                  bool keep) {
    const vel_file::Info before = RegularFile(local);
    UploadProgress progress(before.Size());
    std::optional<Workspace> work;
    std::string source = local;
    if (NeedsCopy(target, local, stored, keep)) {
        source = vel_file::ConcatPath(work.emplace().Path(), vel_file::Name(local));
        vel_file::CopyFile(local, source);
    }
    Summing summing(local);
    const auto storage = target.Open();
    StorageMount(target.Token()).CheckAndRemember();
    storage->MkDir(vel_file::SplitPath(stored).dir);
    MakePlace(target, stored);
    SumStream sent;
    storage->WatchPut([&](const char* data, std::size_t size) {
        sent.write(data, static_cast<std::streamsize>(size));
        progress.Sent(size);
    });
    if (!storage->Put(stored, source)) throw NoRoom("no room");
    SliceSums sums;
    const bool linked = SameInode(RegularFile(source), vel_file::Info(target.LocalPath(stored)));
    if (!linked) sums.stored = SumStored(target, *storage, stored, sent.Result());
    sums.plain = summing.Result();
    if (linked) sums.stored = sums.plain;
    const vel_file::Info after = RegularFile(local);
    if (!SameState(before, after) || sums.plain.size != before.Size()) {
        throw std::runtime_error("the file changed while it was read");
    }
    CheckSums(target, stored, sums);
    // Slice by slice, while the archiver makes the next one: a single sync at the end would wait
    // for the whole backup, and for whatever else was written to that disk.
    target.Sync(stored);
    progress.Done();
    return sums;
}

/// On a local storage the object that stood there `before` stays when the attempt did not reach it.
void RemovePartial(const Target& target, const std::string& stored, const vel_file::Info& before) {
    try {
        const std::string there = target.LocalPath(stored);
        if (!there.empty() && SameState(before, vel_file::Info(there, false))) return;
        target.Open()->Delete(stored);
    } catch (const std::exception& e) {  // most often it never came into being
        logger.Write(6, "removing a partial %s: %s", stored, target.Redacted(e));
    }
}

/// A full disk shows as some failure of the cipher: ask the disk itself.
bool IsFull(const Target& target, uint64_t size) {
    struct statvfs disk {};
    if (!target.Token().IsLocal()) return false;
    if (::statvfs(target.Token().GetParam("path").c_str(), &disk) != 0) return false;
    return disk.f_bavail * disk.f_frsize < size || disk.f_favail == 0;
}

}  // namespace

SliceSums Upload(const Target& target, const std::string& local, const std::string& stored,
                 bool keep) {
    const std::string what = local + " -> " + target.Describe() + ", " + stored;
    const uint64_t size = RegularFile(local).Size();
    const bool is_stored = target.IsStored(local, stored);
    if (is_stored && target.Encrypts(stored)) {
        throw std::runtime_error(local + " is the stored file itself and is not encrypted again");
    }
    SliceSums sums;
    const vel_file::Info there(target.LocalPath(stored), false);
    const auto attempt = [&] { sums = PutOnce(target, local, stored, keep); };
    const auto undo = [&] {
        if (!is_stored) RemovePartial(target, stored, there);
    };
    try {
        target.Retry(what, attempt, [&] {
            undo();
            if (IsFull(target, target.Encrypts(stored) ? EncryptedSize(size) : size)) {
                throw NoRoom("no room");
            }
        });
    } catch (const NoRoom&) {
        throw NoRoom(what + ": no room on the storage");
    }
    return sums;
}

void CheckWillEncrypt(const Target& target, const std::string& stored) {
    if (target.Token().IsEncrypted() && !target.Encrypts(stored) &&
        vel_file::Name(stored).find(".tgz.aes") != std::string::npos) {
        throw std::runtime_error(stored + " would be stored in plain text");
    }
}

void ProbeCipher(const Target& target) {
    if (!target.Token().IsEncrypted()) return;
    const Workspace work;
    const std::string plain = vel_file::ConcatPath(work.Path(), "plain");
    const std::string back = vel_file::ConcatPath(work.Path(), "back");
    const std::string bytes = str::Random(kProbeSize);
    vel_file::Write(plain, bytes);
    // The library's own way through the cipher, on a storage that exists for this moment only.
    backup2::BackupToken token("type=local");
    token.SetParam("path", work.Path());
    token.SetParam("arch_password", target.Token().GetParam("arch_password"));
    const auto storage = backup2::GetStorage(token);
    const std::string name = "2000-01-01.probe.tgz.aes";
    if (!storage->Put(name, plain)) throw std::runtime_error("no room to try the archive password");
    storage->Get(name, back);
    if (vel_file::ReadE(back) != bytes) {
        throw std::runtime_error("the archive password does not give back what it encrypted");
    }
}

}  // namespace backup2_cp
