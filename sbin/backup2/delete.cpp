/// backup2 delete: removes one backup.
#include <iostream>
#include <stdexcept>

#include <CLI/CLI.hpp>

#include "vel/vel_file.h"
#include "vel/vel_tool.h"

#include "sbin/backup2/commands.h"
#include "sbin/backup2/job.h"

namespace backup2_admin {
namespace {

const char kExamples[] = R"(
A full backup that increments still need is only marked as deleted: its data go with the last of
them. --force removes it now, and the increments with it.

Examples:
  backup2 delete bob 2024-01-31
  backup2 delete bob 2024-01-28 --force)";

struct Options {
    std::string user, date;
    bool force = false, own = false;
};

/// With `force` the increments go as well.
void RefusePinned(const Site& site, const Backup& backup, bool force) {
    std::vector<Backup> going = {backup};
    if (force) going = FindBackups(site.local_dir, backup.user, "");
    for (const Backup& other : going) {
        const bool goes = other.user == backup.user &&
                          (other.date == backup.date || other.BaseDate() == backup.date);
        if (goes && other.Pinned())
            throw std::runtime_error(other.Title() + " is pinned: unpin it first");
    }
}

int Delete(const Options& options) {
    const std::string user = CheckUser(options.user);
    const Site site = AskSites(options.own, user).front();
    const Backup backup = GetBackup(site.local_dir, user, CheckDate(options.date));
    if (options.own) CheckApart(user, site.token);
    RefusePinned(site, backup, options.force);
    const WorkLock alone(options.own ? "copy" : "delete", user);
    UseStorage(site.token);
    std::vector<std::string> argv = {"backup2_cp", "--delete", backup.info_path};
    if (options.force) argv.push_back("--force");
    RunTool(argv).ThrowIfFailed(backup.Title());
    std::cout << backup.Title() << ": "
              << (vel_file::Exists(backup.info_path) ? "marked as deleted, increments still need it"
                                                     : "deleted")
              << "\n";
    return vel_tool::kDone;
}

}  // namespace

void AddDelete(CLI::App& app, Action& chosen) {
    auto* command = app.add_subcommand("delete", "Remove a backup from the storage and from here");
    const auto options = std::make_shared<Options>();
    command->add_option("user", options->user, "Whose backup")->required();
    command->add_option("date", options->date, "Its day, or \"custom\"")->required();
    command->add_flag("--force", options->force, "Also when increments need it; they go too");
    command->add_flag("--private", options->own, "The copy in the user's own storage");
    command->footer(kExamples);
    command->callback([options, &chosen] { chosen = [options] { return Delete(*options); }; });
}

}  // namespace backup2_admin
