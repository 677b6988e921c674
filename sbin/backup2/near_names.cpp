#include "sbin/backup2/near_names.h"

#include <algorithm>
#include <iterator>
#include <set>
#include <string_view>
#include <tuple>

#include "vel/str.h"
#include "vel/vel_file.h"

#include "sbin/backup2/entries.h"
#include "sbin/backup2/output.h"

namespace backup2_admin {
namespace {

constexpr std::size_t kMost = 3;

/// A name that was asked for, and the best that were seen so far.
class Wanted {
public:
    explicit Wanted(const std::string& name)
        : name_(str::Lower(name)), file_(vel_file::Name(name_)) {}

    /// `name` in lower case is `lower`.
    void Look(const std::string& name, const std::string& lower) {
        const int rank = Rank(lower);
        if (rank == 0) return;
        best_.emplace(rank, name.size(), name);
        if (best_.size() > kMost) best_.erase(std::prev(best_.end()));
    }
    std::vector<std::string> Names() const {
        std::vector<std::string> names;
        for (const auto& [rank, size, name] : best_) names.push_back(name);
        return names;
    }

private:
    /// 0: not near; else the smaller the nearer.
    int Rank(const std::string& lower) const {
        if (lower == name_) return 1;
        if (str::EndsWith(lower, "/" + name_)) return 2;
        if (IsOneSlip(lower, name_)) return 3;
        return vel_file::Name(lower) == file_ ? 4 : 0;
    }

    std::string name_, file_;
    std::set<std::tuple<int, std::size_t, std::string>> best_;
};

}  // namespace

bool IsOneSlip(std::string_view a, std::string_view b) {
    const auto [a_rest, b_rest] = std::mismatch(a.begin(), a.end(), b.begin(), b.end());
    a.remove_prefix(static_cast<std::size_t>(a_rest - a.begin()));
    b.remove_prefix(static_cast<std::size_t>(b_rest - b.begin()));
    while (!a.empty() && !b.empty() && a.back() == b.back()) {
        a.remove_suffix(1);
        b.remove_suffix(1);
    }
    const bool swapped = a.size() == 2 && b.size() == 2 && a[0] == b[1] && a[1] == b[0];
    return (a.size() <= 1 && b.size() <= 1) || swapped;
}

std::vector<std::vector<std::string>> NearNames(const std::string& index,
                                                const std::vector<std::string>& wrong) {
    std::vector<Wanted> wanted(wrong.begin(), wrong.end());
    EachListedEntry(index, [&wanted](const ListedEntry& entry) {
        if (entry.Gone()) return;
        const std::string lower = str::Lower(entry.name);
        for (Wanted& one : wanted) one.Look(entry.name, lower);
    });
    std::vector<std::vector<std::string>> near;
    for (const Wanted& one : wanted) near.push_back(one.Names());
    return near;
}

std::string AskNear(const std::vector<std::string>& near) {
    std::string text;
    for (const std::string& name : near) str::Append(text, Printable(name), ", or ");
    return text.empty() ? "" : "is it " + text + "?";
}

}  // namespace backup2_admin
