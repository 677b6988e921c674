#include "sbin/backup2_cp/tree.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <future>
#include <optional>
#include <stdexcept>
#include <tuple>

#include "vel/str.h"
#include "vel/test.h"
#include "vel/vel_file.h"

#include "backup_common/backup2_misc.h"
#include "backup_common/backup2_qortar.h"

#include "sbin/backup2_cp/errors.h"
#include "sbin/backup2_cp/info_record.h"
#include "sbin/backup2_cp/names.h"

namespace backup2_cp {

namespace {

constexpr int kReaders = 2;
constexpr std::size_t kShare = 64;  // info files that a reader takes at once
constexpr uint64_t kMaxSize = uint64_t{1} << 50;
const std::string kCustom = "custom";

/// What became of one info file. Kept small: there may be a hundred thousand of them.
struct Found {
    std::string path, name;  // no NAME: it is no backup's
    Backup backup;
    std::string complaint;
};

// ---- One info file ------------------------------------------------------------------------------

[[noreturn]] void Refuse(const std::string& why) { throw std::runtime_error(why); }

/// L/user/date, or L/date in a tree of one user; working ones lie in L itself.
bool IsAtHome(const std::string& top, const std::string& path, const BackupName& name) {
    const std::string dir = vel_file::SplitPath(path).dir;
    if (dir == top) return true;
    const std::string user = backup2::IsAdminData(top) ? name.user : "";
    return dir == vel_file::ConcatPath(top, user, name.date);
}

Backup::Kind KindOf(const InfoMap& keys, const BackupName& name) {
    const bool based = !Value(keys, "base").empty();
    const std::string type = Value(keys, "type");
    if (name.date == kCustom) {
        if (based || (!type.empty() && type != "custom")) Refuse("type is not custom");
        return Backup::Kind::kCustom;
    }
    const std::string wanted = based ? "incremental" : "full";
    if (!type.empty() && type != wanted) Refuse("type and base do not fit together");
    return based ? Backup::Kind::kIncremental : Backup::Kind::kFull;
}

std::string DayOf(const InfoMap& keys, const BackupName& name) {
    if (name.date != kCustom) return name.date;
    const std::string day = Value(keys, "created").substr(0, 10);
    if (!test::Date(day)) Refuse("created is no date");
    return day;
}

/// Copies in users' own storages may say -31 for nothing.
uint64_t SizeOf(const InfoMap& keys) {
    const std::string text = Value(keys, "size");
    if (text.empty() || text[0] == '-') return 0;
    const auto size = ParseNumber(text, kMaxSize);
    if (!size) Refuse("size is no sane number");
    return *size;
}

/// Records of old, and those that only name others, hold no slices.
bool HoldsSlices(const InfoMap& keys) {
    const auto first = keys.lower_bound("slice.");
    return keys.count("parts") > 0 ||
           (first != keys.end() && str::StartsWith(first->first, "slice."));
}

Backup::State StateOf(const InfoMap& keys) {
    if (Value(keys, "finished").empty()) return Backup::State::kWorking;
    if (!HoldsSlices(keys) && !Value(keys, "last-slice").empty()) return Backup::State::kComplete;
    try {
        CheckComplete(keys);
        return Backup::State::kComplete;
    } catch (const std::exception&) {  // which slice it is matters to those who read the backup
        return Backup::State::kBroken;
    }
}

Backup ReadBackup(const std::string& path, const BackupName& name) {
    const InfoMap keys = backup2::GetInfo(path);
    CheckInfo(keys, name);
    Backup out;
    out.date = name.date;
    out.kind = KindOf(keys, name);
    out.day = DayOf(keys, name);
    out.size = SizeOf(keys);
    out.state = StateOf(keys);
    out.deleted = !Value(keys, "deleted").empty();
    out.pinned = !Value(keys, "pinned").empty();
    if (out.kind == Backup::Kind::kIncremental) out.base = NameOf(Value(keys, "base")).date;
    return out;
}

std::string Shown(const std::string& path) {
    return str::badchars::Escape(path, str::badchars::Controls(), '\\');
}

Found Look(std::string path, const std::string& top) {
    Found out;
    const auto name = ParseName(vel_file::Name(path));
    if (!name || name->kind != BackupName::Kind::kInfo || !IsAtHome(top, path, *name)) {
        out.complaint = Shown(path) + ": not the info file of a backup, or in the wrong place";
        return out;
    }
    out.name = name->name;
    try {
        out.backup = ReadBackup(path, *name);
    } catch (const std::exception& e) {
        if (!vel_file::Exists(path)) return {};  // another process removed it
        out.complaint = Shown(path) + ": " + Shown(Reason(e));
        out.backup = Backup();
        out.backup.date = name->date;
        out.backup.day = name->date;
        out.backup.state = Backup::State::kUnknown;
    }
    out.path = std::move(path);
    return out;
}

// ---- All of them --------------------------------------------------------------------------------

std::vector<Found> LookAtAll(std::list<std::string>& paths, const std::string& top) {
    std::vector<Found> found(paths.size());
    auto path = paths.begin();
    for (auto& one : found) one.path = std::move(*path++);
    paths.clear();
    std::atomic<std::size_t> next{0};
    const auto read = [&] {
        for (std::size_t at; (at = next.fetch_add(kShare)) < found.size();) {
            const std::size_t end = std::min(at + kShare, found.size());
            for (; at < end; ++at) found[at] = Look(std::move(found[at].path), top);
        }
    };
    std::vector<std::future<void>> readers;
    for (int i = 1; i < kReaders; ++i) readers.push_back(std::async(read));
    read();
    for (auto& reader : readers) reader.get();
    return found;
}

/// Those of one user that lie in the tree's top: working ones, while a job runs.
void AddFlat(std::list<std::string>& infos, const std::string& top, const std::string& user) {
    for (vel_file::Dir entry(top, 2); entry.Next();) {
        if (!entry.HasExt(".info") || !backup2::IsInfoFile(entry)) continue;
        const auto name = ParseName(entry.Name());
        if (name && name->user == user) infos.push_back(entry.Path());
    }
}

/// One order, whatever the disk's is; of two info files of one backup the one in its own folder,
/// which has the longer path, is first.
bool ByBackup(const Found& a, const Found& b) {
    const auto key = [](const Found& f) {
        return std::tuple<const std::string&, const std::string&, std::size_t, const std::string&>(
            f.name, f.backup.date, SIZE_MAX - f.path.size(), f.path);
    };
    return key(a) < key(b);
}

bool IsSecond(const Series& series, const Backup& backup) {
    if (series.backups.empty()) return false;
    const Backup& before = series.backups.back();
    return before.date == backup.date && before.state != Backup::State::kWorking &&
           backup.state != Backup::State::kWorking;
}

/// A copy that the journal names did not come to its end, whatever its info file says by then.
void FindBrokenCopies(std::map<std::string, Series>& tree, const std::string& top) {
    for (const auto& item : backup2::ReadCleanups(top)) {
        const auto series = tree.find(item.name);
        if (series == tree.end()) continue;
        for (Backup& backup : series->second.backups) {
            if (backup.date == item.date) backup.state = Backup::State::kWorking;
        }
    }
}

}  // namespace

std::list<std::string> InfosOf(const std::string& top, const std::string& user) {
    std::list<std::string> infos;
    if (!backup2::IsAdminData(top)) {
        if (vel_file::Exists(top)) backup2::GetInfoFiles(infos, top, false, user, "");
        return infos;
    }
    const std::string own = vel_file::ConcatPath(top, user);
    if (vel_file::Info(own, false).IsDir()) backup2::GetInfoFiles(infos, own, false, user, "");
    if (vel_file::Exists(top)) AddFlat(infos, top, user);
    return infos;
}

std::map<std::string, Series> ReadTree(const std::string& top, const std::string& user,
                                       const std::function<void(const std::string&)>& complain) {
    std::map<std::string, Series> tree;
    if (!vel_file::Exists(top)) return tree;
    std::list<std::string> paths;
    if (user.empty()) {
        backup2::GetInfoFiles(paths, top, false, "", "");
    } else {
        paths = InfosOf(top, user);
    }
    std::vector<Found> found = LookAtAll(paths, top);
    std::sort(found.begin(), found.end(), ByBackup);
    for (Found& one : found) {
        if (!one.complaint.empty()) complain(one.complaint);
        if (one.name.empty()) continue;
        Series& series = tree[one.name];
        if (IsSecond(series, one.backup)) {
            complain(Shown(one.path) + ": another info file of the same backup");
            continue;
        }
        series.backups.push_back(std::move(one.backup));
        series.infos.push_back(std::move(one.path));
    }
    FindBrokenCopies(tree, top);
    return tree;
}

}  // namespace backup2_cp
