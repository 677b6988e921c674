#include "backup_common/backup2_qortar.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <set>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

#include "vel/str.h"
#include "vel/vel_date.h"
#include "vel/vel_env.h"
#include "vel/vel_err.h"
#include "vel/vel_log.h"
#include "vel/vel_proc.h"

#include "backup_common/backup2_misc.h"
#include "backup_common/backup2_storage.h"

namespace backup2 {
namespace {

const vel_log::Module logger("backup");

constexpr char kSourceFile[] = "backup2_qortar.cpp";
constexpr char kTokenVariable[] = "BACKUP_TOKEN";
constexpr char kSystemDir[] = ".system";
constexpr char kCopyTool[] = "sbin/backup2_cp";
constexpr char kPrivateDir[] = "var/backup/qorvel.private";
constexpr char kCustom[] = "custom";
constexpr char kRole[] = "role-";
constexpr char kPart[] = ".part";
constexpr int kMaxParts = 1000000;

}  // namespace

// ---- Markers of system data ---------------------------------------------------------------------

/// The folder ".system" with the markers, made for one job and removed with it. Its parent is the
/// user's: he may plant links there or move the folder away at any moment, so everything goes
/// through descriptors of the two directories.
class SystemMarkers {
public:
    explicit SystemMarkers(const std::string& root);
    SystemMarkers(const SystemMarkers&) = delete;
    SystemMarkers& operator=(const SystemMarkers&) = delete;
    ~SystemMarkers();

    /// Makes the empty file `name`, in place of one that is there.
    void Add(const std::string& name);
    const std::string& Path() const { return path_; }

private:
    void Make();
    void DropLeftOver() const;
    void Remove() const;

    std::string path_;
    vel_file::ResHandle root_, dir_;
};

SystemMarkers::SystemMarkers(const std::string& root)
    : path_(vel_file::ConcatPath(root, kSystemDir)) {
    vel_file::MkDir(root);
    root_ = vel_file::OpenDir(root);
    DropLeftOver();
    Make();
}

/// What a killed job left goes first: its markers are not this job's.
void SystemMarkers::DropLeftOver() const {
    struct stat st {};
    if (::fstatat(root_, kSystemDir, &st, AT_SYMLINK_NOFOLLOW) != 0) return;
    if (S_ISLNK(st.st_mode)) {
        vel_err::AssertError::Raise(kSourceFile, __LINE__, __func__, "Path is symlink_link");
    }
    if (S_ISDIR(st.st_mode)) vel_file::RemoveAt(root_, kSystemDir, path_);
}

void SystemMarkers::Make() {
    if (::mkdirat(root_, kSystemDir, 0700) != 0) vel_err::RaiseErrno("mkdir", path_, errno);
    constexpr int kFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    dir_ = vel_file::ResHandle(::openat(root_, kSystemDir, kFlags));
    if (dir_ == -1) vel_err::RaiseErrno("open", path_, errno);
    struct stat st {};
    if (::fstat(dir_, &st) != 0) vel_err::RaiseErrno("stat", path_, errno);
    // Somebody put his own folder there in between.
    if (st.st_uid != ::geteuid()) throw vel_err::Error("file", "foreign_owner", path_);
}

void SystemMarkers::Add(const std::string& name) {
    const bool bad = name == "." || name == ".." || name.find('/') != std::string::npos ||
                     name.find('\0') != std::string::npos;
    if (bad) throw vel_err::Error("file", "bad_name", vel_file::ConcatPath(path_, name));
    // Nobody else can enter the folder, so a file that is there is a marker of the same name.
    constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC;
    const vel_file::ResHandle marker(::openat(dir_, name.c_str(), kFlags, 0600));
    if (marker == -1) vel_err::RaiseErrno("open", vel_file::ConcatPath(path_, name), errno);
}

void SystemMarkers::Remove() const {
    vel_file::Empty(dir_, path_);
    // Takes an empty folder only: one that was put in the place of ours keeps what it holds.
    if (::unlinkat(root_, kSystemDir, AT_REMOVEDIR) != 0) {
        vel_err::RaiseErrno("rmdir", path_, errno);
    }
}

SystemMarkers::~SystemMarkers() {
    try {
        Remove();
    } catch (const std::exception& e) {
        logger.Write(4, "Cannot remove '%s': %s", path_, e.what());
    }
}

// ---- Settings -----------------------------------------------------------------------------------

namespace {

vel_client::Local Panel(const std::string& manager) {
    vel_client::Local panel(manager, "backup2");
    panel.WaitLocked(true);
    return panel;
}

/// The administrator may have put a link to a bigger disk in the place: that one is followed.
void MakeLocalDir(const std::string& dir) {
    vel_file::MkDir(dir);
    const vel_file::ResHandle fd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd == -1) vel_err::RaiseErrno("open", dir, errno);
    vel_file::Attrs(0700).Set(int{fd});
}

template <class Take>
void EachChild(const vel_xml::XmlNode& parent, const Take& take) {
    for (auto child = parent.FirstChild(); child; child = child.Next()) take(child);
}

/// File names of the markers for the system data that the job saves, in document order.
std::vector<std::string> MarkerNames(const vel_client::Result& params) {
    std::set<std::string> excluded;
    for (const auto& node : params.GetNodes("/doc/exclude_db/exclude")) excluded.insert(node.Str());
    std::vector<std::string> markers;
    for (const auto& spec : params.GetNodes("/doc/system/spec")) {
        const std::string type = spec.GetProp("type"), name = spec.GetProp("name");
        std::string database = name;  // SERVER.DATABASE
        str::GetWord(database, '.');
        if (type == "db" && excluded.count(database) > 0) continue;
        markers.push_back(type + "." + name);
    }
    return markers;
}

}  // namespace

Settings::Settings(const std::string& manager, const std::string& user, const std::string& role)
    : manager_(manager), user_(user) {
    params_ = std::make_shared<vel_client::Result>(
        Panel(manager).Query("func=backup2.item.info&elid=?&role=?", user, role));
    Init();
}

Settings::Settings(const std::string& manager, const std::string& user, bool userdata,
                   const std::string& role)
    : manager_(manager), user_(user) {
    params_ = std::make_shared<vel_client::Result>(Panel(manager).Query(
        "func=backup2.item.info&elid=?&role=?&userdata=?", user, role, userdata ? "on" : "off"));
    Init();
}

Settings::~Settings() = default;

void Settings::Init() {
    try {
        ReadFolders();
        ReadSystem();
        ReadEnvironment();
    } catch (const std::exception&) {
        markers_.reset();
        system_.clear();
        tmp_root_.reset();
        throw;
    }
}

void Settings::ReadFolders() {
    local_dir_ = params_->value("local_dir");
    MakeLocalDir(local_dir_);
    if (const auto files = params_->GetNode("/doc/files")) {
        root_ = files.GetProp("root");
        EachChild(files, [this](const vel_xml::XmlNode& child) {
            if (child.Name() == "folder") folders_.push_back(child.Str());
        });
    } else {
        tmp_root_.reset();  // the next one has the same path
        tmp_root_ = std::make_unique<vel_file::TmpDir>(
            vel_file::TmpDir::At(vel_file::ConcatPath(local_dir_, ".backup2")));
        root_ = tmp_root_->Path();
    }
    EachChild(params_->GetNode("/doc/exclude_file"),
              [this](const vel_xml::XmlNode& child) { exclude_files_.push_back(child.Str()); });
}

void Settings::ReadSystem() {
    markers_.reset();  // the next ones have the same path
    markers_ = std::make_unique<SystemMarkers>(root_);
    const auto names = MarkerNames(*params_);
    for (const std::string& name : names) markers_->Add(name);
    if (names.empty()) markers_.reset();
    system_ = markers_ ? markers_->Path() : "";
}

void Settings::ReadEnvironment() {
    command_prefix_ = params_->value("command_prefix");
    if (command_prefix_.empty()) command_prefix_ = vel_env::GetEnv("BACKUP_COMMAND_PREFIX");
    const auto storage = params_->GetNode("/doc/storage");
    storage_[kTokenVariable] = storage ? storage.Str() : vel_env::GetEnv(kTokenVariable);
    slice_size_ = storage ? storage.GetProp("slice_size") : vel_env::GetEnv("BACKUP_SLICE");
}

// ---- Local backup run ---------------------------------------------------------------------------

namespace {

using Arguments = std::vector<std::string>;

/// The archiver replaces "%" words in the commands it runs; a value's own percent signs stay.
std::string Literal(const std::string& command) { return str::Replace(command, "%", "%%"); }

std::string PutCommand(const std::string& info_file) {
    return "sbin/backup2_cp --put --info-file " + vel_proc::Escape(info_file);
}

std::string HookCommand(const Settings& settings) {
    return "sbin/backup2_system --%c --user " + Literal(vel_proc::Escape(settings.user())) +
           " --manager " + Literal(vel_proc::Escape(settings.manager())) + " %p/%f";
}

void AddOption(Arguments& arguments, const std::string& option, const std::string& value) {
    arguments.insert(arguments.end(), {option, value});
}

/// A pattern that begins with "*" is meant for the user's files, which lie in "data".
std::string ExcludePattern(const std::string& pattern) {
    return str::StartsWith(pattern, "*") ? "data" + pattern : pattern;
}

Arguments ArchiverArguments(const Settings& settings, const std::string& info_file,
                            const std::string& archive, const std::string& listing,
                            const std::string& base) {
    Arguments arguments = Cmdline2Vector(settings.command_prefix());
    arguments.push_back("sbin/qortar");
    AddOption(arguments, "--create", archive);
    AddOption(arguments, "--slice", settings.slice_size());
    if (!settings.folders().empty() && settings.user() != "root") {
        AddOption(arguments, "--user", settings.user());
    }
    AddOption(arguments, "--root", settings.root());
    AddOption(arguments, "--save-listing", listing);
    if (!base.empty() && vel_file::Exists(base)) AddOption(arguments, "--base", base);
    for (const std::string& pattern : settings.exclude_files()) {
        AddOption(arguments, "--exclude", ExcludePattern(pattern));
    }
    AddOption(arguments, "--execute", Literal(PutCommand(info_file)) + " --%c %p/%f");
    if (!settings.system().empty()) {
        AddOption(arguments, "--backup-hook", ".system/");
        AddOption(arguments, "--backup-hook-execute", HookCommand(settings));
        arguments.push_back(kSystemDir);
    }
    arguments.insert(arguments.end(), settings.folders().begin(), settings.folders().end());
    return arguments;
}

/// Waits for the program; `failure` is the log line for a status other than 0.
void RunStep(vel_proc::Execute program, const char* failure) {
    const std::string output = program.Str();
    const int status = program.Result();
    if (status == 0) return;
    logger.Write(3, failure, status, output);
    throw std::runtime_error("Failed to create backup");
}

}  // namespace

void SetStorageEnv(const Settings& settings, std::string, const std::string&,
                   const std::string& password) {
    BackupToken token(settings.storage().at(kTokenVariable));
    token.SetParam("arch_password", str::base64::Encode(password));
    vel_env::SetEnv(kTokenVariable, token.Str());
}

void BackupLocal(Settings& settings, const std::string& info_file, const std::string& archive,
                 const std::string& listing, const std::string& base) {
    constexpr int kMode = vel_proc::kJoinErrors;
    RunStep({ArchiverArguments(settings, info_file, archive, listing, base), kMode},
            "qortar finished with error %d. Output: %s");
    RunStep({PutCommand(info_file) + " --isolated --no-delete " + vel_proc::Escape(listing), kMode},
            "final backup2_cp call finished with error %d. Output: %s");
    vel_file::RemoveFile(info_file);
}

// ---- Last full backup ---------------------------------------------------------------------------

namespace {

std::string Value(const std::map<std::string, std::string>& info, const std::string& key) {
    const auto found = info.find(key);
    return found == info.end() ? std::string() : found->second;
}

/// The index file of the user's full backup of this day, "" when there is none to build on.
std::string UsableIndex(const Settings& settings, const std::string& user, const std::string& day) {
    const std::string info_file = GetInfoFile(settings.local_dir(), user, day);
    if (!vel_file::Exists(info_file)) return {};
    const auto info = GetInfo(info_file);
    if (Value(info, "type") != "full" || info.count("deleted") > 0) return {};
    using vel_date::DateTime;
    if (DateTime(Value(info, "created")) > DateTime(Value(info, "finished"))) {
        logger.Write(4, "Ceated in %s backup belongs to restored user", day);
        return {};
    }
    const BackupToken token(Value(settings.storage(), kTokenVariable));
    const std::string index = GetIndexFile(settings.local_dir(), user, day);
    return token.Hash() == Value(info, "key_hash") && vel_file::Exists(index) ? index : "";
}

}  // namespace

std::string LookupLastFull(const Settings& settings, const std::string& user,
                           const std::string& date) {
    if (vel_file::Exists(GetInfoFile(settings.local_dir(), user, date))) {
        logger.Write(4, "Backup for user '%s' for %d already exists", user, date);
        return "exists";
    }
    const vel_date::Date target(date);
    vel_date::Date day = target;
    for (day.AddDays(-day.weekday()); day < target; day.AddDays(1)) {
        const std::string index = UsableIndex(settings, user, day.AsDate());
        if (!index.empty()) return index;
    }
    return {};
}

// ---- Cleanup journal ----------------------------------------------------------------------------

namespace {

std::string JournalPath(const std::string& dir) { return vel_file::ConcatPath(dir, ".cleanup"); }

std::string JournalLine(const std::string& token, const std::string& name, const std::string& date,
                        bool marked) {
    // A line end inside would make two lines of one, and let a name speak for another storage.
    if ((date + name).find('\n') != std::string::npos) {
        throw vel_err::Error("journal", "bad_name", EncodeFileName(name));
    }
    return str::badchars::Escape(token, "\t\n", '\\') + "\t" + date + "." + name +
           (marked ? "#\n" : "\n");
}

/// Calls take(line, with its line end) for each line; the last one may lack the end.
template <class Take>
void EachLine(const std::string& text, const Take& take) {
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find('\n', at), text.size() - 1) + 1;
        take(std::string_view(text).substr(at, end - at));
        at = end;
    }
}

std::string WithoutLine(const std::string& text, const std::string& line) {
    std::string kept;
    kept.reserve(text.size());
    EachLine(text, [&](std::string_view other) {
        if (other != line) kept += other;
    });
    return kept;
}

PendingCleanup ParseLine(const std::string& line) {
    PendingCleanup out;
    out.line = line;
    std::string rest = line;
    if (!rest.empty() && rest.back() == '\n') rest.pop_back();
    if (rest.find('\t') == std::string::npos) return out;
    const std::string token = str::badchars::Unescape(str::GetWord(rest, '\t'), '\\');
    const bool marked = str::EndsWith(rest, "#");
    if (marked) rest.pop_back();
    const std::string date = str::GetWord(rest, '.');
    if (date.empty() || rest.empty()) return out;
    out.token = token;
    out.date = date;
    out.name = rest;
    out.marked = marked;
    return out;
}

}  // namespace

Cleanup::Cleanup(const std::string& dir, const std::string& token, const std::string& name,
                 const std::string& date, bool marked)
    : path_(JournalPath(dir)), line_(JournalLine(token, name, date, marked)) {
    logger.Write(9, "%s path = %s", "Cleanup", dir);
    if (!vel_file::Exists(dir)) {
        vel_file::MkDir(dir, vel_file::Attrs(0700));
        vel_file::Sync(dir);
    }
    lock_.DoLock(path_, false);
    vel_file::Attrs(0600).Set(int{lock_.GetResHandle()});
    std::string text = lock_.Read();
    if (!text.empty() && text.back() != '\n') text += '\n';
    lock_.Replace(text + line_);
    lock_.Release();
    vel_file::Sync(path_);  // the others need not wait for that
}

Cleanup::~Cleanup() {
    const bool removed = lock_.Owns();
    lock_.Release();
    try {
        if (removed) vel_file::Sync(path_);
    } catch (const std::exception& e) {
        logger.Write(4, "After a power failure '%s' may name a finished copy: %s", path_, e.what());
    }
}

void Cleanup::RemoveItem() {
    lock_.DoLock(path_, false);
    lock_.Replace(WithoutLine(lock_.Read(), line_));
}

std::list<PendingCleanup> ReadCleanups(const std::string& dir) {
    std::list<PendingCleanup> pending;
    EachLine(vel_file::Read(JournalPath(dir)), [&](std::string_view line) {
        if (line != "\n") pending.push_back(ParseLine(std::string(line)));
    });
    return pending;
}

void DropCleanup(const std::string& dir, const std::string& line) {
    const std::string path = JournalPath(dir);
    if (!vel_file::Exists(path)) return;
    vel_file::Lock lock;
    lock.DoLock(path, false);
    lock.Write(WithoutLine(lock.Read(), line));
}

bool CheckDate(std::string& date) {
    if (date == kCustom) return true;
    try {
        date = vel_date::Date(date).AsDate();
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

// ---- Limits -------------------------------------------------------------------------------------

vel_proc::Execute BackupSizeControl(vel_xml::XmlNode storage, const std::string& date) {
    Arguments arguments{kCopyTool, "--server"};
    const auto add = [&](const std::string& option, const std::string& value) {
        if (!value.empty()) AddOption(arguments, option, value);
    };
    AddOption(arguments, "--path", storage.GetProp("local_dir"));
    AddOption(arguments, "--date", date);
    add("--size-limit", storage.GetProp("size_limit"));
    add("--count-limit", storage.GetProp("count_limit"));
    add("--storage", storage.GetProp("user"));
    vel_env::SetEnv(kTokenVariable, storage.Str());

    const vel_proc::Pipe output;
    vel_proc::Execute limits(arguments, vel_proc::kInheritOutput);
    limits.RedirectOutTo(output.Out());
    output.Out().Close();
    limits.Run();
    vel_file::InStream(output.In()).ignore(std::numeric_limits<std::streamsize>::max());
    return limits;
}

std::string EncryptedSize(const std::string& size) {
    const int64_t n = str::Int64(size);
    // (n + 31) % 32, where the sum may be more than a number holds
    const int64_t over = n > 0 ? (n % 32 + 31) % 32 : (n + 31) % 32;
    return str::Str(n - over);
}

// ---- Copies in users' own storages --------------------------------------------------------------

namespace {

/// The same full backup: equal but for slice numbers, and there may be a name that is none.
bool IsSliceOf(const std::string& entry, const std::string& base) {
    if (!str::StartsWith(entry, "F")) return false;
    try {
        return StripSliceNumber(entry) == base;
    } catch (const vel_err::AssertError&) {
        return false;
    }
}

/// The base lies beside the other backups' folders, or in its own one.
std::string FolderOfBase(const BackupToken& target, const std::string& base) {
    const std::string wanted = StripSliceNumber(base);
    std::list<std::string> names;
    GetStorage(target)->List(names, "");
    const bool on_top = std::any_of(names.begin(), names.end(), [&](const std::string& name) {
        return IsSliceOf(name, wanted);
    });
    return on_top ? "" : vel_file::SplitPath(GetPath(base)).dir;
}

}  // namespace

void UpdateInfo(vel_xml::XmlNode target, const std::string& info_file,
                const std::string& target_dir) {
    auto info = GetInfo(info_file);
    const BackupToken token(target.Str());
    const auto moved = [&](const std::string& slice) {
        return vel_file::ConcatPath(target_dir, GetName(token, slice));
    };
    const std::string last = info["last-slice"];
    if (!token.Hash().empty()) info["key_hash"] = token.Hash();
    if (token.IsEncrypted() && !IsEncrypted(last)) info["size"] = EncryptedSize(info["size"]);
    if (!token.IsEncrypted() && IsEncrypted(last)) info.erase("key_hash");
    info["last-slice"] = moved(last);
    if (const auto base = info.find("base"); base != info.end()) {
        std::string dir = vel_file::SplitPath(base->second).dir;
        const std::string name = vel_file::Name(base->second);
        if (dir.empty()) dir = FolderOfBase(token, name);
        base->second = vel_file::ConcatPath(dir, GetName(token, name));
    }
    for (auto& [key, value] : info) {
        if (!str::EndsWith(info_file, "#.info") || !str::StartsWith(key, kRole)) continue;
        const std::string slice = str::GetWord(value);
        value = moved(slice) + " " + EncryptedSize(value);
    }
    vel_file::Write(info_file, str::Join(info, "\n"));
}

namespace {

/// Data of one archive, as a key of its info file names them.
struct Slices {
    std::string name;       ///< place on the administrator's storage, without ".partN"
    bool numbered = false;  ///< name.part1 .. name.partN
    int count = 0;          ///< N
};

/// One backup on its way from the administrator's storage into the user's own.
class PrivateCopy {
public:
    PrivateCopy(vel_xml::Xml& settings, const std::string& date, vel_xml::XmlNode user);
    void Run();

private:
    Slices ReadSlices(std::string value) const;
    void CopyBase();
    bool IsBaseThere(const std::string& place, const std::string& date) const;
    void Store(const Slices& slices, const std::string& tmp_dir);
    void StoreData(const std::string& name, const std::string& tmp_dir);
    void StoreRecord(const std::string& slice);
    std::string IndexName(const std::string& slice) const;
    void Upload(std::vector<std::string> options, const std::string& file) const;

    vel_xml::Xml& settings_;
    const std::string date_;
    vel_xml::XmlNode target_;
    const std::string user_, user_dir_, admin_dir_;
    std::shared_ptr<Storage> storage_;
    std::map<std::string, std::string> info_;
};

[[noreturn]] void RefuseName(const std::string& name) {
    throw std::runtime_error("'" + EncodeFileName(name) + "' does not belong to this backup");
}

/// Names become paths here: a user is one folder, a date is one that backups have.
void CheckBackup(const std::string& user, const std::string& date) {
    std::string normal = date;
    const bool good = !user.empty() && user[0] != '.' && user[0] != '-' &&
                      user.find('/') == std::string::npos && CheckDate(normal) && normal == date;
    if (!good) RefuseName(user + "/" + date);
}

/// True when an archive of this backup lies there by its own name.
bool IsPlaceOf(const std::string& place, const std::string& user, const std::string& date) {
    const auto [dir, tail] = vel_file::SplitPath(place);
    return tail.size() > 1 && !str::EndsWith(tail, ".info") && dir == user + "/" + date &&
           GetPath(place) == place;
}

/// Turns the token of backups that another server of the cluster keeps into that server's.
BackupToken AdminToken(const vel_xml::Xml& settings) {
    BackupToken token(settings.GetNode("/doc/storage").Str());
    const auto server = settings.GetNode("/doc/backup");
    if (!token.IsLocal() || server.GetProp("local") == "yes") return token;
    return token.SetParam("type", "node")
        .SetParam("ip", server.GetProp("ip"))
        .SetParam("port", server.GetProp("port"))
        .SetParam("key_path", settings.GetNode("/doc/ssh_key").Str());
}

/// The archive's name without the letter for its kind.
std::string Unmarked(const std::string& name) {
    const bool marked = std::string("0123456789").find(name[0]) == std::string::npos;
    return marked && !str::StartsWith(name, kCustom) ? name.substr(1) : name;
}

PrivateCopy::PrivateCopy(vel_xml::Xml& settings, const std::string& date, vel_xml::XmlNode user)
    : settings_(settings),
      date_(date),
      target_(user),
      user_(user.GetProp("user")),
      user_dir_(user.GetProp("local_dir")),
      admin_dir_(settings.GetNode("/doc/storage").GetProp("local_dir")) {
    logger.Write(8, "%s admin_local_dir = %s, date = %s user = %s", "CopyToPrivate", admin_dir_,
                 date_, user_);
    CheckBackup(user_, date_);
    const BackupToken token = AdminToken(settings);
    const std::string info_file = GetInfoFile(admin_dir_, user_, date_);
    storage_ = GetStorage(token);
    info_ = GetInfo(info_file);
}

void PrivateCopy::Run() {
    std::vector<Slices> archives;
    for (auto entry = info_.rbegin(); entry != info_.rend(); ++entry) {
        const bool named = entry->first == "last-slice" || str::StartsWith(entry->first, kRole);
        if (named) archives.push_back(ReadSlices(entry->second));
    }
    if (info_.count("base") > 0) CopyBase();

    vel_proc::Execute limits = BackupSizeControl(target_, date_);
    Cleanup journal(user_dir_, target_.Str(), user_, date_, false);
    // One copy of a user at a time: what a killed one left in the same place goes.
    const auto tmp_dir = vel_file::TmpDir::At(vel_file::ConcatPath(admin_dir_, user_, ".private"));
    vel_file::MkDir(vel_file::ConcatPath(tmp_dir, user_, date_));
    for (const Slices& slices : archives) Store(slices, tmp_dir);
    journal.RemoveItem();
    if (const int status = limits.Result()) {
        logger.Write(4, "Limits of the storage of '%s' finished with error %d", user_, status);
    }
}

Slices PrivateCopy::ReadSlices(std::string value) const {
    Slices out;
    out.name = str::GetWord(value);
    if (!IsPlaceOf(out.name, user_, date_)) RefuseName(out.name);
    if (str::EndsWith(out.name, GetExtByInfo(info_))) return out;
    out.numbered = out.name.find(kPart) != std::string::npos;
    if (!out.numbered) {
        logger.Write(4, "'%s' has neither the archive's ending nor a part number: one file",
                     out.name);
        return out;
    }
    const std::string whole = out.name;
    out.count = str::Int(str::RGetWord(out.name, kPart));
    if (out.count > kMaxParts || !IsPlaceOf(out.name, user_, date_)) RefuseName(whole);
    return out;
}

void PrivateCopy::CopyBase() {
    const std::string& base = info_["base"];
    const std::string name = vel_file::Name(base);
    const std::string date = GetDate(name);
    const std::string place = vel_file::SplitPath(base).dir.empty() ? GetPath(name) : base;
    if (!IsPlaceOf(place, user_, date)) RefuseName(base);
    if (IsBaseThere(place, date)) return;
    if (date >= date_) RefuseName(base);  // the way back would have no end
    CopyToPrivate(settings_, date, target_);
}

bool PrivateCopy::IsBaseThere(const std::string& place, const std::string& date) const {
    const std::string dir = vel_file::SplitPath(place).dir;
    const std::string index = StripSliceNumber(vel_file::Name(place)) + ".tgz";
    bool there = false;
    for (const std::string& name : {index, Unmarked(index)}) {
        there = there || vel_file::Exists(vel_file::ConcatPath(kPrivateDir, dir, name));
    }
    if (!there) return false;
    // A copy that the journal still names did not come to its end.
    const auto pending = ReadCleanups(user_dir_);
    return std::none_of(pending.begin(), pending.end(), [&](const PendingCleanup& item) {
        return item.token == target_.Str() && item.name == user_ && item.date == date;
    });
}

void PrivateCopy::Store(const Slices& slices, const std::string& tmp_dir) {
    if (!slices.numbered) StoreData(slices.name, tmp_dir);
    for (int part = slices.count; part > 0; --part) {
        StoreData(slices.name + kPart + str::Str(part), tmp_dir);
    }
    StoreRecord(slices.name);
}

void PrivateCopy::StoreData(const std::string& name, const std::string& tmp_dir) {
    const std::string local = vel_file::ConcatPath(tmp_dir, name);
    vel_file::MkDir(vel_file::SplitPath(local).dir);
    storage_->Get(name, local);
    Upload({}, local);
    vel_file::Remove(local);  // the copy tool has: never are there two of them
}

/// Index and info file: in the user's local directory, and on his storage.
void PrivateCopy::StoreRecord(const std::string& slice) {
    const std::string index = IndexName(slice);
    const std::string info = index.substr(0, index.size() - 4) + ".info";
    const auto admin = [&](const std::string& name) {
        return vel_file::ConcatPath(admin_dir_, name);
    };
    const auto own = [&](const std::string& name) {
        return vel_file::ConcatPath(user_dir_, date_, vel_file::Name(name));
    };
    Upload({"--no-delete"}, admin(index));
    MkLocalDir(user_dir_, user_, date_);
    Link(admin(index), own(index));
    vel_file::Copy(admin(info), own(info));
    UpdateInfo(target_, own(info), vel_file::ConcatPath(user_, date_));
    Upload({"--no-delete"}, own(info));
}

/// Place of the index of an archive below the administrator's local directory.
std::string PrivateCopy::IndexName(const std::string& slice) const {
    const std::string dir = vel_file::SplitPath(slice).dir;
    const std::string literal = StripSliceNumber(vel_file::Name(slice)) + ".tgz";
    const auto place = [&](std::string name) {
        if (date_ == kCustom && !str::StartsWith(name, kCustom)) name.replace(0, 10, kCustom);
        return vel_file::ConcatPath(dir, name);
    };
    const std::string index = place(Unmarked(literal));
    return vel_file::Exists(vel_file::ConcatPath(admin_dir_, index)) ? index : place(literal);
}

void PrivateCopy::Upload(std::vector<std::string> options, const std::string& file) const {
    Arguments arguments{kCopyTool, "--put"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    arguments.push_back(file);
    vel_proc::Execute put(arguments, vel_proc::kJoinErrors);
    put.SetEnv("BACKUP_STORAGE", user_);
    const std::string output = put.Str();
    const int status = put.Result();
    if (status == 0) return;
    logger.Write(4, "Upload of '%s' finished with error %d. Output: %s", file, status, output);
    throw std::runtime_error("Failed to upload file to user storage");
}

}  // namespace

void CopyToPrivate(vel_xml::Xml& settings, const std::string& date, vel_xml::XmlNode user) {
    PrivateCopy(settings, date, user).Run();
}

}  // namespace backup2
