#include "sbin/backup2/limits.h"

namespace backup2_admin {

std::map<std::string, std::string> KeepRules(const vel_xml::Xml& settings) {
    std::map<std::string, std::string> keep;
    const auto node = settings.GetNode("/doc/keep");
    for (const char* rule : kKeepRules) {
        if (const std::string count = node.GetProp(rule); !count.empty()) keep[rule] = count;
    }
    return keep;
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
