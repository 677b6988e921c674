#include <iostream>
#include <list>
#include <set>
#include <sstream>
#include <stdexcept>

#include "vel/str.h"
#include "vel/vel_env.h"
#include "vel/vel_err.h"
#include "vel/vel_file.h"
#include "vel/vel_log.h"

#include "backup_common/backup2_misc.h"
#include "backup_common/backup2_qortar.h"

#include "sbin/backup2_cp/actions.h"
#include "sbin/backup2_cp/errors.h"
#include "sbin/backup2_cp/private_record.h"
#include "sbin/backup2_cp/removal.h"
#include "sbin/backup2_cp/storage_mount.h"

namespace backup2_cp {

namespace {

const vel_log::Module logger("backup2_cp");
constexpr int kOfAnyAge = -1;          // hours: servers round the time of a beginning up
constexpr std::size_t kMaxNamed = 20;  // lines that an error names

/// The info file of the named backup in the tree; checks that a journal's words are a name.
Place PlaceIn(const std::string& tree, const std::string& date, const std::string& backup) {
    const std::string bare = date + "." + backup + ".info";
    const auto name = ParseName(bare);
    if (!name || name->date != date || name->name != backup) {
        throw std::runtime_error("the line makes no sense");
    }
    const std::string user = backup2::IsAdminData(tree) ? name->user : "";
    return PlaceOf(vel_file::ConcatPath(tree, user, name->date + "/" + bare));
}

/// Uploads that a killed program left take room, and most listings do not show them. Keys without
/// the right to see them are no reason to keep the backup's line.
void SweepUploads(const Target& target, const BackupName& name) {
    try {
        target.Open()->Sweep(name.Folder(), kOfAnyAge);
    } catch (const std::exception& e) {
        logger.Write(4, "unfinished uploads may be left: %s", target.Redacted(e));
    }
}

std::set<std::string> StoredNames(const Target& target, const std::string& folder) {
    std::list<std::string> names;
    target.Open()->List(names, folder);
    return {names.begin(), names.end()};
}

/// What there is of a backup that a line names.
enum class Copy {
    kHalf,       ///< what the line is about
    kElsewhere,  ///< a whole one on another storage, which this machine knows; there: half a one
    kWhole       ///< a whole one there, which this machine knows
};

/// Of copies that were encrypted the stored sums differ even where the bytes are the same.
bool IsSameCopy(const InfoMap& a, const InfoMap& b) {
    const auto made = [](const InfoMap& keys) {
        InfoMap out = {{"created", Value(keys, "created")}, {"finished", Value(keys, "finished")}};
        for (const auto& [key, value] : keys) {
            if (str::StartsWith(key, "slice.")) out[key] = value;
        }
        return out;
    };
    return made(a) == made(b);
}

Copy StateOf(const Target& target, const std::string& tree, const Place& place) {
    const bool unfinished = vel_file::Exists(RecordPath(tree, place.name));
    if (unfinished || !vel_file::Exists(place.info)) return Copy::kHalf;
    const std::string folder = place.name.Folder(), bare = vel_file::Name(place.info);
    if (StoredNames(target, folder).count(bare) == 0) return Copy::kElsewhere;
    std::ostringstream stored;
    target.ReadStored(vel_file::ConcatPath(folder, bare), stored);
    InfoMap keys;
    str::Split(stored.str(), "\n", keys);
    return IsSameCopy(keys, backup2::GetInfo(place.info)) ? Copy::kWhole : Copy::kElsewhere;
}

/// The line's copy is not the one that is there, which was made with another password.
bool IsLater(const Target& target, const Place& place) {
    return Value(backup2::GetInfo(place.info), "key_hash") != target.Token().Hash();
}

void RemoveCopy(const Target& target, const std::string& tree, const Place& place) {
    const Copy state = StateOf(target, tree, place);
    if (state == Copy::kElsewhere) {
        RemoveStored(target, place);
    } else if (state == Copy::kHalf || !IsLater(target, place)) {
        MakeRecord(tree, place.name);  // a call that is killed here can be repeated
        RemoveBackup(target, place, true);
    }
    DropRecord(tree, place.name);
}

void AddNames(std::set<std::string>& names, const std::string& dir) {
    if (!vel_file::Info(dir).IsDir()) return;
    for (vel_file::Dir entry(dir, 2); entry.Next();) names.insert(entry.Name());
}

/// Backups of the user's roles came with his copy. Those that are whole are backups of their own.
void RemoveHalfRoles(const Target& target, const std::string& tree, const Place& place) {
    std::set<std::string> files = StoredNames(target, place.name.Folder()), roles;
    AddNames(files, place.folder);
    AddNames(files, vel_file::SplitPath(RecordPath(tree, place.name)).dir);
    for (const auto& bare : files) {
        const auto name = ParseName(bare);
        const bool role = name && name->user == place.name.name && name->name != name->user;
        if (role && name->date == place.name.date) roles.insert(name->name);
    }
    for (const auto& role : roles) {
        const Place half = PlaceIn(tree, place.name.date, role);
        if (StateOf(target, tree, half) != Copy::kWhole) RemoveCopy(target, tree, half);
    }
}

/// Also on a server a disk may be missing.
void CheckIsThere(const Target& target, const std::string& tree, const Place& place) {
    StorageMount(target.Token()).Check();
    const bool arrived = vel_file::Exists(RecordPath(tree, place.name));
    if (arrived && StoredNames(target, "").empty()) {
        throw std::runtime_error(target.Describe() + " holds nothing: is it mounted?");
    }
}

void Undo(const std::string& tree, const backup2::PendingCleanup& item) {
    const Place place = PlaceIn(tree, item.date, item.name);
    const Target target{backup2::BackupToken(item.token)};
    try {
        CheckIsThere(target, tree, place);
        RemoveHalfRoles(target, tree, place);
        RemoveCopy(target, tree, place);
        SweepUploads(target, place.name);
    } catch (const std::exception& e) {
        throw std::runtime_error(target.Redacted(e));
    }
    backup2::DropCleanup(tree, item.line);
    std::cout << "cleaned up " << Shown(place.name) << std::endl;
}

/// As messages call a line of the journal: it holds a token, and is never shown itself.
std::string Called(const backup2::PendingCleanup& item, std::size_t number) {
    const std::string place = "line " + str::Str(uint64_t{number});
    if (item.name.empty()) return place;
    const std::string what = item.name + " " + item.date;
    return place + " (" + str::badchars::Escape(what, str::badchars::Controls(), '\\') + ")";
}

void UndoAll(const std::string& tree) {
    std::set<std::string> done;
    std::string failures;
    std::size_t number = 0, failed = 0;
    for (const auto& item : backup2::ReadCleanups(tree)) {
        ++number;
        if (done.count(item.line) > 0) continue;
        try {
            Undo(tree, item);
            done.insert(item.line);
        } catch (const std::exception& e) {
            if (++failed > kMaxNamed) continue;
            str::Append(failures, Called(item, number) + ": " + Reason(e), "; ");
        }
    }
    if (failed > kMaxNamed) {
        failures += "; and " + str::Str(uint64_t{failed - kMaxNamed}) + " more lines";
    }
    if (!failures.empty()) throw std::runtime_error(tree + "/.cleanup: " + failures);
}

}  // namespace

void CleanUp(const Options& options) {
    const std::string tree = vel_file::GoodPath(options.path);
    for (const char* name : {"BACKUP_TOKEN", "BACKUP_STORAGE"}) vel_env::UnsetEnv(name);
    if (!vel_file::Exists(tree)) return;
    try {
        const backup2::Lock copying(tree);
        return UndoAll(tree);
    } catch (const vel_err::Error& e) {
        if (e.type() != "lock") throw;
        throw std::runtime_error(tree + " is in use: a copy is being made");
    }
}

void Sweep(const Target& target, const Options& options) {
    const int hours = options.hours > 0 ? options.hours : kOfAnyAge;
    const int swept = target.Open()->Sweep("", hours);
    if (swept > 0) std::cout << "took back " << swept << " unfinished uploads" << std::endl;
}

}  // namespace backup2_cp
