/// What the panel knows: users, storages, plans, database servers. One SQLite file, mode 0600,
/// because it holds storage tokens and server passwords in the clear.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

struct sqlite3;

namespace panel {

constexpr char kStorePath[] = "var/backup2_panel.db";
/// What a plan may say about which backups stay: so many of the last, of days, weeks, ...
constexpr const char* kKeepRules[] = {"last", "daily", "weekly", "monthly", "yearly"};
constexpr int kMostKept = 9999;

struct User {
    std::string name;
    int64_t uid = 0;
    std::string root;           ///< absolute; "" for an administrator without files
    std::string password_hash;  ///< "" = cannot log in
    bool admin = false;
    std::string plan;                   ///< "" = none
    std::vector<std::string> folders;   ///< relative to root
    std::vector<std::string> excludes;  ///< file patterns
};

struct Storage {
    std::string user;   ///< "" = the administrator's
    std::string token;  ///< with arch_password: a secret
    std::string slice_size, size_limit, count_limit;
    std::string local_dir;
};

struct DatabaseServer {
    std::string name, type;  ///< type: mysql | postgresql
    std::string socket, host, port, login, password;
};

struct Database {
    std::string user, server, name;
    std::string owner, owner_password;  ///< both may be ""
    bool wanted = false;                ///< only a document names it: see Store::WantDatabase
};

struct Plan {
    std::string name, slice_size;
    std::vector<std::string> excludes, exclude_databases;
    std::map<std::string, int64_t>
        keep;  ///< rule of kKeepRules -> how many; rules that are off lack
};

/// One connection to the file; every request opens its own, so that threads share nothing.
/// Failures throw vel_err::Error: "store" (the file, SQLite's text), "missed" or "exists" with the
/// kind of the object and its name. Nothing is changed by a call that throws.
class Store {
public:
    Store();  ///< creates file and tables when missing
    ~Store();
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    void AddUser(const User& user);  ///< throws "exists"
    void SetPassword(const std::string& name, const std::string& hash);
    void RemoveUser(const std::string& name);  ///< with his storage and database entries
    /// Folders, patterns and plan of a user, and what is kept of his document ("" nothing).
    void ChangeUser(const User& user, const std::string& kept_data);
    std::string KeptData(const std::string& user);
    std::optional<User> FindUser(const std::string& name);
    User GetUser(const std::string& name);  ///< throws "missed"
    std::vector<User> Users();

    void SetStorage(const Storage& storage);  ///< replaces that user's
    void RemoveStorage(const std::string& user);
    std::optional<Storage> FindStorage(const std::string& user);
    std::vector<Storage> UserStorages();  ///< all but the administrator's

    void AddServer(const DatabaseServer& server);
    void RemoveServer(const std::string& name);  ///< with the entries of its databases
    DatabaseServer GetServer(const std::string& name);
    std::vector<DatabaseServer> Servers();

    /// As the administrator says: database and owner are the user's from now on.
    void AddDatabase(const Database& database);
    void RemoveDatabase(const Database& database);             ///< by user, server and name
    std::vector<Database> Databases(const std::string& user);  ///< also wanted ones

    /// What a document names is a wish: nobody's, and no reason to take what bears that name, until
    /// a restore has made it on the server. Throws "exists" when somebody has it.
    void WantDatabase(const Database& database);
    /// A restore has made the database that was wanted: it is the user's from now on. Throws
    /// "missed" when he does not want it, "exists" when somebody has it.
    void MadeDatabase(const Database& database);
    void UnmadeDatabase(const Database& database);  ///< it has gone again: it is wanted once more

    /// A restore has made an account that was not there: it is the user's from now on.
    void MadeAccount(const std::string& user, const std::string& server, const std::string& name);
    /// Pairs of server and name: what restores made for him, and the owners of his databases.
    std::set<std::pair<std::string, std::string>> Accounts(const std::string& user);

    void SetPlan(const Plan& plan);  ///< replaces the one of that name
    void AssignPlan(const std::string& plan, const std::string& user);
    void RemovePlan(const std::string& name);
    std::optional<Plan> FindPlan(const std::string& name);
    std::vector<Plan> Plans();

    void SetDist(const std::string& dist);
    std::string Dist();  ///< code of the panel's edition, "3" unless set
    void SetLocked(bool locked);
    bool Locked();

private:
    class Transaction;
    bool Unwant(const Database& database);
    std::map<std::string, int64_t> Keep(const std::string& plan);
    void SetKeep(const Plan& plan);
    std::vector<std::string> List(const std::string& kind, const std::string& owner);
    void SetList(const std::string& kind, const std::string& owner,
                 const std::vector<std::string>& texts);
    void SetSetting(const std::string& name, const std::string& value);
    std::string Setting(const std::string& name);
    void MustChange(const std::string& kind, const std::string& name);

    std::unique_ptr<sqlite3, int (*)(sqlite3*)> db_;
};

}  // namespace panel
