/// backup2 show: everything known about one backup.
#include <iostream>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "vel/str.h"
#include "vel/vel_file.h"
#include "vel/vel_tool.h"

#include "sbin/backup2/commands.h"
#include "sbin/backup2/job.h"
#include "sbin/backup2/output.h"

namespace backup2_admin {
namespace {

const char kExamples[] = R"(
Examples:
  backup2 show bob 2024-01-31
  backup2 show bob custom --json)";

struct Options {
    std::string user, date;
    bool own = false, json = false;
};

nlohmann::json Json(const Backup& backup, const Site& site) {
    nlohmann::json json = {{"user", backup.user},
                           {"date", backup.date},
                           {"kind", backup.Kind()},
                           {"base", backup.BaseDate()},
                           {"size", str::Int64(backup.Get("size"))},
                           {"encrypted", !backup.Get("key_hash").empty()},
                           {"deleted", backup.Deleted()},
                           {"pinned", backup.Pinned()},
                           {"created", backup.Get("created")},
                           {"finished", backup.Get("finished")},
                           {"index", backup.StoredIndex(site.token)},
                           {"index_is_local", vel_file::Exists(backup.IndexPath())}};
    json["slices"] = nlohmann::json::array();
    for (const Slice& slice : backup.Slices()) {
        json["slices"].push_back({{"path", slice.path},
                                  {"size", slice.plain},
                                  {"stored_size", slice.stored},
                                  {"sha256", slice.plain_sum},
                                  {"stored_sha256", slice.stored_sum}});
    }
    return json;
}

std::string Words(const Backup& backup, const Site& site) {
    Table table("ll");
    const auto add = [&](const std::string& name, const std::string& value) {
        if (!value.empty()) table.Add({name, value});
    };
    add("user", backup.user);
    add("date", backup.date);
    add("kind", backup.Kind());
    add("base", backup.BaseDate());
    add("deleted", backup.Get("deleted"));
    add("pinned", backup.Get("pinned"));
    add("created", backup.Get("created"));
    add("finished", backup.Get("finished"));
    add("size", HumanSize(static_cast<uint64_t>(str::Int64(backup.Get("size")))));
    add("storage", site.token.Type());
    add("encrypted", backup.Get("key_hash").empty() ? "no" : "yes");
    add("index", backup.StoredIndex(site.token) +
                     (vel_file::Exists(backup.IndexPath()) ? "" : " (no local copy)"));
    std::string text = table.Str() + "slices\n";
    for (const Slice& slice : backup.Slices()) {
        text += "  " + slice.path + "  " + HumanSize(slice.plain) + "\n";
    }
    return text;
}

int Show(const Options& options) {
    const std::string user = CheckUser(options.user);
    const Site site = AskSites(options.own, user).front();
    const Backup backup = GetBackup(site.local_dir, user, CheckDate(options.date));
    if (options.json) {
        PrintJson(Json(backup, site));
    } else {
        std::cout << Words(backup, site);
    }
    return vel_tool::kDone;
}

}  // namespace

void AddShow(CLI::App& app, Action& chosen) {
    auto* command = app.add_subcommand("show", "Show one backup: its slices, its base, its sizes");
    const auto options = std::make_shared<Options>();
    command->add_option("user", options->user, "Whose backup")->required();
    command->add_option("date", options->date, "Its day, or \"custom\"")->required();
    command->add_flag("--private", options->own, "The copy in the user's own storage");
    command->add_flag("--json", options->json, "Report as JSON");
    command->footer(kExamples);
    command->callback([options, &chosen] { chosen = [options] { return Show(*options); }; });
}

}  // namespace backup2_admin
