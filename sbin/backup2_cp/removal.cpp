#include "sbin/backup2_cp/removal.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>

#include "vel/res_handle.h"
#include "vel/str.h"
#include "vel/vel_date.h"
#include "vel/vel_err.h"
#include "vel/vel_file.h"
#include "vel/vel_log.h"

#include "backup_common/backup2_misc.h"

#include "sbin/backup2_cp/storage_mount.h"
#include "sbin/backup2_cp/tree.h"

namespace backup2_cp {

namespace {

const vel_log::Module logger("backup2_cp");
const std::string kMarker = ".backup.inuse";
const std::string kTemporary = ".tmp.";  // what a killed writer leaves
const std::string kLock = ".lock";

/// The full backup that an info file builds on: "F<date>.<name>", "" for none.
std::string BaseOf(const InfoMap& keys) {
    const auto base = ParseName(vel_file::Name(Value(keys, "base")));
    return base ? base->base : "";
}

std::string BaseIn(const std::string& info) try {
    return BaseOf(backup2::GetInfo(info));
} catch (const vel_err::Error&) {
    if (vel_file::Exists(info)) throw;
    return "";  // another process removed it
}

std::string FullName(const BackupName& name) { return "F" + name.date + "." + name.name; }

bool IsOwn(const std::string& bare, const BackupName& backup) {
    const auto name = ParseName(bare);
    return name && name->SameBackup(backup);
}

bool IsLeftOver(const std::string& bare) { return str::StartsWith(bare, kTemporary); }

// ---- The storage --------------------------------------------------------------------------------

bool Holds(backup2::Storage& storage, const std::string& dir, const std::string& bare) {
    std::list<std::string> names;
    storage.List(names, dir);
    return std::find(names.begin(), names.end(), bare) != names.end();
}

void RemoveStoredOnce(const Target& target, const BackupName& backup) {
    const std::string folder = backup.Folder();
    const auto storage = target.Open();
    std::list<std::string> names, left;
    storage->List(names, folder);
    for (const bool info : {true, false}) {
        for (const auto& bare : names) {
            if (!IsOwn(bare, backup)) continue;
            if ((NameOf(bare).kind == BackupName::Kind::kInfo) != info) continue;
            storage->Delete(folder + "/" + bare);
            logger.Write(6, "deleted %s/%s", folder, bare);
        }
    }
    storage->List(left, folder);
    left.remove_if([](const auto& bare) { return bare == kMarker || IsLeftOver(bare); });
    if (left.empty() && Holds(*storage, backup.user, backup.date)) storage->RmDir(folder);
}

// ---- This machine -------------------------------------------------------------------------------

/// Also the lock of an info file, which a killed writer left.
bool IsOwnHere(std::string bare, const BackupName& backup) {
    if (str::EndsWith(bare, ".info" + kLock)) bare.resize(bare.size() - kLock.size());
    return IsOwn(bare, backup);
}

/// Left-over slices, the index and the info file.
void RemoveLocal(const Place& place) {
    std::list<std::string> paths;
    for (const auto& dir : {place.top, place.folder}) {
        if (!vel_file::Info(dir).IsDir()) continue;
        for (vel_file::Dir entry(dir, 2); entry.Next();) {
            const bool stale = dir == place.folder && IsLeftOver(entry.Name());
            if (stale || IsOwnHere(entry.Name(), place.name)) paths.push_back(entry.Path());
        }
    }
    // Who waits for the lock of the info file must not get it before that is gone.
    const std::string last[] = {place.info, place.info + kLock};
    for (const auto& path : paths) {
        const std::string good = vel_file::GoodPath(path);
        if (good != last[0] && good != last[1]) vel_file::Remove(path);
    }
    for (const auto& path : last) vel_file::Remove(path);
}

void RefusePinned(const InfoMap& keys, const BackupName& name) {
    if (Value(keys, "pinned").empty()) return;
    throw std::runtime_error(Shown(name) + " is pinned: unpin it first");
}

/// Directories that became empty; others, and those in use, stay.
void RemoveEmptyFolders(const Place& place) {
    ::rmdir(place.folder.c_str());
    const std::string above = vel_file::SplitPath(place.folder).dir;
    if (above != place.top) ::rmdir(above.c_str());
}

}  // namespace

Place PlaceOf(const std::string& info) {
    Place place{InfoNameOf(info), vel_file::GoodPath(info), "", ""};
    const std::string dir = vel_file::SplitPath(place.info).dir;
    if (vel_file::Name(dir) != place.name.date) {
        place.top = dir;
        place.folder = backup2::IsAdminData(dir)
                           ? vel_file::ConcatPath(dir, place.name.user, place.name.date)
                           : vel_file::ConcatPath(dir, place.name.date);
        return place;
    }
    const std::string above = vel_file::SplitPath(dir).dir;
    const std::string over = vel_file::SplitPath(above).dir;
    const bool admin = backup2::IsAdminData(over) && vel_file::Name(above) == place.name.user;
    place.top = admin ? over : above;
    place.folder = dir;
    return place;
}

std::string Shown(const BackupName& name) { return name.Folder() + " " + name.name; }

InfoMap ReadInfo(const Place& place) {
    if (!vel_file::Exists(place.info)) return {};
    InfoMap keys = backup2::GetInfo(place.info);
    CheckInfo(keys, place.name);
    return keys;
}

std::list<std::string> Increments(const Place& place) {
    std::list<std::string> found;
    for (const auto& path : InfosOf(place.top, place.name.user)) {
        const auto name = ParseName(vel_file::Name(path));
        if (!name || name->name != place.name.name || name->SameBackup(place.name)) continue;
        if (BaseIn(path) == FullName(place.name)) found.push_back(path);
    }
    return found;
}

std::optional<std::string> DeletedBase(const Place& place, const InfoMap& keys) {
    const auto base = ParseName(vel_file::Name(Value(keys, "base")));
    if (!base || base->name != place.name.name) return std::nullopt;
    const std::string info = backup2::GetInfoFile(place.top, base->name, base->date);
    if (!vel_file::Exists(info)) return std::nullopt;
    const InfoMap full = backup2::GetInfo(info);
    if (Value(full, "deleted").empty() || !Value(full, "pinned").empty()) return std::nullopt;
    return info;
}

void MarkDeleted(const Place& place) {
    InfoRecord record(place.info);
    RefusePinned(record.Keys(), place.name);
    auto& deleted = record.Keys()["deleted"];
    if (deleted.empty()) deleted = vel_date::DateTime().AsDateTime();
    record.Save();
}

bool IsInUse(const Place& place) {
    const std::string marker = vel_file::ConcatPath(place.folder, kMarker);
    const vel_file::ResHandle file(
        ::open(marker.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file) {
        if (errno == ENOENT || errno == ENOTDIR) return false;
        if (errno == ELOOP) return true;  // no mark of ours: somebody else's business
        vel_err::RaiseErrno("open", marker, errno);
    }
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    if (::fcntl(file, F_OFD_GETLK, &lock) != 0) vel_err::RaiseErrno("lock", marker, errno);
    return lock.l_type != F_UNLCK;
}

void RemoveStored(const Target& target, const Place& place) {
    StorageMount(target.Token()).Check();
    target.Retry("deleting " + place.name.Folder() + " from " + target.Describe(),
                 [&] { RemoveStoredOnce(target, place.name); });
}

void RemoveBackup(const Target& target, const Place& place, bool even_pinned) {
    {
        const backup2::Lock in_use(place.folder);
        std::optional<InfoRecord> record;
        if (vel_file::Exists(place.info)) record.emplace(place.info);
        if (record && !even_pinned) RefusePinned(record->Keys(), place.name);
        RemoveStored(target, place);
        RemoveLocal(place);
    }
    RemoveEmptyFolders(place);
}

}  // namespace backup2_cp
