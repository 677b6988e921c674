/// backup2 copy: backups into users' own storages.
#include <algorithm>
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
  backup2 copy --all                    of every user with a storage of his own

Exit status 3: the backup is copied, but what a broken copy left could not be removed.)";

struct Options {
    std::string user, date;
    bool all = false;
};

/// The newest backup that can be relied on; "custom" when there is no other.
std::string NewestDate(const std::string& local_dir, const std::string& user) {
    std::string newest;
    for (const Backup& backup : FindBackups(local_dir, user, "")) {
        if (backup.user != user || backup.Deleted()) continue;
        try {
            backup.CheckRecord();
        } catch (const std::exception&) {
            continue;
        }
        if (newest.empty() || newest == kCustom || backup.date != kCustom) newest = backup.date;
    }
    if (newest.empty()) throw std::runtime_error("there is no backup of " + user);
    return newest;
}

int CopyOf(const std::string& user, const std::string& date) {
    const auto storages = AskOwnStorages(user);
    if (storages.empty()) throw std::runtime_error(user + " has no storage of his own");
    const vel_xml::Xml settings = AskJob(user);
    const Site admin(settings.GetNode("/doc/storage"));
    if (!admin.token) throw std::runtime_error("no storage is set up in the panel");
    const std::string wanted = date.empty() ? NewestDate(admin.local_dir, user) : date;
    PrivateCopy copy(settings, storages.front());
    const bool copied = copy.Copy(wanted);
    std::cout << user << " " << wanted << ": " << (copied ? "copied" : "already there")
              << std::endl;
    for (const auto& warning : copy.Warnings())
        std::cout << user << " " << wanted << ": " << warning << std::endl;
    return copy.Warnings().empty() ? vel_tool::kDone : vel_tool::kWarnings;
}

/// One user's failure does not stop the others.
int CopyAll(const std::string& date) {
    int status = vel_tool::kDone;
    for (const auto& storage : AskOwnStorages()) {
        const std::string user = storage.GetProp("user");
        int one = vel_tool::kFailed;
        try {
            one = CopyOf(user, date);
        } catch (const std::exception& error) {
            std::cout << user << ": " << Reason(error) << std::endl;
            std::cerr << "backup2: " << user << ": " << Reason(error) << std::endl;
        }
        status = WorseStatus(status, one);
    }
    return status;
}

int Copy(const Options& options) {
    if (options.all != options.user.empty()) {
        throw vel_tool::UsageError("copy wants the name of one user, or --all");
    }
    const std::string date = options.date.empty() ? "" : CheckDate(options.date);
    return options.all ? CopyAll(date) : CopyOf(CheckUser(options.user), date);
}

}  // namespace

void AddCopy(CLI::App& app, Action& chosen) {
    auto* command = app.add_subcommand("copy", "Copy a backup into the user's own storage");
    const auto options = std::make_shared<Options>();
    command->add_option("user", options->user, "Whose backup");
    command->add_flag("--all", options->all, "Of all users who have a storage of their own");
    command->add_option("--date", options->date, "The one of this day, or \"custom\" (the newest)");
    command->footer(kExamples);
    command->callback([options, &chosen] { chosen = [options] { return Copy(*options); }; });
}

}  // namespace backup2_admin
