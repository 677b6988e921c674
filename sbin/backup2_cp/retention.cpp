#include "sbin/backup2_cp/retention.h"

#include <algorithm>
#include <cstddef>
#include <map>
#include <optional>
#include <tuple>

#include "vel/str.h"
#include "vel/vel_date.h"
#include "vel/vel_err.h"

namespace backup2_cp {

namespace {

using Action = Decision::Action;
using Kind = Backup::Kind;
using State = Backup::State;

constexpr std::size_t kNone = static_cast<std::size_t>(-1);
constexpr std::size_t kMaxNamed = 5;  // of those that stand in the way of a limit
const std::string kCustom = "custom";

/// The Sunday on or before the day.
std::string WeekOf(const std::string& day) {
    try {
        vel_date::Date date(day);
        return date.AddDays(-date.weekday()).AsDate();
    } catch (const vel_err::Error&) {
        return day;  // the calendar's first week has no Sunday
    }
}

std::string Increments(std::size_t count) {
    return str::Str(uint64_t{count}) + (count == 1 ? " increment needs it" : " increments need it");
}

class Planner {
public:
    Planner(const std::vector<Backup>& series, const Policy& policy,
            const std::function<bool(const Backup&)>& in_use)
        : series_(series), policy_(policy), in_use_(in_use), items_(series.size()) {
        Arrange();
        FindBases();
        Protect();
    }

    Outcome Plan() {
        RemoveLeftOvers();
        ApplyRules();
        ApplyCount();
        ApplySize();
        Outcome out{{}, std::move(unreachable_)};
        for (std::size_t i = 0; i < items_.size(); ++i) {
            out.decisions.push_back({items_[i].action, Reason(i)});
        }
        return out;
    }

private:
    struct Item {
        Action action = Action::kKeep;
        std::string reason;         // of what was decided
        std::string rule;           // the keep rule that keeps it
        std::string protection;     // why it must not go
        std::optional<bool> busy;   // once it was asked
        std::size_t base = kNone;   // of an increment
        std::size_t needed_by = 0;  // increments that are still there, working and unknown ones too
        bool deleted = false;       // marked, earlier or now
    };

    // ---- What is known from the start -----------------------------------------------------------

    bool IsBackup(std::size_t i) const {
        return series_[i].state == State::kComplete || series_[i].state == State::kBroken;
    }
    bool IsGone(std::size_t i) const { return items_[i].action == Action::kRemove; }
    bool Counts(std::size_t i) const { return IsBackup(i) && !IsGone(i) && !items_[i].deleted; }
    bool IsFull(std::size_t i) const { return IsBackup(i) && series_[i].kind == Kind::kFull; }

    void Arrange() {
        for (std::size_t i = 0; i < series_.size(); ++i) by_age_.push_back(i);
        std::stable_sort(by_age_.begin(), by_age_.end(), [&](std::size_t a, std::size_t b) {
            return std::tie(series_[a].day, series_[a].date) <
                   std::tie(series_[b].day, series_[b].date);
        });
        for (std::size_t i = 0; i < series_.size(); ++i) items_[i].deleted = series_[i].deleted;
    }

    void FindBases() {
        std::map<std::string, std::size_t> fulls;
        for (std::size_t i = 0; i < series_.size(); ++i) {
            if (IsFull(i)) fulls[series_[i].date] = i;
        }
        for (std::size_t i = 0; i < series_.size(); ++i) {
            if (series_[i].state == State::kUnknown) {
                HoldWeek(series_[i]);
                continue;
            }
            const auto found = fulls.find(series_[i].base);
            if (found == fulls.end()) continue;
            items_[i].base = found->second;
            ++items_[found->second].needed_by;
        }
    }

    void HoldWeek(const Backup& unknown) {
        if (unknown.date == kCustom) return;
        for (std::size_t i = 0; i < series_.size(); ++i) {
            if (IsFull(i) && MayBeBase(i, unknown.date)) ++items_[i].needed_by;
        }
    }

    bool MayBeBase(std::size_t full, const std::string& date) const {
        return series_[full].date < date && WeekOf(series_[full].date) == WeekOf(date);
    }

    bool IsGood(std::size_t i) const {
        if (i == kNone) return true;
        if (series_[i].state != State::kComplete || series_[i].deleted) return false;
        if (series_[i].kind != Kind::kIncremental) return true;
        const std::size_t base = items_[i].base;
        return base != kNone && series_[base].state == State::kComplete;
    }

    void Protect() {
        for (const std::size_t i : by_age_) {
            if (IsGood(i)) newest_good_ = i;
        }
        if (newest_good_ != kNone) items_[newest_good_].protection = "the newest good one";
        for (std::size_t i = 0; i < series_.size(); ++i) {
            if (series_[i].pinned) items_[i].protection = "pinned";
        }
        if (!policy_.date.empty()) ProtectDate();
    }

    void ProtectDate() {
        for (std::size_t i = 0; i < series_.size(); ++i) {
            if (!IsBackup(i) || series_[i].date != policy_.date) continue;
            to_come_ = false;
            items_[i].protection = "the backup of this run";
            if (items_[i].base != kNone) {
                items_[items_[i].base].protection = "the base of this run's backup";
            }
        }
        if (!to_come_ || policy_.date == kCustom) return;
        for (std::size_t i = 0; i < series_.size(); ++i) {
            if (!IsFull(i) || !MayBeBase(i, policy_.date)) continue;
            items_[i].protection = "this run's backup may build on it";
        }
    }

    /// Why a backup must not go, "" when it may.
    std::string Protection(std::size_t i) {
        Item& item = items_[i];
        if (!item.protection.empty()) return item.protection;
        if (!item.busy) item.busy = in_use_(series_[i]);
        return *item.busy ? "in use" : "";
    }

    // ---- Steps ----------------------------------------------------------------------------------

    void Remove(std::size_t i, const std::string& reason) {
        Item& item = items_[i];
        item.action = Action::kRemove;
        if (item.reason.empty()) item.reason = reason;
        if (item.base == kNone) return;
        Item& base = items_[item.base];
        if (--base.needed_by > 0 || !base.deleted || !Protection(item.base).empty()) return;
        Remove(item.base, "marked as deleted, and the last increment that needed it goes");
    }

    /// Removes or marks; false when it must stay.
    bool Take(std::size_t i, const std::string& reason) {
        Item& item = items_[i];
        if (!Protection(i).empty()) return false;
        if (item.needed_by == 0) {
            Remove(i, reason);
            return true;
        }
        item.action = Action::kMark;
        item.deleted = true;
        item.reason = reason;
        return true;
    }

    /// Marked ones whose last increment went without them: a run was cut short.
    void RemoveLeftOvers() {
        for (const std::size_t i : by_age_) {
            if (!IsBackup(i) || !items_[i].deleted || items_[i].needed_by > 0) continue;
            if (Protection(i).empty()) Remove(i, "marked as deleted, and nothing needs it");
        }
    }

    // ---- Keep rules -----------------------------------------------------------------------------

    /// What the rules look at, the newest first; kNone stands for the backup that is to come.
    std::vector<std::size_t> UnderRules() const {
        std::vector<std::size_t> out;
        for (const std::size_t i : by_age_) {
            if (Counts(i) && series_[i].kind != Kind::kCustom) out.push_back(i);
        }
        if (IsToCome() && policy_.date != kCustom) {
            const auto newer = [&](std::size_t i) { return series_[i].day > policy_.date; };
            out.insert(std::find_if(out.begin(), out.end(), newer), kNone);
        }
        std::reverse(out.begin(), out.end());
        return out;
    }

    void Keep(std::size_t i, const std::string& rule) {
        if (i != kNone && items_[i].rule.empty()) items_[i].rule = rule;
    }

    /// The newest of each of the `count` newest periods; a good one where the period has one.
    template <class Period>
    void KeepNewest(const std::vector<std::size_t>& backups, uint64_t count,
                    const std::string& name, const Period& period_of) {
        const auto of = [&](std::size_t i) {
            return period_of(i == kNone ? policy_.date : series_[i].day);
        };
        for (std::size_t at = 0; at < backups.size() && count > 0; --count) {
            const std::string period = of(backups[at]);
            std::size_t chosen = backups[at];
            bool good = IsGood(chosen);
            for (; at < backups.size() && of(backups[at]) == period; ++at) {
                if (good || !IsGood(backups[at])) continue;
                chosen = backups[at];
                good = true;
            }
            Keep(chosen, "the newest of the " + name + period);
        }
    }

    void ApplyRules() {
        if (!policy_.HasRules()) return;
        const std::vector<std::size_t> backups = UnderRules();
        for (std::size_t at = 0; at < backups.size() && at < policy_.last; ++at) {
            Keep(backups[at], "one of the last " + str::Str(policy_.last));
        }
        KeepNewest(backups, policy_.daily, "day ", [](const std::string& day) { return day; });
        KeepNewest(backups, policy_.weekly, "week of ", WeekOf);
        KeepNewest(backups, policy_.monthly, "month ",
                   [](const std::string& day) { return day.substr(0, 7); });
        KeepNewest(backups, policy_.yearly, "year ",
                   [](const std::string& day) { return day.substr(0, 4); });
        for (auto i = backups.rbegin(); i != backups.rend(); ++i) {
            if (*i != kNone && items_[*i].rule.empty()) Take(*i, "no keep rule keeps it");
        }
    }

    // ---- Limits ---------------------------------------------------------------------------------

    bool IsToCome() const { return !policy_.date.empty() && to_come_; }

    void ApplyCount() {
        if (policy_.count_limit == 0) return;
        uint64_t count = IsToCome() ? 1 : 0;
        for (const std::size_t i : by_age_) count += Counts(i) ? 1 : 0;
        const std::string limit = "count limit " + str::Str(policy_.count_limit);
        for (const std::size_t i : by_age_) {
            if (count <= policy_.count_limit) return;
            if (Counts(i) && Take(i, limit)) --count;
        }
        if (count <= policy_.count_limit) return;
        Refuse(limit + ": " + str::Str(count) + " backups stay", IsToCome(),
               [this](std::size_t i) { return Counts(i) ? Protection(i) : ""; });
    }

    /// True when the removal of an increment that holds no bytes lets its base go later.
    bool OpensWay(std::size_t i) {
        const std::size_t base = items_[i].base;
        if (base == kNone || series_[base].size == 0 || !Protection(base).empty()) return false;
        std::size_t others = items_[base].needed_by;
        for (std::size_t k = 0; k < series_.size(); ++k) {
            if (items_[k].base != base || !IsBackup(k) || IsGone(k)) continue;
            if (!Protection(k).empty()) return false;
            --others;
        }
        return others == 0;  // else a job's, or something unknown
    }

    bool Frees(std::size_t i) { return series_[i].size > 0 || OpensWay(i); }

    uint64_t Total() const {
        uint64_t total = 0;
        for (std::size_t i = 0; i < series_.size(); ++i) {
            if (IsBackup(i) && !IsGone(i)) total += series_[i].size;
        }
        return total;
    }

    std::string WhyItsBytesStay(std::size_t i) {
        if (!IsBackup(i) || IsGone(i) || series_[i].size == 0) return "";
        const std::string protection = Protection(i);
        return protection.empty() ? "kept: " + Increments(items_[i].needed_by) : protection;
    }

    void ApplySize() {
        if (policy_.size_limit == 0) return;
        const std::string limit = "size limit " + str::Str(policy_.size_limit);
        uint64_t total = Total();
        for (std::size_t at = 0; at < by_age_.size() && total > policy_.size_limit;) {
            const std::size_t i = by_age_[at++];
            if (!IsBackup(i) || IsGone(i) || items_[i].needed_by > 0) continue;
            if (!Protection(i).empty() || !Frees(i)) continue;
            Remove(i, limit);
            total = Total();
            const std::size_t base = items_[i].base;  // older, and perhaps free to go by now
            if (base != kNone && items_[base].needed_by == 0) at = 0;
        }
        if (total <= policy_.size_limit) return;
        Refuse(limit + ": " + str::Str(total) + " bytes stay", false,
               [this](std::size_t i) { return WhyItsBytesStay(i); });
    }

    /// `why` gives what keeps a backup, "" for one that does not matter.
    template <class Why>
    void Refuse(const std::string& what, bool to_come, const Why& why) {
        std::string list;
        std::size_t found = 0;
        for (const std::size_t i : by_age_) {
            const std::string reason = why(i);
            if (reason.empty() || ++found > kMaxNamed) continue;
            str::Append(list, series_[i].date + " is " + reason, ", ");
        }
        if (found > kMaxNamed) {
            list += ", and " + str::Str(uint64_t{found - kMaxNamed}) + " more";
        }
        if (to_come) str::Append(list, policy_.date + " is to come", ", ");
        unreachable_.push_back(what + ": " + list);
    }

    std::string Reason(std::size_t i) const {
        const Item& item = items_[i];
        if (item.action == Action::kKeep) return WhyKept(i);
        if (item.action == Action::kRemove) return item.reason;
        return item.reason + ", " + Increments(item.needed_by);
    }

    std::string WhyKept(std::size_t i) const {
        const Item& item = items_[i];
        if (series_[i].state == State::kUnknown) return "nothing is known of it";
        if (series_[i].state == State::kWorking) return "it is being made";
        if (item.deleted && item.needed_by > 0) {
            return "marked as deleted, " + Increments(item.needed_by);
        }
        if (!item.rule.empty()) return item.rule;
        if (!item.protection.empty()) return item.protection;
        if (item.busy.value_or(false)) return "in use";
        if (series_[i].kind == Kind::kCustom && policy_.HasRules()) return "made by hand";
        return "within the limits";
    }

    const std::vector<Backup>& series_;
    const Policy& policy_;
    const std::function<bool(const Backup&)>& in_use_;
    std::vector<Item> items_;
    std::vector<std::size_t> by_age_;  // the oldest first
    std::size_t newest_good_ = kNone;
    bool to_come_ = true;  // the backup of policy_.date is not there
    std::vector<std::string> unreachable_;
};

}  // namespace

Outcome Decide(const std::vector<Backup>& series, const Policy& policy,
               const std::function<bool(const Backup&)>& in_use) {
    return Planner(series, policy, in_use).Plan();
}

}  // namespace backup2_cp
