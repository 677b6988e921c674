/// backup2 copy: backups into users' own storages.
#include <iostream>

#include <CLI/CLI.hpp>

#include "vel/vel_tool.h"

#include "sbin/backup2/commands.h"
#include "sbin/backup2/job.h"
#include "sbin/backup2/private.h"

namespace backup2_admin {
namespace {

const char kExamples[] = R"(
"backup2 run" copies each backup as soon as it is made; this does it again where that failed. The
full backup of an increment goes along when the user's storage lacks it. What a broken copy left is
removed first.

Examples:
  backup2 copy bob                      his newest backup
  backup2 copy bob --date 2024-01-31    that one
  backup2 copy bob --missing            all that his storage lacks and has room for
  backup2 copy --all                    of every user with a storage of his own

Exit status 3: the backup is copied, but what a broken copy left could not be removed, or the limits
of the user's storage cannot be met.)";

struct Options {
    std::string user, date;
    bool all = false, missing = false;
};

/// The newest backup that can be relied on; "custom" when there is no other.
std::string NewestDate(const std::string& local_dir, const std::string& user) {
    std::string newest;
    for (const Backup& backup : FindBackups(local_dir, user, "")) {
        if (backup.user != user || !backup.Usable()) continue;
        if (newest.empty() || newest == kCustom || backup.date != kCustom) newest = backup.date;
    }
    if (newest.empty()) throw std::runtime_error("there is no backup of " + user);
    return newest;
}

void ShowFailure(const std::string& title, const std::exception& error) {
    std::cout << title << ": " << Reason(error) << std::endl;
    std::cerr << "backup2: " << title << ": " << Reason(error) << std::endl;
}

/// One backup's failure does not stop the others.
int CopyDates(PrivateCopy& copy, const std::string& user, const std::vector<std::string>& dates) {
    int status = vel_tool::kDone;
    for (const std::string& date : dates) {
        const std::string title = user + " " + date;
        try {
            const bool copied = copy.Copy(date);
            std::cout << title << ": " << (copied ? "copied" : "already there") << std::endl;
        } catch (const std::exception& error) {
            if (dates.size() == 1) throw;
            ShowFailure(title, error);
            status = vel_tool::kFailed;
        }
    }
    for (const auto& warning : copy.Warnings()) std::cout << user << ": " << warning << std::endl;
    return copy.Warnings().empty() ? status : WorseStatus(status, vel_tool::kWarnings);
}

int CopyOf(const std::string& user, const Options& options) {
    const vel_xml::Xml settings = AskJob(user);  // throws for a user whom nobody knows
    const auto storages = AskOwnStorages(user);
    if (storages.empty()) throw std::runtime_error(user + " has no storage of his own");
    const Site admin(settings.GetNode("/doc/storage"));
    if (!admin.token) throw std::runtime_error("no storage is set up in the panel");
    PrivateCopy copy(settings, storages.front());
    if (options.missing) return CopyDates(copy, user, copy.Lacking());
    const std::string& date = options.date;
    return CopyDates(copy, user, {date.empty() ? NewestDate(admin.local_dir, user) : date});
}

/// One user's failure does not stop the others.
int CopyAll(const Options& options) {
    int status = vel_tool::kDone;
    for (const auto& storage : AskOwnStorages()) {
        const std::string user = storage.GetProp("user");
        int one = vel_tool::kFailed;
        try {
            one = CopyOf(user, options);
        } catch (const std::exception& error) {
            ShowFailure(user, error);
        }
        status = WorseStatus(status, one);
    }
    return status;
}

int Copy(Options options) {
    if (options.all != options.user.empty()) {
        throw vel_tool::UsageError("copy wants the name of one user, or --all");
    }
    if (options.missing && !options.date.empty()) {
        throw vel_tool::UsageError("--missing and --date exclude each other");
    }
    if (!options.date.empty()) options.date = CheckDate(options.date);
    return options.all ? CopyAll(options) : CopyOf(CheckUser(options.user), options);
}

}  // namespace

void AddCopy(CLI::App& app, Action& chosen) {
    auto* command = app.add_subcommand("copy", "Copy a backup into the user's own storage");
    const auto options = std::make_shared<Options>();
    command->add_option("user", options->user, "Whose backup");
    command->add_flag("--all", options->all, "Of all users who have a storage of their own");
    command->add_option("--date", options->date, "The one of this day, or \"custom\" (the newest)");
    command->add_flag("--missing", options->missing,
                      "All that the storage lacks, as many of the newest as its limits allow");
    command->footer(kExamples);
    command->callback([options, &chosen] { chosen = [options] { return Copy(*options); }; });
}

}  // namespace backup2_admin
