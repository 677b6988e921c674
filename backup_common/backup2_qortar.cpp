#include "backup_common/backup2_qortar.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <set>
#include <stdexcept>
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

}  // namespace backup2
