/// backup2 import: what a user has on another machine, or with another panel, comes here.
#include <iostream>

#include <CLI/CLI.hpp>

#include "vel/vel_file.h"
#include "vel/vel_tool.h"

#include "sbin/backup2/commands.h"
#include "sbin/backup2/edition.h"
#include "sbin/backup2/import_file.h"
#include "sbin/backup2/import_panel.h"

namespace backup2_admin {
namespace {

const char kExamples[] = R"(
With --from the user's newest backup is fetched from another machine with this service; the password
of the administrator there is asked for, or is the next line of standard input. With a file, an
archive that another panel made is converted first. In both cases the user must exist here; files
that he has and the backup has not stay.

Examples:
  backup2 import --from https://old.example:1500 --admin root bob
  backup2 import --from https://10.0.0.5:1500 --ca old-ca.pem --admin root bob < password
  backup2 import /root/cpmove-bob.tar.gz bob --dry-run
  backup2 import /root/backup.tar bob --panel Plesk --server main)";

struct Options {
    std::string first, second;  // FILE and USER, or with --from USER alone
    PanelImport panel;
    FileImport file;
};

int Import(Options& options, bool from_panel) {
    if (options.first.empty() || options.second.empty() != from_panel)
        throw vel_tool::UsageError(from_panel ? "with --from a user is wanted and nothing else"
                                              : "import wants a file and a user, or --from");
    if (!options.file.host_dist.empty()) CheckDist(options.file.host_dist);
    if (!from_panel) {
        options.file.file = options.first;
        options.file.user = options.second;
        options.file.report = options.panel.report;
        return ImportFile(options.file);
    }
    options.panel.user = options.first;
    options.panel.host_dist = options.file.host_dist;
    std::string& ca = options.panel.ca_file;
    if (!ca.empty()) ca = vel_tool::Absolute(ca);
    if (!ca.empty() && !vel_file::Info(ca).IsFile()) throw vel_tool::UsageError(ca + " is no file");
    return ImportFromPanel(options.panel);
}

}  // namespace

void AddImport(CLI::App& app, Action& chosen) {
    auto* command = app.add_subcommand("import", "Bring a user from another machine or panel");
    const auto options = std::make_shared<Options>();
    PanelImport& panel = options->panel;
    FileImport& file = options->file;
    command->add_option("file", options->first, "The archive to import; none with --from");
    command->add_option("user", options->second, "Whose it becomes; he must exist here");
    auto* from = command->add_option("--from", panel.from, "The other panel: https://host:port");
    auto* admin = command->add_option("--admin", panel.admin, "An administrator there");
    from->needs(admin);
    admin->needs(from);
    command->add_option("--ca", panel.ca_file, "Who signed its certificate (PEM)")->needs(from);
    command->add_flag("--insecure", panel.insecure, "Take any certificate, and http as well")
        ->needs(from);
    const auto of_file = [&](auto* option) { option->excludes(from); };
    of_file(command->add_option("--panel", file.panel, "Which panel made the file")
                ->check(CLI::IsMember({"cPanel", "Plesk"})));
    of_file(command->add_option("--account", file.account, "Which of the file's accounts"));
    of_file(command->add_option("--server", file.servers, "Database servers to use"));
    of_file(command->add_flag("--dry-run", file.dry_run, "Only show what it would become"));
    command->add_option("--host-dist", file.host_dist,
                        "Edition that the panel's data are converted for (the panel's own)");
    command->add_option("--report", panel.report, "Id of the restore report (one is made)");
    command->footer(kExamples);
    command->callback([options, from, &chosen] {
        const bool from_panel = from->count() > 0;
        chosen = [options, from_panel] { return Import(*options, from_panel); };
    });
}

}  // namespace backup2_admin
