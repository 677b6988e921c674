/// The retention rules over random histories: whatever they decide, nothing that is left may lack
/// its base, and what is promised to stay stays.
#include "sbin/backup2_cp/retention.h"

#include <algorithm>
#include <random>
#include <set>

#include <gtest/gtest.h>

#include "vel/vel_date.h"

namespace backup2_cp {
namespace {

using Action = Decision::Action;
using Kind = Backup::Kind;
using State = Backup::State;
using Series = std::vector<Backup>;

std::string Day(std::size_t number) {
    return vel_date::Date("2023-12-20").AddDays(static_cast<int>(number)).AsDate();
}

std::string Week(const std::string& day) {
    vel_date::Date date(day);
    return date.AddDays(-date.weekday()).AsDate();
}

struct History {
    Series series;
    Policy policy;
    std::set<std::string> in_use;
    std::mt19937 dice;

    explicit History(unsigned seed) : dice(seed) {
        Fill();
        for (uint64_t* rule :
             {&policy.last, &policy.daily, &policy.weekly, &policy.monthly, &policy.yearly}) {
            if (Chance(20)) *rule = Roll(5);
        }
        if (Chance(50)) policy.count_limit = Roll(12);
        if (Chance(50)) policy.size_limit = Roll(600);
        const std::size_t days = series.size() + 6;
        if (Chance(70)) policy.date = Chance(10) ? "custom" : Day(days - Roll(6));
    }
    Outcome Decide() const {
        return backup2_cp::Decide(series, policy,
                                  [&](const Backup& b) { return in_use.count(b.date) > 0; });
    }
    bool Chance(unsigned percent) { return dice() % 100 < percent; }
    unsigned Roll(unsigned sides) { return static_cast<unsigned>(dice() % sides) + 1; }

    void Fill() {
        std::string base;
        const unsigned days = Roll(60);
        for (unsigned day = 0; day < days; ++day) {
            if (Chance(10)) continue;
            Backup b{Day(day), Day(day), "", Chance(10) ? 0 : Roll(100)};
            if (base.empty() || Week(base) != Week(b.day) || Chance(3)) base = b.day;
            if (base != b.day) b.kind = Kind::kIncremental, b.base = base;
            b.state = Chance(4) ? State::kBroken : Chance(3) ? State::kUnknown : State::kComplete;
            if (Chance(2)) b.state = State::kWorking;
            b.deleted = b.kind == Kind::kFull && Chance(15);
            b.pinned = !b.deleted && Chance(5);
            if (Chance(4)) in_use.insert(b.date);
            if (!Chance(3)) series.push_back(b);  // else lost: its increments have no base
        }
        if (Chance(20)) series.push_back({"custom", Day(Roll(60)), "", 50, Kind::kCustom});
    }

    const Backup* Find(const std::string& date) const {
        const auto found = std::find_if(series.begin(), series.end(), [&](const Backup& b) {
            return b.date == date && (b.state == State::kComplete || b.state == State::kBroken);
        });
        return found == series.end() ? nullptr : &*found;
    }
    /// True when `other` needs the full backup, or may need it.
    bool Needs(const Backup& other, const Backup& full) const {
        if (full.kind != Kind::kFull || &other == &full) return false;
        if (other.state != State::kUnknown) return other.base == full.date;
        return MayBuildOn(full, other.date);
    }
    static bool MayBuildOn(const Backup& full, const std::string& date) {
        return full.kind == Kind::kFull && date != "custom" && full.date < date &&
               Week(full.date) == Week(date);
    }
    const Backup* NewestGood() const {
        const Backup* newest = nullptr;
        for (const Backup& b : series) {
            const Backup* base = b.kind == Kind::kIncremental ? Find(b.base) : &b;
            const bool whole = b.state == State::kComplete && base && base->state == b.state;
            if (!whole || b.deleted) continue;
            if (!newest || std::tie(newest->day, newest->date) < std::tie(b.day, b.date))
                newest = &b;
        }
        return newest;
    }
    bool MustStay(const Backup& b) const {
        const Backup* made = Find(policy.date);
        if (b.pinned || in_use.count(b.date) > 0 || &b == NewestGood() || &b == made) return true;
        if (made) return !made->base.empty() && b.date == made->base;
        return !policy.date.empty() && MayBuildOn(b, policy.date);
    }
};

bool Real(const Backup& b) { return b.state == State::kComplete || b.state == State::kBroken; }

/// What is there afterwards.
History Applied(const History& before, const Outcome& outcome) {
    History after = before;
    after.series.clear();
    for (std::size_t i = 0; i < before.series.size(); ++i) {
        if (outcome.decisions[i].action == Action::kRemove) continue;
        after.series.push_back(before.series[i]);
        if (outcome.decisions[i].action == Action::kMark) after.series.back().deleted = true;
    }
    return after;
}

/// True when something that stays needs `b`.
bool IsHeld(const History& before, const History& after, const Backup& b) {
    return std::any_of(after.series.begin(), after.series.end(), [&](const Backup& other) {
        if (!after.Needs(other, b)) return false;
        return !Real(other) || other.deleted || before.MustStay(*before.Find(other.date));
    });
}

bool IsNeeded(const History& history, const Backup& b) {
    return std::any_of(history.series.begin(), history.series.end(),
                       [&](const Backup& other) { return history.Needs(other, b); });
}

uint64_t Counted(const History& history) {
    const auto& all = history.series;
    const bool to_come = !history.policy.date.empty() && !history.Find(history.policy.date);
    return static_cast<uint64_t>(std::count_if(
               all.begin(), all.end(), [](const Backup& b) { return Real(b) && !b.deleted; })) +
           (to_come ? 1 : 0);
}

uint64_t Bytes(const History& history) {
    uint64_t sum = 0;
    for (const Backup& b : history.series) sum += Real(b) ? b.size : 0;
    return sum;
}

void CheckWhatStays(const History& before, const Outcome& outcome) {
    for (std::size_t i = 0; i < before.series.size(); ++i) {
        const Backup& b = before.series[i];
        const Action action = outcome.decisions[i].action;
        EXPECT_NE(outcome.decisions[i].reason, "");
        if (action == Action::kKeep) continue;
        EXPECT_TRUE(Real(b) && !before.MustStay(b)) << b.date;
        bool needed = false;
        for (std::size_t k = 0; k < before.series.size(); ++k) {
            const bool stays = outcome.decisions[k].action != Action::kRemove;
            needed = needed || (stays && before.Needs(before.series[k], b));
        }
        EXPECT_EQ(action == Action::kMark, needed) << b.date << ": " << outcome.decisions[i].reason;
    }
}

void CheckLimits(const History& before, const History& after, const Outcome& outcome) {
    const Policy& policy = before.policy;
    const bool count = policy.count_limit && Counted(after) > policy.count_limit;
    const bool size = policy.size_limit && Bytes(after) > policy.size_limit;
    EXPECT_EQ(outcome.unreachable.size(), (count ? 1U : 0U) + (size ? 1U : 0U));
    for (const Backup& b : after.series) {
        if (!Real(b) || before.MustStay(*before.Find(b.date))) continue;
        EXPECT_FALSE(count && !b.deleted) << b.date << " could go";
        const bool free = !IsNeeded(after, b);
        EXPECT_FALSE(size && b.size > 0 && !IsHeld(before, after, b)) << b.date << " could go";
        EXPECT_FALSE(b.deleted && free) << b.date << " is deleted and not needed";
    }
    if (policy.HasRules() || policy.size_limit) return;
    const uint64_t wanted = policy.count_limit ? policy.count_limit : UINT64_MAX;
    EXPECT_EQ(Counted(after), count ? Counted(after) : std::min(Counted(before), wanted));
}

/// Each of the newest days, weeks ... that had a backup still has one.
void CheckRules(const History& before, const History& after) {
    const Policy& policy = before.policy;
    if (!policy.HasRules() || policy.count_limit || policy.size_limit) return;
    const auto periods = [&](const History& of, auto period) {
        std::set<std::string, std::greater<>> out;
        for (const Backup& b : of.series) {
            if (Real(b) && !b.deleted && b.kind != Kind::kCustom) out.insert(period(b.day));
        }
        if (!policy.date.empty() && policy.date != "custom") out.insert(period(policy.date));
        return out;
    };
    const auto check = [&](uint64_t count, auto period) {
        const auto had = periods(before, period), have = periods(after, period);
        for (auto it = had.begin(); it != had.end() && count > 0; ++it, --count) {
            EXPECT_EQ(have.count(*it), 1U) << *it;
        }
    };
    check(std::max(policy.last, policy.daily), [](const std::string& day) { return day; });
    check(policy.weekly, Week);
    check(policy.monthly, [](const std::string& day) { return day.substr(0, 7); });
    check(policy.yearly, [](const std::string& day) { return day.substr(0, 4); });
    uint64_t kept = 0;
    for (const Backup& b : after.series) {
        const bool under = Real(b) && !b.deleted && b.kind != Kind::kCustom;
        kept += under && !before.MustStay(*before.Find(b.date)) ? 1 : 0;
    }
    EXPECT_LE(kept, policy.last + policy.daily + policy.weekly + policy.monthly + policy.yearly);
}

TEST(Retention, KeepsItsPromisesOverRandomHistories) {
    std::size_t removed = 0, marked = 0, unreachable = 0;
    for (unsigned seed = 0; seed < 500 && !HasFailure(); ++seed) {
        SCOPED_TRACE(seed);
        const History before(seed);
        const Outcome outcome = before.Decide();
        const History after = Applied(before, outcome);
        CheckWhatStays(before, outcome);
        CheckLimits(before, after, outcome);
        CheckRules(before, after);
        for (const auto& again : after.Decide().decisions) {
            EXPECT_EQ(again.action, Action::kKeep) << again.reason;
        }
        for (const auto& d : outcome.decisions) {
            removed += d.action == Action::kRemove ? 1 : 0;
            marked += d.action == Action::kMark ? 1 : 0;
        }
        unreachable += outcome.unreachable.size();
        History turned = before;  // the disk's order means nothing
        std::reverse(turned.series.begin(), turned.series.end());
        auto decisions = turned.Decide().decisions;
        std::reverse(decisions.begin(), decisions.end());
        for (std::size_t i = 0; i < decisions.size(); ++i) {
            EXPECT_EQ(decisions[i].action, outcome.decisions[i].action) << before.series[i].date;
        }
    }
    EXPECT_GT(std::min({removed, marked, unreachable}), 100U);  // the histories are no easy ones
}

}  // namespace
}  // namespace backup2_cp
