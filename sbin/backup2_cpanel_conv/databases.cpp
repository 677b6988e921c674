#include "vel/str.h"

#include "sbin/backup2_cpanel_conv/collected.h"
#include "sbin/foreign_panel/grants.h"
#include "sbin/foreign_panel/values.h"

namespace cpanel {
namespace {

using namespace foreign_panel;

/// The word behind "CHARACTER SET" or "COLLATE" in the statement that made the database.
std::string WordBehind(const std::string& text, const std::string& mark) {
    const std::size_t at = text.find(mark);
    if (at == std::string::npos) return "";
    std::string rest = str::Trim(text.substr(at + mark.size(), 100));
    rest = rest.substr(0, rest.find_first_of(" ;*/\n\r"));
    return IsName(rest) ? rest : "";
}

class Databases {
public:
    Databases(Job& job, const Account& account, std::string type,
              const std::map<std::string, std::optional<Dump>>& dumps)
        : job_(job), account_(account), type_(std::move(type)), dumps_(dumps) {}

    DatabaseUsers users;

    void Convert(const Collected& from) {
        FindOwners();
        for (const auto& [name, dump] : dumps_) {
            PanelObject object = AddDatabase(name);
            const std::string& made = from.Text("mysql/" + name + ".create");
            object.Param("charset", WordBehind(made, "CHARACTER SET"));
            object.Param("collation", WordBehind(made, "COLLATE"));
            if (dump) dump->Describe(object);
            if (dump) job_.Carried("database", name);
        }
        for (const auto& [name, user] : users) AddUser(name, user);
    }

private:
    PanelObject AddDatabase(const std::string& name) {
        PanelObject object = job_.document.Add("db", name + "->" + type_ + "->" + account_.here);
        object.Param("name", name).Param("type", type_).Param("owner", Owner(name));
        return object;
    }
    /// The first user with all rights, but for the account's own log-in, which has them on all.
    void FindOwners() {
        for (const auto& [name, user] : users) {
            if (!IsName(name)) continue;
            for (const Grant& grant : user.grants) {
                if (grant.privileges != "ALL PRIVILEGES") continue;
                const auto [owner, fresh] = owners_.emplace(grant.database, name);
                if (!fresh && owner->second == account_.there) owner->second = name;
            }
        }
    }
    std::string Owner(const std::string& database) const {
        const auto owner = owners_.find(database);
        return owner == owners_.end() ? "" : owner->second + "->" + type_;
    }
    void AddUser(const std::string& name, const DatabaseUser& user) {
        if (!IsName(name)) return job_.Lost("database user", name, "its name cannot be used here");
        PanelObject object = job_.document.Add("db.user", name + "->" + type_);
        object.Param("name", name).Param("type", type_);
        job_.Secret(object, FromDatabase(user.password, type_), "database user", name);
        for (const std::string& host : user.hosts) object.Param("host", Line(host));
        for (const Grant& grant : user.grants) AddGrant(object, name, grant);
        job_.Carried("database user", name);
    }
    void AddGrant(PanelObject& object, const std::string& user, const Grant& grant) {
        if (dumps_.count(grant.database) > 0)
            object.Grant(grant.database, Line(grant.host), Line(grant.privileges));
        else if (str::EndsWith(grant.database, "%"))
            AddGrants(object, grant.database.substr(0, grant.database.size() - 1), grant);
        else
            job_.Lost("database user", user,
                      "rights on " + Line(grant.database) + ", which the archive does not hold");
    }
    /// The account's own log-in has rights in all that begins with its name, also in what it makes.
    void AddGrants(PanelObject& object, const std::string& prefix, const Grant& grant) {
        for (auto it = dumps_.lower_bound(prefix);
             it != dumps_.end() && str::StartsWith(it->first, prefix); ++it)
            object.Grant(it->first, Line(grant.host), Line(grant.privileges));
    }

    Job& job_;
    const Account& account_;
    std::string type_;
    const std::map<std::string, std::optional<Dump>>& dumps_;
    std::map<std::string, std::string> owners_;  // by database
};

void ReportBad(Job& job, const std::string& file, const std::vector<std::string>& bad) {
    for (const std::string& statement : bad)
        job.Lost("database user", file, "not understood: " + statement);
}

}  // namespace

void ConvertDatabases(Job& job, const Collected& from, const Account& account) {
    std::vector<std::string> bad;
    Databases mysql(job, account, "mysql", from.mysql);
    ReadMysqlGrants(from.Text("mysql.sql"), mysql.users, bad);
    ReportBad(job, "mysql.sql", bad);
    mysql.Convert(from);
    bad.clear();
    Databases postgresql(job, account, "postgresql", from.postgresql);
    for (const char* file : {"psql_users.sql", "psql/psql_users.sql", "psql/1psql_users.sql",
                             "psql_grants.sql", "psql/psql_grants.sql"})
        ReadPostgresqlGrants(from.Text(file), postgresql.users, bad);
    ReportBad(job, "psql", bad);
    postgresql.Convert(from);
}

}  // namespace cpanel
