#include <iostream>
#include <stdexcept>

#include "vel/str.h"
#include "vel/vel_date.h"
#include "vel/vel_file.h"

#include "sbin/backup2_cp/actions.h"
#include "sbin/backup2_cp/removal.h"
#include "sbin/backup2_cp/retention.h"
#include "sbin/backup2_cp/tree.h"

namespace backup2_cp {

namespace {

std::string Needed(std::size_t increments) {
    return str::Str(uint64_t{increments}) + " increments need ";
}

void Mark(const Place& place, std::size_t increments) {
    if (!vel_file::Exists(place.info)) {
        throw std::runtime_error(place.info + " is missing, and " + Needed(increments) +
                                 "this backup");
    }
    MarkDeleted(place);
    std::cout << "marked as deleted " << Shown(place.name) << ": " << Needed(increments) << "it\n";
}

void RemoveAndSay(const Target& target, const Place& place, bool even_pinned) {
    RemoveBackup(target, place, even_pinned);
    std::cout << "removed " << Shown(place.name) << "\n";
}

/// Decided as limits do: a damaged info file of its week may be one of its increments.
bool NothingNeeds(const Place& full) {
    const auto tree = ReadTree(full.top, full.name.user, [](const std::string&) {});
    const auto series = tree.find(full.name.name);
    if (series == tree.end()) return false;
    const auto& backups = series->second.backups;
    const Outcome outcome = Decide(backups, {}, [](const Backup&) { return false; });
    for (std::size_t i = 0; i < backups.size(); ++i) {
        const bool goes = outcome.decisions[i].action == Decision::Action::kRemove;
        if (goes && backups[i].date == full.name.date) return true;
    }
    return false;
}

}  // namespace

void Delete(const Target& target, const Options& options) {
    const Place place = PlaceOf(options.info_file);
    const InfoMap keys = ReadInfo(place);
    const auto increments = Increments(place);
    if (!increments.empty() && !options.force) return Mark(place, increments.size());
    for (const auto& info : increments) {
        const Place increment = PlaceOf(info);
        ReadInfo(increment);
        RemoveAndSay(target, increment, true);
    }
    const auto base = DeletedBase(place, keys);
    RemoveAndSay(target, place, options.force);
    if (!base) return;
    const Place full = PlaceOf(*base);
    if (NothingNeeds(full)) RemoveAndSay(target, full, false);
}

// ---- Pins ---------------------------------------------------------------------------------------

void Pin(const Options& options) {
    const BackupName name = InfoNameOf(options.info_file);
    InfoRecord record(options.info_file);
    InfoMap& keys = record.Keys();
    CheckInfo(keys, name);
    if (Value(keys, "finished").empty() || !Value(keys, "deleted").empty()) {
        throw std::runtime_error(Shown(name) + " is unfinished or deleted and cannot be pinned");
    }
    auto& pinned = keys["pinned"];
    if (pinned.empty()) pinned = vel_date::DateTime().AsDateTime();
    record.Save();
    std::cout << "pinned " << Shown(name) << "\n";
}

void Unpin(const Options& options) {
    const BackupName name = InfoNameOf(options.info_file);
    InfoRecord record(options.info_file);
    if (record.Keys().erase("pinned") > 0) record.Save();
    std::cout << "unpinned " << Shown(name) << "\n";
}

}  // namespace backup2_cp
