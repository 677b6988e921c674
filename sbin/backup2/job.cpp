#include "sbin/backup2/job.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <iostream>
#include <iterator>
#include <list>
#include <set>
#include <stdexcept>
#include <tuple>

#include "vel/str.h"
#include "vel/vel_client.h"
#include "vel/vel_date.h"
#include "vel/vel_env.h"
#include "vel/vel_file.h"
#include "vel/vel_proc.h"
#include "vel/vel_tool.h"

namespace backup2_admin {
namespace {

constexpr int64_t kMaxParts = 1000000;
const char kLog[] = "var/qorvel.log";

vel_client::Local Panel() {
    vel_client::Local panel(kPanel, "backup2");
    panel.WaitLocked(true);
    return panel;
}

/// The text behind the date and before ".info": the user, with the role when there is one.
std::string OwnerInName(const std::string& file) {
    std::string rest = file.substr(0, file.size() - std::string(".info").size());
    str::GetWord(rest, '.');
    return rest;
}

std::string WithoutPart(const std::string& path) {
    const auto part = path.rfind(".part");
    const bool numbered = part != std::string::npos && part + 5 < path.size() &&
                          path.find_first_not_of("0123456789", part + 5) == std::string::npos;
    return numbered ? path.substr(0, part) : path;
}

/// "<plain size> <stored size> <plain sum> <stored sum>" of slice.K.
void ReadSums(std::string text, Slice& slice) {
    if (text.empty()) return;
    slice.plain = static_cast<uint64_t>(str::Int64(str::GetWord(text)));
    slice.stored = static_cast<uint64_t>(str::Int64(str::GetWord(text)));
    slice.plain_sum = str::GetWord(text);
    slice.stored_sum = str::GetWord(text);
}

/// The service's own programs that have `path` in an argument.
std::vector<pid_t> ProgramsWith(const std::string& path) {
    static const std::set<std::string> kPrograms = {"sbin/qortar", "sbin/backup2_cp", "/bin/sh"};
    std::vector<pid_t> found;
    for (vel_file::Dir processes("/proc", 2); processes.Next();) {
        const int pid = str::Int(processes.Name());
        if (pid <= 0 || pid == ::getpid()) continue;
        std::ifstream file(processes.Path() + "/cmdline", std::ios::binary);
        const std::string words(std::istreambuf_iterator<char>(file), {});
        const bool own = kPrograms.count(words.substr(0, words.find('\0'))) != 0;
        if (own && words.find(path) != std::string::npos) found.push_back(pid);
    }
    return found;
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

std::string ReadSecret() {
    std::string line;
    if (!std::getline(std::cin, line)) throw vel_tool::UsageError("no password on standard input");
    return line;
}

std::string Reason(const std::exception& error) {
    const auto* own = dynamic_cast<const vel_err::Error*>(&error);
    if (!own) return error.what();
    if (own->type() == "missed") {
        return "there is no " + own->object() + (own->value().empty() ? "" : " " + own->value());
    }
    std::string text = own->type() == "sys" ? "" : own->type();
    str::Append(text, own->object(), " ");
    str::Append(text, own->value(), own->object().empty() ? " " : ": ");
    return text;
}

// ---- The panel ----------------------------------------------------------------------------------

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

std::vector<std::string> AskUsers() {
    std::vector<std::string> users;
    const auto answer = Panel().Query("func=user");
    for (const auto& name : answer.GetNodes("/doc/elem/name")) users.push_back(name.Str());
    return users;
}

std::string AskUserRoot(const std::string& user) {
    const auto answer = Panel().Query("func=backup2.item.info&elid=?&role=?", user, "");
    return answer.GetNode("/doc/files").GetProp("root");
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
    const std::string name = vel_file::Name(WithoutPart(Get("last-slice")));
    return str::EndsWith(name, ".aes") ? name.substr(0, name.size() - 4) : name;
}

std::string Backup::BaseDate() const {
    const std::string base = vel_file::Name(Get("base"));
    return base.empty() ? "" : backup2::GetDate(base);
}

std::string Backup::IndexPath() const {
    return info_path.substr(0, info_path.size() - std::string(".info").size()) + ".tgz";
}

std::string Backup::StoredIndex(const backup2::BackupToken& token) const {
    const std::string recorded = vel_file::Name(Get("index"));
    return backup2::GetPath(recorded.empty() ? backup2::GetName(token, IndexPath()) : recorded);
}

std::vector<Slice> Backup::Slices() const {
    const std::string last = Get("last-slice");
    const int64_t parts = std::max<int64_t>(1, str::Int64(Get("parts")));
    if (last.empty() || parts > kMaxParts) {
        throw std::runtime_error(info_path + ": no usable list of slices");
    }
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

std::vector<Backup> FindBackups(const std::string& local_dir, const std::string& user,
                                const std::string& date) {
    std::list<std::string> paths;
    if (vel_file::Exists(local_dir)) {
        backup2::GetInfoFiles(paths, local_dir, false, user, date == kCustom ? "" : date);
    }
    std::vector<Backup> backups;
    for (const auto& path : paths) {
        Backup backup = ReadBackup(path);
        const bool service_name = vel_file::Name(path) == backup.date + "." + backup.user + ".info";
        if (!service_name || (!date.empty() && backup.date != date)) continue;
        if (backup.info.count("finished")) backups.push_back(std::move(backup));
    }
    std::sort(backups.begin(), backups.end(), [](const Backup& a, const Backup& b) {
        return std::tie(a.user, a.date) < std::tie(b.user, b.date);
    });
    return backups;
}

Backup GetBackup(const std::string& local_dir, const std::string& user, const std::string& date) {
    const std::string path = backup2::GetInfoFile(local_dir, user, date);
    if (vel_file::Exists(path)) {
        Backup backup = ReadBackup(path);
        if (backup.info.count("finished")) return backup;
    }
    throw vel_err::Error("missed", "backup", user + " " + date);
}

void CheckPassword(const Backup& backup, const backup2::BackupToken& token) {
    if (backup.Get("key_hash").empty() || backup.Get("key_hash") == token.Hash()) return;
    throw std::runtime_error(backup.Title() + ": the backup is encrypted, and " +
                             (token.IsEncrypted() ? "the storage has another password now"
                                                  : "the storage has no password"));
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
    return cut == std::string::npos ? text : text.substr(cut + 1);
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

LogWatch::LogWatch() : start_(vel_file::Info(kLog).Size()) {}

std::string LogWatch::LastFailure() const {
    const std::string mark = "[" + str::Str(int64_t{::getpid()}) + "]: ", said = " Output: ";
    const std::string log = vel_file::Read(kLog);
    std::string reason;
    std::vector<std::string> lines;
    str::Split(log.size() > start_ ? log.substr(start_) : "", "\n", lines);
    for (const std::string& line : lines) {
        const auto output = line.find(said);
        if (line.find(mark) == std::string::npos || output == std::string::npos) continue;
        reason = str::badchars::Unescape(line.substr(output + said.size()), '\\');
    }
    const std::string last = Done{0, reason}.LastLine();
    return last.empty() ? "" : ": " + last;
}

WorkLock::WorkLock(const std::string& work, const std::string& user)
    : dir_(vel_file::ConcatPath("var/run/backup2." + work, user)) {
    vel_file::MkDir(dir_, vel_file::Attrs(0700));
    try {
        lock_ = std::make_unique<backup2::Lock>(dir_);
    } catch (const vel_err::Error& error) {
        if (error.type() != "lock") throw;
        throw std::runtime_error(user + ": another process does \"backup2 " + work + "\" just now");
    }
    RemoveTemporaries(dir_, ".tmp.");
}

void EndOrphans(const std::string& path) {
    for (int tries = 0; tries < 100; ++tries) {
        const auto orphans = ProgramsWith(path);
        if (orphans.empty()) return;
        for (const pid_t pid : orphans) ::kill(pid, SIGKILL);  // it may have ended by itself
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
