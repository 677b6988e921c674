#include "sbin/backup2_cp/storage_mount.h"

#include <sys/stat.h>

#include <filesystem>

#include "vel/str.h"
#include "vel/vel_file.h"
#include "vel/vel_hash.h"

#include "sbin/backup2_cp/errors.h"

namespace backup2_cp {

namespace {

const std::string kRecords = "var/backup2.storages";

bool IsSameDisk(const std::filesystem::path& a, const std::filesystem::path& b) {
    return vel_file::Info(a.string()).Stat().st_dev == vel_file::Info(b.string()).Stat().st_dev;
}

/// The uppermost folder of the disk on which the path, or what there is of it, lies.
std::string MountPoint(const std::string& path) {
    std::filesystem::path at = std::filesystem::weakly_canonical(path);
    while (!vel_file::Exists(at.string()) && at.has_relative_path()) at = at.parent_path();
    while (at.has_relative_path() && IsSameDisk(at, at.parent_path())) at = at.parent_path();
    return at.string();
}

bool IsAtOrBelow(const std::string& point, const std::string& known) {
    return known.empty() || known == "/" || point == known || str::StartsWith(point, known + "/");
}

}  // namespace

StorageMount::StorageMount(const backup2::BackupToken& token) {
    if (!token.IsLocal()) return;
    path_ = vel_file::GoodPath(token.GetParam("path"));
    vel_hash::Hash hash(vel_hash::HashType::Sha256);
    hash.Update(path_);
    record_ = vel_file::ConcatPath(kRecords, str::hex::Encode(hash.Str()));
}

std::string StorageMount::Known() const { return record_.empty() ? "" : vel_file::Read(record_); }

void StorageMount::Remember(const std::string& point) const {
    vel_file::MkDir(kRecords, vel_file::Attrs(0700));
    vel_file::Write(record_, point);
}

void StorageMount::Check() const {
    const std::string known = Known();
    if (known.empty() || IsAtOrBelow(MountPoint(path_), known)) return;
    throw Permanent("local storage " + path_ + ": no disk is mounted at " + known +
                    ", where it was. If it is to be without: backup2 storage check [USER] "
                    "--accept-disk");
}

void StorageMount::CheckAndRemember() const {
    if (record_.empty()) return;
    Check();
    const std::string point = MountPoint(path_);
    if (point != Known()) Remember(point);
}

void StorageMount::Accept() const {
    if (!record_.empty()) Remember(MountPoint(path_));
}

}  // namespace backup2_cp
