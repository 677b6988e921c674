#include "sbin/foreign_panel/crontab.h"

#include <algorithm>
#include <cctype>
#include <vector>

#include "vel/str.h"

#include "sbin/foreign_panel/values.h"

namespace foreign_panel {
namespace {

constexpr char kBlanks[] = " \t";

std::string TakeField(std::string& line) {
    const std::size_t end = std::min(line.find_first_of(kBlanks), line.size());
    const std::string field = line.substr(0, end);
    line.erase(0, std::min(line.find_first_not_of(kBlanks, end), line.size()));
    return field;
}

bool IsSchedule(const std::string& field) {
    return !field.empty() && std::all_of(field.begin(), field.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) ||
               std::string_view("*,-/").find(c) != std::string_view::npos;
    });
}

/// "NAME=value" or "NAME = value", the value perhaps in quotes; "" when the line is none.
std::string Setting(const std::string& line) {
    const std::size_t sign = line.find('=');
    if (sign == std::string::npos) return "";
    const std::string name = str::Trim(line.substr(0, sign));
    const bool word = !name.empty() && !std::isdigit(static_cast<unsigned char>(name[0])) &&
                      std::all_of(name.begin(), name.end(), [](char c) {
                          return std::isalnum(static_cast<unsigned char>(c)) || c == '_';
                      });
    std::string value = str::Trim(line.substr(sign + 1));
    const bool quoted =
        value.size() >= 2 && (value[0] == '"' || value[0] == '\'') && value.back() == value[0];
    if (quoted) value = value.substr(1, value.size() - 2);
    return word ? name + "=" + value : "";
}

/// The schedule is cut off the line; "" when it has none.
std::string TakeSchedule(std::string& line) {
    std::string schedule = TakeField(line);
    if (str::StartsWith(schedule, "@")) return IsSchedule(schedule.substr(1)) ? schedule : "";
    if (!IsSchedule(schedule)) return "";
    for (int field = 1; field < 5; ++field) {
        const std::string next = TakeField(line);
        if (!IsSchedule(next)) return "";
        schedule += " " + next;
    }
    return schedule;
}

}  // namespace

void AddCrontab(Job& job, const std::string& text) {
    std::vector<std::string> lines;
    str::Split(text, "\n", lines);
    for (const std::string& raw : lines) {
        const std::string whole = Line(raw);
        std::string line = whole;
        if (str::Trim(raw).empty() || line[0] == '#') continue;
        if (const std::string setting = Setting(line); !setting.empty()) {
            job.document.Group("cron").Param("env", setting);
            continue;
        }
        const std::string schedule = line.empty() ? "" : TakeSchedule(line);
        if (schedule.empty() || line.empty()) {
            job.Lost("cron", str::Trim(raw).substr(0, 200), "no line of a crontab");
            continue;
        }
        job.document.Add("cron", str::Str(static_cast<uint64_t>(job.document.Count("cron") + 1)))
            .Param("schedule", schedule)
            .Param("command", line);
        job.Carried("cron", whole.substr(0, 200));
    }
}

}  // namespace foreign_panel
