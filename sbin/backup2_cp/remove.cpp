#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <list>
#include <optional>
#include <stdexcept>

#include "vel/str.h"
#include "vel/vel_date.h"
#include "vel/vel_file.h"
#include "vel/vel_log.h"

#include "backup_common/backup2_misc.h"

#include "sbin/backup2_cp/actions.h"
#include "sbin/backup2_cp/info_record.h"
#include "sbin/backup2_cp/names.h"

namespace backup2_cp {

namespace {

const vel_log::Module logger("backup2_cp");
const std::string kMarker = ".backup.inuse";
const std::string kTemporary = ".tmp.";  // what a killed writer leaves

/// One backup and where its local files lie.
struct Place {
    BackupName name;
    std::string info;    ///< the info file that was named
    std::string top;     ///< L, the local backup tree
    std::string folder;  ///< L/user/date, or L/date in a tree of one user
};

/// The info file lies in L itself or in the backup's own folder.
Place PlaceOf(const std::string& info) {
    Place place{InfoNameOf(info), info, "", ""};
    const std::string dir = vel_file::GoodPath(vel_file::SplitPath(info).dir);
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

// ---- Increments ---------------------------------------------------------------------------------

/// The full backup that an info file builds on: "F<date>.<name>", "" for none.
std::string BaseOf(const InfoMap& keys) {
    const auto base = ParseName(vel_file::Name(Value(keys, "base")));
    return base ? base->base : "";
}

std::string FullName(const BackupName& name) { return "F" + name.date + "." + name.name; }

/// Info files of the increments that need the full backup of this place.
std::list<std::string> Increments(const Place& place) {
    std::list<std::string> infos, found;
    if (!vel_file::Exists(place.top)) return found;
    backup2::GetInfoFiles(infos, place.top, false, place.name.user, "");
    for (const auto& path : infos) {
        const auto name = ParseName(vel_file::Name(path));
        if (!name || name->name != place.name.name || name->SameBackup(place.name)) continue;
        if (BaseOf(backup2::GetInfo(path)) == FullName(place.name)) found.push_back(path);
    }
    return found;
}

/// Info file of the full backup that `keys` build on, when it is marked as deleted.
std::optional<std::string> DeletedBase(const Place& place, const InfoMap& keys) {
    const auto base = ParseName(vel_file::Name(Value(keys, "base")));
    if (!base || base->name != place.name.name) return std::nullopt;
    const std::string info = backup2::GetInfoFile(place.top, base->name, base->date);
    if (!vel_file::Exists(info) || Value(backup2::GetInfo(info), "deleted").empty()) {
        return std::nullopt;
    }
    return info;
}

void MarkDeleted(const Place& place, std::size_t increments) {
    if (!vel_file::Exists(place.info)) {
        throw std::runtime_error(place.info + " is missing, and " + str::Str(uint64_t{increments}) +
                                 " increments need this backup");
    }
    InfoRecord record(place.info);
    auto& deleted = record.Keys()["deleted"];
    if (deleted.empty()) deleted = vel_date::DateTime().AsDateTime();
    record.Save();
    std::cout << "marked as deleted " << place.name.Folder() << " " << place.name.name << ": "
              << increments << " increments need it\n";
}

// ---- The storage --------------------------------------------------------------------------------

bool IsOwn(const std::string& bare, const BackupName& backup) {
    const auto name = ParseName(bare);
    return name && name->SameBackup(backup);
}

bool IsLeftOver(const std::string& bare) { return str::StartsWith(bare, kTemporary); }

bool Holds(backup2::Storage& storage, const std::string& dir, const std::string& bare) {
    std::list<std::string> names;
    storage.List(names, dir);
    return std::find(names.begin(), names.end(), bare) != names.end();
}

/// The info file goes first: what lacks it is no backup to any reader.
void RemoveStored(const Target& target, const BackupName& backup) {
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

/// Left-over slices, the index and the info file; the named info file is the last to go, so that
/// an interrupted call can be repeated.
void RemoveLocal(const Place& place) {
    std::list<std::string> paths;
    for (const auto& dir : {place.top, place.folder}) {
        if (!vel_file::Info(dir).IsDir()) continue;
        for (vel_file::Dir entry(dir, 2); entry.Next();) {
            const bool stale = dir == place.folder && IsLeftOver(entry.Name());
            if (stale || IsOwn(entry.Name(), place.name)) paths.push_back(entry.Path());
        }
    }
    paths.remove_if([&](const auto& path) { return vel_file::GoodPath(path) == place.info; });
    for (const auto& path : paths) vel_file::Remove(path);
    vel_file::Remove(place.info);
}

/// Directories that became empty; others, and those in use, stay.
void RemoveEmptyFolders(const Place& place) {
    ::rmdir(place.folder.c_str());
    const std::string above = vel_file::SplitPath(place.folder).dir;
    if (above != place.top) ::rmdir(above.c_str());
}

InfoMap ReadInfo(const Place& place) {
    if (!vel_file::Exists(place.info)) return {};
    InfoMap keys = backup2::GetInfo(place.info);
    CheckInfo(keys, place.name);
    return keys;
}

/// Removes one backup, whatever builds on it.
void RemoveBackup(const Target& target, const Place& place) {
    {
        const backup2::Lock in_use(place.folder);
        target.Retry("deleting " + place.name.Folder() + " from " + target.Describe(),
                     [&] { RemoveStored(target, place.name); });
        RemoveLocal(place);
    }
    RemoveEmptyFolders(place);
    std::cout << "removed " << place.name.Folder() << " " << place.name.name << "\n";
}

}  // namespace

void Delete(const Target& target, const Options& options) {
    const Place place = PlaceOf(vel_file::GoodPath(options.info_file));
    const InfoMap keys = ReadInfo(place);
    const auto increments = Increments(place);
    if (!increments.empty() && !options.force) return MarkDeleted(place, increments.size());
    for (const auto& info : increments) {
        const Place increment = PlaceOf(vel_file::GoodPath(info));
        ReadInfo(increment);
        RemoveBackup(target, increment);
    }
    const auto base = DeletedBase(place, keys);
    RemoveBackup(target, place);
    if (!base) return;
    const Place full = PlaceOf(vel_file::GoodPath(*base));
    if (Increments(full).empty()) RemoveBackup(target, full);
}

}  // namespace backup2_cp
