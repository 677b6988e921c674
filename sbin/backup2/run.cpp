/// backup2 run: one backup of one user or of everybody.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <iostream>
#include <optional>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "vel/str.h"
#include "vel/vel_date.h"
#include "vel/vel_file.h"
#include "vel/vel_log.h"
#include "vel/vel_tool.h"
#include "vel/vel_user.h"

#include "backup_common/backup2_qortar.h"

#include "sbin/backup2/commands.h"
#include "sbin/backup2/custom.h"
#include "sbin/backup2/entries.h"
#include "sbin/backup2/job.h"
#include "sbin/backup2/output.h"
#include "sbin/backup2/progress.h"

namespace backup2_admin {
namespace {

const vel_log::Module logger("backup2");

constexpr int kForgottenSeconds = 24 * 3600;

const char kExamples[] = R"(
Examples:
  backup2 run bob                    today's backup: full once a week, else incremental
  backup2 run bob --date 2024-01-31  the backup of that day
  backup2 run bob --custom           a full one beside the series; replaces the last custom one
  backup2 run --all --json           everybody, reported as JSON

Exit status 3: the backup is there, but some entries could not be saved; their names are shown.)";

volatile std::sig_atomic_t interrupted = 0;

struct Options {
    std::string user, date;
    bool all = false, custom = false, json = false;
};

struct Report {
    std::string user, date, kind, error;
    bool empty = false;
    uint64_t bytes = 0, parts = 0, files = 0;
    double seconds = 0;
    std::vector<FlaggedEntry> flagged;
};

/// One user's job, in the order in which the panel's own plug-in goes.
class Job {
public:
    Job(const std::string& user, const std::string& date)
        : user_(user), date_(date), alone_("run", user), settings_(kPanel, user, "") {}

    Report Run();

private:
    bool IsCustom() const { return date_ == kCustom; }
    void UseOwnStorage() const;
    void RemoveLeftovers();
    std::string WorkingInfo(const std::string& day) const;
    void RemoveOtherDays();
    void RemoveFailed(const std::string& day);
    void RemoveTornInfos() const;
    void ChooseNames();
    void WriteWorkingInfo() const;
    void Archive();
    void Undo();
    void Finish();
    Report MakeReport(ProgressView& progress);

    std::string user_, date_;
    WorkLock alone_;
    backup2::Settings settings_;
    std::optional<CustomBackup> custom_;
    std::string base_;  // listing of the full backup of an increment, else ""
    std::string dir_, info_, archive_, listing_;
};

Report Job::Run() {
    if (settings_.empty()) {
        Report nothing;
        nothing.user = user_;
        nothing.date = date_;
        nothing.empty = true;
        return nothing;
    }
    if (!settings_.folders().empty() && user_ != "root" && !vel_user::Exists(user_)) {
        throw std::runtime_error("the panel's user has no account in this system any more");
    }
    UseOwnStorage();
    RemoveLeftovers();
    // Programs of a dead run may have reported until RemoveLeftovers ended them.
    RemoveTemporaries(alone_.Dir(), ".tmp.");
    ProgressView progress("backup of " + user_, alone_.Dir());
    base_ = IsCustom() ? "" : backup2::LookupLastFull(settings_, user_, date_);
    if (base_ == "exists") {
        throw std::runtime_error("the backup exists already");
    }
    ChooseNames();
    WriteWorkingInfo();
    if (base_.empty()) progress.Measure(settings_.root(), settings_.folders());
    try {
        Archive();
    } catch (const std::exception&) {
        Undo();
        throw;
    }
    Finish();
    return MakeReport(progress);
}

void Job::UseOwnStorage() const {
    const backup2::BackupToken token(settings_.storage().at("BACKUP_TOKEN"));
    if (!token) throw std::runtime_error("no storage is set up in the panel");
    backup2::SetStorageEnv(settings_, user_, date_,
                           str::base64::Decode(token.GetParam("arch_password")));
}

/// This process alone works for the user now: a working info file is what a dead run left.
void Job::RemoveLeftovers() {
    const std::string local = settings_.local_dir();
    if (IsCustom()) {
        dir_ = backup2::MkLocalDir(local, user_, kCustom);
        custom_.emplace(local, dir_, user_,
                        backup2::BackupToken(settings_.storage().at("BACKUP_TOKEN")));
        return custom_->Recover();
    }
    RemoveOtherDays();
    info_ = WorkingInfo(date_);
    if (!vel_file::Exists(info_)) return;
    logger.Write(5, "Removing what a broken run left of '%s' %s", user_, date_);
    RemoveFailed(date_);
    if (vel_file::Exists(info_)) {
        throw std::runtime_error("what a broken run left cannot be removed: " + info_);
    }
}

std::string Job::WorkingInfo(const std::string& day) const {
    return backup2::ConcatPath(settings_.local_dir(), day + "." + user_ + ".info");
}

/// What died on another day. A backup that is there already was complete but for its tidying up.
void Job::RemoveOtherDays() {
    std::vector<std::string> days;
    for (vel_file::Dir entries(settings_.local_dir(), 2); entries.Next();) {
        const std::string day = backup2::GetDate(entries.Name());
        if (entries.Name() == day + "." + user_ + ".info" && day != date_) days.push_back(day);
    }
    for (const std::string& day : days) {
        EndOrphans(WorkingInfo(day));
        const std::string file = day + "." + user_ + ".info";
        if (vel_file::Exists(vel_file::ConcatPath(settings_.local_dir(), user_,
                                                  vel_file::ConcatPath(day, file)))) {
            vel_file::Remove(WorkingInfo(day));
        } else {
            RemoveFailed(day);
        }
    }
}

void Job::RemoveFailed(const std::string& day) {
    const std::string local = settings_.local_dir();
    EndOrphans(WorkingInfo(day));
    backup2::DelBackupOnError(local, user_, day);
    for (const char* mark : {"F", "I"}) {
        RemoveTemporaries(local, "." + (mark + day) + "." + user_ + ".tgz");
    }
    RemoveTornInfos();
    const std::string dir = vel_file::SplitPath(backup2::GetInfoFile(local, user_, day)).dir;
    RemoveTemporaries(dir, ".tmp.");
    // Fails when other files are in it, and that is right.
    (void)::rmdir(dir.c_str());
    UseOwnStorage();
}

/// The copy tool replaces the working info through a temporary beside it. Those of other users'
/// running jobs have the same kind of name and must stay: the content tells, and the age where
/// there is none yet. A live one is written and moved at once.
void Job::RemoveTornInfos() const {
    std::vector<std::string> found;
    for (vel_file::Dir entries(settings_.local_dir(), 2); entries.Next();) {
        if (!str::StartsWith(entries.Name(), ".tmp.") || !entries.Info(2).IsFile()) continue;
        const std::string text = vel_file::Read(entries.Path());
        struct stat st {};
        const bool forgotten = ::lstat(entries.Path().c_str(), &st) == 0 &&
                               ::time(nullptr) - st.st_mtime > kForgottenSeconds;
        if (forgotten || text.find("\nuser=" + user_ + "\n") != std::string::npos)
            found.push_back(entries.Path());
    }
    for (const std::string& path : found) vel_file::Remove(path);
}

void Job::ChooseNames() {
    const std::string local = settings_.local_dir();
    if (IsCustom()) {
        custom_->Begin();
        const std::string work = custom_->WorkDir();
        info_ = vel_file::ConcatPath(work, "working/custom." + user_ + ".info");
        archive_ = vel_file::ConcatPath(work, "C" + custom_->Stamp() + "." + user_ + ".tgz");
        listing_ = vel_file::ConcatPath(work, "custom." + user_ + ".tgz");
        vel_file::MkDir(vel_file::SplitPath(info_).dir);
        return;
    }
    dir_ = backup2::MkLocalDir(local, user_, date_);
    const std::string mark = base_.empty() ? "F" : "I";
    archive_ = vel_file::ConcatPath(local, mark + date_ + "." + user_ + ".tgz");
    listing_ = vel_file::ConcatPath(dir_, date_ + "." + user_ + ".tgz");
}

/// Appears complete or not at all, and never over another one.
void Job::WriteWorkingInfo() const {
    std::map<std::string, std::string> info;
    info["type"] = IsCustom() ? "custom" : base_.empty() ? "full" : "incremental";
    info["created"] = vel_date::DateTime().AsDateTime();
    info["user"] = user_;
    if (vel_user::Exists(user_)) info["uid"] = str::Str(int64_t{vel_user::Uid(user_)});
    if (!base_.empty()) info["base"] = "F" + vel_file::Name(base_);
    const vel_file::Tmp complete(listing_);
    vel_file::Write(complete.Path(), str::Join(info, "\n") + "\n");
    if (::link(complete.Path().c_str(), info_.c_str()) != 0) {
        vel_err::RaiseErrno("create", info_, errno);
    }
}

void Job::Archive() {
    const backup2::Lock in_use(dir_);
    // The full backup must not be removed while an increment to it is being made.
    std::unique_ptr<backup2::Lock> base_in_use;
    if (!base_.empty()) {
        base_in_use = Protect(
            GetBackup(settings_.local_dir(), user_, backup2::GetDate(vel_file::Name(base_))));
    }
    const FailureWatch watch;
    try {
        backup2::BackupLocal(settings_, info_, archive_, listing_, base_);
    } catch (const std::runtime_error& error) {
        throw std::runtime_error(error.what() + watch.Reason());
    }
}

void Job::Undo() try {
    UseOwnStorage();
    if (IsCustom()) {
        custom_->TakeBack();
    } else {
        RemoveFailed(date_);
    }
} catch (const std::exception& error) {
    // The working info file stays, so the next run tries again; the first failure is the one to
    // report.
    logger.Write(4, "Cannot remove the failed backup of '%s' %s: %s", user_, date_, error.what());
}

/// The backup is complete here: a failure no longer takes it away.
void Job::Finish() {
    UseOwnStorage();
    if (IsCustom()) custom_->Finish();
}

Report Job::MakeReport(ProgressView& progress) {
    const auto seen = progress.Finish("qortar");
    const Backup backup = GetBackup(settings_.local_dir(), user_, date_);
    Report report;
    report.user = user_;
    report.date = date_;
    report.kind = backup.Kind();
    report.bytes = static_cast<uint64_t>(str::Int64(backup.Get("size")));
    report.parts = static_cast<uint64_t>(str::Int64(backup.Get("parts")));
    report.files = seen.files;
    report.seconds = progress.Seconds();
    report.flagged = FlaggedEntries(backup.IndexPath());
    return report;
}

Report RunOne(const std::string& user, const std::string& date) {
    try {
        if (interrupted) throw std::runtime_error("not begun, the run was interrupted");
        return Job(user, date).Run();
    } catch (const std::exception& error) {
        Report failed;
        failed.user = user;
        failed.date = date;
        failed.error = Reason(error);
        return failed;
    }
}

int StatusOf(const Report& report) {
    if (!report.error.empty()) return vel_tool::kFailed;
    return report.flagged.empty() ? vel_tool::kDone : vel_tool::kWarnings;
}

void Print(const Report& report) {
    const std::string title = report.user + " " + report.date + ": ";
    if (!report.error.empty()) {
        std::cout << title << report.error << std::endl;
        std::cerr << "backup2: " << title << report.error << std::endl;
        return;
    }
    if (report.empty) {
        std::cout << title << "nothing to save" << std::endl;
        return;
    }
    std::cout << title << report.kind << " backup, " << Plural(report.files, "file") << ", "
              << HumanSize(report.bytes) << " in " << Plural(report.parts, "slice") << ", "
              << HumanTime(report.seconds) << std::endl;
    for (const auto& entry : report.flagged) {
        std::cout << Printable(entry.name) << "\t" << entry.why << std::endl;
    }
}

nlohmann::json Json(const Report& report) {
    nlohmann::json json = {{"user", report.user}, {"date", report.date}};
    if (!report.error.empty()) {
        json["error"] = report.error;
        return json;
    }
    json["kind"] = report.empty ? "nothing" : report.kind;
    json["size"] = report.bytes;
    json["slices"] = report.parts;
    json["files"] = report.files;
    json["seconds"] = report.seconds;
    json["flagged"] = nlohmann::json::array();
    for (const auto& entry : report.flagged) {
        json["flagged"].push_back({{"name", entry.name}, {"why", entry.why}});
    }
    return json;
}

int Run(const Options& options) {
    if (options.all != options.user.empty()) {
        throw vel_tool::UsageError("run wants the name of one user, or --all");
    }
    if (options.custom && !options.date.empty()) {
        throw vel_tool::UsageError("--custom and --date exclude each other");
    }
    const std::string date = options.custom ? kCustom : CheckDate(options.date);
    const auto users = options.all ? AskUsers() : std::vector{CheckUser(options.user)};
    // Ctrl-C reaches the children too: they end, what they made is removed here, nothing new
    // begins.
    std::signal(SIGINT, [](int) { interrupted = 1; });
    int status = vel_tool::kDone;
    nlohmann::json reports = nlohmann::json::array();
    for (const std::string& user : users) {
        const Report report = RunOne(user, date);
        const int one = StatusOf(report);
        if (status != vel_tool::kFailed && one != vel_tool::kDone) status = one;
        if (options.json) {
            reports.push_back(Json(report));
        } else {
            Print(report);
        }
    }
    if (options.json) PrintJson(reports);
    return status;
}

}  // namespace

void AddRun(CLI::App& app, Action& chosen) {
    auto* command = app.add_subcommand("run", "Back up a user, or everybody");
    const auto options = std::make_shared<Options>();
    command->add_option("user", options->user, "The user to back up");
    command->add_flag("--all", options->all, "All users of the panel, one after the other");
    command->add_flag("--custom", options->custom, "A full backup beside the daily series");
    command->add_option("--date", options->date, "The day under which it is kept (today)");
    command->add_flag("--json", options->json, "Report as JSON");
    command->footer(kExamples);
    command->callback([options, &chosen] { chosen = [options] { return Run(*options); }; });
}

}  // namespace backup2_admin
