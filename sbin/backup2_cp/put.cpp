#include <algorithm>
#include <stdexcept>

#include "vel/str.h"
#include "vel/vel_date.h"
#include "vel/vel_file.h"
#include "vel/vel_log.h"

#include "backup_common/backup2_misc.h"

#include "sbin/backup2_cp/actions.h"
#include "sbin/backup2_cp/info_record.h"
#include "sbin/backup2_cp/names.h"
#include "sbin/backup2_cp/private_record.h"
#include "sbin/backup2_cp/token_check.h"
#include "sbin/backup2_cp/upload.h"

namespace backup2_cp {

namespace {

const vel_log::Module logger("backup2_cp");

std::string StoredName(const Target& target, const std::string& local) {
    const std::string stored = backup2::GetPath(backup2::GetName(target.Token(), local));
    NameOf(stored);
    CheckWillEncrypt(target, stored);
    return stored;
}

void RequireSameBackup(const std::string& file, const std::string& info) {
    if (NameOf(file).SameBackup(InfoNameOf(info))) return;
    throw std::runtime_error(file + " does not belong to the backup of " + info);
}

void RemoveUploaded(const Target& target, const std::string& local, const std::string& stored) {
    if (!target.IsStored(local, stored)) vel_file::RemoveFile(local);
}

/// True when an earlier call uploaded and recorded the slice, and was only not heard of.
bool IsDone(const Target& target, const Options& options, const InfoMap& keys,
            const std::string& stored) {
    if (vel_file::Exists(options.file)) return false;
    if (Value(keys, "slice." + str::Str(uint64_t{NameOf(stored).Slice()})).empty()) return false;
    if (options.last && Value(keys, "last-slice") != stored) return false;
    return target.Holds(stored);
}

InfoMap Completed(const Target& target, const Options& options, const std::string& index) {
    InfoMap keys = backup2::GetInfo(options.info_file);
    CheckInfo(keys, InfoNameOf(options.info_file));
    CheckComplete(keys);
    // The clock may have been put back meanwhile, as it is once a year in the night to Sunday: what
    // ends before it begins is taken for somebody else's, and no increment builds on it.
    keys["finished"] = std::max(vel_date::DateTime().AsDateTime(), Value(keys, "created"));
    keys["index"] = index;
    if (target.Token().IsEncrypted()) keys["key_hash"] = target.Token().Hash();
    return keys;
}

/// The commit record: readers know a backup by it. All that it names is on the disk by now.
void PublishInfo(const Target& target, const std::string& path, const InfoMap& keys) {
    vel_file::Write(path, InfoText(keys));
    try {
        Upload(target, path, StoredName(target, path), true);
    } catch (...) {
        vel_file::Remove(path);
        throw;
    }
}

}  // namespace

void PutSlice(const Target& target, const Options& options) {
    CheckPassword(target.Token());
    RequireSameBackup(options.file, options.info_file);
    const std::string stored = StoredName(target, options.file);
    const BackupName name = NameOf(stored);
    if (name.kind != BackupName::Kind::kArchive || name.legacy) {
        throw std::runtime_error(options.file + ": not the name of a slice");
    }
    const InfoMap keys = backup2::GetInfo(options.info_file);
    if (IsDone(target, options, keys, stored)) return;
    const bool first = keys.count("parts") == 0;
    if (first) ProbeCipher(target);
    const SliceSums sums = Upload(target, options.file, stored, false);
    RecordSlice(options.info_file, name.Slice(), sums, stored, options.last);
    RemoveUploaded(target, options.file, stored);
    logger.Write(6, "uploaded %s, %s bytes", stored, sums.stored.size);
}

void PutFinal(const Target& target, const Options& options) {
    CheckPassword(target.Token());
    RequireSameBackup(options.file, options.info_file);
    const BackupName listing = NameOf(options.file);
    const std::string index = StoredName(target, options.file);
    if (listing.kind != BackupName::Kind::kIndex || !str::EndsWith(options.file, ".tgz")) {
        throw std::runtime_error(options.file + ": not the name of a listing");
    }
    const InfoMap keys = Completed(target, options, index);
    const std::string final_info =
        vel_file::SplitPath(options.file).dir + "/" + listing.base + ".info";
    Upload(target, options.file, index, true);
    vel_file::Sync(options.file);
    PublishInfo(target, final_info, keys);
    logger.Write(5, "finished backup %s", index);
}

void PutFile(const Target& target, const Options& options) {
    CheckPassword(target.Token());
    const std::string stored = StoredName(target, options.file);
    if (target.Encrypts(stored)) ProbeCipher(target);
    const std::string tree = target.User().empty() ? "" : PrivateTree(target.User());
    const BackupName name = NameOf(options.file);
    const bool info = !tree.empty() && name.kind == BackupName::Kind::kInfo;
    if (info) DescribeCopy(target, tree, options.file);
    const SliceSums sums = Upload(target, options.file, stored, options.no_delete);
    if (info) DropRecord(tree, name);
    if (!tree.empty() && name.kind == BackupName::Kind::kArchive) RecordCopied(tree, name, sums);
    if (!options.no_delete) RemoveUploaded(target, options.file, stored);
}

}  // namespace backup2_cp
