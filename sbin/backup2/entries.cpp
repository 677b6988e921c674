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
constexpr std::size_t kSize = 4, kTime = 5, kFlags = 12, kName = 13, kTarget = 14, kFields = 15;

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

ListedEntry Parse(const std::vector<std::string>& fields) {
    ListedEntry entry;
    entry.type = fields[0].empty() ? '?' : fields[0][0];
    entry.size = static_cast<uint64_t>(str::Int64(fields[kSize]));
    entry.mtime = str::Int64(fields[kTime]);
    entry.flags = fields[kFlags];
    entry.name = backup2::DecodeFileName(fields[kName]);
    entry.target = backup2::DecodeFileName(fields[kTarget]);
    return entry;
}

}  // namespace

std::string ListedEntry::Flaw() const {
    static const std::map<char, std::string> kWhy = {{'c', "changed while it was read"},
                                                     {'u', "unreadable"},
                                                     {'v', "vanished while it was read"},
                                                     {'n', "belongs to another user"}};
    for (const char flag : flags) {
        const auto why = kWhy.find(flag);
        if (why != kWhy.end()) return why->second;
    }
    return "";
}

/// A listing is a gzip'ed tar with one member: the system's own tar reads it.
void EachListedEntry(const std::string& index,
                     const std::function<void(const ListedEntry&)>& each) {
    vel_proc::Execute tar({"tar", "-xzOf", index, "listing"}, vel_proc::kStream);
    std::string line;
    bool complete = false;
    while (std::getline(tar.Out(), line)) {
        complete = str::StartsWith(line, "#end ");
        if (str::StartsWith(line, "#")) continue;
        const auto fields = Fields(line);
        if (fields.size() != kFields) throw std::runtime_error(index + ": broken listing");
        each(Parse(fields));
    }
    if (tar.Result() != 0 || !complete) throw std::runtime_error(index + ": broken listing");
}

std::vector<FlaggedEntry> FlaggedEntries(const std::string& index) {
    std::vector<FlaggedEntry> found;
    EachListedEntry(index, [&](const ListedEntry& entry) {
        const std::string why = entry.Flaw();
        if (!why.empty()) found.push_back({entry.name, why});
    });
    return found;
}

std::vector<std::string> TopNames(const std::string& index) {
    std::set<std::string> names;
    EachListedEntry(index, [&](const ListedEntry& entry) {
        const std::string top = entry.name.substr(0, entry.name.find('/'));
        if (top != "." && top != ".system") names.insert(top);
    });
    return {names.begin(), names.end()};
}

}  // namespace backup2_admin
