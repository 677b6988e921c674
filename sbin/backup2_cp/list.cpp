#include <iostream>
#include <list>

#include <nlohmann/json.hpp>

#include "backup_common/backup2_misc.h"

#include "sbin/backup2_cp/actions.h"
#include "sbin/backup2_cp/names.h"

namespace backup2_cp {

void List(const Target& target, const Options& options) {
    if (!options.name.empty()) CheckStorageName(options.name);
    std::list<std::string> names;
    target.Retry("listing '" + options.name + "' of " + target.Describe(), [&] {
        names.clear();
        target.Open()->List(names, options.name);
    });
    names.sort();
    for (auto& name : names) name = backup2::EncodeFileName(name);
    if (options.json) {
        using Json = nlohmann::ordered_json;
        std::cout << Json{{"names", names}}.dump(-1, ' ', false, Json::error_handler_t::replace)
                  << "\n";
        return;
    }
    for (const auto& name : names) std::cout << name << "\n";
}

}  // namespace backup2_cp
