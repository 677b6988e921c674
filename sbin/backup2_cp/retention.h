/// Which backups of a storage go, which stay, and why: rules only, nothing here looks at a disk or
/// at a clock.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace backup2_cp {

/// One info file. All backups of one NAME (a user, or a user and a role) make a series.
struct Backup {
    enum class Kind { kFull, kIncremental, kCustom };
    enum class State {
        kComplete,  ///< finished, and its record is whole
        kBroken,    ///< finished, but the record lacks slices: it counts, it is not good
        kWorking,   ///< a job writes it: no backup yet, but its base must stay
        kUnknown,   ///< unreadable or foreign: never counted, never removed; since it may be an
                    ///< increment, the full backups before it in its week stay, too
    };
    std::string date;  ///< of its folder: "YYYY-MM-DD" or "custom"
    std::string day;   ///< its age, "YYYY-MM-DD"; of a custom one the day when it was made
    std::string base;  ///< date of the full backup that an increment needs
    uint64_t size = 0;
    Kind kind = Kind::kFull;
    State state = State::kComplete;
    bool deleted = false, pinned = false;
};

/// What a storage may hold. 0 is no limit, or no rule.
struct Policy {
    uint64_t size_limit = 0, count_limit = 0;  ///< of each series; bytes, backups
    uint64_t last = 0, daily = 0, weekly = 0, monthly = 0, yearly = 0;  ///< newest ones to keep
    std::string date;  ///< the backup that is being made, "" for none; counts as present

    bool HasRules() const { return last || daily || weekly || monthly || yearly; }
};

struct Decision {
    enum class Action {
        kKeep,
        kRemove,
        kMark  ///< as deleted: increments need it, its data go with the last of them
    };
    Action action = Action::kKeep;
    std::string reason;
};

struct Outcome {
    std::vector<Decision> decisions;       ///< one for each backup, in the order given
    std::vector<std::string> unreachable;  ///< one line for each limit that cannot be reached
};

/// Decides over one series, in which no date stands twice (but for working ones). `in_use` is only
/// asked of backups that would go. Deciding again over what is left decides nothing new.
///
/// Neither removed nor marked: the backup of `date` and its base (before it exists, every full
/// backup of its week that it may build on), the newest good one, pinned ones, those in use. A full
/// backup that increments need is only marked. First the keep rules, then count, then size; the
/// oldest first.
Outcome Decide(const std::vector<Backup>& series, const Policy& policy,
               const std::function<bool(const Backup&)>& in_use);

}  // namespace backup2_cp
