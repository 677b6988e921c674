/// backup2 report: what restores could not bring back.
#include <iostream>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "vel/str.h"
#include "vel/vel_tool.h"

#include "sbin/backup2/commands.h"
#include "sbin/backup2/output.h"
#include "sbin/backup2/restore_report.h"

namespace backup2_admin {
namespace {

const char kExamples[] = R"(
Every restore and every import leaves a report. Showing one marks it as viewed; a restore that is
given the id of a viewed report (backup2 restore --report ID) begins it afresh.

Examples:
  backup2 report                        all reports
  backup2 report bob-20240131-120000-a1b2
  backup2 report bob-20240131-120000-a1b2 --json)";

std::string State(const StoredReport& report) {
    std::string state = report.finalized ? "ended" : "not ended";
    if (report.viewed) state += ", viewed";
    return state;
}

nlohmann::json Head(const StoredReport& report) {
    return {{"id", report.id},         {"owner", report.owner},
            {"uid", report.uid},       {"date", report.date},
            {"type", report.type},     {"finalized", report.finalized},
            {"viewed", report.viewed}, {"badchars", report.badchars}};
}

nlohmann::json Json(const ReportEvent& event) {
    nlohmann::json json = {
        {"date", event.date}, {"name", event.name}, {"owner", event.owner}, {"type", event.type}};
    if (!event.code.empty()) json["code"] = str::Int(event.code);
    if (!event.error.empty()) json["error"] = event.error;
    return json;
}

int List(bool as_json) {
    nlohmann::json rows = nlohmann::json::array();
    Table table("lllrl");
    table.Add({"REPORT", "OWNER", "BEGUN", "EVENTS", "STATE"});
    std::vector<std::string> unreadable;
    for (const StoredReport& report : ListReports(&unreadable)) {
        rows.push_back(Head(report));
        rows.back()["events"] = report.events.size();
        table.Add({report.id, report.owner, report.date, str::Str(uint64_t{report.events.size()}),
                   State(report)});
    }
    if (as_json) {
        PrintJson(rows);
        return vel_tool::kDone;
    }
    std::cout << (rows.empty() ? "no reports\n" : table.Str());
    for (const std::string& line : unreadable) std::cout << line << "\n";
    return unreadable.empty() ? vel_tool::kDone : vel_tool::kWarnings;
}

void PrintEvents(const StoredReport& report) {
    static const std::map<std::string, std::string> kWords = {
        {"file", "file"}, {"db", "database"}, {"get_data", "restore"}};
    Table table("llll");
    table.Add({"WHEN", "WHAT", "CODE", "NAME"});
    for (const ReportEvent& event : report.events) {
        const auto word = kWords.find(event.type);
        std::string name = str::Trim(event.name);
        if (!event.error.empty()) name += ": " + event.error;
        table.Add({event.date, word == kWords.end() ? event.type : word->second, event.code, name});
    }
    std::cout << table.Str();
}

int Show(const std::string& id, bool as_json) {
    const StoredReport report = ViewReport(CheckReportId(id));
    if (as_json) {
        nlohmann::json json = Head(report);
        json["events"] = nlohmann::json::array();
        for (const ReportEvent& event : report.events) json["events"].push_back(Json(event));
        PrintJson(json);
        return vel_tool::kDone;
    }
    std::cout << "Report " << report.id << " of " << Printable(report.owner) << ", begun "
              << report.date << ", " << State(report) << "\n";
    if (report.events.empty()) {
        std::cout << (report.finalized ? "Everything came back.\n" : "Nothing failed so far.\n");
    } else {
        PrintEvents(report);
    }
    if (report.badchars) std::cout << "Bytes of names that cannot be shown stand as \"?\".\n";
    return vel_tool::kDone;
}

}  // namespace

void AddReport(CLI::App& app, Action& chosen) {
    auto* command = app.add_subcommand("report", "Show what a restore could not bring back");
    const auto id = std::make_shared<std::string>();
    const auto json = std::make_shared<bool>(false);
    command->add_option("id", *id, "The report to show; without it all are listed");
    command->add_flag("--json", *json, "As JSON");
    command->footer(kExamples);
    command->callback([id, json, &chosen] {
        chosen = [id, json] { return id->empty() ? List(*json) : Show(*id, *json); };
    });
}

}  // namespace backup2_admin
