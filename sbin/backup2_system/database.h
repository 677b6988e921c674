/// Dumps of one database and their way back.
#pragma once

#include <functional>
#include <set>
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
    std::string server, type;           ///< the panel's name of it; mysql | postgresql
    std::string socket, host, port;     ///< one of socket and host
    std::string login, password;        ///< may dump it and make databases
    std::string owner, owner_password;  ///< the account that uses it; may be ""
    std::string database;
    std::vector<Account> accounts;
    bool wanted = false;  ///< a document names it: it is nobody's yet, what is there a stranger's
};

/// What the panel knows as the user's on its servers.
struct Own {
    std::set<std::string> databases, accounts;  ///< "SERVER.NAME"
    bool HasAccount(const std::string& server, const std::string& name) const {
        return accounts.count(server + "." + name) > 0;
    }
};

/// That, and how the panel is told of what a restore has made; errors of the panel pass through.
struct Possession {
    Own own;
    std::function<void(const std::string& name)> account_made;
    /// `made` false: the database has gone again.
    std::function<void(const std::string& owner, bool made)> database_made;
};

constexpr char kStrangers[] = "it is there already and not the user's";
constexpr char kServicesName[] = "restores use such names themselves";

/// Puts the dump back, see Server::restore, with the accounts of this user and no others: an
/// account of his is made where it is missing, with the password of its form (locked without one);
/// the password of one that is there stays. An account of somebody else is left out, one text of
/// the answer for each; a database of somebody else is an error. A wanted database is made, and
/// becomes the user's; it is not there when this throws.
std::vector<std::string> RestoreDatabase(Access access, const Possession& of_user,
                                         vel_file::ResHandle dump);
/// Why the user cannot have the account of this name on the server of `access`; "" when he can.
std::string ProblemOfAccount(const Access& access, const std::string& name, const Own& own);

/// What is done on the servers of one type. All of it throws vel_err::Error("database", step,
/// reason); the reason holds no secret.
struct Server {
    /// Writes a complete dump, checked by the program's status and its end mark.
    void (*dump)(const Access& access, vel_file::ResHandle out);
    /// Replaces the database by the dump, and gives each account its rights in it; words that are
    /// no right in a database are left out. A dump that is cut or cannot be loaded leaves the old
    /// database as it was. The dump is a stranger's: it is loaded by a program and an account that
    /// can do nothing but change this one database.
    void (*restore)(const Access& access, vel_file::ResHandle dump);
    bool (*has_database)(const Access& access);                          ///< access.database
    bool (*has_account)(const Access& access, const std::string& name);  ///< on whatever host
    void (*make_account)(const Access& access, const Account& account);  ///< where it is missing
    void (*make_database)(const Access& access);  ///< empty; throws when it is there
    void (*drop_database)(const Access& access);
};
/// Throws vel_err::Error("database", "type", type).
const Server& ServerOf(const std::string& type);

namespace mysql {
void Dump(const Access& access, vel_file::ResHandle out);
void Restore(const Access& access, vel_file::ResHandle dump);
bool HasDatabase(const Access& access);
bool HasAccount(const Access& access, const std::string& name);
void MakeAccount(const Access& access, const Account& account);
void MakeDatabase(const Access& access);
void DropDatabase(const Access& access);
}  // namespace mysql

namespace postgresql {
void Dump(const Access& access, vel_file::ResHandle out);
void Restore(const Access& access, vel_file::ResHandle dump);
bool HasDatabase(const Access& access);
bool HasAccount(const Access& access, const std::string& name);
void MakeAccount(const Access& access, const Account& account);
void MakeDatabase(const Access& access);
void DropDatabase(const Access& access);
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
