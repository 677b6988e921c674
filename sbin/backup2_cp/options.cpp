#include "sbin/backup2_cp/options.h"

#include <algorithm>

#include <CLI/CLI.hpp>

#include "vel/vel_tool.h"

namespace backup2_cp {

namespace {

const std::string kFooter =
    "Storage: BACKUP_TOKEN, else with BACKUP_STORAGE=USER that user's storage as the panel names\n"
    "it, else the panel's own. BACKUP2_RETRY_MS: first pause before a failed transfer is tried\n"
    "again (1000). Paths that begin with \"-\" stand behind \"--\".\n"
    "Exit status: 0 done, 1 failed, 2 wrong usage.";

/// What the parser fills.
struct Words {
    bool put = false, get = false, check = false, isolated = false, no_delete = false;
    bool force = false, json = false;
    std::string info_file, slice, last_slice, delete_info, list, first, second;
};

void Declare(CLI::App& app, Words& words) {
    app.footer(kFooter);
    app.set_help_flag("--help", "Show this text");
    app.add_flag("--put", words.put, "Upload: FILE; a slice; or with --isolated the listing");
    app.add_flag("--get", words.get, "Download: NAME to LOCAL, or --slice by its info file");
    app.add_option("--delete", words.delete_info, "Remove the backup of this info file")
        ->type_name("INFO");
    app.add_option("--list", words.list, "Names in a directory of the storage (\"\" is the top)")
        ->type_name("DIR");
    app.add_flag("--check", words.check, "Write, list, read back and delete a probe");
    app.add_option("--info-file", words.info_file, "Info file of the backup")->type_name("INFO");
    app.add_option("--slice", words.slice, "A slice of it")->type_name("FILE");
    app.add_option("--last-slice", words.last_slice, "Its last slice")->type_name("FILE");
    app.add_flag("--isolated", words.isolated, "Upload the listing, then the completed info file");
    app.add_flag("--no-delete", words.no_delete, "Keep the uploaded file");
    app.add_flag("--force", words.force, "Delete a full backup together with its increments");
    app.add_flag("--json", words.json, "Report as JSON");
    app.add_option("first", words.first, "FILE or NAME")->type_name("");
    app.add_option("second", words.second, "LOCAL")->type_name("");
}

void Require(bool holds, const std::string& message) {
    if (!holds) throw vel_tool::UsageError(message);
}

void ReadPut(const CLI::App& app, const Words& words, Options& out) {
    out.no_delete = words.no_delete;
    out.last = app.count("--last-slice") > 0;
    const auto slices = app.count("--slice") + app.count("--last-slice");
    Require(app.count("second") == 0, "--put takes one file");
    if (slices > 0) {
        Require(slices == 1 && !words.isolated && app.count("first") == 0,
                "--put takes one of --slice, --last-slice, --isolated");
        Require(!words.info_file.empty(), "--slice needs --info-file");
        Require(!words.no_delete, "an uploaded slice is always removed");
        out.action = Options::Action::kPutSlice;
        out.file = out.last ? words.last_slice : words.slice;
        return;
    }
    Require(app.count("first") == 1, "--put needs a file");
    Require(words.isolated == !words.info_file.empty(), "--isolated and --info-file go together");
    Require(!words.isolated || words.no_delete, "--isolated needs --no-delete");
    out.action = words.isolated ? Options::Action::kPutFinal : Options::Action::kPut;
    out.file = words.first;
}

void ReadGet(const CLI::App& app, const Words& words, Options& out) {
    if (app.count("--slice") > 0) {
        Require(!words.info_file.empty() && app.count("first") == 0, "--slice needs --info-file");
        out.action = Options::Action::kGetSlice;
        out.file = words.slice;
        return;
    }
    Require(app.count("first") == 1 && app.count("second") == 1 && words.info_file.empty(),
            "--get needs NAME and LOCAL, or --info-file and --slice");
    out.action = Options::Action::kGet;
    out.name = words.first;
    out.file = words.second;
}

/// Options that belong to other actions are mistakes, never ignored.
void CheckStrangers(const CLI::App& app, const std::vector<std::string>& allowed) {
    for (const CLI::Option* option : app.get_options()) {
        const std::string name = option->get_single_name();
        const bool known = std::find(allowed.begin(), allowed.end(), name) != allowed.end();
        Require(option->count() == 0 || known, "\"" + name + "\" does not belong here");
    }
}

Options Read(const CLI::App& app, const Words& words) {
    Options out;
    const bool remove = app.count("--delete") > 0, list = app.count("--list") > 0;
    Require(words.put + words.get + words.check + remove + list == 1,
            "one of --put, --get, --delete, --list, --check is needed");
    out.info_file = remove ? words.delete_info : words.info_file;
    out.force = words.force;
    out.json = words.json;
    if (words.put) {
        CheckStrangers(app, {"put", "info-file", "slice", "last-slice", "isolated", "no-delete",
                             "first", "second"});
        ReadPut(app, words, out);
    } else if (words.get) {
        CheckStrangers(app, {"get", "info-file", "slice", "first", "second"});
        ReadGet(app, words, out);
    } else if (remove) {
        CheckStrangers(app, {"delete", "force"});
        Require(!out.info_file.empty(), "--delete needs an info file");
        out.action = Options::Action::kDelete;
    } else {
        CheckStrangers(app, {"list", "check", "json"});
        out.action = list ? Options::Action::kList : Options::Action::kCheck;
        out.name = words.list;
    }
    return out;
}

void MakeAbsolute(std::string& path) {
    if (!path.empty()) path = vel_tool::Absolute(path);
}

}  // namespace

Options ParseOptions(std::vector<std::string> arguments) {
    CLI::App app("Copies backups to and from their storage.", "backup2_cp");
    Words words;
    Declare(app, words);
    std::reverse(arguments.begin(), arguments.end());  // the order that the parser wants
    Options out;
    try {
        app.parse(arguments);
        out = Read(app, words);
    } catch (const CLI::CallForHelp&) {
        out.help = app.help();
    } catch (const CLI::ParseError& e) {
        throw vel_tool::UsageError(e.what());
    }
    Require(out.action == Options::Action::kHelp || out.action == Options::Action::kDelete ||
                out.action == Options::Action::kList || out.action == Options::Action::kCheck ||
                !out.file.empty(),
            "an empty file name");
    MakeAbsolute(out.info_file);
    MakeAbsolute(out.file);
    return out;
}

}  // namespace backup2_cp
