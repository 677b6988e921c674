#include "sbin/backup2/job.h"

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <list>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <tuple>

#include "vel/str.h"
#include "vel/vel_client.h"
#include "vel/vel_date.h"
#include "vel/vel_env.h"
#include "vel/vel_file.h"
#include "vel/vel_hash.h"
#include "vel/vel_log.h"
#include "vel/vel_proc.h"
#include "vel/vel_tool.h"

#include "backup_common/backup2_qortar.h"

#include "sbin/backup2/storage_kinds.h"

namespace backup2_admin {
namespace {

constexpr int64_t kMaxParts = 1000000;
constexpr std::string_view kOutput = ". Output: ";  // in the library's log lines

std::string WithoutExtension(const std::string& name, const std::string& extension) {
    return str::EndsWith(name, extension) ? name.substr(0, name.size() - extension.size()) : name;
}

/// The text behind the date and before ".info": the user, with the role when there is one.
std::string OwnerInName(const std::string& file) {
    std::string rest = WithoutExtension(file, ".info");
    str::GetWord(rest, '.');
    return rest;
}

std::string WithoutPart(const std::string& path) {
    const auto part = path.rfind(".part");
    const bool numbered = part != std::string::npos && part + 5 < path.size() &&
                          path.find_first_not_of("0123456789", part + 5) == std::string::npos;
    return numbered ? path.substr(0, part) : path;
}

/// The text when it is a day in normal form, else "".
std::string DayOrNothing(const std::string& text) {
    try {
        return vel_date::Date(text).AsDate() == text ? text : "";
    } catch (const vel_err::Error&) {
        return "";
    }
}

/// "<plain size> <stored size> <plain sum> <stored sum>" of slice.K.
void ReadSums(std::string text, Slice& slice) {
    if (text.empty()) return;
    slice.plain = static_cast<uint64_t>(str::Int64(str::GetWord(text)));
    slice.stored = static_cast<uint64_t>(str::Int64(str::GetWord(text)));
    slice.plain_sum = str::GetWord(text);
    slice.stored_sum = str::GetWord(text);
}

/// True when `path` stands in `words` and does not go on behind: "/x/bob.info" is not in
/// "/x/bob.info.info", a folder is in the names below it.
bool Names(const std::string& words, const std::string& path) {
    for (auto at = words.find(path); at != std::string::npos; at = words.find(path, at + 1)) {
        const char next = at + path.size() < words.size() ? words[at + path.size()] : '\0';
        if (next == '\0' || next == ' ' || next == '/' || next == '\'') return true;
    }
    return false;
}

/// True for a program of this service, this account and this install root that has `path` in an
/// argument. Anybody can give his process any words: the account and the place cannot be feigned.
bool WorksWith(const std::string& process, const std::string& path) {
    static const std::set<std::string> kPrograms = {"sbin/qortar", "sbin/backup2_cp", "/bin/sh"};
    struct stat here {
    }, there{}, owner{};
    if (::stat(".", &here) != 0 || ::stat((process + "/cwd").c_str(), &there) != 0) return false;
    if (here.st_dev != there.st_dev || here.st_ino != there.st_ino) return false;
    if (::stat(process.c_str(), &owner) != 0 || owner.st_uid != ::geteuid()) return false;
    const std::ifstream file(process + "/cmdline", std::ios::binary);
    std::ostringstream read;
    read << file.rdbuf();  // fails without a word when the process ends meanwhile
    const std::string words = read.str();
    return kPrograms.count(words.substr(0, words.find('\0'))) != 0 &&
           (Names(words, path) || Names(words, vel_proc::Escape(path)));
}

/// Sends KILL to the programs that work with `path`; their number. The descriptor names the same
/// process before and after the look at it, whatever happens to its number.
std::size_t KillProgramsWith(const std::string& path) {
    std::size_t killed = 0;
    for (vel_file::Dir processes("/proc", 2); processes.Next();) {
        const int pid = str::Int(processes.Name());
        if (pid <= 0 || pid == ::getpid()) continue;
        const vel_file::ResHandle process(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
        if (process == -1 || !WorksWith(processes.Path(), path)) continue;
        ::syscall(SYS_pidfd_send_signal, int{process}, SIGKILL, nullptr, 0);
        ++killed;
    }
    return killed;
}

/// A full backup of the same name and another day; its folder, where there is one, is its own.
bool IsBase(const Backup& backup) {
    const std::string day = backup.BaseDate(), folder = vel_file::SplitPath(backup.Get("base")).dir;
    return backup.Base() == "F" + DayOrNothing(day) + "." + backup.user + ".tgz" &&
           day != backup.date &&
           (folder.empty() || backup2::GetPath(backup.Base()) == folder + "/" + backup.Base());
}

/// By whatever names: links and mounts lead to one folder.
bool IsSameFolder(const std::string& a, const std::string& b) {
    std::error_code missing;
    return vel_file::GoodPath(a) == vel_file::GoodPath(b) ||
           std::filesystem::equivalent(a, b, missing);
}

}  // namespace

// ---- Words of the administrator -----------------------------------------------------------------

std::string CheckUser(const std::string& user) {
    const bool bad_byte = std::any_of(user.begin(), user.end(), [](unsigned char c) {
        return c < ' ' || c == 0x7f || c == '/' || c == '#';
    });
    if (user.empty() || bad_byte || user[0] == '-' || user[0] == '.') {
        throw vel_tool::UsageError("'" + user + "' cannot be the name of a user");
    }
    return user;
}

std::string CheckDate(const std::string& date) {
    if (date == kCustom) return date;
    if (date.empty()) return vel_date::Date().AsDate();
    try {
        return vel_date::Date(date).AsDate();
    } catch (const vel_err::Error&) {
        throw vel_tool::UsageError("'" + date + "' is neither a date (YYYY-MM-DD) nor \"custom\"");
    }
}

std::string Reason(const std::exception& error) {
    const auto* own = dynamic_cast<const vel_err::Error*>(&error);
    if (!own) return error.what();
    static const std::map<std::string, std::string> kWords = {
        {"panel unreachable", "the panel does not answer, is it running? "},
        {"panel bad_answer", "that is no answer of a panel: "},
        {"restore disk_full", "the disk is full: "}};
    const auto words = kWords.find(own->type() + " " + own->object());
    if (words != kWords.end()) return words->second + own->value();
    if (own->type() == "missed") {
        return "there is no " + own->object() + (own->value().empty() ? "" : " " + own->value());
    }
    std::string text = own->type() == "sys" ? "" : own->type();
    str::Append(text, own->object(), " ");
    str::Append(text, own->value(), own->object().empty() ? " " : ": ");
    return text;
}

std::string PlainWords(const std::string& line) {
    const std::string begin = "Type: '";
    const std::size_t at = line.find(begin);
    if (at == std::string::npos) return line;
    std::string rest = line.substr(at + begin.size());
    const std::string type = str::GetWord(rest, "' Object: '");
    const std::string object = str::GetWord(rest, "' Value: '");
    const std::size_t end = rest.rfind('\'');
    if (end == std::string::npos) return line;
    return line.substr(0, at) + Reason(vel_err::Error(type, object, rest.substr(0, end))) +
           rest.substr(end + 1);
}

int WorseStatus(int a, int b) {
    if (a == vel_tool::kFailed || b == vel_tool::kFailed) return vel_tool::kFailed;
    return std::max(a, b);
}

// ---- The panel ----------------------------------------------------------------------------------

vel_client::Local Panel() {
    vel_client::Local panel(kPanel, "backup2");
    panel.WaitLocked(true);
    return panel;
}

Site::Site(const vel_xml::XmlNode& storage)
    : owner(storage.GetProp("user")),
      local_dir(storage.GetProp("local_dir")),
      token(storage.Str()),
      slice_size(storage.GetProp("slice_size")),
      size_limit(storage.GetProp("size_limit")),
      count_limit(storage.GetProp("count_limit")) {}

Site AskSite() {
    const auto answer = Panel().Query("func=backup2.settings");
    Site site;
    site.local_dir = answer.value("local_dir");
    site.token = backup2::BackupToken(answer.value("storage"));
    site.slice_size = answer.value("slice_size");
    site.size_limit = answer.value("size_limit");
    site.count_limit = answer.value("count_limit");
    return site;
}

Site AskOwnSite(const std::string& user) {
    const auto found = AskOwnStorages(user);
    if (found.empty()) throw std::runtime_error(user + " has no storage of his own");
    return Site(found.front());
}

std::vector<Site> AskSites(bool own, const std::string& user) {
    if (!own) return {AskSite()};
    if (!user.empty()) return {AskOwnSite(user)};
    std::vector<Site> sites;
    for (const auto& storage : AskOwnStorages()) sites.emplace_back(storage);
    return sites;
}

bool MayBeSamePlace(const backup2::BackupToken& a, const backup2::BackupToken& b) {
    if (a.Type() != b.Type()) return false;
    if (a.IsLocal()) return IsSameFolder(a.GetParam("path"), b.GetParam("path"));
    return PlaceOf(a) == PlaceOf(b);
}

void CheckApart(const std::string& user, const backup2::BackupToken& own) {
    const backup2::BackupToken admin = AskSite().token;
    const std::string type = own.Type();
    const bool account = type == "googledrive" || type == "yandex" || type == "dropbox";
    if (MayBeSamePlace(own, admin) &&
        (!account || own.GetParam("token") == admin.GetParam("token")))
        throw std::runtime_error("the storage of " + user +
                                 " is the administrator's; it must have a place of its own");
}

vel_client::Result AskJob(const std::string& user) {
    return Panel().Query("func=backup2.item.info&elid=?&role=?", user, "");
}

std::vector<vel_xml::XmlNode> AskOwnStorages(const std::string& user) try {
    const auto answer = Panel().Query("func=backup2.storage&elid=?", user);
    const auto nodes = answer.GetNodes("/doc/storage");
    return {nodes.begin(), nodes.end()};
} catch (const vel_err::Error& error) {
    if (error.type() != "missed") throw;
    return {};
}

std::vector<std::string> AskUsers() {
    std::vector<std::string> users;
    const auto answer = Panel().Query("func=user");
    for (const auto& name : answer.GetNodes("/doc/elem/name")) users.push_back(name.Str());
    return users;
}

std::string AskUserRoot(const std::string& user) {
    return AskJob(user).GetNode("/doc/files").GetProp("root");
}

std::string AskUserUid(const std::string& user) try {
    return Panel().Query("func=user.edit&elid=?", user).value("uid");
} catch (const vel_err::Error& error) {
    if (error.type() != "missed") throw;
    return "";
}

void UseStorage(const backup2::BackupToken& token) {
    if (!token) throw std::runtime_error("no storage is set up in the panel");
    vel_env::SetEnv("BACKUP_TOKEN", token.Str());
}

// ---- Backups ------------------------------------------------------------------------------------

std::string Backup::Get(const std::string& key) const {
    const auto found = info.find(key);
    return found == info.end() ? "" : found->second;
}

std::string Backup::Archive() const {
    return WithoutExtension(vel_file::Name(WithoutPart(Get("last-slice"))), ".aes");
}

std::string Backup::Base() const { return WithoutExtension(vel_file::Name(Get("base")), ".aes"); }

std::string Backup::BaseDate() const {
    const std::string base = Base();
    return base.empty() ? "" : backup2::GetDate(base);
}

std::string Backup::IndexPath() const { return WithoutExtension(info_path, ".info") + ".tgz"; }

std::string Backup::StoredIndex(const backup2::BackupToken& token) const {
    const std::string recorded = vel_file::Name(Get("index"));
    return backup2::GetPath(recorded.empty() ? backup2::GetName(token, IndexPath()) : recorded);
}

bool Backup::MadeFor(const std::string& uid) const {
    const std::string recorded = Get("uid");
    return uid.empty() || recorded.empty() || recorded == uid;
}

void Backup::CheckRecord() const {
    const std::string own = date + "." + user + ".tgz", index = vel_file::Name(Get("index"));
    const std::string archive = Archive();
    const std::string mark = Kind() == "full" ? "F" : Kind() == "incremental" ? "I" : "C";
    const std::string stamp =
        DayOrNothing(archive.substr(std::min<std::size_t>(1, archive.size()), 10));
    const bool named = archive == mark + (date == kCustom ? stamp : date) + "." + user + ".tgz" &&
                       (index.empty() || index == own || index == own + ".aes");
    const bool based = mark == "I" ? IsBase(*this) : Get("base").empty();
    const bool known = mark != "C" || Kind() == kCustom;
    int64_t sums = 0, size = 0;
    for (auto pair = info.lower_bound("slice."); pair != info.end(); ++pair, ++sums) {
        if (!str::StartsWith(pair->first, "slice.")) break;
        size += str::Int64(pair->second.substr(0, pair->second.find(' ')));
    }
    const int64_t parts = info.count("parts") ? str::Int64(Get("parts")) : 1;
    const std::string total = Get("size"), sum = str::Str(size);
    const bool counted =
        sums == 0 || (sums == parts && (total == sum || total == backup2::EncryptedSize(sum)));
    if (named && based && known && counted && parts >= 1 && parts <= kMaxParts) return;
    throw std::runtime_error(info_path + ": the info file is damaged");
}

std::string Backup::Identity() const {
    vel_hash::Hash hash(vel_hash::HashType::Sha256);
    hash.Update(Get("created") + "\n" + Get("finished"));
    for (const auto& [key, value] : info) {
        if (!str::StartsWith(key, "slice.")) continue;
        Slice slice;
        ReadSums(value, slice);
        hash.Update("\n" + str::Str(slice.plain) + " " + slice.plain_sum);
    }
    return str::hex::Encode(hash.Str());
}

bool Backup::Damaged() const try {
    CheckRecord();
    return false;
} catch (const std::exception&) {
    return true;
}

std::vector<Slice> Backup::Slices() const {
    CheckRecord();
    const std::string last = Get("last-slice");
    const int64_t parts = std::max<int64_t>(1, str::Int64(Get("parts")));
    // The place follows from the name, so that an info file cannot name another backup's files.
    const bool single = WithoutPart(last) == last;
    const std::string first = backup2::GetPath(WithoutPart(last));
    std::vector<Slice> slices;
    for (int64_t k = 1; k <= (single ? 1 : parts); ++k) {
        Slice slice;
        slice.path = single ? first : first + ".part" + str::Str(k);
        ReadSums(Get("slice." + str::Str(k)), slice);
        slices.push_back(std::move(slice));
    }
    return slices;
}

Backup ReadBackup(const std::string& info_path) {
    const std::string file = vel_file::Name(info_path);
    Backup backup;
    backup.user = OwnerInName(file);
    backup.date = backup2::GetDate(file);
    backup.info_path = info_path;
    backup.info = backup2::GetInfo(info_path);
    return backup;
}

namespace {

/// Nothing for a backup that another process has removed by now.
std::optional<Backup> ReadIfThere(const std::string& info_path) try {
    return ReadBackup(info_path);
} catch (const vel_err::Error&) {
    if (vel_file::Exists(info_path)) throw;
    return std::nullopt;
}

}  // namespace

std::vector<Backup> FindBackups(const std::string& local_dir, const std::string& user,
                                const std::string& date) {
    std::list<std::string> paths;
    if (vel_file::Exists(local_dir)) {
        backup2::GetInfoFiles(paths, local_dir, false, user, date == kCustom ? "" : date);
    }
    std::vector<Backup> backups;
    for (const auto& path : paths) {
        auto backup = ReadIfThere(path);
        if (!backup || (!date.empty() && backup->date != date)) continue;
        const std::string service_name = backup->date + "." + backup->user + ".info";
        if (vel_file::Name(path) == service_name && backup->info.count("finished"))
            backups.push_back(std::move(*backup));
    }
    std::sort(backups.begin(), backups.end(), [](const Backup& a, const Backup& b) {
        return std::tie(a.user, a.date) < std::tie(b.user, b.date);
    });
    return backups;
}

Backup GetBackup(const std::string& local_dir, const std::string& user, const std::string& date,
                 const std::string& uid) {
    const std::string path = backup2::GetInfoFile(local_dir, user, date);
    const auto backup = ReadIfThere(path);
    if (backup && backup->info.count("finished") && backup->MadeFor(uid)) return *backup;
    throw vel_err::Error("missed", "backup",
                         user + " " + date + ", \"backup2 list " + user + "\" shows what there is");
}

void ChangeInfo(const Backup& backup, const std::function<void(const std::string& copy)>& change) {
    const std::string& path = backup.info_path;
    const std::string dir = vel_file::SplitPath(path).dir, lock_path = path + ".lock";
    vel_file::Lock lock;
    lock.DoLock(lock_path, false);
    const auto work = vel_file::TmpDir::At(vel_file::ConcatPath(dir, ".tmp.change"));
    const std::string copy = vel_file::ConcatPath(work.Path(), vel_file::Name(path));
    vel_file::CopyFile(path, copy);
    change(copy);
    // Should this process die in between, the change is made once more: nothing says yet that it
    // was.
    RunTool({"backup2_cp", "--put", "--no-delete", copy}).ThrowIfFailed(backup.Title());
    vel_file::Move(copy, path);
    if (lock.Owns()) vel_file::RemoveFile(lock_path);
}

void CheckPassword(const Backup& backup, const backup2::BackupToken& token) {
    if (backup.Get("key_hash").empty() || backup.Get("key_hash") == token.Hash()) return;
    throw std::runtime_error(backup.Title() + ": the backup is encrypted, and " +
                             (token.IsEncrypted() ? "the storage has another password now"
                                                  : "the storage has no password") +
                             "; \"backup2 restore --password-stdin\" takes the old one");
}

std::string NeedIndex(const Backup& backup, const backup2::BackupToken& token) {
    const std::string index = backup.IndexPath();
    if (vel_file::Exists(index)) return index;
    const Done done = RunTool({"backup2_cp", "--get", backup.StoredIndex(token), index});
    if (done.status != 0) {
        throw std::runtime_error(backup.Title() + ": no listing: " + done.LastLine());
    }
    return index;
}

// ---- Programs -----------------------------------------------------------------------------------

std::string Done::LastLine() const {
    const std::string text = str::Trim(output);
    const auto cut = text.rfind('\n');
    return PlainWords(cut == std::string::npos ? text : text.substr(cut + 1));
}

void Done::ThrowIfFailed(const std::string& what) const {
    if (status != 0) throw std::runtime_error(what + ": " + LastLine());
}

Done RunTool(std::vector<std::string> argv) {
    argv[0] = "sbin/" + argv[0];
    vel_proc::Execute child(std::move(argv), vel_proc::kJoinErrors);
    Done done;
    done.output = child.Str();
    done.status = child.Result();
    return done;
}

std::string FetchCommand(const std::string& local_dir) {
    // The archiver replaces "%" words: the directory's own percent signs must stay.
    const std::string dir = str::Replace(vel_proc::Escape(local_dir), "%", "%%");
    return "sbin/backup2 fetch-slice --dir " + dir + " -- %p/%f";
}

FailureWatch::FailureWatch() {
    vel_log::SetObserver([failure = failure_](int level, std::string_view, std::string_view text) {
        if (level <= 4 && text.find(kOutput) != text.npos) *failure = text;
    });
}

FailureWatch::~FailureWatch() { vel_log::SetObserver({}); }

/// A program's last word is "<name>: <why>"; one that a signal ended has none.
std::string FailureWatch::Reason() const {
    const auto output = failure_->find(kOutput);
    if (output == std::string::npos) return "";
    const std::string last = Done{0, failure_->substr(output + kOutput.size())}.LastLine();
    for (const std::string program : {"qortar: ", "backup2_cp: "}) {
        if (str::StartsWith(last, program)) return ": " + last;
    }
    return ": " + failure_->substr(0, output);
}

namespace {

/// One that is held is tried again for a moment: a process that is killed while it starts another
/// leaves its locks to that one, until the new program runs.
std::unique_ptr<backup2::Lock> LockSoon(const std::string& dir) {
    constexpr int kTries = 20, kPauseMs = 50;
    for (int tries = 1;; ++tries) {
        try {
            return std::make_unique<backup2::Lock>(dir);
        } catch (const vel_err::Error& error) {
            if (error.type() != "lock" || tries == kTries) throw;
        }
        vel_proc::Sleep(kPauseMs);
    }
}

}  // namespace

WorkLock::WorkLock(const std::string& work, const std::string& user)
    : dir_(vel_file::ConcatPath("var/run/backup2." + work, user)) {
    vel_file::MkDir(dir_, vel_file::Attrs(0700));
    try {
        lock_ = LockSoon(dir_);
    } catch (const vel_err::Error& error) {
        if (error.type() != "lock") throw;
        throw Busy(user + ": another process does \"backup2 " + work + "\" just now");
    }
    RemoveTemporaries(dir_, ".tmp.");
}

void EndOrphans(const std::string& path) {
    for (int tries = 0; tries < 100; ++tries) {
        if (KillProgramsWith(path) == 0) return;
        vel_proc::Sleep(100);
    }
    throw std::runtime_error("programs of a broken run do not end; they work with " + path);
}

void RemoveTemporaries(const std::string& dir, const std::string& beginning) {
    std::vector<std::string> found;
    if (!vel_file::Exists(dir)) return;
    for (vel_file::Dir entries(dir, 2); entries.Next();) {
        if (str::StartsWith(entries.Name(), beginning)) found.push_back(entries.Path());
    }
    for (const std::string& path : found) vel_file::Remove(path);
}

std::unique_ptr<backup2::Lock> Protect(const Backup& backup) {
    try {
        return std::make_unique<backup2::Lock>(vel_file::SplitPath(backup.info_path).dir);
    } catch (const vel_err::Error& error) {
        if (error.type() != "lock") throw;
        return nullptr;
    }
}

}  // namespace backup2_admin
