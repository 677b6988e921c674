#include <algorithm>

#include "vel/str.h"
#include "vel/vel_hash.h"

#include "sbin/backup2_system/database.h"

namespace backup2_system {

std::string ShortHash(const std::string& database) {
    const std::string digest = vel_hash::Digest(vel_hash::HashType::Sha256, database);
    return str::hex::Encode(digest).substr(0, 16);
}

bool IsServiceName(const std::string& name) {
    static const std::vector<std::string> kBeginnings = {"b2_scratch_", "b2_restore_", "b2_owner_",
                                                         "b2_new_", "b2_old_"};
    return std::any_of(kBeginnings.begin(), kBeginnings.end(), [&name](const auto& beginning) {
        return str::StartsWith(str::Lower(name), beginning);
    });
}

std::string KnownRights(const std::string& rights, const std::vector<std::string>& known) {
    std::vector<std::string> words;
    str::Split(str::Lower(rights), ",", words);
    std::string found;
    for (const std::string& word : words) {
        const std::string right = str::Trim(word) == "all" ? "all privileges" : str::Trim(word);
        if (std::find(known.begin(), known.end(), right) == known.end()) continue;
        if (right == "all privileges") return right;
        str::Append(found, right, ", ");
    }
    return found;
}

}  // namespace backup2_system
