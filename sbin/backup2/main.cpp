/// backup2: the command an administrator types.
#include <algorithm>
#include <iostream>

#include <CLI/CLI.hpp>

#include "vel/vel_err.h"
#include "vel/vel_rpc/kept_tokens.h"
#include "vel/vel_ssh.h"
#include "vel/vel_tool.h"

#include "sbin/backup2/commands.h"
#include "sbin/backup2/job.h"

namespace {

const char kExamples[] = R"(
Examples:
  backup2 run bob                        back up one user
  backup2 run --all                      back up everybody
  backup2 list bob                       what there is of bob
  backup2 files bob 2024-01-31 data      what is in a folder of a backup
  backup2 restore bob 2024-01-31 --to /root/bob-january
  backup2 restore bob 2024-01-31 --yes data/index.html
  backup2 verify bob                     read back every stored slice of bob
  backup2 limit bob --dry-run            which backups would go, and why the others stay
  backup2 storage check                  can the storage be written, listed and read?

Exit status: 0 done, 1 failed, 2 wrong usage, 3 done with warnings.
"backup2 COMMAND --help" tells more about each command.)";

/// The words in the reverse order that the parser wants.
std::vector<std::string> Reversed(std::vector<std::string> words) {
    std::reverse(words.begin(), words.end());
    return words;
}

/// The parser takes the next word for the value of "--to=": a path to restore would become the
/// target.
void RefuseEmptyValues(const std::vector<std::string>& words) {
    for (const std::string& word : words) {
        if (word == "--") return;
        if (word.compare(0, 2, "--") == 0 && word.find('=') == word.size() - 1) {
            throw vel_tool::UsageError(word + " has no value");
        }
    }
}

int Body(const std::vector<std::string>& args) {
    using namespace backup2_admin;
    RefuseEmptyValues(args);
    CLI::App app("Back up users of the hosting panel, look at the backups, bring them back.",
                 "backup2");
    app.require_subcommand(1);
    app.set_help_all_flag("--help-all", "The help of every command");
    app.footer(kExamples);
    Action chosen;
    for (const auto add : {AddRun, AddList, AddShow, AddFiles, AddRestore, AddReport, AddImport,
                           AddConvert, AddVerify, AddDelete, AddPin, AddUnpin, AddLimit, AddCopy,
                           AddCleanup, AddStorage, AddFetchSlice}) {
        add(app, chosen);
    }
    try {
        app.parse(Reversed(args));
    } catch (const CLI::Success& help) {
        return app.exit(help);
    } catch (const CLI::ParseError& wrong) {
        throw vel_tool::UsageError(std::string(wrong.what()) + " (backup2 --help shows the usage)");
    }
    vel_ssh::PinHostKeys();
    vel_rpc::KeepTokensIn("var/backup2_cp.tokens");
    try {
        return chosen();
    } catch (const vel_err::Error& error) {
        throw std::runtime_error(Reason(error));
    }
}

}  // namespace

int main(int argc, char** argv) { return vel_tool::Main(argc, argv, Body); }
