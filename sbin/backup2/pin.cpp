/// backup2 pin and unpin: a pinned backup is removed by no limit and no mistake.
#include <iostream>

#include <CLI/CLI.hpp>

#include "vel/vel_tool.h"

#include "sbin/backup2/commands.h"
#include "sbin/backup2/job.h"

namespace backup2_admin {
namespace {

const char kExamples[] = R"(
A pinned backup stays whatever the limits say, and so does the full backup that it needs. Neither
can "backup2 delete" remove it.

Examples:
  backup2 pin bob 2024-01-31
  backup2 unpin bob 2024-01-31)";

struct Options {
    std::string user, date;
    bool own = false;
};

int Pin(const Options& options, bool pinned) {
    const std::string user = CheckUser(options.user);
    const Site site = AskSites(options.own, user).front();
    const Backup backup = GetBackup(site.local_dir, user, CheckDate(options.date));
    if (options.own) CheckApart(user, site.token);
    if (backup.Pinned() != pinned) {
        UseStorage(site.token);
        RunTool({"backup2_cp", pinned ? "--pin" : "--unpin", backup.info_path})
            .ThrowIfFailed(backup.Title());
        RunTool({"backup2_cp", "--put", "--no-delete", backup.info_path})
            .ThrowIfFailed(backup.Title() + ", here it is so, on the storage not");
    }
    std::cout << backup.Title() << ": " << (pinned ? "pinned" : "not pinned") << "\n";
    return vel_tool::kDone;
}

void Add(CLI::App& app, Action& chosen, bool pinned) {
    auto* command = pinned
                        ? app.add_subcommand("pin", "Keep a backup whatever the limits say")
                        : app.add_subcommand("unpin", "Let the limits decide about a backup again");
    const auto options = std::make_shared<Options>();
    command->add_option("user", options->user, "Whose backup")->required();
    command->add_option("date", options->date, "Its day, or \"custom\"")->required();
    command->add_flag("--private", options->own, "The copy in the user's own storage");
    command->footer(kExamples);
    command->callback(
        [=, &chosen] { chosen = [options, pinned] { return Pin(*options, pinned); }; });
}

}  // namespace

void AddPin(CLI::App& app, Action& chosen) { Add(app, chosen, true); }
void AddUnpin(CLI::App& app, Action& chosen) { Add(app, chosen, false); }

}  // namespace backup2_admin
