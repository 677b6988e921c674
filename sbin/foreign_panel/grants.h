/// Statements that make database users and give them rights, as other panels keep them.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

namespace foreign_panel {

struct Grant {
    std::string database, host, privileges;  ///< privileges in upper case, ", " between them
};

struct DatabaseUser {
    std::set<std::string> hosts;
    std::string password;  ///< as the server keeps it, "" when the statements do not say it
    std::vector<Grant> grants;
};

using DatabaseUsers = std::map<std::string, DatabaseUser>;

/// Adds what the statements of `text` say. Statements that are not understood (or too many) are
/// added to `bad`, without the passwords in them. Nothing is executed.
void ReadMysqlGrants(const std::string& text, DatabaseUsers& users, std::vector<std::string>& bad);
void ReadPostgresqlGrants(const std::string& text, DatabaseUsers& users,
                          std::vector<std::string>& bad);

}  // namespace foreign_panel
