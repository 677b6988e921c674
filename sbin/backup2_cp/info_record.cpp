#include "sbin/backup2_cp/info_record.h"

#include <stdexcept>

#include "vel/str.h"
#include "vel/vel_log.h"

#include "backup_common/backup2_misc.h"

namespace backup2_cp {

namespace {

const vel_log::Module logger("backup2_cp");
const std::string kSlice = "slice.";

/// "size" and "parts" follow from the slices, so that repeating a call changes nothing.
void CountSlices(InfoMap& keys) {
    uint64_t size = 0, parts = 0;
    for (auto it = keys.lower_bound(kSlice); it != keys.end(); ++it) {
        if (!str::StartsWith(it->first, kSlice)) break;
        size += SliceSums::Parse(it->second).plain.size;
        ++parts;
    }
    keys["size"] = str::Str(size);
    keys["parts"] = str::Str(parts);
}

[[noreturn]] void Refuse(const std::string& key, const std::string& why) {
    throw std::runtime_error("info file: " + key + " " + why);
}

void CheckSliceName(const InfoMap& keys, const std::string& key, const BackupName& name) {
    const std::string value = Value(keys, key);
    if (value.empty()) return;
    const auto slice = ParseName(vel_file::Name(value));
    const std::string shown = "'" + backup2::EncodeFileName(value) + "'";
    if (!slice || slice->kind == BackupName::Kind::kInfo || !slice->SameBackup(name)) {
        Refuse(key, shown + " is no file of " + name.Folder());
    }
    const std::string folder = vel_file::SplitPath(value).dir;
    if (!folder.empty() && folder != name.Folder()) {
        Refuse(key, shown + " is not in " + name.Folder());
    }
}

/// The base is a full backup of the same name.
void CheckBase(const InfoMap& keys, const BackupName& name) {
    const std::string value = Value(keys, "base");
    if (value.empty()) return;
    const auto base = ParseName(vel_file::Name(value));
    const std::string folder = vel_file::SplitPath(value).dir;
    if (!base || base->kind != BackupName::Kind::kArchive || base->name != name.name ||
        (!folder.empty() && folder != base->Folder())) {
        Refuse("base",
               "'" + backup2::EncodeFileName(value) + "' is no full backup of " + name.name);
    }
}

}  // namespace

std::string Value(const InfoMap& keys, const std::string& key) {
    const auto it = keys.find(key);
    return it == keys.end() ? "" : it->second;
}

std::string InfoText(const InfoMap& keys) { return str::Join(keys, "\n") + "\n"; }

// ---- The locked file ----------------------------------------------------------------------------

InfoRecord::InfoRecord(const std::string& path) : path_(path) {
    if (!vel_file::Exists(path_)) throw std::runtime_error("info file " + path_ + " is missing");
    lock_.DoLock(path_ + ".lock", false);
    try {
        keys_ = backup2::GetInfo(path_);
    } catch (...) {  // it went while this waited
        DropLock();
        throw;
    }
}

InfoRecord::~InfoRecord() { DropLock(); }

void InfoRecord::DropLock() noexcept {
    try {
        // While it is held: who waits for this file finds that it is gone and makes a new one.
        if (lock_.Owns()) vel_file::RemoveFile(path_ + ".lock");
    } catch (const std::exception& e) {
        logger.Write(6, "%s.lock stays: %s", path_, e.what());
    }
}

void InfoRecord::Save() { vel_file::Write(path_, InfoText(keys_)); }

void RecordSlice(const std::string& info, uint32_t number, const SliceSums& sums,
                 const std::string& stored, bool last) {
    InfoRecord record(info);
    record.Keys()[kSlice + str::Str(uint64_t{number})] = sums.Str();
    CountSlices(record.Keys());
    if (last) record.Keys()["last-slice"] = stored;
    record.Save();
}

// ---- Checks -------------------------------------------------------------------------------------

void CheckInfo(const InfoMap& keys, const BackupName& name) {
    const std::string user = Value(keys, "user");
    if (!user.empty() && user != name.user) {
        Refuse("user", "'" + backup2::EncodeFileName(user) + "' is not " + name.user);
    }
    CheckSliceName(keys, "last-slice", name);
    CheckSliceName(keys, "index", name);
    CheckBase(keys, name);
    const std::string parts = Value(keys, "parts");
    if (!parts.empty() && !ParseNumber(parts, kMaxParts)) Refuse("parts", "is no sane number");
}

void CheckComplete(const InfoMap& keys) {
    const std::string last = Value(keys, "last-slice");
    if (last.empty()) Refuse("last-slice", "was never recorded");
    const uint64_t parts = ParseNumber(Value(keys, "parts"), kMaxParts).value_or(0);
    if (parts != NameOf(last).Slice()) Refuse("parts", "does not match the last slice " + last);
    for (uint64_t k = 1; k <= parts; ++k) {
        const std::string key = kSlice + str::Str(k);
        if (Value(keys, key).empty()) Refuse(key, "was never recorded");
    }
}

}  // namespace backup2_cp
