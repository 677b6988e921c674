#include "sbin/backup2_cp/private_record.h"

#include <unistd.h>

#include <stdexcept>

#include "vel/str.h"
#include "vel/vel_file.h"
#include "vel/vel_tool.h"

#include "backup_common/backup2_misc.h"

#include "sbin/backup2_cp/info_record.h"

namespace backup2_cp {

namespace {

const std::string kTrees = "var/backup/qorvel.private", kFolder = ".copying", kSlice = "slice.";

/// The slice as it was copied, which must be the one that the backup holds.
SliceSums Arrived(const InfoMap& record, const std::string& key, const std::string& wanted) {
    const std::string text = Value(record, key);
    if (text.empty()) throw std::runtime_error(key + " was not copied");
    const SliceSums copied = SliceSums::Parse(text), original = SliceSums::Parse(wanted);
    if (copied.plain != original.plain) {
        throw std::runtime_error(key + ": other bytes were copied than the backup holds");
    }
    return copied;
}

void TakeSlices(InfoMap& keys, const std::string& record_path) {
    auto key = keys.lower_bound(kSlice);
    if (key == keys.end() || !str::StartsWith(key->first, kSlice)) return;
    InfoMap record;
    if (vel_file::Exists(record_path)) record = backup2::GetInfo(record_path);
    for (; key != keys.end() && str::StartsWith(key->first, kSlice); ++key) {
        key->second = Arrived(record, key->first, key->second).Str();
    }
}

}  // namespace

std::string PrivateTree(const std::string& user) {
    if (!IsUserName(user)) throw std::runtime_error("BACKUP_STORAGE is no user's name");
    return vel_file::ConcatPath(kTrees, user);
}

std::string RecordPath(const std::string& tree, const BackupName& backup) {
    return vel_file::ConcatPath(tree, kFolder, backup.date + "." + backup.name + ".info");
}

void MakeRecord(const std::string& tree, const BackupName& backup) {
    const std::string path = RecordPath(tree, backup);
    vel_file::MkDir(tree, vel_file::Attrs(0700));
    vel_file::MkDir(vel_file::SplitPath(path).dir, vel_file::Attrs(0700));
    if (!vel_file::Exists(path)) vel_file::Write(path, "");
}

void RecordCopied(const std::string& tree, const BackupName& slice, const SliceSums& sums) {
    MakeRecord(tree, slice);
    InfoRecord record(RecordPath(tree, slice));
    record.Keys()[kSlice + str::Str(uint64_t{slice.Slice()})] = sums.Str();
    record.Save();
}

void DescribeCopy(const Target& target, const std::string& tree, const std::string& info) {
    const BackupName name = InfoNameOf(info);
    InfoRecord copy(info);
    InfoMap& keys = copy.Keys();
    CheckInfo(keys, name);
    try {
        TakeSlices(keys, RecordPath(tree, name));
    } catch (const std::exception& e) {
        throw std::runtime_error(info + ": " + e.what());
    }
    const auto index = keys.find("index");
    if (index != keys.end() && !index->second.empty()) {
        index->second = backup2::GetPath(backup2::GetName(target.Token(), index->second));
    }
    keys.erase("pinned");
    keys.erase("deleted");
    copy.Save();
}

void DropRecord(const std::string& tree, const BackupName& backup) {
    const std::string path = RecordPath(tree, backup);
    vel_file::Remove(path);
    ::rmdir(vel_file::SplitPath(path).dir.c_str());  // while other copies run it is not empty
}

}  // namespace backup2_cp
