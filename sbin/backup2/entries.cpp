#include "sbin/backup2/entries.h"

#include <map>
#include <set>
#include <stdexcept>

#include "vel/str.h"
#include "vel/vel_proc.h"

#include "backup_common/backup2_misc.h"

namespace backup2_admin {
namespace {

// Fields of a line, see docs/formats.md.
constexpr std::size_t kFlags = 12, kName = 13, kFields = 15;

std::vector<std::string> Fields(const std::string& line) {
    std::vector<std::string> fields(1);
    for (const char c : line) {
        if (c == '\t') {
            fields.emplace_back();
        } else {
            fields.back() += c;
        }
    }
    return fields;
}

/// A listing is a gzip'ed tar with one member: the system's own tar reads it.
void EachEntry(const std::string& index,
               const std::function<void(const std::string& flags, const std::string& name)>& each) {
    vel_proc::Execute tar({"tar", "-xzOf", index, "listing"}, vel_proc::kStream);
    std::string line;
    bool complete = false;
    while (std::getline(tar.Out(), line)) {
        complete = str::StartsWith(line, "#end ");
        if (str::StartsWith(line, "#")) continue;
        const auto fields = Fields(line);
        if (fields.size() != kFields) throw std::runtime_error(index + ": broken listing");
        each(fields[kFlags], backup2::DecodeFileName(fields[kName]));
    }
    if (tar.Result() != 0 || !complete) throw std::runtime_error(index + ": broken listing");
}

}  // namespace

std::vector<FlaggedEntry> FlaggedEntries(const std::string& index) {
    static const std::map<char, std::string> kWhy = {{'c', "changed while it was read"},
                                                     {'u', "unreadable"},
                                                     {'v', "vanished while it was read"},
                                                     {'n', "belongs to another user"}};
    std::vector<FlaggedEntry> found;
    EachEntry(index, [&](const std::string& flags, const std::string& name) {
        for (const char flag : flags) {
            const auto why = kWhy.find(flag);
            if (why != kWhy.end()) found.push_back({name, why->second});
        }
    });
    return found;
}

std::vector<std::string> TopNames(const std::string& index) {
    std::set<std::string> names;
    EachEntry(index, [&](const std::string&, const std::string& name) {
        const std::string top = name.substr(0, name.find('/'));
        if (top != "." && top != ".system") names.insert(top);
    });
    return {names.begin(), names.end()};
}

}  // namespace backup2_admin
