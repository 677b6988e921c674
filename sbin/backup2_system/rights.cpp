#include <algorithm>

#include "vel/str.h"

#include "sbin/backup2_system/database.h"

namespace backup2_system {

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
