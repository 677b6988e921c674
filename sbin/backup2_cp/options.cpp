#include "sbin/backup2_cp/options.h"

#include <algorithm>
#include <cctype>

#include <CLI/CLI.hpp>

#include "vel/vel_tool.h"

#include "backup_common/backup2_qortar.h"

#include "sbin/backup2_cp/names.h"

namespace backup2_cp {

namespace {

const std::string kFooter =
    "Storage: BACKUP_TOKEN, else with BACKUP_STORAGE=USER that user's storage as the panel names\n"
    "it, else the panel's own. BACKUP2_RETRY_MS: first pause before a failed transfer is tried\n"
    "again (1000). Paths that begin with \"-\" stand behind \"--\".\n"
    "--put into a user's own storage (BACKUP_STORAGE) records each slice; the info file, which "
    "goes\n"
    "last, is rewritten for that storage.\n"
    "--server looks at each user's backups below --path by themselves. First go those that no "
    "keep\n"
    "rule keeps (when one is given), then the oldest while there are more than --count-limit, "
    "then\n"
    "the oldest while they are larger than --size-limit: a number with K, M, G, T (powers of "
    "1024)\n"
    "or B (bytes); a bare one is MiB. \"\" and 0 are no limit, no rule. The backup of --date (it\n"
    "counts even before it exists), its base, the newest good backup, pinned ones and those in "
    "use\n"
    "stay; a full backup goes with its last increment.\n"
    "Exit status: 0 done, 1 failed, 2 wrong usage, 3 a limit cannot be reached.";

/// What the parser fills.
struct Words {
    bool put = false, get = false, check = false, isolated = false, no_delete = false;
    bool force = false, json = false, server = false, dry_run = false, accept_host_key = false;
    bool accept_disk = false;
    bool sweep = false;
    std::string info_file, slice, last_slice, delete_info, list, first, second;
    std::string pin, unpin, clean_up, path, date, user, size_limit, count_limit;
    std::string last, daily, weekly, monthly, yearly, older_than;
};

void DeclareLimits(CLI::App& app, Words& words) {
    app.add_flag("--server", words.server, "Enforce limits and keep rules below --path");
    app.add_option("--path", words.path, "Local tree of the backups")->type_name("DIR");
    app.add_option("--date", words.date, "The backup being made, a date or \"custom\"");
    app.add_option("--storage", words.user, "Only this user's")->type_name("USER");
    app.add_option("--size-limit", words.size_limit, "Bytes of all")->type_name("SIZE");
    app.add_option("--count-limit", words.count_limit, "How many")->type_name("N");
    app.add_option("--keep-last", words.last, "Keep the newest N")->type_name("N");
    app.add_option("--keep-daily", words.daily, "Keep the newest of N days")->type_name("N");
    app.add_option("--keep-weekly", words.weekly, "Of N weeks, from Sunday on")->type_name("N");
    app.add_option("--keep-monthly", words.monthly, "Of N months")->type_name("N");
    app.add_option("--keep-yearly", words.yearly, "Of N years")->type_name("N");
    app.add_flag("--dry-run", words.dry_run,
                 "Only say what would become of each backup; with --check only look at the token");
}

void Declare(CLI::App& app, Words& words) {
    app.footer(kFooter);
    app.set_help_flag("--help", "Show this text");
    app.add_flag("--put", words.put, "Upload: FILE; a slice; or with --isolated the listing");
    app.add_flag("--get", words.get, "Download: NAME to LOCAL, or --slice by its info file");
    app.add_option("--delete", words.delete_info, "Remove the backup of this info file")
        ->type_name("INFO");
    app.add_option("--pin", words.pin, "Keep this backup whatever the limits")->type_name("INFO");
    app.add_option("--unpin", words.unpin, "Take that back")->type_name("INFO");
    app.add_option("--cleanup", words.clean_up, "Remove what interrupted copies left on storages")
        ->type_name("DIR");
    app.add_flag("--sweep", words.sweep, "Remove what killed uploads left on the storage");
    app.add_option("--older-than", words.older_than,
                   "With --sweep: of uploads that began so long ago (24); 0: all")
        ->type_name("HOURS");
    DeclareLimits(app, words);
    app.add_option("--list", words.list, "Names in a directory of the storage (\"\" is the top)")
        ->type_name("DIR");
    app.add_flag("--check", words.check, "Write, list, read back and delete a probe");
    app.add_flag("--accept-host-key", words.accept_host_key,
                 "With --check: take the host key that the server has now");
    app.add_flag("--accept-disk", words.accept_disk,
                 "With --check: a local storage may lie on another disk than before");
    app.add_option("--info-file", words.info_file, "Info file of the backup")->type_name("INFO");
    app.add_option("--slice", words.slice, "A slice of it")->type_name("FILE");
    app.add_option("--last-slice", words.last_slice, "Its last slice")->type_name("FILE");
    app.add_flag("--isolated", words.isolated, "Upload the listing, then the completed info file");
    app.add_flag("--no-delete", words.no_delete, "Keep the uploaded file");
    app.add_flag("--force", words.force, "Delete a pinned one, a full one with its increments");
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

// ---- Limits -------------------------------------------------------------------------------------

uint64_t ReadCount(const std::string& option, const std::string& text) {
    if (text.empty()) return 0;
    const auto number = ParseNumber(text);
    Require(number.has_value(), option + " is no number");
    return *number;
}

uint64_t ReadSize(std::string text) {
    if (text.empty()) return 0;
    const std::string units = "BKMGT";
    auto unit =
        units.find(static_cast<char>(std::toupper(static_cast<unsigned char>(text.back()))));
    if (unit == std::string::npos) {
        unit = units.find('M');
    } else {
        text.pop_back();
    }
    const auto number = ParseNumber(text);
    const auto shift = static_cast<unsigned>(10 * unit);
    Require(number && *number <= UINT64_MAX >> shift, "--size-limit is no size");
    return *number << shift;
}

void ReadLimits(const Words& words, Options& out) {
    Require(!words.path.empty(), "--server needs --path");
    Require(words.user.empty() || IsUserName(words.user), "--storage is no user's name");
    out.action = Options::Action::kLimit;
    out.path = words.path;
    out.user = words.user;
    out.dry_run = words.dry_run;
    out.policy.date = words.date;
    Require(words.date.empty() || backup2::CheckDate(out.policy.date), "--date is no date");
    out.policy.size_limit = ReadSize(words.size_limit);
    out.policy.count_limit = ReadCount("--count-limit", words.count_limit);
    out.policy.last = ReadCount("--keep-last", words.last);
    out.policy.daily = ReadCount("--keep-daily", words.daily);
    out.policy.weekly = ReadCount("--keep-weekly", words.weekly);
    out.policy.monthly = ReadCount("--keep-monthly", words.monthly);
    out.policy.yearly = ReadCount("--keep-yearly", words.yearly);
}

// ---- All ----------------------------------------------------------------------------------------

int ReadHours(const std::string& text) {
    constexpr uint64_t kMaxHours = 100 * 365 * 24;
    const auto number = ParseNumber(text, kMaxHours);
    Require(number.has_value(), "--older-than is no number of hours");
    return static_cast<int>(*number);
}

/// Actions that are given a path and nothing else.
void ReadPathAction(const CLI::App& app, const std::string& option, const std::string& value,
                    std::vector<std::string> allowed, Options::Action action, Options& out) {
    allowed.push_back(option);
    CheckStrangers(app, allowed);
    Require(!value.empty(), "--" + option + " needs a path");
    out.action = action;
    (action == Options::Action::kCleanUp ? out.path : out.info_file) = value;
}

Options Read(const CLI::App& app, const Words& words) {
    Options out;
    const bool remove = app.count("--delete") > 0, list = app.count("--list") > 0;
    const bool pin = app.count("--pin") > 0, unpin = app.count("--unpin") > 0;
    const bool clean_up = app.count("--cleanup") > 0;
    Require(words.put + words.get + words.check + remove + list + pin + unpin + clean_up +
                    words.server + words.sweep ==
                1,
            "one of --put, --get, --delete, --list, --check, --server, --cleanup, --sweep, --pin, "
            "--unpin is needed");
    out.info_file = words.info_file;
    out.force = words.force;
    out.json = words.json;
    using Action = Options::Action;
    if (words.put) {
        CheckStrangers(app, {"put", "info-file", "slice", "last-slice", "isolated", "no-delete",
                             "first", "second"});
        ReadPut(app, words, out);
    } else if (words.get) {
        CheckStrangers(app, {"get", "info-file", "slice", "first", "second"});
        ReadGet(app, words, out);
    } else if (remove) {
        ReadPathAction(app, "delete", words.delete_info, {"force"}, Action::kDelete, out);
    } else if (pin) {
        ReadPathAction(app, "pin", words.pin, {}, Action::kPin, out);
    } else if (unpin) {
        ReadPathAction(app, "unpin", words.unpin, {}, Action::kUnpin, out);
    } else if (clean_up) {
        ReadPathAction(app, "cleanup", words.clean_up, {}, Action::kCleanUp, out);
    } else if (words.server) {
        CheckStrangers(
            app, {"server", "path", "date", "storage", "size-limit", "count-limit", "keep-last",
                  "keep-daily", "keep-weekly", "keep-monthly", "keep-yearly", "dry-run", "json"});
        ReadLimits(words, out);
    } else {
        std::vector<std::string> allowed = {"list", "check", "json", "sweep"};
        if (words.sweep) allowed.emplace_back("older-than");
        if (words.check)
            allowed.insert(allowed.end(), {"accept-host-key", "accept-disk", "dry-run"});
        CheckStrangers(app, allowed);
        out.action = words.sweep ? Action::kSweep : list ? Action::kList : Action::kCheck;
        out.name = words.list;
        out.dry_run = words.dry_run;
        out.accept_host_key = words.accept_host_key;
        out.accept_disk = words.accept_disk;
        if (app.count("--older-than") > 0) out.hours = ReadHours(words.older_than);
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
    Require((!words.put && !words.get) || out.action == Options::Action::kHelp || !out.file.empty(),
            "an empty file name");
    MakeAbsolute(out.info_file);
    MakeAbsolute(out.file);
    MakeAbsolute(out.path);
    return out;
}

}  // namespace backup2_cp
