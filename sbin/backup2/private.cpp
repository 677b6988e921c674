#include "sbin/backup2/private.h"

#include <algorithm>
#include <filesystem>
#include <list>
#include <map>
#include <set>
#include <stdexcept>

#include "vel/str.h"
#include "vel/vel_file.h"
#include "vel/vel_log.h"

#include "sbin/backup2/limits.h"
#include "sbin/backup2/progress.h"

namespace backup2_admin {
namespace {

const vel_log::Module logger("backup2");

const std::string kFetched = ".private";  // below the user's folder: slices on their way

std::string Title(const backup2::PendingCleanup& item) {
    return item.name.empty() ? "?" : item.name + " " + item.date;
}

std::set<std::string> LinesOf(const std::list<backup2::PendingCleanup>& pending) {
    std::set<std::string> lines;
    for (const auto& item : pending) lines.insert(item.line);
    return lines;
}

std::set<std::string> StoredNames(const backup2::BackupToken& token, const std::string& dir) {
    std::list<std::string> names;
    backup2::GetStorage(token)->List(names, dir);
    return {names.begin(), names.end()};
}

/// Names of all stored files of a backup, bare.
std::set<std::string> NamesOf(const Backup& backup, const backup2::BackupToken& token) {
    std::set<std::string> names = {vel_file::Name(backup.info_path),
                                   vel_file::Name(backup.StoredIndex(token))};
    for (const Slice& slice : backup.Slices()) names.insert(vel_file::Name(slice.path));
    return names;
}

/// True for a slice of any archive that the user had under this date, and for its index.
bool IsArchiveOf(const std::string& name, const Backup& backup) {
    const bool marked = !name.empty() && std::string("FIC").find(name[0]) != std::string::npos;
    const std::string tail = "." + backup.user + ".tgz";
    return str::StartsWith(name, backup.date + tail) ||
           (marked && name.find(tail) == std::string("F2024-01-31").size());
}

std::string RealPath(const std::string& path) {
    return std::filesystem::weakly_canonical(path).string();
}

uint64_t SizeOf(const Backup& backup) {
    uint64_t size = 0;
    for (const Slice& slice : backup.Slices()) size += slice.plain;
    return size;
}

std::string FolderOf(const Backup& backup) {
    return vel_file::ConcatPath(backup.user, backup.date);
}

void EndOrphansOf(const std::string& user, const std::string& admin_dir,
                  const std::string& own_dir) {
    EndOrphans(own_dir);
    EndOrphans(vel_file::ConcatPath(admin_dir, user, kFetched));
    for (const auto& item : backup2::ReadCleanups(own_dir)) {
        if (!item.name.empty()) EndOrphans(backup2::GetIndexFile(admin_dir, item.name, item.date));
    }
}

}  // namespace

Replay ClearBrokenCopies(const std::string& user, const std::string& admin_dir,
                         const std::string& own_dir) {
    EndOrphansOf(user, admin_dir, own_dir);
    vel_file::Remove(vel_file::ConcatPath(admin_dir, user, kFetched));
    Replay replay;
    const auto before = backup2::ReadCleanups(own_dir);
    for (const auto& item : before) CheckApart(user, backup2::BackupToken(item.token));
    if (before.empty()) {
        const backup2::Lock stale(own_dir);  // the mark of a dead one goes with ours
        return replay;
    }
    const Done done = RunTool({"backup2_cp", "--cleanup", own_dir});
    const auto left = LinesOf(backup2::ReadCleanups(own_dir));
    for (const auto& item : before) {
        (left.count(item.line) ? replay.left : replay.removed).push_back(Title(item));
    }
    if (done.status != 0) replay.why = done.LastLine();
    return replay;
}

void RecordPlace(const vel_xml::XmlNode& storage, const Backup& backup) {
    UseStorage(Site(storage).token);
    ChangeInfo(backup, [&](const std::string& copy) {
        backup2::UpdateInfo(storage, copy, FolderOf(backup));
    });
}

PrivateCopy::PrivateCopy(vel_xml::Xml settings, vel_xml::XmlNode storage)
    : settings_(std::move(settings)),
      storage_(std::move(storage)),
      admin_(settings_.GetNode("/doc/storage")),
      own_(storage_),
      alone_("copy", own_.owner) {
    CheckApart(own_.owner, own_.token);
    CheckOutsideTree();
    const Replay replay = ClearBrokenCopies(own_.owner, admin_.local_dir, own_.local_dir);
    if (!replay.why.empty()) warnings_.push_back("a broken copy stays: " + replay.why);
}

bool PrivateCopy::Copy(const std::string& date) {
    const std::vector<Backup> missing = Missing(date);
    for (const Backup& backup : missing) CheckPassword(backup, admin_.token);
    CheckBeforeReplacing(missing);
    for (const Backup& backup : missing) CopyOne(backup);
    // A call that died behind the copy did not come to that.
    if (missing.empty()) RemoveReplaced(GetBackup(own_.local_dir, own_.owner, date));
    if (!missing.empty()) ApplyLimits(date);
    return !missing.empty();
}

/// Once more: before the copy nobody knew its size, and the one before it was the newest good one.
void PrivateCopy::ApplyLimits(const std::string& date) try {
    HoldLimits(storage_, own_.owner, date);
} catch (const std::exception& error) {
    warnings_.push_back("limits of the user's own storage: " + Reason(error));
}

/// Each backup would hold the copies of all before it.
void PrivateCopy::CheckOutsideTree() const {
    if (!own_.token.IsLocal()) return;
    const std::string root = settings_.GetNode("/doc/files").GetProp("root");
    const std::string place = RealPath(own_.token.GetParam("path"));
    for (const auto& folder : settings_.GetNodes("/doc/files/folder")) {
        const std::string saved = RealPath(vel_file::ConcatPath(root, folder.Str()));
        if (place == saved || str::StartsWith(place, saved + "/"))
            throw std::runtime_error("the storage of " + own_.owner + " lies in " + saved +
                                     ", which is backed up itself");
    }
}

std::vector<std::string> PrivateCopy::Lacking() const {
    const auto here = BasesOf(admin_), there = BasesOf(own_);
    auto all = here;
    all.insert(there.begin(), there.end());
    const auto room = static_cast<std::size_t>(str::Int64(own_.count_limit));
    std::set<std::string> held;
    for (auto backup = all.rbegin(); backup != all.rend(); ++backup) {
        if (str::Int64(own_.size_limit) > 0 && there.count(backup->first)) break;
        auto more = held;
        more.insert(backup->first);
        if (!backup->second.empty()) more.insert(backup->second);
        if (room > 0 && more.size() > room && !held.empty()) break;
        held = std::move(more);
    }
    std::vector<std::string> lacking;
    for (const auto& date : held) {
        if (here.count(date) && !there.count(date)) lacking.push_back(date);
    }
    return lacking;
}

/// Date -> that of its base or "", of the usable backups of the user.
std::map<std::string, std::string> PrivateCopy::BasesOf(const Site& site) const {
    std::map<std::string, std::string> bases;
    for (const Backup& backup : FindBackups(site.local_dir, own_.owner, "")) {
        if (backup.user == own_.owner && backup.Usable()) bases[backup.date] = backup.BaseDate();
    }
    return bases;
}

/// A storage that cannot be written (an empty mount point, say) looks as if it had lost its
/// backups. Copying them again would fail, and the journal would then take what is there.
void PrivateCopy::CheckBeforeReplacing(const std::vector<Backup>& missing) const {
    for (const Backup& backup : missing) {
        if (!vel_file::Exists(backup2::GetInfoFile(own_.local_dir, backup.user, backup.date)))
            continue;
        UseStorage(own_.token);
        RunTool({"backup2_cp", "--check"}).ThrowIfFailed("the user's own storage");
    }
}

std::vector<Backup> PrivateCopy::Missing(const std::string& date) const {
    std::vector<Backup> missing = {GetBackup(admin_.local_dir, own_.owner, date)};
    missing.front().CheckRecord();
    if (IsComplete(missing.front())) return {};
    if (const std::string day = missing.front().BaseDate(); !day.empty()) {
        const Backup base = GetBackup(admin_.local_dir, own_.owner, day);
        base.CheckRecord();
        if (!IsComplete(base)) missing.insert(missing.begin(), base);
    }
    return missing;
}

/// The very same backup ("custom" may be another one by now), readable with the password of today.
/// A storage that does not answer is a failure: a full backup that is there must not be copied
/// again, and be taken back when that fails.
bool PrivateCopy::IsComplete(const Backup& backup) const {
    const std::string path = backup2::GetInfoFile(own_.local_dir, backup.user, backup.date);
    // What the journal still names would be removed one day.
    if (!vel_file::Exists(path) || !LinesAbout(backup.date).empty()) return false;
    const auto stored = StoredNames(own_.token, FolderOf(backup));
    try {
        const Backup copy = ReadBackup(path);
        const auto wanted = NamesOf(copy, own_.token);
        return copy.Identity() == backup.Identity() && copy.Get("key_hash") == own_.token.Hash() &&
               vel_file::Exists(copy.IndexPath()) &&
               std::includes(stored.begin(), stored.end(), wanted.begin(), wanted.end());
    } catch (const std::exception& error) {
        logger.Write(5, "The copy of %s is made again: %s", backup.Title(), Reason(error));
        return false;
    }
}

void PrivateCopy::CopyOne(Backup backup) {
    const auto in_use = Protect(backup);
    std::unique_ptr<backup2::Lock> base_in_use;
    if (!backup.BaseDate().empty()) {
        base_in_use = Protect(GetBackup(admin_.local_dir, backup.user, backup.BaseDate()));
        // A run that died behind the archiver did not come to that.
        if (vel_file::SplitPath(backup.Get("base")).dir.empty())
            RecordPlace(settings_.GetNode("/doc/storage"), backup);
    }
    vel_file::MkDir(own_.local_dir, vel_file::Attrs(0700));
    const backup2::Lock own_in_use(own_.local_dir);
    TakeOverLines(backup.date);
    ProgressView progress("copy of " + backup.Title(), alone_.Dir());
    progress.ShowUploads(SizeOf(backup));
    const FailureWatch watch;
    try {
        backup2::CopyToPrivate(settings_, backup.date, storage_);
    } catch (const std::runtime_error& error) {
        throw std::runtime_error(error.what() + watch.Reason());
    }
    RemoveReplaced(GetBackup(own_.local_dir, backup.user, backup.date));
}

/// What an earlier copy left in the same place with another token (a password was changed, say) and
/// could not be removed is this copy's from now on: its line would one day take the finished one.
void PrivateCopy::TakeOverLines(const std::string& date) const {
    for (const auto& item : LinesAbout(date)) {
        if (item.token == storage_.Str()) continue;
        // The same line as the copy itself writes, and takes out with its own.
        const backup2::Cleanup line(own_.local_dir, storage_.Str(), item.name, date, false);
        backup2::DropCleanup(own_.local_dir, item.line);
    }
}

/// What the journal says about copies of this date in the place where the storage is now.
std::vector<backup2::PendingCleanup> PrivateCopy::LinesAbout(const std::string& date) const {
    std::vector<backup2::PendingCleanup> lines;
    for (const auto& item : backup2::ReadCleanups(own_.local_dir)) {
        const bool same = item.name == own_.owner && item.date == date;
        if (same && MayBeSamePlace(backup2::BackupToken(item.token), own_.token))
            lines.push_back(item);
    }
    return lines;
}

/// What was stored before under the same date: of the last custom backup, or by the names that it
/// had with another password.
void PrivateCopy::RemoveReplaced(const Backup& copy) const {
    const auto wanted = NamesOf(copy, own_.token);
    for (const std::string& name : StoredNames(own_.token, FolderOf(copy))) {
        if (IsArchiveOf(name, copy) && wanted.count(name) == 0)
            backup2::GetStorage(own_.token)->Delete(vel_file::ConcatPath(FolderOf(copy), name));
    }
}

}  // namespace backup2_admin
