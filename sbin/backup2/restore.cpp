/// backup2 restore: brings files and databases of one backup back.
#include <unistd.h>

#include <iostream>
#include <optional>

#include <CLI/CLI.hpp>

#include "vel/str.h"
#include "vel/vel_file.h"
#include "vel/vel_proc.h"
#include "vel/vel_tool.h"
#include "vel/vel_user.h"

#include "sbin/backup2/commands.h"
#include "sbin/backup2/edition.h"
#include "sbin/backup2/entries.h"
#include "sbin/backup2/extract.h"
#include "sbin/backup2/job.h"
#include "sbin/backup2/near_names.h"
#include "sbin/backup2/output.h"
#include "sbin/backup2/progress.h"
#include "sbin/backup2/restore_report.h"
#include "sbin/backup2/secret.h"
#include "sbin/backup2/system_data.h"

namespace backup2_admin {
namespace {

const char kExamples[] = R"(
Paths are relative to the user's root, as the backup holds them ("data/index.html"). Without paths
everything comes back. What is in the target and not in the backup stays.

Databases come back into their servers when everything is restored into the user's own root, or
when --databases or a path like .system/db.SERVER.DATABASE asks for them. With them comes the panel's
document of the user, converted when another edition of the panel wrote it.

Examples:
  backup2 restore bob 2024-01-31 --to /root/bob           the files, somewhere else
  backup2 restore bob 2024-01-31 --yes                    files and databases, in place
  backup2 restore bob 2024-01-31 --yes data/index.html    one file, in place
  backup2 restore bob 2024-01-31 --yes .system/db.main.shop   one database
  backup2 restore bob 2024-01-31 --private --to /root/bob   from bob's own storage
  backup2 restore bob 2024-01-31 --dry-run --yes          what would be done)";

struct Options {
    std::string user, uid, date, to, overwrite = "always", host_dist, report;
    std::vector<std::string> paths;
    bool dry_run = false, yes = false, with_databases = false, no_databases = false;
    bool password_stdin = false, own = false;
};

const std::string kSystem = ".system";
const std::string kNotThere = "is not in the archive";  // the archiver's words
constexpr std::size_t kMostHints = 10;

bool IsSystem(const std::string& path) {
    return path == kSystem || str::StartsWith(path, kSystem + "/");
}

class Restore {
public:
    /// `report`: null when nothing is to be written.
    Restore(const Options& options, RestoreReport* report);
    int Run();

private:
    void ChooseParts();
    void ChooseTarget();
    int Files();
    int Databases();
    void Print(const Extraction::Result& result) const;

    const Options& options_;
    RestoreReport* const report_;
    Site site_;
    Backup backup_;
    WorkLock alone_;
    std::unique_ptr<backup2::Lock> in_use_;
    std::string index_, target_;
    std::vector<std::string> files_, system_;  // names to restore
};

Restore::Restore(const Options& options, RestoreReport* report)
    : options_(options),
      report_(report),
      site_(AskSites(options.own, CheckUser(options.user)).front()),
      backup_(GetBackup(site_.local_dir, CheckUser(options.user), CheckDate(options.date),
                        options.uid)),
      alone_("restore", backup_.user) {
    if (options.password_stdin) {
        site_.token.SetParam("arch_password", str::base64::Encode(AskSecret("archive password")));
    }
    backup_.CheckRecord();
    CheckPassword(backup_, site_.token);
    UseStorage(site_.token);
    in_use_ = Protect(backup_);
    index_ = NeedIndex(backup_, site_.token);
}

void Restore::ChooseParts() {
    for (const std::string& path : options_.paths) {
        const std::string name = vel_file::GoodPath(path);
        if (name.empty() || name[0] == '/') {
            throw vel_tool::UsageError("'" + path +
                                       "' is not relative to the user's root, as data/index.html");
        }
        (IsSystem(name) ? system_ : files_).push_back(name);
    }
    if (options_.paths.empty()) {
        files_ = TopNames(index_);
        if (options_.to.empty()) system_ = {kSystem};
    }
    if (options_.with_databases && system_.empty()) system_ = {kSystem};
    if (options_.no_databases) system_.clear();
}

void Restore::ChooseTarget() {
    target_ = options_.to.empty() ? AskUserRoot(backup_.user) : vel_tool::Absolute(options_.to);
    if (target_.empty()) {
        throw vel_tool::UsageError(backup_.user + " has no root in the panel: say where --to");
    }
    if (vel_file::Exists(target_) && !vel_file::Info(target_).IsDir())
        throw vel_tool::UsageError(Printable(target_) + " is no folder");
    if (!options_.to.empty() || options_.yes || options_.dry_run) return;
    if (!isatty(STDIN_FILENO)) {
        throw vel_tool::UsageError("this changes " + target_ + ": add --yes, or --to DIR");
    }
    std::cout << "Restore " << backup_.Title() << " into " << Printable(target_)
              << (system_.empty() ? "" : " and its databases") << "? [y/N] " << std::flush;
    std::string answer;
    std::getline(std::cin, answer);
    if (answer != "y" && answer != "yes") throw vel_tool::UsageError("nothing was restored");
}

/// What did not come back; for names that the backup does not have, those that may be meant.
void Restore::Print(const Extraction::Result& result) const {
    for (const std::string& line : result.lines) std::cout << line << "\n";
    std::vector<std::string> lines, wrong;
    str::Split(result.failed, "\n", lines);
    for (std::string& line : lines) {
        const std::string name = str::GetWord(line, '\t');
        if (line == kNotThere && wrong.size() < kMostHints)
            wrong.push_back(backup2::DecodeFileName(name));
    }
    if (wrong.empty()) return;
    const auto near = NearNames(index_, wrong);
    for (std::size_t i = 0; i < wrong.size(); ++i)
        if (!near[i].empty()) std::cout << Printable(wrong[i]) << "\t" << AskNear(near[i]) << "\n";
    std::cout << "\"backup2 files " << backup_.Title() << " --search TEXT\" finds names"
              << std::endl;
}

int Restore::Files() {
    if (files_.empty()) return vel_tool::kDone;
    ProgressView progress("restore of " + backup_.user, alone_.Dir());
    const Extraction extraction("restore", backup_, site_.local_dir, index_);
    std::optional<vel_file::TmpDir> nothing;  // in place of a target that is not there yet
    if (!options_.dry_run) {
        vel_file::MkDir(target_);
    } else if (!vel_file::Exists(target_)) {
        nothing.emplace(vel_file::TmpDir::At(vel_file::ConcatPath(alone_.Dir(), "nothing")));
    }
    std::vector<std::string> more = {"--overwrite", options_.overwrite};
    if (options_.dry_run) more.push_back("--dry-run");
    const auto result =
        extraction.Run("--extract", nothing ? nothing->Path() : target_, more, files_);
    Print(result);
    const auto seen = progress.Finish("qortar");
    const double seconds = progress.Seconds();
    std::cout << backup_.Title() << ": " << Plural(seen.files, "file") << ", "
              << HumanSize(seen.bytes) << " in " << HumanTime(seconds);
    const std::string rate = HumanRate(seen.bytes, seconds);
    std::cout << (rate.empty() ? "" : ", " + rate) << std::endl;
    result.ThrowIfFatal(backup_.Title() + " into " + Printable(target_));
    if (report_) report_->AddFiles(result);
    return result.status;
}

/// The dumps never touch the user's tree: they may hold what he must not see.
int Restore::Databases() {
    if (system_.empty()) return vel_tool::kDone;
    const auto staging =
        vel_file::TmpDir::At(vel_file::ConcatPath(site_.local_dir, ".system." + backup_.user));
    const Extraction extraction("restore", backup_, site_.local_dir, index_);
    std::vector<std::string> more;
    if (options_.dry_run) more.push_back("--dry-run");
    const auto result = extraction.Run("--extract", staging.Path(), more, system_);
    Print(result);
    result.ThrowIfFatal(backup_.Title());
    if (report_) report_->AddFiles(result);
    const int status = result.status;
    const std::string dumps = vel_file::ConcatPath(staging.Path(), kSystem);
    if (options_.dry_run || !vel_file::Exists(dumps)) return status;
    const auto done = [this](const std::string& name, const std::string& why) {
        if (report_ && !why.empty()) report_->AddSystem(name, why);
    };
    return WorseStatus(status, RestoreSystem(dumps, backup_.user, options_.host_dist, done));
}

int Restore::Run() {
    ChooseParts();
    ChooseTarget();
    if (report_) report_->Begin();
    const int files = Files();
    return WorseStatus(files, Databases());
}

int RunRestore(const Options& options) {
    if (options.with_databases && options.no_databases) {
        throw vel_tool::UsageError("--databases and --no-databases exclude each other");
    }
    if (!options.host_dist.empty()) CheckDist(options.host_dist);
    RestoreReport report(options.report, CheckUser(options.user));
    RestoreReport* const written = options.dry_run ? nullptr : &report;
    const auto restore = [&] { return Restore(options, written).Run(); };
    const std::string type = options.paths.empty() ? "all" : "selected";
    const int status = written ? Reported(report, type, restore) : restore();
    if (status == vel_tool::kFailed) {
        throw std::runtime_error(options.user + " " + options.date +
                                 ": not everything came back, see above");
    }
    return status;
}

}  // namespace

void AddRestore(CLI::App& app, Action& chosen) {
    auto* command = app.add_subcommand("restore", "Bring files and databases of a backup back");
    const auto options = std::make_shared<Options>();
    command->add_option("user", options->user, "Whose backup")->required();
    command->add_option("date", options->date, "Its day, or \"custom\"")->required();
    command->add_option("paths", options->paths, "Only these files and folders");
    const auto* to =
        command->add_option("--to", options->to, "Target folder (the user's own root)");
    command->add_option("--overwrite", options->overwrite, "What happens to files that are there")
        ->check(CLI::IsMember({"always", "changed", "newer", "never"}));
    command->add_flag("--dry-run", options->dry_run, "Only say what would be done");
    command->add_flag("--databases", options->with_databases, "Databases too");
    command->add_flag("--no-databases", options->no_databases, "Files only");
    command->add_flag("--yes", options->yes, "Do not ask before the user's own files change");
    command->add_flag("--password-stdin", options->password_stdin,
                      "Read the archive password from standard input");
    command->add_option("--host-dist", options->host_dist,
                        "Edition that the panel's data are converted for (the panel's own)");
    command->add_option("--uid", options->uid, kUidHelp);
    command->add_flag("--private", options->own, "From the user's own storage");
    command->add_option("--report", options->report,
                        "Id of the report (one is made; \"backup2 report\" shows it)");
    command->footer(kExamples);
    command->callback([options, to, &chosen] {
        // An empty variable of somebody's script must not mean the user's own files.
        if (to->count() > 0 && options->to.empty()) throw vel_tool::UsageError("--to is empty");
        chosen = [options] { return RunRestore(*options); };
    });
}

}  // namespace backup2_admin
