/// backup2: the command an administrator types.
#include <algorithm>
#include <iostream>

#include <CLI/CLI.hpp>

#include "vel/str.h"
#include "vel/vel_err.h"
#include "vel/vel_rpc/kept_tokens.h"
#include "vel/vel_ssh.h"
#include "vel/vel_tool.h"

#include "sbin/backup2/commands.h"
#include "sbin/backup2/job.h"
#include "sbin/backup2/near_names.h"

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

using Commands = std::vector<const CLI::App*>;

Commands CommandsOf(const CLI::App& app) {
    return app.get_subcommands(
        [](const CLI::App* command) { return !command->get_name().empty(); });
}

/// `word`: what stands in the place of one of these, or "".
[[noreturn]] void RefuseCommand(const std::string& typed, const std::string& word,
                                const Commands& commands) {
    std::string names,
        text = word.empty() ? "no command is given" : "there is no command \"" + word + "\"";
    for (const CLI::App* command : commands) {
        const std::string name = command->get_name();
        if (!command->get_group().empty()) str::Append(names, name, ", ");
        if (backup2_admin::IsOneSlip(name, word)) text += ", is it \"" + name + "\"?";
    }
    throw vel_tool::UsageError(text + " (" + typed + " --help; " + names + ")");
}

/// The command that the words lead to, as it is typed. Of one that is missing, or is none, the
/// parser would say too little.
std::string FindCommand(const CLI::App& app, const std::vector<std::string>& words) {
    std::string typed = app.get_name();
    Commands commands = CommandsOf(app);
    for (const std::string& word : words) {
        if (commands.empty() || word.empty() || word[0] == '-') return typed;
        const auto found = std::find_if(commands.begin(), commands.end(), [&](const CLI::App* one) {
            return one->get_name() == word;
        });
        if (found == commands.end()) RefuseCommand(typed, word, commands);
        typed += " " + word;
        commands = CommandsOf(**found);
    }
    if (!commands.empty()) RefuseCommand(typed, "", commands);
    return typed;
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
    const std::string command = FindCommand(app, args);
    try {
        app.parse(Reversed(args));
    } catch (const CLI::Success& help) {
        return app.exit(help);
    } catch (const CLI::ParseError& wrong) {
        throw vel_tool::UsageError(std::string(wrong.what()) + " (" + command +
                                   " --help shows the usage)");
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
