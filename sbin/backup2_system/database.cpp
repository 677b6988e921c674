#include "sbin/backup2_system/database.h"

#include <algorithm>

#include "vel/vel_err.h"
#include "vel/vel_log.h"

namespace backup2_system {
namespace {

const vel_log::Module logger("backup2_system");

/// Why the account cannot be used, "" when it can: it is the user's, or has just been made.
std::string ProblemOf(const Access& access, const Account& account, const Server& server,
                      const Possession& of_user) {
    const bool own = of_user.own.HasAccount(access.server, account.name);
    const std::string why = ProblemOfAccount(access, account.name, of_user.own);
    if (!why.empty()) return why;
    server.make_account(access, account);
    if (!own) of_user.account_made(account.name);
    return "";
}

/// Leaves the accounts that are the user's, made where they are missing.
std::vector<std::string> MakeAccounts(Access& access, const Server& server,
                                      const Possession& of_user) {
    std::vector<std::string> left_out;
    std::vector<Account> wanted = std::move(access.accounts);
    access.accounts.clear();
    const auto is_owner = [&access](const Account& account) {
        return account.name == access.owner;
    };
    // What the panel says of an owner is so; what a document says is looked at like any account.
    if (access.wanted && !access.owner.empty() &&
        std::none_of(wanted.begin(), wanted.end(), is_owner))
        wanted.push_back({access.owner, {}, "", "", {{"", "ALL PRIVILEGES"}}});
    for (const Account& account : wanted) {
        const std::string why = ProblemOf(access, account, server, of_user);
        if (why.empty()) {
            access.accounts.push_back(account);
            continue;
        }
        left_out.push_back("account " + account.name + ": " + why);
        if (is_owner(account)) access.owner.clear();
    }
    return left_out;
}

/// Made anew, or not at all: what bears the name is not the user's.
void RestoreWanted(const Access& access, const Server& server, const Possession& of_user,
                   vel_file::ResHandle dump) {
    server.make_database(access);
    try {
        of_user.database_made(access.owner, true);
        server.restore(access, dump);
    } catch (const std::exception&) {
        try {
            server.drop_database(access);
            of_user.database_made(access.owner, false);
        } catch (const std::exception& e) {
            logger.Write(4, "Cannot tidy up after a restore: %s", e.what());
        }
        throw;
    }
}

}  // namespace

const Server& ServerOf(const std::string& type) {
    static const Server kMysql = {mysql::Dump,        mysql::Restore,     mysql::HasDatabase,
                                  mysql::HasAccount,  mysql::MakeAccount, mysql::MakeDatabase,
                                  mysql::DropDatabase};
    static const Server kPostgresql = {postgresql::Dump,        postgresql::Restore,
                                       postgresql::HasDatabase, postgresql::HasAccount,
                                       postgresql::MakeAccount, postgresql::MakeDatabase,
                                       postgresql::DropDatabase};
    if (type != "mysql" && type != "postgresql") throw vel_err::Error("database", "type", type);
    return type == "mysql" ? kMysql : kPostgresql;
}

std::string ProblemOfAccount(const Access& access, const std::string& name, const Own& own) {
    if (IsServiceName(name)) return kServicesName;
    if (own.HasAccount(access.server, name)) return "";
    return ServerOf(access.type).has_account(access, name) ? kStrangers : "";
}

std::vector<std::string> RestoreDatabase(Access access, const Possession& of_user,
                                         vel_file::ResHandle dump) {
    const Server& server = ServerOf(access.type);
    std::vector<std::string> left_out = MakeAccounts(access, server, of_user);
    access.wanted ? RestoreWanted(access, server, of_user, dump) : server.restore(access, dump);
    return left_out;
}

}  // namespace backup2_system
