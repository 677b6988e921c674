#include "sbin/backup2/report.h"

#include <iostream>

#include <nlohmann/json.hpp>

#include "vel/vel_tool.h"

#include "sbin/backup2/output.h"

namespace backup2_admin {

int StatusOf(const Report& report) {
    if (!report.error.empty()) return vel_tool::kFailed;
    return report.flagged.empty() && report.warnings.empty() ? vel_tool::kDone
                                                             : vel_tool::kWarnings;
}

void Print(const Report& report) {
    const std::string title = report.user + " " + report.date + ": ";
    if (!report.error.empty()) {
        std::cout << title << report.error << std::endl;
        std::cerr << "backup2: " << title << report.error << std::endl;
        return;
    }
    if (report.empty) {
        std::cout << title << "nothing to save" << std::endl;
        return;
    }
    std::cout << title << report.kind << " backup, " << Plural(report.files, "file") << ", "
              << HumanSize(report.bytes) << " in " << Plural(report.parts, "slice") << ", "
              << HumanTime(report.seconds)
              << (report.copied ? ", copied to the user's storage" : "") << std::endl;
    for (const auto& entry : report.flagged) {
        std::cout << Printable(entry.name) << "\t" << entry.why << std::endl;
    }
    for (const auto& date : report.removed) {
        std::cout << report.user << " " << date << ": removed by the limits" << std::endl;
    }
    for (const auto& date : report.marked) {
        std::cout << report.user << " " << date
                  << ": no longer kept by the limits, goes with the last increment that needs it"
                  << std::endl;
    }
    for (const auto& warning : report.warnings) std::cout << title << warning << std::endl;
}

namespace {

nlohmann::json Json(const Report& report) {
    nlohmann::json json = {{"user", report.user}, {"date", report.date}};
    if (!report.error.empty()) {
        json["error"] = report.error;
        return json;
    }
    json["kind"] = report.empty ? "nothing" : report.kind;
    json["size"] = report.bytes;
    json["slices"] = report.parts;
    json["files"] = report.files;
    json["seconds"] = report.seconds;
    json["flagged"] = nlohmann::json::array();
    for (const auto& entry : report.flagged) {
        json["flagged"].push_back({{"name", entry.name}, {"why", entry.why}});
    }
    json["removed"] = report.removed;
    json["marked"] = report.marked;
    json["copied"] = report.copied;
    json["warnings"] = report.warnings;
    return json;
}

}  // namespace

void PrintAsJson(const std::vector<Report>& reports) {
    nlohmann::json rows = nlohmann::json::array();
    for (const Report& report : reports) rows.push_back(Json(report));
    PrintJson(rows);
}

}  // namespace backup2_admin
