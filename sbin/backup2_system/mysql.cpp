// MariaDB and MySQL.
//
// A dump is SQL text for the command line client, and its maker may be a stranger. What keeps it
// harmless: the client runs without rights on this machine, in sandbox and binary mode (no "\!", no
// "source"), and logs in as an account that owns nothing but this database. The clauses "DEFINER=",
// which would need the right to speak for others, are taken out: views and routines then belong to
// the account that loads them.
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <istream>
#include <regex>

#include "vel/str.h"
#include "vel/stream.h"
#include "vel/vel_err.h"
#include "vel/vel_log.h"

#include "sbin/backup2_system/child.h"
#include "sbin/backup2_system/database.h"
#include "sbin/backup2_system/marker.h"

namespace backup2_system::mysql {
namespace {

const vel_log::Module logger("backup2_system");

constexpr char kEndMark[] = "\n-- Dump completed";
constexpr std::size_t kEndMarkRoom = 128;  // the mark, a date, a line end
constexpr std::size_t kChunk = 64 * 1024;
constexpr std::size_t kDefinerRoom = 2048;  // no account's name is longer; matching takes stack

struct Login {
    std::string login, password;
};

/// What a grant on one database can hold; never the right to pass rights on.
const std::vector<std::string> kRights = {"all privileges",
                                          "alter",
                                          "alter routine",
                                          "create",
                                          "create routine",
                                          "create view",
                                          "delete",
                                          "drop",
                                          "event",
                                          "execute",
                                          "index",
                                          "insert",
                                          "lock tables",
                                          "references",
                                          "select",
                                          "show view",
                                          "create temporary tables",
                                          "trigger",
                                          "update"};

std::string Name(const std::string& name) { return "`" + str::Replace(name, "`", "``") + "`"; }

std::string Text(const std::string& text) {
    return "'" + str::Replace(str::Replace(text, "\\", "\\\\"), "'", "''") + "'";
}

/// In a grant the name of a database is a pattern.
std::string GrantName(const std::string& name) {
    return Name(str::Replace(str::Replace(name, "_", "\\_"), "%", "\\%"));
}

/// An unescaped quote within a value would end it, and a "#" behind it begin a comment.
std::string OptionValue(const std::string& value) {
    std::string text = str::Replace(value, "\\", "\\\\");
    text = str::Replace(text, "\"", "\\\"");
    return "\"" + str::Replace(text, "'", "\\'") + "\"";
}

std::string OptionFile(const Access& access, const Login& account) {
    const auto line = [](const std::string& key, const std::string& value) {
        return value.empty() ? "" : key + "=" + OptionValue(value) + "\n";
    };
    return "[client]\n" + line("user", account.login) + line("password", account.password) +
           line("socket", access.socket) + line("host", access.host) + line("port", access.port) +
           "default-character-set=utf8mb4\nmax-allowed-packet=1G\n";
}

/// The statements run as the administrator: only our own, never a line of a dump.
std::string Administer(const Access& access, const std::string& step, const std::string& sql) {
    Secrets secrets;
    const std::string options =
        secrets.Add("client.cnf", OptionFile(access, {access.login, access.password}));
    Job job;
    job.program = {"mariadb", "--defaults-file=" + options, "--batch", "--skip-column-names",
                   "--raw"};
    job.input = "SET SESSION sql_mode='';\n" + sql;
    return Run(step, job);
}

}  // namespace

bool HasDatabase(const Access& access) {
    return !Administer(access, "look",
                       "SELECT 1 FROM information_schema.SCHEMATA WHERE SCHEMA_NAME=" +
                           Text(access.database) + ";\n")
                .empty();
}

bool HasAccount(const Access& access, const std::string& name) {
    return !Administer(access, "look",
                       "SELECT 1 FROM mysql.user WHERE User=" + Text(name) + " LIMIT 1;\n")
                .empty();
}

namespace {

/// The dump program leaves out the database's own character set: it goes in front, in a form that
/// names no database.
std::string Defaults(const Access& access) {
    std::string row = Administer(access, "look",
                                 "SELECT DEFAULT_CHARACTER_SET_NAME, DEFAULT_COLLATION_NAME FROM "
                                 "information_schema.SCHEMATA WHERE SCHEMA_NAME=" +
                                     Text(access.database) + ";\n");
    const std::string set = str::GetWord(row, '\t'), collation = str::Trim(row);
    if (collation.empty()) throw vel_err::Error("database", "dump", "there is no such database");
    return "ALTER DATABASE CHARACTER SET " + set + " COLLATE " + collation + ";\n";
}

void CheckComplete(int dump, const std::string& step) {
    if (ReadTail(dump, kEndMarkRoom).find(kEndMark) == std::string::npos)
        throw vel_err::Error("database", step, "the dump is not complete");
}

// ---- Loading ------------------------------------------------------------------------------------

/// Copies the dump without the DEFINER clauses of the dump program's statements. Lines may be as
/// long as a table: only the beginning of each is looked at, and no line of data begins like that,
/// as line ends within values are written as "\n".
void CopyWithoutDefiners(std::istream& in, std::ostream& out) {
    static const std::regex kDefiner(
        R"(^((?:/\*!\d+ )?(?:CREATE\*/ /\*!\d+ |CREATE ))?DEFINER=`(?:[^`]|``)*`@`(?:[^`]|``)*`)");
    static const std::regex kViewDefiner(R"(^(/\*!\d+ )DEFINER=`(?:[^`]|``)*`@`(?:[^`]|``)*`)");
    std::array<char, kChunk> buffer{};
    for (bool line_start = true; in;) {
        in.getline(buffer.data(), buffer.size());
        const bool whole = !in.fail() && !in.eof();
        std::string piece(buffer.data(), static_cast<std::size_t>(in.gcount()) - (whole ? 1 : 0));
        if (in.fail() && in.gcount() > 0) in.clear();  // the buffer was too small for the line
        if (line_start && (piece.rfind("/*!", 0) == 0 || piece.rfind("CREATE DEFINER=", 0) == 0)) {
            std::string head = piece.substr(0, kDefinerRoom);
            head = std::regex_replace(head, kViewDefiner, "$1");
            piece.replace(0, kDefinerRoom, std::regex_replace(head, kDefiner, "$1"));
        }
        out << piece;
        if (whole) out << '\n';
        line_start = whole;
    }
}

void Load(const Access& access, const Login& account, const std::string& database,
          vel_file::ResHandle dump) {
    Job job;
    job.environment["MYSQL_PWD"] = account.password;
    Words program{"mariadb",
                  "--no-defaults",
                  "--sandbox",
                  "--binary-mode",
                  "--local-infile=0",
                  "--batch",
                  "--default-character-set=utf8mb4",
                  "--max-allowed-packet=1G",
                  "--user=" + account.login,
                  "--database=" + database};
    if (!access.socket.empty()) program.push_back("--socket=" + access.socket);
    if (!access.host.empty()) program.push_back("--host=" + access.host);
    if (!access.port.empty()) program.push_back("--port=" + access.port);
    job.program = Unprivileged(program);
    job.discard_output = true;
    job.writer = [&dump](std::ostream& out) {
        if (::lseek(dump, 0, SEEK_SET) != 0) vel_err::RaiseErrno("lseek", "dump", errno);
        vel_file::InStream in{vel_file::ResHandle(::fcntl(dump, F_DUPFD_CLOEXEC, 0))};
        CopyWithoutDefiners(in, out);
    };
    Run("load", job);
}

// ---- The account that loads ---------------------------------------------------------------------

/// Logs in to one database. The owner when the panel knows him with his password; else an account
/// of this program's own, which stays as the definer of what it made, locked between restores.
class Loader {
public:
    explicit Loader(const Access& access)
        : access_(access),
          scratch_("b2_scratch_" + ShortHash(access.database)),
          owner_(!access.owner.empty() && !access.owner_password.empty()) {
        account_ = owner_ ? Login{access.owner, access.owner_password}
                          : Login{"b2_restore_" + ShortHash(access.database),
                                  str::hex::Encode(str::Random(16))};
        owner_ ? MakeOwner() : Unlock();
    }
    ~Loader() {
        try {
            Administer(access_, "tidy",
                       "DROP DATABASE IF EXISTS " + Name(scratch_) + ";\n" + Revoke() + Lock());
        } catch (const std::exception& e) {
            logger.Write(4, "Cannot tidy up after a restore: %s", e.what());
        }
    }
    Loader(const Loader&) = delete;
    Loader& operator=(const Loader&) = delete;

    void LoadInto(const std::string& database, vel_file::ResHandle dump) {
        used_scratch_ = used_scratch_ || database == scratch_;
        Administer(access_, "create",
                   "DROP DATABASE IF EXISTS " + Name(database) + ";\nCREATE DATABASE " +
                       Name(database) + ";\n" + Grant(database));
        Load(access_, account_, database, dump);
    }
    const std::string& Scratch() const { return scratch_; }

private:
    /// Every account of this name: which one a log-in meets depends on the way it comes.
    std::vector<std::string> Accounts() {
        std::vector<std::string> hosts, accounts;
        str::Split(
            Administer(access_, "look",
                       "SELECT Host FROM mysql.user WHERE User=" + Text(account_.login) + ";\n"),
            "\n", hosts);
        for (const std::string& host : hosts)
            accounts.push_back(Text(account_.login) + "@" + Text(host));
        return accounts;
    }
    std::string Grant(const std::string& database) {
        std::string sql;
        for (const std::string& account : Accounts())
            sql += "GRANT ALL PRIVILEGES ON " + GrantName(database) + ".* TO " + account + ";\n";
        return sql;
    }
    std::string Revoke() {
        std::string sql;
        if (!used_scratch_) return sql;
        for (const std::string& account : Accounts())
            sql += "REVOKE ALL PRIVILEGES ON " + GrantName(scratch_) + ".* FROM " + account + ";\n";
        return sql;
    }
    void MakeOwner() {
        if (!Accounts().empty()) return;
        Administer(access_, "create",
                   "CREATE USER " + Text(account_.login) + "@'localhost' IDENTIFIED BY " +
                       Text(account_.password) + ";\n");
    }
    void Unlock() {
        const std::string account = Text(account_.login) + "@'%'";
        Administer(access_, "create",
                   "CREATE USER IF NOT EXISTS " + account + ";\nALTER USER " + account +
                       " IDENTIFIED BY " + Text(account_.password) + " ACCOUNT UNLOCK;\n");
    }
    std::string Lock() {
        return owner_ ? "" : "ALTER USER " + Text(account_.login) + "@'%' ACCOUNT LOCK;\n";
    }

    const Access& access_;
    std::string scratch_;
    bool owner_, used_scratch_ = false;
    Login account_;
};

// ---- Accounts -----------------------------------------------------------------------------------

std::string Authentication(const Account& account) {
    if (account.form == "plain") return " IDENTIFIED BY " + Text(account.password);
    if (account.form == "mysql_native")
        return " IDENTIFIED WITH mysql_native_password AS " + Text(account.password);
    return " ACCOUNT LOCK";
}

std::vector<std::string> HostsOf(const Account& account) {
    return account.hosts.empty() ? std::vector<std::string>{"localhost"} : account.hosts;
}

std::string At(const Account& account, const std::string& host) {
    return Text(account.name) + "@" + Text(host);
}

void GrantTo(const Access& access, const Account& account) {
    std::string sql;
    for (const Account::Grant& grant : account.grants) {
        const std::string rights = KnownRights(grant.rights, kRights);
        if (rights.empty()) continue;
        for (const std::string& host : HostsOf(account)) {
            if (!grant.host.empty() && grant.host != host) continue;
            sql += "GRANT " + rights + " ON " + GrantName(access.database) + ".* TO " +
                   At(account, host) + ";\n";
        }
    }
    Administer(access, "accounts", sql);
}

}  // namespace

void MakeAccount(const Access& access, const Account& account) {
    std::string sql;
    for (const std::string& host : HostsOf(account))
        sql += "CREATE USER IF NOT EXISTS " + At(account, host) + Authentication(account) + ";\n";
    Administer(access, "accounts", sql);
}

void MakeDatabase(const Access& access) {
    Administer(access, "create", "CREATE DATABASE " + Name(access.database) + ";\n");
}

void DropDatabase(const Access& access) {
    Administer(access, "tidy", "DROP DATABASE IF EXISTS " + Name(access.database) + ";\n");
}

void Dump(const Access& access, vel_file::ResHandle out) {
    vel_file::WriteAll(out, Defaults(access), "dump");
    Secrets secrets;
    const std::string options =
        secrets.Add("client.cnf", OptionFile(access, {access.login, access.password}));
    Job job;
    job.program = {"mariadb-dump",
                   "--defaults-file=" + options,
                   "--single-transaction",
                   "--quick",
                   "--skip-lock-tables",
                   "--routines",
                   "--triggers",
                   "--events",
                   "--hex-blob",
                   "--no-tablespaces",
                   "--",
                   access.database};
    job.output_file = out;
    Run("dump", job);
    CheckComplete(out, "dump");
}

void Restore(const Access& access, vel_file::ResHandle dump) {
    CheckComplete(dump, "restore");
    Loader loader(access);
    // Definitions cannot be rolled back there: a dump that goes wrong half-way would leave neither
    // the old nor the new database. So it has to load once elsewhere before the old one goes.
    if (!access.wanted && HasDatabase(access)) loader.LoadInto(loader.Scratch(), dump);
    loader.LoadInto(access.database, dump);
    for (const Account& account : access.accounts) GrantTo(access, account);
}

}  // namespace backup2_system::mysql
