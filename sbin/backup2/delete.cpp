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
    bool force = false;
};

int Delete(const Options& options) {
    const Site site = AskSite();
    const Backup backup =
        GetBackup(site.local_dir, CheckUser(options.user), CheckDate(options.date));
    UseStorage(site.token);
    std::vector<std::string> argv = {"backup2_cp", "--delete", backup.info_path};
    if (options.force) argv.push_back("--force");
    const Done done = RunTool(argv);
    if (done.status != 0) throw std::runtime_error(backup.Title() + ": " + done.LastLine());
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
    command->footer(kExamples);
    command->callback([options, &chosen] { chosen = [options] { return Delete(*options); }; });
}

}  // namespace backup2_admin
