/// What a user has outside his files, on its way back: the panel's document of him and dumps of
/// databases.
#pragma once

#include <functional>
#include <string>

namespace backup2_admin {

/// Puts back every file of the folder `dumps` ("TYPE.NAME", root's) through backup2_system: the
/// panel's document first, since it may name the databases that come after it. `host_dist`: the
/// edition of the panel ("" asks it). Prints a line for each, and calls `done` with its name and
/// why it failed ("" it did not). The exit status of the whole.
int RestoreSystem(const std::string& dumps, const std::string& user, const std::string& host_dist,
                  const std::function<void(const std::string&, const std::string&)>& done);

}  // namespace backup2_admin
