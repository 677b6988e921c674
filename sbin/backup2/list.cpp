/// backup2 list: a table of the backups.
#include <iostream>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "vel/str.h"
#include "vel/vel_tool.h"

#include "sbin/backup2/commands.h"
#include "sbin/backup2/job.h"
#include "sbin/backup2/output.h"
#include "sbin/backup2/verified.h"

namespace backup2_admin {
namespace {

const char kExamples[] = R"(
Examples:
  backup2 list                 every backup of every user
  backup2 list bob             the backups of bob
  backup2 list bob --private   what is in bob's own storage
  backup2 list --json | jq '.[] | select(.kind == "full")')";

struct Options {
    std::string user, uid;
    bool own = false, json = false;
};

std::string KindWord(const Backup& backup) {
    if (backup.Damaged()) return "damaged";
    return backup.Kind() + (backup.Deleted() ? " (deleted)" : "") +
           (backup.Pinned() ? " (pinned)" : "");
}

nlohmann::json Json(const Backup& backup, const std::string& storage,
                    const VerifiedBook& verified) {
    const Verified last = verified.Find(backup);
    return {{"user", backup.user},
            {"date", backup.date},
            {"kind", backup.Kind()},
            {"base", backup.BaseDate()},
            {"size", str::Int64(backup.Get("size"))},
            {"slices", str::Int64(backup.Get("parts"))},
            {"encrypted", !backup.Get("key_hash").empty()},
            {"deleted", backup.Deleted()},
            {"pinned", backup.Pinned()},
            {"damaged", backup.Damaged()},
            {"storage", storage},
            {"verified", last.when},
            {"verified_good", last.good},
            {"verified_deep", last.deep},
            {"created", backup.Get("created")},
            {"finished", backup.Get("finished")}};
}

std::string VerifiedWord(const Verified& verified) {
    if (verified.when.empty()) return "-";
    return verified.when.substr(0, verified.when.find(' ')) + (verified.good ? "" : " BAD");
}

void AddRow(Table& table, const Backup& backup, const std::string& storage,
            const VerifiedBook& verified) {
    table.Add({backup.user, backup.date, KindWord(backup),
               backup.BaseDate().empty() ? "-" : backup.BaseDate(),
               HumanSize(static_cast<uint64_t>(str::Int64(backup.Get("size")))),
               backup.Get("parts"), storage + (backup.Get("key_hash").empty() ? "" : "+aes"),
               backup.Get("finished"), VerifiedWord(verified.Find(backup))});
}

int List(const Options& options) {
    const std::string user = options.user.empty() ? "" : CheckUser(options.user);
    nlohmann::json rows = nlohmann::json::array();
    const VerifiedBook verified;
    Table table("llllrrlll");
    table.Add(
        {"USER", "DATE", "KIND", "BASE", "SIZE", "SLICES", "STORAGE", "FINISHED", "VERIFIED"});
    for (const Site& site : AskSites(options.own, user)) {
        for (const Backup& backup : FindBackups(site.local_dir, user, "")) {
            if (!backup.MadeFor(options.uid)) continue;
            rows.push_back(Json(backup, site.token.Type(), verified));
            AddRow(table, backup, site.token.Type(), verified);
        }
    }
    if (options.json) {
        PrintJson(rows);
    } else if (rows.empty()) {
        std::cout << "no backups" << (user.empty() ? "" : " of " + user) << "\n";
    } else {
        std::cout << table.Str();
    }
    return vel_tool::kDone;
}

}  // namespace

void AddList(CLI::App& app, Action& chosen) {
    auto* command = app.add_subcommand("list", "Show the backups that there are");
    const auto options = std::make_shared<Options>();
    command->add_option("user", options->user, "Only the backups of this user");
    command->add_option("--uid", options->uid, kUidHelp);
    command->add_flag("--private", options->own, "The copies in users' own storages");
    command->add_flag("--json", options->json, "Report as JSON");
    command->footer(kExamples);
    command->callback([options, &chosen] { chosen = [options] { return List(*options); }; });
}

}  // namespace backup2_admin
