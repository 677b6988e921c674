// PostgreSQL.
//
// Dumps are in the custom format, not in SQL text: text would have to pass psql, which runs
// programs for lines that begin with a backslash, and the names of a stranger's objects or the
// lines of his data have carried such lines past its guards more than once. pg_restore sends the
// statements to the server itself. They run there as a role that owns this one database and can
// neither read the server's files nor start programs, and pg_restore runs without rights here.
//
// A restore fills a new database and swaps the names at the end in one transaction.
#include <unistd.h>

#include "vel/str.h"
#include "vel/vel_err.h"
#include "vel/vel_log.h"

#include "sbin/backup2_system/child.h"
#include "sbin/backup2_system/database.h"

namespace backup2_system::postgresql {
namespace {

const vel_log::Module logger("backup2_system");

constexpr char kMaintenance[] = "postgres";
constexpr int kSwapAttempts = 5;

const std::vector<std::string> kRights = {"all privileges", "select",   "insert",     "update",
                                          "delete",         "truncate", "references", "trigger"};

std::string Name(const std::string& name) { return "\"" + str::Replace(name, "\"", "\"\"") + "\""; }

std::string Text(const std::string& text) {
    // The E form means the same whatever the server's standard_conforming_strings says.
    return "E'" + str::Replace(str::Replace(text, "\\", "\\\\"), "'", "''") + "'";
}

/// One line for whatever server the program is pointed at; it is pointed at one only.
std::string PasswordFile(const std::string& password) {
    return "*:*:*:*:" + str::Replace(str::Replace(password, "\\", "\\\\"), ":", "\\:") + "\n";
}

Words Connection(const Access& access, const std::string& login, const std::string& database) {
    Words words{"--no-password", "--username=" + login, "--dbname=" + database,
                "--host=" + (access.socket.empty() ? access.host : access.socket)};
    if (!access.port.empty()) words.push_back("--port=" + access.port);
    return words;
}

Words Join(Words words, const Words& more) {
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

/// The statements run as the administrator: only our own, never a line of a dump.
std::string Administer(const Access& access, const std::string& step, const std::string& sql,
                       const std::string& database = kMaintenance) {
    Secrets secrets;
    Job job;
    job.environment["PGPASSFILE"] = secrets.Add("pgpass", PasswordFile(access.password));
    // Else the database's own setting would count, which its owner makes: in some character sets
    // a backslash is the second half of a letter, and Text would not end where it should.
    job.environment["PGCLIENTENCODING"] = "UTF8";
    job.program = Join(
        {"psql", "--no-psqlrc", "--quiet", "--no-align", "--tuples-only", "--set=ON_ERROR_STOP=1"},
        Connection(access, access.login, database));
    job.input = sql;
    return str::Trim(Run(step, job));
}

std::string FindRole(const Access& access, const std::string& name) {
    return Administer(access, "look",
                      "SELECT rolsuper FROM pg_roles WHERE rolname=" + Text(name) + ";\n");
}

/// The rights of one account in everything that the dump has made. The names of its schemas are a
/// stranger's: the server quotes them itself, with no function but its own.
std::string Grants(const std::string& rights, const std::string& role) {
    const bool all = rights == "all privileges";
    const auto each = [&](const std::string& what) {
        return "SELECT format(" +
               Text("GRANT " + what + " %I TO " + str::Replace(role, "%", "%%")) +
               ", nspname) FROM pg_namespace WHERE nspname <> 'information_schema' AND "
               "left(nspname, 3) <> 'pg_' \\gexec\n";
    };
    return "SET search_path = pg_catalog;\n" +
           each((all ? "ALL" : "USAGE") + std::string(" ON SCHEMA")) +
           each(rights + " ON ALL TABLES IN SCHEMA") +
           each((all ? "ALL" : "USAGE, SELECT") + std::string(" ON ALL SEQUENCES IN SCHEMA"));
}

void CheckReadable(vel_file::ResHandle dump, const std::string& step) {
    if (::lseek(dump, 0, SEEK_SET) != 0) vel_err::RaiseErrno("lseek", "dump", errno);
    Job job;
    job.program = Unprivileged({"pg_restore", "--list"});
    job.input_file = dump;
    job.discard_output = true;
    Run(step, job);
}

/// One restore: a fresh database, its owner, and a log-in that exists only meanwhile.
class Replacement {
public:
    explicit Replacement(const Access& access)
        : access_(access),
          hash_(ShortHash(access.database)),
          fresh_("b2_new_" + hash_),
          old_("b2_old_" + hash_),
          login_("b2_restore_" + hash_),
          password_(str::hex::Encode(str::Random(16))) {
        exists_ = HasDatabase(access);
        Clear();
        owner_ = Owner();
        MakeLogin();
        MakeDatabase();
    }
    ~Replacement() {
        try {
            Clear();
        } catch (const std::exception& e) {
            logger.Write(4, "Cannot tidy up after a restore: %s", e.what());
        }
    }
    Replacement(const Replacement&) = delete;
    Replacement& operator=(const Replacement&) = delete;

    void Load(vel_file::ResHandle dump) {
        if (::lseek(dump, 0, SEEK_SET) != 0) vel_err::RaiseErrno("lseek", "dump", errno);
        Job job;
        job.environment["PGPASSWORD"] = password_;
        job.program = Unprivileged(Join(
            {"pg_restore", "--exit-on-error", "--no-owner", "--no-privileges", "--role=" + owner_},
            Connection(access_, login_, fresh_)));
        job.input_file = dump;
        job.discard_output = true;
        Run("load", job);
        // What the dump made under the log-in's own name goes with the rest to the owner; rights
        // that it gave to the log-in would keep that from being dropped.
        Administer(access_, "load",
                   "REASSIGN OWNED BY " + Name(login_) + " TO " + Name(owner_) +
                       ";\nDROP OWNED BY " + Name(login_) + ";\n",
                   fresh_);
    }

    void GrantTo(const Account& account) {
        if (account.name == owner_) return;
        for (const Account::Grant& grant : account.grants) {
            const std::string rights = KnownRights(grant.rights, kRights);
            if (rights.empty()) continue;
            const std::string role = Name(account.name);
            Administer(access_, "accounts",
                       "GRANT " + std::string(rights == "all privileges" ? "ALL" : "CONNECT") +
                           " ON DATABASE " + Name(fresh_) + " TO " + role + ";\n");
            Administer(access_, "accounts", Grants(rights, role), fresh_);
        }
    }

    void Swap() {
        if (!exists_) {
            Administer(access_, "swap", Rename(fresh_, access_.database));
            return;
        }
        const std::string sql = Disconnect(access_.database) + "BEGIN;\n" +
                                Rename(access_.database, old_) + Rename(fresh_, access_.database) +
                                "COMMIT;\n";
        for (int left = kSwapAttempts; left > 0; --left) {
            try {
                Administer(access_, "swap", sql);
                return;
            } catch (const vel_err::Error&) {
                // A program that reconnects at once may slip in between: the renaming is refused.
                if (left == 1) throw;
            }
        }
    }

private:
    std::string Ask(const std::string& sql) { return Administer(access_, "look", sql + ";\n"); }

    static std::string Rename(const std::string& from, const std::string& to) {
        return "ALTER DATABASE " + Name(from) + " RENAME TO " + Name(to) + ";\n";
    }
    static std::string Disconnect(const std::string& database) {
        return "SELECT pg_terminate_backend(pid, 10000) FROM pg_stat_activity WHERE datname=" +
               Text(database) + ";\n";
    }
    /// The account that the panel names; else who owns the database now, unless he can do more
    /// than own databases; else one of our own. A superuser never: what the dump does would be done
    /// as him.
    std::string Owner() {
        std::string owner = access_.owner;
        if (owner.empty() && exists_)
            owner =
                Ask("SELECT rolname FROM pg_roles r JOIN pg_database d ON d.datdba = r.oid "
                    "WHERE NOT (rolsuper OR rolcreaterole OR rolcreatedb) AND datname=" +
                    Text(access_.database));
        if (owner.empty()) owner = "b2_owner_" + hash_;
        const std::string found = FindRole(access_, owner);
        if (found == "t") throw vel_err::Error("database", "restore", "the owner is a superuser");
        if (found.empty()) MakeOwner(owner);
        return owner;
    }
    void MakeOwner(const std::string& owner) {
        const bool login = owner == access_.owner && !access_.owner_password.empty();
        Administer(access_, "create",
                   "CREATE ROLE " + Name(owner) +
                       (login ? " LOGIN PASSWORD " + Text(access_.owner_password) : " NOLOGIN") +
                       ";\n");
    }
    void MakeLogin() {
        Administer(access_, "create",
                   "CREATE ROLE " + Name(login_) + " LOGIN NOINHERIT PASSWORD " + Text(password_) +
                       ";\nGRANT " + Name(owner_) + " TO " + Name(login_) + ";\n");
    }
    void MakeDatabase() {
        std::string form;
        if (exists_)
            form =
                Ask("SELECT format(' ENCODING %L LC_COLLATE %L LC_CTYPE %L', "
                    "pg_encoding_to_char(encoding), datcollate, datctype) FROM pg_database "
                    "WHERE datname=" +
                    Text(access_.database));
        Administer(access_, "create",
                   "CREATE DATABASE " + Name(fresh_) + " OWNER " + Name(owner_) +
                       " TEMPLATE template0 " + form + ";\n");
    }
    /// Also what a killed run left: the swap is one transaction, so whatever bears the names of the
    /// fresh and the old one is not the database itself.
    void Clear() {
        Administer(access_, "tidy",
                   "SET client_min_messages = error;\nDROP DATABASE IF EXISTS " + Name(fresh_) +
                       " WITH (FORCE);\nDROP DATABASE IF EXISTS " + Name(old_) +
                       " WITH (FORCE);\nDROP ROLE IF EXISTS " + Name(login_) + ";\n");
    }

    const Access& access_;
    std::string hash_, fresh_, old_, login_, password_, owner_;
    bool exists_ = false;
};

}  // namespace

void Dump(const Access& access, vel_file::ResHandle out) {
    Secrets secrets;
    Job job;
    job.environment["PGPASSFILE"] = secrets.Add("pgpass", PasswordFile(access.password));
    // Not compressed: the archiver does that, and equal parts of two dumps stay equal.
    job.program = Join({"pg_dump", "--format=custom", "--compress=0", "--blobs"},
                       Connection(access, access.login, access.database));
    job.output_file = out;
    Run("dump", job);
    CheckReadable(out, "dump");
}

void Restore(const Access& access, vel_file::ResHandle dump) {
    CheckReadable(dump, "restore");
    Replacement replacement(access);
    replacement.Load(dump);
    for (const Account& account : access.accounts) replacement.GrantTo(account);
    replacement.Swap();
}

bool HasDatabase(const Access& access) {
    return !Administer(access, "look",
                       "SELECT 1 FROM pg_database WHERE datname=" + Text(access.database) + ";\n")
                .empty();
}

bool HasAccount(const Access& access, const std::string& name) {
    return !FindRole(access, name).empty();
}

void MakeAccount(const Access& access, const Account& account) {
    if (HasAccount(access, account.name)) return;
    const bool usable =
        account.form == "plain" || account.form == "postgresql_md5" || account.form == "scram";
    Administer(access, "accounts",
               "CREATE ROLE " + Name(account.name) +
                   (usable ? " LOGIN PASSWORD " + Text(account.password) : " NOLOGIN") + ";\n");
}

void MakeDatabase(const Access& access) {
    Administer(access, "create",
               "CREATE DATABASE " + Name(access.database) + " TEMPLATE template0;\n");
}

void DropDatabase(const Access& access) {
    Administer(access, "tidy",
               "DROP DATABASE IF EXISTS " + Name(access.database) + " WITH (FORCE);\n");
}

}  // namespace backup2_system::postgresql
