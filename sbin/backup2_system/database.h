/// Dumps of one database and their way back.
#pragma once

#include <string>
#include <vector>

#include "vel/res_handle.h"

namespace backup2_system {

/// An account that the panel wants to have rights in a database.
struct Account {
    struct Grant {
        std::string host;    ///< mysql: where this right holds; "" on all hosts of the account
        std::string rights;  ///< "ALL PRIVILEGES" or words as "SELECT, INSERT"
    };
    std::string name;
    std::vector<std::string> hosts;  ///< mysql; none: localhost
    std::string form, password;      ///< plain | mysql_native | postgresql_md5 | scram | "" (none)
    std::vector<Grant> grants;
};

/// One database as the panel describes it.
struct Access {
    std::string type;                   ///< mysql | postgresql
    std::string socket, host, port;     ///< one of socket and host
    std::string login, password;        ///< may dump it and make databases
    std::string owner, owner_password;  ///< the account that uses it; may be ""
    std::string database;
    std::vector<Account> accounts;
};

/// All of these throw vel_err::Error("database", step, reason); the reason holds no secret.
///
/// A restore also makes the accounts that are missing, with the password of their form (locked
/// without one), and gives each its rights in this database; passwords of accounts that are there
/// stay. Words that are no right in a database are left out.
namespace mysql {
/// Writes a complete dump, checked by the program's status and its end mark.
void Dump(const Access& access, vel_file::ResHandle out);
/// Replaces the database by the dump. A dump that is cut or cannot be loaded leaves the old
/// database as it was. The dump is a stranger's: it is loaded by a program and an account that can
/// do nothing but change this one database.
void Restore(const Access& access, vel_file::ResHandle dump);
bool HasDatabase(const Access& access);                          ///< is access.database there?
bool HasAccount(const Access& access, const std::string& name);  ///< on whatever host
}  // namespace mysql

namespace postgresql {
void Dump(const Access& access, vel_file::ResHandle out);
void Restore(const Access& access, vel_file::ResHandle dump);
bool HasDatabase(const Access& access);
bool HasAccount(const Access& access, const std::string& name);
}  // namespace postgresql

/// 16 hex digits, the same for a database at all times: ends the names that a restore of it uses.
std::string ShortHash(const std::string& database);
/// Whether restores make databases or accounts of such names for themselves: who had one of them
/// would get what others restore.
bool IsServiceName(const std::string& name);

/// The words of `rights` that are in `known` (lower case), joined by ", ". "all privileges" stands
/// for itself when it is known.
std::string KnownRights(const std::string& rights, const std::vector<std::string>& known);

}  // namespace backup2_system
