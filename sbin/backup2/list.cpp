/// backup2 list: a table of the backups.
#include <iostream>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "vel/str.h"
#include "vel/vel_tool.h"

#include "sbin/backup2/commands.h"
#include "sbin/backup2/job.h"
#include "sbin/backup2/output.h"

namespace backup2_admin {
namespace {

const char kExamples[] = R"(
Examples:
  backup2 list                 every backup of every user
  backup2 list bob             the backups of bob
  backup2 list --json | jq '.[] | select(.kind == "full")')";

struct Options {
    std::string user;
    bool json = false;
};

std::string KindWord(const Backup& backup) {
    try {
        backup.CheckRecord();
    } catch (const std::exception&) {
        return "damaged";
    }
    return backup.Kind() + (backup.Deleted() ? " (deleted)" : "");
}

nlohmann::json Json(const Backup& backup) {
    return {{"user", backup.user},
            {"date", backup.date},
            {"kind", backup.Kind()},
            {"base", backup.BaseDate()},
            {"size", str::Int64(backup.Get("size"))},
            {"slices", str::Int64(backup.Get("parts"))},
            {"encrypted", !backup.Get("key_hash").empty()},
            {"deleted", backup.Deleted()},
            {"created", backup.Get("created")},
            {"finished", backup.Get("finished")}};
}

std::string TableOf(const std::vector<Backup>& backups, const std::string& storage) {
    Table table("llllrrll");
    table.Add({"USER", "DATE", "KIND", "BASE", "SIZE", "SLICES", "STORAGE", "FINISHED"});
    for (const Backup& backup : backups) {
        table.Add({backup.user, backup.date, KindWord(backup),
                   backup.BaseDate().empty() ? "-" : backup.BaseDate(),
                   HumanSize(static_cast<uint64_t>(str::Int64(backup.Get("size")))),
                   backup.Get("parts"), storage + (backup.Get("key_hash").empty() ? "" : "+aes"),
                   backup.Get("finished")});
    }
    return table.Str();
}

int List(const Options& options) {
    const std::string user = options.user.empty() ? "" : CheckUser(options.user);
    const Site site = AskSite();
    const auto backups = FindBackups(site.local_dir, user, "");
    if (options.json) {
        nlohmann::json rows = nlohmann::json::array();
        for (const Backup& backup : backups) rows.push_back(Json(backup));
        PrintJson(rows);
    } else if (backups.empty()) {
        std::cout << "no backups" << (user.empty() ? "" : " of " + user) << "\n";
    } else {
        std::cout << TableOf(backups, site.token.Type());
    }
    return vel_tool::kDone;
}

}  // namespace

void AddList(CLI::App& app, Action& chosen) {
    auto* command = app.add_subcommand("list", "Show the backups that there are");
    const auto options = std::make_shared<Options>();
    command->add_option("user", options->user, "Only the backups of this user");
    command->add_flag("--json", options->json, "Report as JSON");
    command->footer(kExamples);
    command->callback([options, &chosen] { chosen = [options] { return List(*options); }; });
}

}  // namespace backup2_admin
