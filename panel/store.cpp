#include "panel/store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <type_traits>
#include <utility>

#include <sqlite3.h>

#include "vel/res_handle.h"
#include "vel/vel_err.h"

namespace panel {
namespace {

constexpr char kSchema[] = R"sql(
PRAGMA foreign_keys = ON;
CREATE TABLE IF NOT EXISTS plan (name TEXT PRIMARY KEY, slice_size TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS plan_keep (
  plan TEXT NOT NULL REFERENCES plan (name) ON DELETE CASCADE, rule TEXT NOT NULL,
  count INTEGER NOT NULL, PRIMARY KEY (plan, rule));
CREATE TABLE IF NOT EXISTS user (
  name TEXT PRIMARY KEY, uid INTEGER NOT NULL, root TEXT NOT NULL, password TEXT NOT NULL,
  admin INTEGER NOT NULL, plan TEXT REFERENCES plan (name) ON DELETE SET NULL);
CREATE TABLE IF NOT EXISTS storage (
  user TEXT PRIMARY KEY, token TEXT NOT NULL, slice_size TEXT NOT NULL, size_limit TEXT NOT NULL,
  count_limit TEXT NOT NULL, local_dir TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS server (
  name TEXT PRIMARY KEY, type TEXT NOT NULL, socket TEXT NOT NULL, host TEXT NOT NULL,
  port TEXT NOT NULL, login TEXT NOT NULL, password TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS database (
  user TEXT NOT NULL REFERENCES user (name) ON DELETE CASCADE,
  server TEXT NOT NULL REFERENCES server (name) ON DELETE CASCADE,
  name TEXT NOT NULL, owner TEXT NOT NULL, owner_password TEXT NOT NULL,
  PRIMARY KEY (server, name));
CREATE TABLE IF NOT EXISTS wanted_database (
  user TEXT NOT NULL REFERENCES user (name) ON DELETE CASCADE,
  server TEXT NOT NULL REFERENCES server (name) ON DELETE CASCADE,
  name TEXT NOT NULL, owner TEXT NOT NULL, PRIMARY KEY (user, server, name));
CREATE TABLE IF NOT EXISTS made_account (
  user TEXT NOT NULL REFERENCES user (name) ON DELETE CASCADE,
  server TEXT NOT NULL REFERENCES server (name) ON DELETE CASCADE,
  name TEXT NOT NULL, PRIMARY KEY (server, name));
CREATE TABLE IF NOT EXISTS list (
  kind TEXT NOT NULL, owner TEXT NOT NULL, position INTEGER NOT NULL, text TEXT NOT NULL,
  PRIMARY KEY (kind, owner, position));
CREATE TABLE IF NOT EXISTS kept_data (
  user TEXT PRIMARY KEY REFERENCES user (name) ON DELETE CASCADE, xml TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS setting (name TEXT PRIMARY KEY, value TEXT NOT NULL);
)sql";

constexpr char kUserColumns[] = "SELECT name, uid, root, password, admin, plan FROM user ";
constexpr char kStorageColumns[] =
    "SELECT user, token, slice_size, size_limit, count_limit, local_dir FROM storage ";
constexpr char kServerColumns[] =
    "SELECT name, type, socket, host, port, login, password FROM server ";

[[noreturn]] void Fail(sqlite3* db) {
    throw vel_err::Error("store", kStorePath, sqlite3_errmsg(db));
}

/// One prepared statement; values only ever travel as bound parameters.
class Statement {
public:
    template <class... A>
    Statement(sqlite3* db, const std::string& sql, const A&... values)
        : db_(db), statement_(nullptr, sqlite3_finalize) {
        sqlite3_stmt* made = nullptr;
        if (sqlite3_prepare_v2(db, sql.c_str(), -1, &made, nullptr) != SQLITE_OK) Fail(db);
        statement_.reset(made);
        int position = 0;
        (Bind(++position, values), ...);
    }
    bool Step() {
        const int status = sqlite3_step(statement_.get());
        if (status != SQLITE_ROW && status != SQLITE_DONE) Fail(db_);
        return status == SQLITE_ROW;
    }
    std::string Text(int column) {
        const auto* bytes = sqlite3_column_text(statement_.get(), column);
        const int size = sqlite3_column_bytes(statement_.get(), column);
        return bytes ? std::string(reinterpret_cast<const char*>(bytes),
                                   static_cast<std::size_t>(size))
                     : std::string();
    }
    int64_t Int(int column) { return sqlite3_column_int64(statement_.get(), column); }

private:
    template <class T>
    void Bind(int position, const T& value) {
        int status = SQLITE_OK;
        if constexpr (std::is_integral_v<T>) {
            status = sqlite3_bind_int64(statement_.get(), position, static_cast<int64_t>(value));
        } else {
            const std::string text(value);
            status = sqlite3_bind_text(statement_.get(), position, text.data(),
                                       static_cast<int>(text.size()), SQLITE_TRANSIENT);
        }
        if (status != SQLITE_OK) Fail(db_);
    }
    sqlite3* db_;
    std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)> statement_;
};

/// SQLite would create the file by umask; made here it is never readable for others, not even
/// for a moment.
void MakePrivateFile() {
    const vel_file::ResHandle fd(
        ::open(kStorePath, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600));
    if (fd < 0) vel_err::RaiseErrno("open", kStorePath, errno);
    struct stat st {};
    if (::fstat(fd, &st) != 0) vel_err::RaiseErrno("fstat", kStorePath, errno);
    if ((st.st_mode & 0777) != 0600 && ::fchmod(fd, 0600) != 0)
        vel_err::RaiseErrno("fchmod", kStorePath, errno);
}

sqlite3* Open() {
    MakePrivateFile();
    sqlite3* db = nullptr;
    const int status = sqlite3_open_v2(
        kStorePath, &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOFOLLOW | SQLITE_OPEN_NOMUTEX,
        nullptr);
    if (status != SQLITE_OK) {
        sqlite3_close(db);
        throw vel_err::Error("store", kStorePath, sqlite3_errstr(status));
    }
    return db;
}

User ReadUser(Statement& row) {
    User user;
    user.name = row.Text(0);
    user.uid = row.Int(1);
    user.root = row.Text(2);
    user.password_hash = row.Text(3);
    user.admin = row.Int(4) != 0;
    user.plan = row.Text(5);
    return user;
}

Storage ReadStorage(Statement& row) {
    return {row.Text(0), row.Text(1), row.Text(2), row.Text(3), row.Text(4), row.Text(5)};
}

DatabaseServer ReadServer(Statement& row) {
    return {row.Text(0), row.Text(1), row.Text(2), row.Text(3),
            row.Text(4), row.Text(5), row.Text(6)};
}

}  // namespace

/// Rolled back unless Commit was reached.
class Store::Transaction {
public:
    explicit Transaction(sqlite3* db) : db_(db) { Statement(db_, "BEGIN IMMEDIATE").Step(); }
    ~Transaction() {
        if (open_) sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
    }
    void Commit() {
        Statement(db_, "COMMIT").Step();
        open_ = false;
    }

private:
    sqlite3* db_;
    bool open_ = true;
};

Store::Store() : db_(Open(), sqlite3_close) {
    sqlite3_busy_timeout(db_.get(), 10000);
    if (sqlite3_exec(db_.get(), kSchema, nullptr, nullptr, nullptr) != SQLITE_OK) Fail(db_.get());
}

Store::~Store() = default;

std::vector<std::string> Store::List(const std::string& kind, const std::string& owner) {
    Statement rows(db_.get(),
                   "SELECT text FROM list WHERE kind = ? AND owner = ? ORDER BY position", kind,
                   owner);
    std::vector<std::string> texts;
    while (rows.Step()) texts.push_back(rows.Text(0));
    return texts;
}

void Store::SetList(const std::string& kind, const std::string& owner,
                    const std::vector<std::string>& texts) {
    Statement(db_.get(), "DELETE FROM list WHERE kind = ? AND owner = ?", kind, owner).Step();
    int64_t position = 0;
    for (const std::string& text : texts)
        Statement(db_.get(), "INSERT INTO list VALUES (?, ?, ?, ?)", kind, owner, position++, text)
            .Step();
}

std::map<std::string, int64_t> Store::Keep(const std::string& plan) {
    Statement rows(db_.get(), "SELECT rule, count FROM plan_keep WHERE plan = ?", plan);
    std::map<std::string, int64_t> keep;
    while (rows.Step()) keep[rows.Text(0)] = rows.Int(1);
    return keep;
}

void Store::SetKeep(const Plan& plan) {
    Statement(db_.get(), "DELETE FROM plan_keep WHERE plan = ?", plan.name).Step();
    for (const auto& [rule, count] : plan.keep)
        Statement(db_.get(), "INSERT INTO plan_keep VALUES (?, ?, ?)", plan.name, rule, count)
            .Step();
}

void Store::MustChange(const std::string& kind, const std::string& name) {
    if (sqlite3_changes(db_.get()) == 0) throw vel_err::Error("missed", kind, name);
}

void Store::AddUser(const User& user) {
    Transaction transaction(db_.get());
    Statement(
        db_.get(),
        "INSERT OR IGNORE INTO user (name, uid, root, password, admin) VALUES (?, ?, ?, ?, ?)",
        user.name, user.uid, user.root, user.password_hash, user.admin)
        .Step();
    if (sqlite3_changes(db_.get()) == 0) throw vel_err::Error("exists", "user", user.name);
    SetList("folder", user.name, user.folders);
    SetList("exclude", user.name, user.excludes);
    transaction.Commit();
}

void Store::SetPassword(const std::string& name, const std::string& hash) {
    Statement(db_.get(), "UPDATE user SET password = ? WHERE name = ?", hash, name).Step();
    MustChange("user", name);
}

void Store::RemoveUser(const std::string& name) {
    Transaction transaction(db_.get());
    SetList("folder", name, {});
    SetList("exclude", name, {});
    Statement(db_.get(), "DELETE FROM storage WHERE user = ?", name).Step();
    Statement(db_.get(), "DELETE FROM user WHERE name = ?", name).Step();
    MustChange("user", name);
    transaction.Commit();
}

void Store::ChangeUser(const User& user, const std::string& kept_data) {
    Transaction transaction(db_.get());
    Statement(db_.get(), "UPDATE user SET plan = NULLIF(?, '') WHERE name = ?", user.plan,
              user.name)
        .Step();
    MustChange("user", user.name);
    SetList("folder", user.name, user.folders);
    SetList("exclude", user.name, user.excludes);
    Statement(db_.get(), "DELETE FROM kept_data WHERE user = ?", user.name).Step();
    if (!kept_data.empty())
        Statement(db_.get(), "INSERT INTO kept_data VALUES (?, ?)", user.name, kept_data).Step();
    transaction.Commit();
}

std::string Store::KeptData(const std::string& user) {
    Statement row(db_.get(), "SELECT xml FROM kept_data WHERE user = ?", user);
    return row.Step() ? row.Text(0) : "";
}

std::optional<User> Store::FindUser(const std::string& name) {
    Statement row(db_.get(), std::string(kUserColumns) + "WHERE name = ?", name);
    if (!row.Step()) return std::nullopt;
    User user = ReadUser(row);
    user.folders = List("folder", name);
    user.excludes = List("exclude", name);
    return user;
}

User Store::GetUser(const std::string& name) {
    if (auto user = FindUser(name)) return *std::move(user);
    throw vel_err::Error("missed", "user", name);
}

std::vector<User> Store::Users() {
    Statement rows(db_.get(), std::string(kUserColumns) + "ORDER BY name");
    std::vector<User> users;
    while (rows.Step()) users.push_back(ReadUser(rows));
    for (User& user : users) {
        user.folders = List("folder", user.name);
        user.excludes = List("exclude", user.name);
    }
    return users;
}

void Store::SetStorage(const Storage& s) {
    if (!s.user.empty()) GetUser(s.user);
    Statement(db_.get(), "INSERT OR REPLACE INTO storage VALUES (?, ?, ?, ?, ?, ?)", s.user,
              s.token, s.slice_size, s.size_limit, s.count_limit, s.local_dir)
        .Step();
}

void Store::RemoveStorage(const std::string& user) {
    Statement(db_.get(), "DELETE FROM storage WHERE user = ?", user).Step();
    MustChange("storage", user);
}

std::optional<Storage> Store::FindStorage(const std::string& user) {
    Statement row(db_.get(), std::string(kStorageColumns) + "WHERE user = ?", user);
    if (!row.Step()) return std::nullopt;
    return ReadStorage(row);
}

std::vector<Storage> Store::UserStorages() {
    Statement rows(db_.get(), std::string(kStorageColumns) + "WHERE user <> '' ORDER BY user");
    std::vector<Storage> storages;
    while (rows.Step()) storages.push_back(ReadStorage(rows));
    return storages;
}

void Store::AddServer(const DatabaseServer& s) {
    Statement(db_.get(), "INSERT OR IGNORE INTO server VALUES (?, ?, ?, ?, ?, ?, ?)", s.name,
              s.type, s.socket, s.host, s.port, s.login, s.password)
        .Step();
    if (sqlite3_changes(db_.get()) == 0) throw vel_err::Error("exists", "server", s.name);
}

void Store::RemoveServer(const std::string& name) {
    Statement(db_.get(), "DELETE FROM server WHERE name = ?", name).Step();
    MustChange("server", name);
}

DatabaseServer Store::GetServer(const std::string& name) {
    Statement row(db_.get(), std::string(kServerColumns) + "WHERE name = ?", name);
    if (!row.Step()) throw vel_err::Error("missed", "server", name);
    return ReadServer(row);
}

std::vector<DatabaseServer> Store::Servers() {
    Statement rows(db_.get(), std::string(kServerColumns) + "ORDER BY name");
    std::vector<DatabaseServer> servers;
    while (rows.Step()) servers.push_back(ReadServer(rows));
    return servers;
}

void Store::AddDatabase(const Database& d) {
    GetUser(d.user);
    GetServer(d.server);
    Transaction transaction(db_.get());
    Statement(db_.get(), "INSERT OR IGNORE INTO database VALUES (?, ?, ?, ?, ?)", d.user, d.server,
              d.name, d.owner, d.owner_password)
        .Step();
    if (sqlite3_changes(db_.get()) == 0)
        throw vel_err::Error("exists", "database", d.server + "." + d.name);
    Unwant(d);
    Statement(db_.get(), "DELETE FROM made_account WHERE server = ? AND name = ? AND user <> ?",
              d.server, d.owner, d.user)
        .Step();
    transaction.Commit();
}

bool Store::Unwant(const Database& d) {
    Statement(db_.get(), "DELETE FROM wanted_database WHERE user = ? AND server = ? AND name = ?",
              d.user, d.server, d.name)
        .Step();
    return sqlite3_changes(db_.get()) > 0;
}

void Store::WantDatabase(const Database& d) {
    GetUser(d.user);
    GetServer(d.server);
    Statement(db_.get(),
              "INSERT OR REPLACE INTO wanted_database SELECT ?1, ?2, ?3, ?4 WHERE NOT EXISTS "
              "(SELECT 1 FROM database WHERE server = ?2 AND name = ?3)",
              d.user, d.server, d.name, d.owner)
        .Step();
    if (sqlite3_changes(db_.get()) == 0)
        throw vel_err::Error("exists", "database", d.server + "." + d.name);
}

void Store::MadeDatabase(const Database& d) {
    Transaction transaction(db_.get());
    if (!Unwant(d)) throw vel_err::Error("missed", "database", d.server + "." + d.name);
    Statement(db_.get(), "INSERT OR IGNORE INTO database VALUES (?, ?, ?, ?, '')", d.user, d.server,
              d.name, d.owner)
        .Step();
    if (sqlite3_changes(db_.get()) == 0)
        throw vel_err::Error("exists", "database", d.server + "." + d.name);
    transaction.Commit();
}

void Store::UnmadeDatabase(const Database& d) {
    Transaction transaction(db_.get());
    Statement(db_.get(), "DELETE FROM database WHERE user = ? AND server = ? AND name = ?", d.user,
              d.server, d.name)
        .Step();
    MustChange("database", d.server + "." + d.name);
    Statement(db_.get(), "INSERT OR REPLACE INTO wanted_database VALUES (?, ?, ?, ?)", d.user,
              d.server, d.name, d.owner)
        .Step();
    transaction.Commit();
}

void Store::MadeAccount(const std::string& user, const std::string& server,
                        const std::string& name) {
    // It was not there: what is written of another user's account of this name is out of date.
    Statement(db_.get(), "INSERT OR REPLACE INTO made_account VALUES (?, ?, ?)", user, server, name)
        .Step();
}

std::set<std::pair<std::string, std::string>> Store::Accounts(const std::string& user) {
    Statement rows(db_.get(),
                   "SELECT server, name FROM made_account WHERE user = ?1 UNION "
                   "SELECT server, owner FROM database WHERE user = ?1 AND owner <> ''",
                   user);
    std::set<std::pair<std::string, std::string>> accounts;
    while (rows.Step()) accounts.emplace(rows.Text(0), rows.Text(1));
    return accounts;
}

void Store::RemoveDatabase(const Database& d) {
    if (Unwant(d)) return;
    Statement(db_.get(), "DELETE FROM database WHERE user = ? AND server = ? AND name = ?", d.user,
              d.server, d.name)
        .Step();
    MustChange("database", d.server + "." + d.name);
}

std::vector<Database> Store::Databases(const std::string& user) {
    Statement rows(db_.get(),
                   "SELECT user, server, name, owner, owner_password, 0 FROM database "
                   "WHERE user = ?1 UNION ALL SELECT user, server, name, owner, '', 1 FROM "
                   "wanted_database WHERE user = ?1 ORDER BY server, name",
                   user);
    std::vector<Database> databases;
    while (rows.Step())
        databases.push_back({rows.Text(0), rows.Text(1), rows.Text(2), rows.Text(3), rows.Text(4),
                             rows.Int(5) != 0});
    return databases;
}

void Store::SetPlan(const Plan& plan) {
    Transaction transaction(db_.get());
    // No "OR REPLACE": that would delete the row first and take the plan from its users.
    Statement(db_.get(),
              "INSERT INTO plan VALUES (?, ?) "
              "ON CONFLICT (name) DO UPDATE SET slice_size = excluded.slice_size",
              plan.name, plan.slice_size)
        .Step();
    SetList("plan", plan.name, plan.excludes);
    SetList("plan-db", plan.name, plan.exclude_databases);
    SetKeep(plan);
    transaction.Commit();
}

void Store::AssignPlan(const std::string& plan, const std::string& user) {
    if (!FindPlan(plan)) throw vel_err::Error("missed", "plan", plan);
    Statement(db_.get(), "UPDATE user SET plan = ? WHERE name = ?", plan, user).Step();
    MustChange("user", user);
}

void Store::RemovePlan(const std::string& name) {
    Transaction transaction(db_.get());
    SetList("plan", name, {});
    SetList("plan-db", name, {});
    Statement(db_.get(), "DELETE FROM plan WHERE name = ?", name).Step();
    MustChange("plan", name);
    transaction.Commit();
}

std::optional<Plan> Store::FindPlan(const std::string& name) {
    Statement row(db_.get(), "SELECT slice_size FROM plan WHERE name = ?", name);
    if (!row.Step()) return std::nullopt;
    return Plan{name, row.Text(0), List("plan", name), List("plan-db", name), Keep(name)};
}

std::vector<Plan> Store::Plans() {
    Statement rows(db_.get(), "SELECT name FROM plan ORDER BY name");
    std::vector<Plan> plans;
    while (rows.Step()) plans.push_back(*FindPlan(rows.Text(0)));
    return plans;
}

void Store::SetSetting(const std::string& name, const std::string& value) {
    Statement(db_.get(), "INSERT OR REPLACE INTO setting VALUES (?, ?)", name, value).Step();
}

std::string Store::Setting(const std::string& name) {
    Statement row(db_.get(), "SELECT value FROM setting WHERE name = ?", name);
    return row.Step() ? row.Text(0) : "";
}

void Store::SetDist(const std::string& dist) { SetSetting("dist", dist); }

std::string Store::Dist() {
    const std::string dist = Setting("dist");
    return dist.empty() ? "3" : dist;
}

void Store::SetLocked(bool locked) { SetSetting("locked", locked ? "yes" : ""); }
bool Store::Locked() { return Setting("locked") == "yes"; }

}  // namespace panel
