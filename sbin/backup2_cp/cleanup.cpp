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

namespace backup2_cp {

namespace {

const vel_log::Module logger("backup2_cp");
constexpr int kOfAnyAge = -1;          // hours: servers round the time of a beginning up
constexpr std::size_t kMaxNamed = 20;  // lines that an error names

/// The info file of the named backup in the tree; checks that the journal's words are a name.
Place PlaceIn(const std::string& tree, const backup2::PendingCleanup& item) {
    const std::string bare = item.date + "." + item.name + ".info";
    const auto name = ParseName(bare);
    if (!name || name->date != item.date || name->name != item.name) {
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

/// True when the files on this machine are of a whole copy on another storage: the user took that
/// one, and this storage did not answer until now.
bool BelongsElsewhere(const Target& target, const std::string& tree, const Place& place) {
    if (!vel_file::Exists(place.info) || vel_file::Exists(RecordPath(tree, place.name))) {
        return false;
    }
    const std::string folder = place.name.Folder(), bare = vel_file::Name(place.info);
    if (StoredNames(target, folder).count(bare) == 0) return true;
    std::ostringstream stored;
    target.ReadStored(vel_file::ConcatPath(folder, bare), stored);
    return stored.str() != vel_file::Read(place.info);
}

void RemoveCopy(const Target& target, const std::string& tree, const Place& place) {
    const bool arrived = vel_file::Exists(RecordPath(tree, place.name));
    if (arrived && StoredNames(target, "").empty()) {
        throw std::runtime_error(target.Describe() + " holds nothing: is it mounted?");
    }
    if (BelongsElsewhere(target, tree, place)) {
        RemoveStored(target, place);
    } else {
        RemoveBackup(target, place, true);
    }
}

void Undo(const std::string& tree, const backup2::PendingCleanup& item) {
    const Place place = PlaceIn(tree, item);
    const Target target{backup2::BackupToken(item.token)};
    try {
        RemoveCopy(target, tree, place);
        SweepUploads(target, place.name);
    } catch (const std::exception& e) {
        throw std::runtime_error(target.Redacted(e));
    }
    DropRecord(tree, place.name);
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
