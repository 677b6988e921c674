#include "sbin/qortar/plan.h"

#include <algorithm>
#include <set>
#include <tuple>

#include "vel/str.h"
#include "vel/vel_err.h"

#include "sbin/qortar/target.h"

namespace qortar {
namespace {

constexpr std::size_t kArenaPiece = 1 << 20;
constexpr uint64_t kGap = 1 << 20;  // compressed bytes that are rather skipped than read over

bool ByPlace(const Record& a, const Record& b) {
    return std::tie(a.slice, a.member, a.offset) < std::tie(b.slice, b.member, b.offset);
}

void Sort(std::deque<Record>& records) {
    if (!std::is_sorted(records.begin(), records.end(), ByPlace))
        std::sort(records.begin(), records.end(), ByPlace);
}

/// True when so much lies between two records that reading starts anew. A record's compressed size
/// is unknown, but hardly more than its plain one.
bool IsGap(const Record& before, const Record& next) {
    if (before.slice != next.slice) return before.size < kGap;
    return next.member > before.member + before.size + 2 * kGap;
}

}  // namespace

// ---- Selection ----------------------------------------------------------------------------------

Selection::Selection(const std::vector<std::string>& paths) {
    for (const std::string& path : paths) {
        const std::string name = PlainName(path);
        if (name == ".") {
            wanted_.clear();
            return;
        }
        wanted_[name] = false;
    }
}

bool Selection::Holds(const std::string& name) {
    if (wanted_.empty()) return true;
    for (std::size_t end = name.find('/');; end = name.find('/', end + 1)) {
        const auto found = wanted_.find(std::string_view(name).substr(0, end));
        if (found != wanted_.end()) return found->second = true;
        if (end == std::string::npos) return false;
    }
}

bool Selection::LeadsTo(const std::string& name) const {
    const auto below = wanted_.lower_bound(name + "/");
    return below != wanted_.end() && str::StartsWith(below->first, name + "/");
}

std::vector<std::string> Selection::NotFound() const {
    std::vector<std::string> names;
    for (const auto& [name, found] : wanted_)
        if (!found) names.push_back(name);
    return names;
}

// ---- Plan ---------------------------------------------------------------------------------------

Item Record::AsItem() const {
    Item item;
    item.type = type;
    item.mode = mode;
    item.uid = uid;
    item.gid = gid;
    item.size = size;
    item.mtime = mtime;
    item.name = name;
    item.target = target;
    return item;
}

std::string_view Plan::Keep(const std::string& text) {
    if (text.empty()) return "";
    if (arena_.empty() || arena_.back().size() + text.size() > kArenaPiece) {
        arena_.emplace_back();
        arena_.back().reserve(std::max(kArenaPiece, text.size()));
    }
    std::string& piece = arena_.back();
    piece += text;  // within its capacity: earlier texts stay where they are
    return std::string_view(piece).substr(piece.size() - text.size());
}

Record Plan::MakeRecord(const Entry& entry) {
    Record record;
    record.name = Keep(entry.name);
    record.target = Keep(entry.target);
    record.size = entry.type == 'f' ? entry.size : 0;
    record.member = entry.member;
    record.mtime = entry.mtime;
    record.slice = entry.slice;
    record.offset = entry.offset;
    record.uid = entry.uid;
    record.gid = entry.gid;
    record.mode = static_cast<uint16_t>(entry.mode & 07777);
    record.type = entry.type;
    record.in_base = entry.Has('b');
    record.xattrs = entry.Has('x');
    return record;
}

void Plan::Add(const Entry& entry, bool has_base) {
    const Record record = MakeRecord(entry);
    if (record.type == 'd') folders.push_back(record);
    if (record.type == 'l') links.push_back(record);
    if (record.type == 'h') hard_links.push_back(record);
    if (record.type == 'p') specials.push_back(record);
    if (record.type != 'f' && (record.type == 'h' || !record.xattrs)) return;
    if (record.in_base && !has_base)
        throw vel_err::Error("archive", "base_missing",
                             entry.name + ": is stored in the base archive, which was not given");
    (record.in_base ? stored_in_base : stored).push_back(record);
    bytes += record.size;
    ++files;
}

Plan::Plan(const std::string& listing, Selection& selection, bool has_base) {
    ReadListing(listing, [&](const Entry& entry) {
        if (!selection.Holds(entry.name)) {
            if (entry.type != 'd' || !entry.Stored() || !selection.LeadsTo(entry.name)) return;
            folders.push_back(MakeRecord(entry));
            folders.back().passage = true;
        } else if (entry.Has('D')) {
            deleted.push_back(Keep(entry.name));
        } else if (entry.Stored()) {
            Add(entry, has_base);
        } else if (!entry.Has('v')) {
            not_saved.emplace_back(Keep(entry.name), entry.Has('n')
                                                         ? "was another user's and not saved"
                                                         : "could not be read when it was saved");
        }
    });
    if (!selection.Everything()) ResolveHardLinks(listing, has_base);
    Sort(stored);
    Sort(stored_in_base);
}

Plan::Plan(const std::string& listing) {
    ReadListing(listing, [&](const Entry& entry) {
        if (entry.Stored() && !entry.Has('b') && !entry.Has('D'))
            stored.push_back(MakeRecord(entry));
    });
    Sort(stored);
}

/// Links whose first name was not selected: the first of them takes its place.
void Plan::ResolveHardLinks(const std::string& listing, bool has_base) {
    std::set<std::string_view> have;
    for (const std::deque<Record>* records : {&stored, &stored_in_base, &links, &specials})
        for (const Record& record : *records) have.insert(record.name);
    std::deque<Record> remaining;
    for (Record& record : hard_links) {
        if (have.count(record.target) != 0) {
            remaining.push_back(record);
        } else if (const auto [it, first] = instead_.emplace(record.target, record.name); !first) {
            record.target = it->second;
            remaining.push_back(record);
        }
    }
    hard_links = std::move(remaining);
    if (instead_.empty()) return;
    std::set<std::string_view> missing;
    for (const auto& [target, name] : instead_) missing.insert(target);
    ReadListing(listing, [&](const Entry& entry) {
        if (entry.type != 'd' && entry.Stored() && missing.erase(entry.name) != 0)
            Add(entry, has_base);
    });
    for (const std::string_view target : missing)
        not_saved.emplace_back(instead_[target], "its content is not in the archive");
}

std::string_view Plan::NameFor(const Record& record) const {
    const auto found = instead_.find(record.name);
    return found == instead_.end() ? record.name : found->second;
}

std::vector<Unit> Plan::Units(uint64_t unit_size) const {
    std::vector<Unit> units;
    for (const bool in_base : {true, false}) {
        const std::deque<Record>& records = in_base ? stored_in_base : stored;
        uint64_t filled = 0;
        for (std::size_t i = 0; i < records.size(); ++i) {
            if (i == 0 || filled >= unit_size || IsGap(records[i - 1], records[i])) {
                units.push_back({i, i, in_base});
                filled = 0;
            }
            units.back().end = i + 1;
            filled += records[i].size + 1024;
        }
    }
    return units;
}

std::vector<uint32_t> Plan::SliceNumbers(bool in_base) const {
    std::vector<uint32_t> numbers;
    for (const Record& record : in_base ? stored_in_base : stored)
        if (numbers.empty() || numbers.back() != record.slice) numbers.push_back(record.slice);
    return numbers;
}

}  // namespace qortar
