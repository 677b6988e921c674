#include "sbin/backup2/limits.h"

#include <stdexcept>

#include "vel/str.h"
#include "vel/vel_tool.h"

#include "backup_common/backup2_qortar.h"

namespace backup2_admin {

std::map<std::string, std::string> KeepRules(const vel_xml::Xml& settings) {
    std::map<std::string, std::string> keep;
    const auto node = settings.GetNode("/doc/keep");
    for (const char* rule : kKeepRules) {
        if (const std::string count = node.GetProp(rule); !count.empty()) keep[rule] = count;
    }
    return keep;
}

/// Why, the copy tool has told its output, which nobody kept.
void HoldLimits(vel_xml::XmlNode storage, const std::string& user, const std::string& date) {
    const std::string whose = storage.GetProp("user").empty() ? "" : " --private";
    vel_xml::Xml own;  // the caller's document must not name the user as the storage's owner
    auto limited = own.GetRoot().AppendChild(storage);
    limited.SetProp("user", user);
    const int status = backup2::BackupSizeControl(limited, date).Result();
    if (status == vel_tool::kDone) return;
    const std::string more = ", \"backup2 limit " + user + whose + " --dry-run\" tells why";
    if (status == vel_tool::kWarnings) throw std::runtime_error("they cannot be met" + more);
    throw std::runtime_error("the copy tool ended with status " + str::Str(int64_t{status}) + more);
}

std::vector<std::string> LimitCommand(const Site& site, const std::string& user,
                                      const std::string& date, const Limits& limits) {
    std::vector<std::string> argv = {"backup2_cp",   "--server",  "--path",
                                     site.local_dir, "--storage", user};
    const auto add = [&](const std::string& option, const std::string& value) {
        if (!value.empty()) argv.insert(argv.end(), {option, value});
    };
    add("--date", date);
    add("--size-limit", limits.size);
    add("--count-limit", limits.count);
    for (const auto& [rule, count] : limits.keep) add("--keep-" + rule, count);
    return argv;
}

}  // namespace backup2_admin
