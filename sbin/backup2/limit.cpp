/// backup2 limit: which backups stay, and why.
#include <algorithm>
#include <iostream>
#include <map>
#include <stdexcept>
#include <tuple>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "vel/vel_proc.h"
#include "vel/vel_tool.h"

#include "sbin/backup2/commands.h"
#include "sbin/backup2/job.h"
#include "sbin/backup2/limits.h"
#include "sbin/backup2/output.h"

namespace backup2_admin {
namespace {

const char kExamples[] = R"(
Limits and rules are those of the panel unless options say others. Pinned backups stay, and so do
the newest good one and each full backup that increments need: it goes with the last of them.
"backup2 run" applies the panel's limits after each backup.

Examples:
  backup2 limit bob --dry-run                        what would go, and why the others stay
  backup2 limit bob --keep-daily 7 --keep-weekly 4   one of each day and week, all others go
  backup2 limit --all                                what the panel says, now
  backup2 limit bob --private --dry-run              in bob's own storage

Exit status 3: a limit cannot be met; what stands in its way is shown.)";

struct Options {
    std::string user, date;
    Limits limits;
    bool all = false, own = false, dry_run = false, json = false;
};

struct Result {
    int status = vel_tool::kDone;
    nlohmann::json report;
};

/// Of a user who was removed from the panel: none.
std::map<std::string, std::string> PlanRules(const std::string& user) try {
    return KeepRules(AskJob(user));
} catch (const vel_err::Error& error) {
    if (error.type() != "missed") throw;
    return {};
}

/// What the options leave open, as the panel has it. A plan's rules are about the administrator's
/// storage.
Limits Complete(Limits limits, const Site& site, const std::string& user) {
    if (limits.size.empty()) limits.size = site.size_limit;
    if (limits.count.empty()) limits.count = site.count_limit;
    if (limits.keep.empty() && site.owner.empty()) limits.keep = PlanRules(user);
    return limits;
}

Result LimitUser(const Options& options, const Site& site, const std::string& user) {
    if (options.own) CheckApart(user, site.token);
    const WorkLock alone(options.own ? "copy" : "limit", user);
    UseStorage(site.token);
    auto argv = LimitCommand(site, user, options.date, Complete(options.limits, site, user));
    argv[0] = "sbin/" + argv[0];
    argv.push_back("--json");
    if (options.dry_run) argv.push_back("--dry-run");
    vel_proc::Execute tool(std::move(argv), 0);  // what it says for people would spoil the JSON
    Done done;
    done.output = tool.Str();
    done.status = tool.Result();
    if (done.status == vel_tool::kUsage) throw vel_tool::UsageError(done.LastLine());
    if (done.status != vel_tool::kWarnings) done.ThrowIfFailed(user);
    return {done.status, nlohmann::json::parse(done.output)};
}

std::string TableOf(const nlohmann::json& report) {
    Table table("lllrll");
    table.Add({"USER", "DATE", "KIND", "SIZE", "DECISION", "REASON"});
    for (const auto& row : report.at("backups")) {
        table.Add({row.at("user"), row.at("date"), row.at("kind"),
                   HumanSize(row.at("size").get<uint64_t>()), row.at("decision"),
                   row.at("reason")});
    }
    std::string text = report.at("backups").empty() ? "no backups\n" : table.Str();
    for (const auto& why : report.at("unreachable")) text += why.get<std::string>() + "\n";
    return text;
}

void Append(nlohmann::json& all, const nlohmann::json& one) {
    for (const char* part : {"backups", "unreachable"}) {
        for (const auto& row : one.at(part)) all[part].push_back(row);
    }
}

/// As "backup2 list" has them; the copy tool tells them in the order in which they go.
void SortByAge(nlohmann::json& rows) {
    std::sort(rows.begin(), rows.end(), [](const auto& a, const auto& b) {
        return std::tie(a.at("user"), a.at("date")) < std::tie(b.at("user"), b.at("date"));
    });
}

/// The users whom the options mean, with the storage that holds their backups.
std::vector<std::pair<std::string, Site>> Wanted(const Options& options) {
    std::vector<std::pair<std::string, Site>> wanted;
    if (options.own && options.all) {
        for (const Site& site : AskSites(true, "")) wanted.emplace_back(site.owner, site);
        return wanted;
    }
    const auto users = options.all ? AskUsers() : std::vector{CheckUser(options.user)};
    for (const auto& user : users) wanted.emplace_back(user, AskSites(options.own, user).front());
    return wanted;
}

int Limit(Options options) {
    if (options.all != options.user.empty()) {
        throw vel_tool::UsageError("limit wants the name of one user, or --all");
    }
    if (!options.date.empty()) options.date = CheckDate(options.date);
    Result total{vel_tool::kDone,
                 {{"backups", nlohmann::json::array()}, {"unreachable", nlohmann::json::array()}}};
    for (const auto& [user, site] : Wanted(options)) {
        try {
            const Result one = LimitUser(options, site, user);
            Append(total.report, one.report);
            total.status = WorseStatus(total.status, one.status);
        } catch (const std::exception& error) {
            if (!options.all) throw;
            std::cerr << "backup2: " << Reason(error) << std::endl;
            total.status = vel_tool::kFailed;
        }
    }
    SortByAge(total.report.at("backups"));
    if (options.json) {
        PrintJson(total.report);
    } else {
        std::cout << TableOf(total.report);
    }
    return total.status;
}

}  // namespace

void AddLimit(CLI::App& app, Action& chosen) {
    auto* command = app.add_subcommand("limit", "Remove old backups, or tell which would go");
    const auto options = std::make_shared<Options>();
    command->add_option("user", options->user, "Whose backups");
    command->add_flag("--all", options->all, "Those of all users, one after the other");
    command->add_flag("--private", options->own, "In the user's own storage");
    command->add_option("--date", options->date, "This one counts as present and stays");
    command->add_option("--count-limit", options->limits.count, "At most so many backups");
    command->add_option("--size-limit", options->limits.size, "At most so much, as 500M or 10G");
    for (const std::string rule : kKeepRules) {
        command
            ->add_option_function<int>(
                "--keep-" + rule,
                [options, rule](const int& n) { options->limits.keep[rule] = std::to_string(n); },
                rule == "last" ? "So many of the newest stay"
                               : "The newest of each of so many " + rule + " periods stays")
            ->check(CLI::Range(0, 9999));
    }
    command->add_flag("--dry-run", options->dry_run, "Only tell");
    command->add_flag("--json", options->json, "Report as JSON");
    command->footer(kExamples);
    command->callback([options, &chosen] { chosen = [options] { return Limit(*options); }; });
}

}  // namespace backup2_admin
