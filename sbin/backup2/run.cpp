/// backup2 run: one backup of one user or of everybody.
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <iostream>
#include <optional>

#include <CLI/CLI.hpp>

#include "vel/str.h"
#include "vel/vel_date.h"
#include "vel/vel_file.h"
#include "vel/vel_log.h"
#include "vel/vel_tool.h"
#include "vel/vel_user.h"

#include "backup_common/backup2_qortar.h"

#include "sbin/backup2/afterwards.h"
#include "sbin/backup2/commands.h"
#include "sbin/backup2/custom.h"
#include "sbin/backup2/job.h"
#include "sbin/backup2/leftovers.h"
#include "sbin/backup2/progress.h"
#include "sbin/backup2/report.h"

namespace backup2_admin {
namespace {

const vel_log::Module logger("backup2");

const char kExamples[] = R"(
Examples:
  backup2 run bob                    today's backup: full once a week, else incremental
  backup2 run bob --date 2024-01-31  the backup of that day
  backup2 run bob --custom           a full one beside the series; replaces the last custom one
  backup2 run --all --json           everybody, reported as JSON

Exit status 3: the backup is there, but some entries could not be saved, the limits cannot be met or
the copy in the user's own storage failed; what it is is shown.)";

volatile std::sig_atomic_t interrupted = 0;

struct Options {
    std::string user, date;
    bool all = false, custom = false, json = false;
};

/// One user's job, in the order in which the panel's own plug-in goes.
class Job {
public:
    Job(const std::string& user, const std::string& date)
        : user_(user),
          date_(date),
          alone_("run", user),
          uid_(AskUserUid(user)),
          settings_(kPanel, user, ""),
          leftovers_(settings_.local_dir(), user) {}

    Report Run();

private:
    bool IsCustom() const { return date_ == kCustom; }
    void UseOwnStorage() const;
    void RemoveLeftovers();
    void ChooseBase();
    [[noreturn]] void RefuseSecond() const;
    void ChooseNames();
    void WriteWorkingInfo() const;
    void Archive();
    void Undo();
    void Finish();
    Report MakeReport(ProgressView& progress);

    std::string user_, date_;
    WorkLock alone_;
    std::string uid_;
    backup2::Settings settings_;
    Leftovers leftovers_;
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
    ChooseBase();
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
    Report report = MakeReport(progress);
    Afterwards(settings_.params(), report).Run();
    return report;
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
    leftovers_.RemoveOtherDays(date_);
    info_ = leftovers_.WorkingInfo(date_);
    if (!vel_file::Exists(info_)) return;
    logger.Write(5, "Removing what a broken run left of '%s' %s", user_, date_);
    leftovers_.RemoveDay(date_);
    if (vel_file::Exists(info_)) {
        throw std::runtime_error("what a broken run left cannot be removed: " + info_);
    }
}

void Job::RefuseSecond() const {
    for (const Backup& backup : FindBackups(settings_.local_dir(), user_, date_))
        if (!uid_.empty() && !backup.MadeFor(uid_))
            throw std::runtime_error(
                "a former user of this name has a backup of this day: "
                "\"backup2 cleanup\" removes it");
    throw std::runtime_error("the backup exists already");
}

/// What a former user of this name left is no base: it is removed one day, and is none of his.
void Job::ChooseBase() {
    base_ = IsCustom() ? "" : backup2::LookupLastFull(settings_, user_, date_);
    if (base_.empty()) return;
    if (base_ == "exists") RefuseSecond();
    const std::string day = backup2::GetDate(vel_file::Name(base_));
    const std::string uid = GetBackup(settings_.local_dir(), user_, day).Get("uid");
    if (!uid.empty() && uid != uid_) base_.clear();
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
    if (!uid_.empty()) info["uid"] = uid_;
    if (!base_.empty()) info["base"] = "F" + vel_file::Name(base_);
    const vel_file::Tmp complete(listing_);
    vel_file::Write(complete.Path(), str::Join(info, "\n") + "\n");
    if (::link(complete.Path().c_str(), info_.c_str()) != 0) {
        vel_err::RaiseErrno("create", info_, errno);
    }
}

void Job::Archive() {
    // A custom one is made elsewhere: those who read the one before mark its folder.
    std::optional<backup2::Lock> in_use;
    if (!IsCustom()) in_use.emplace(dir_);
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
        leftovers_.RemoveDay(date_);
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
    std::vector<Report> reports;
    for (const std::string& user : users) {
        reports.push_back(RunOne(user, date));
        status = WorseStatus(status, StatusOf(reports.back()));
        if (!options.json) Print(reports.back());
    }
    if (options.json) PrintAsJson(reports);
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
