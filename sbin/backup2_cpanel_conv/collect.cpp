#include <algorithm>
#include <memory>
#include <stdexcept>

#include "vel/str.h"

#include "sbin/backup2_cpanel_conv/collected.h"
#include "sbin/foreign_panel/archive_reader.h"
#include "sbin/foreign_panel/gunzip.h"
#include "sbin/foreign_panel/values.h"

namespace cpanel {
namespace {

using namespace foreign_panel;

constexpr std::size_t kMostText = 16 << 20, kMostTexts = 128 << 20, kTextOverhead = 256;
constexpr std::size_t kMostMailFolders = 200'000, kMostDatabases = 20'000, kMostOthers = 1000;

bool In(const std::set<std::string>& names, const std::string& name) {
    return names.count(name) > 0;
}

const std::set<std::string> kTextFolders = {
    "cp", "userdata", "dnszones", "apache_tls", "sslcerts", "sslkeys", "cron", "va", "vad", "meta"};
const std::set<std::string> kTextFiles = {
    "shadow",       "quota",          "addons",          "pds",
    "sds",          "sds2",           "proftpdpasswd",   "version",
    "mysql.sql",    "psql_users.sql", "psql_grants.sql", "shell",
    "homedir_paths"};
/// The other panel's own: logs, counters, caches, its way of keeping things that are read
/// elsewhere.
const std::set<std::string> kNotNeeded = {"logs",
                                          "bandwidth",
                                          "bandwidth_db",
                                          "bandwidth_db.json",
                                          "bandwidth_db.data.json",
                                          "counters",
                                          "ips",
                                          "locale",
                                          "mysql-timestamps",
                                          "ssl",
                                          "userconfig",
                                          "customizations",
                                          "autossl.json",
                                          "has_sslstorage",
                                          "nobodyfiles",
                                          "suspended",
                                          "suspendinfo",
                                          "mms",
                                          "fp",
                                          "dnssec",
                                          "sslstorage.db",
                                          "pds2",
                                          "team",
                                          "strata",
                                          "digestshadow",
                                          "mysql_host_notes.json"};
/// What an account may miss: one line of the report for each.
const std::map<std::string, std::string> kNotCarried = {
    {"vf", "mail filters"},
    {"mm", "mailing lists of Mailman"},
    {"mma", "archives of Mailman"},
    {"resellerconfig", "rights of a reseller"},
    {"resellerfeatures", "feature lists of a reseller"},
    {"resellerpackages", "plans of a reseller"},
    {"dnssec_keys", "keys of DNSSEC"},
    {"domainkeys", "keys of DKIM: new ones must be made"},
    {"httpfiles", "own templates of virtual hosts"},
    {"ccs", "calendars and contacts"},
    {"authnlinks", "log-ins by other services"},
    {"webcalls.json", "dynamic DNS"}};
const std::set<std::string> kOwnDatabases = {"roundcube", "horde", "openfileslimit"};

bool IsTop(const std::string& name) {
    return In(kTextFolders, name) || In(kTextFiles, name) || In(kNotNeeded, name) ||
           kNotCarried.count(name) > 0 || name == "homedir" || name == "homedir.tar" ||
           name == "mysql" || name == "psql";
}

std::string First(const std::string& path) { return path.substr(0, path.find('/')); }
std::string Rest(const std::string& path) {
    const std::size_t slash = path.find('/');
    return slash == std::string::npos ? "" : path.substr(slash + 1);
}
std::string Stem(const std::string& name, const std::string& ending) {
    return str::EndsWith(name, ending) ? name.substr(0, name.size() - ending.size()) : "";
}

/// A path below the archive's top folder, which bears the archive's own name.
std::string BelowTop(const std::string& path) { return IsTop(First(path)) ? path : Rest(path); }

class Collector {
public:
    explicit Collector(Job& job) : job_(job) {}

    Collected Run() {
        ArchiveReader reader(job_.options.archive, job_.budget);
        for (Entry entry; reader.Next(entry);) {
            const std::string path = SafePath(entry.name);
            const std::string name = BelowTop(path);
            if (path.empty() && entry.type != 'd') job_.unpacker.Refuse(entry.name);
            if (!name.empty()) Take(reader, entry, name);
        }
        if (from_.Names("cp").empty() && from_.Text("userdata/main").empty())
            throw std::runtime_error(
                job_.options.archive +
                ": no archive of cPanel: it has neither cp/ nor userdata/main");
        ReportOthers();
        return std::move(from_);
    }

private:
    void Take(ArchiveReader& reader, const Entry& entry, const std::string& name) {
        const std::string top = First(name), rest = Rest(name);
        const bool file = entry.type == 'f';
        if (top == "homedir") {
            HomeEntry(reader, entry, rest, BelowTop(SafePath(entry.target)));
        } else if (name == "homedir.tar" && file) {
            HomeArchive(reader);
        } else if (file && top == "mysql" && !rest.empty()) {
            Mysql(reader, rest);
        } else if (file && top == "psql" && !rest.empty()) {
            Postgresql(reader, rest);
        } else if (file && (In(kTextFolders, top) || In(kTextFiles, name))) {
            Keep(name, reader);
        } else if (file) {
            if (top == "vf" && IsEmpty(reader)) return;  // no filters: every domain has this file
            others_.insert(others_.size() < kMostOthers ? top : "(others)");
        } else if (entry.type != 'd') {
            job_.Lost("archive", name, "a link or device beside the home directory");
        }
    }

    static bool IsEmpty(ArchiveReader& reader) {
        std::string_view bytes;
        uint64_t offset = 0;
        return !reader.Data(bytes, offset);
    }

    // ---- Texts ----

    void Keep(const std::string& name, ArchiveReader& reader) {
        try {
            KeepText(name, reader.Text(kMostText));
        } catch (const EntryError& e) {
            job_.Lost("archive", name, e.what());
        }
    }
    void KeepText(const std::string& name, const std::string& text) {
        texts_bytes_ += kTextOverhead + name.size() + text.size();
        if (texts_bytes_ > kMostTexts)
            throw std::runtime_error("the archive describes more than can be kept");
        from_.texts[name] = text;
    }

    // ---- Home directory ----

    void HomeArchive(ArchiveReader& outer) {
        from_.layout = "homedir.tar";
        ArchiveReader inner(outer.AsSource(), "homedir.tar", job_.budget);
        for (Entry entry; inner.Next(entry);) {
            const std::string path = SafePath(entry.name);
            if (path.empty() && entry.type != 'd') job_.unpacker.Refuse(entry.name);
            const std::string target = SafePath(entry.target);
            if (!path.empty())
                HomeEntry(inner, entry, path, target.empty() ? "" : "homedir/" + target);
        }
    }
    void HomeEntry(ArchiveReader& reader, const Entry& entry, const std::string& path,
                   const std::string& hard_link) {
        if (path.empty()) {
            if (entry.type == 'l')
                job_.Lost("files", "homedir", "the archive holds only a link to it");
            return;
        }
        if (from_.layout.empty()) from_.layout = "homedir/";
        if (entry.type == 'l' && path == "access-logs") return job_.NotNeeded("link", path);
        const bool inner = str::StartsWith(hard_link, "homedir/");
        job_.unpacker.Put(reader, entry, "data/" + path, inner ? "data/" + hard_link.substr(8) : "",
                          TapFor(entry, path));
        if (!pending_name_.empty()) KeepText(std::exchange(pending_name_, ""), pending_);
    }
    Unpacker::Tap TapFor(const Entry& entry, const std::string& path) {
        const std::string top = First(path);
        if (top == "mail") return Mail(entry, Rest(path));
        const bool accounts = top == "etc" && path.size() < 512 && entry.type == 'f' &&
                              std::count(path.begin(), path.end(), '/') == 2;
        const bool reply = top == ".autorespond" && entry.type == 'f';
        if (!accounts && !reply && path != ".contactemail") return {};
        pending_.clear();
        pending_name_ = "homedir/" + path;
        return [this](std::string_view bytes, uint64_t) {
            if (pending_.size() + bytes.size() <= kMostText) pending_ += bytes;
        };
    }
    /// DOMAIN/BOX/cur/MESSAGE and the like.
    Unpacker::Tap Mail(const Entry& entry, const std::string& path) {
        const std::string domain = First(path), box = First(Rest(path));
        if (entry.type == 'f' && !box.empty() && (domain == "cur" || domain == "new"))
            return MessageIn("", entry, path);
        if (box.empty() || entry.type == 'l' || Domain(domain).empty() ||
            domain.find('.') == std::string::npos)
            return {};
        if (from_.mail.size() >= kMostMailFolders && from_.mail.count(domain + "/" + box) == 0) {
            job_.Lost("mailbox", box + "@" + domain,
                      "too many mailboxes: its folder is kept, not its log-in");
            return {};
        }
        return MessageIn(domain + "/" + box, entry, Rest(Rest(path)));
    }
    Unpacker::Tap MessageIn(const std::string& mailbox, const Entry& entry,
                            const std::string& inner) {
        MailFolder& folder = from_.mail[mailbox];
        const std::string part = First(inner);
        folder.maildir = folder.maildir || part == "cur" || part == "new";
        folder.mdbox = folder.mdbox || part == "storage" || part == "mailboxes";
        const bool message = ("/" + inner).find("/cur/") != std::string::npos;
        if (!message || entry.type != 'f') return {};
        return [&folder](std::string_view bytes, uint64_t offset) {
            if (offset != 0) return;
            if (bytes.substr(0, 2) == "\x1f\x8b") folder.compression = "gzip";
            if (bytes.substr(0, 4) == "\x28\xb5\x2f\xfd") folder.compression = "zstd";
        };
    }

    // ---- Dumps ----

    void Mysql(ArchiveReader& reader, const std::string& file) {
        const std::string packed = Stem(file, ".gz"), plain = packed.empty() ? file : packed;
        const std::string database = Stem(plain, ".sql");
        if (In(kOwnDatabases, database.empty() ? file : database))
            return job_.NotNeeded("database", file);
        if (!Stem(file, ".create").empty()) return Keep("mysql/" + file, reader);
        Dumped(from_.mysql, database, file, [&] {
            return job_.MysqlDump(database, packed.empty() ? From(reader) : Unpacked(reader, file));
        });
    }
    void Postgresql(ArchiveReader& reader, const std::string& file) {
        if (str::EndsWith(file, "psql_users.sql") || str::EndsWith(file, "psql_grants.sql"))
            return Keep("psql/" + file, reader);
        std::string database;
        for (const char* ending : {".tar", ".dump", ".sql"})
            if (database.empty()) database = Stem(file, ending);
        Dumped(from_.postgresql, database, file,
               [&] { return job_.PostgresqlDump(database, From(reader)); });
    }
    template <class Make>
    void Dumped(std::map<std::string, std::optional<Dump>>& into, const std::string& database,
                const std::string& file, const Make& make) {
        if (!IsName(database)) return job_.Lost("database", file, "its name cannot be used here");
        if (into.count(database) > 0)
            return job_.Lost("database", file, "is there several times: the first one counts");
        if (into.size() >= kMostDatabases)
            throw std::runtime_error("the archive holds too many databases");
        try {
            into[database] = make();
        } catch (const EntryError& e) {
            job_.Lost("database", database, e.what());
        }
    }
    static OutTree::Content From(ArchiveReader& reader) {
        return [&reader](std::string_view& bytes, uint64_t& offset) {
            return reader.Data(bytes, offset);
        };
    }

    OutTree::Content Unpacked(ArchiveReader& reader, const std::string& file) {
        struct State {
            uint64_t packed = 0, unpacked = 0;
            std::unique_ptr<Gunzip> gunzip;
            std::string block = std::string(128 << 10, '\0');
        };
        const auto state = std::make_shared<State>();
        state->gunzip = std::make_unique<Gunzip>(
            [source = reader.AsSource(), counts = state.get()] {
                const std::string_view piece = source();
                counts->packed += piece.size();
                return piece;
            },
            file);
        return [this, state](std::string_view& bytes, uint64_t& offset) {
            const std::size_t size = state->gunzip->Read(state->block.data(), state->block.size());
            bytes = {state->block.data(), size};
            offset = std::exchange(state->unpacked, state->unpacked + size);
            job_.budget.CountBytes(size);
            job_.budget.CheckGrowth(state->packed, state->unpacked);
            return size > 0;
        };
    }

    // ---- The rest ----

    void ReportOthers() {
        for (const std::string& name : others_) {
            const auto known = kNotCarried.find(name);
            if (In(kNotNeeded, name))
                job_.NotNeeded("archive", name);
            else
                job_.Lost("archive", name,
                          known == kNotCarried.end() ? "is not known here" : known->second);
        }
        if (from_.layout.empty())
            job_.Lost("files", "homedir", "the archive has no home directory");
    }

    Job& job_;
    Collected from_;
    std::set<std::string> others_;  // names beside those that are known
    std::size_t texts_bytes_ = 0;
    std::string pending_name_, pending_;
};

}  // namespace

std::vector<std::string> Collected::Names(const std::string& folder) const {
    std::vector<std::string> names;
    const std::string begin = folder + "/";
    for (auto it = texts.lower_bound(begin); it != texts.end() && str::StartsWith(it->first, begin);
         ++it)
        names.push_back(it->first.substr(begin.size()));
    return names;
}

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    str::Split(str::Replace(text, "\r", ""), "\n", lines);
    std::erase_if(lines, [](const std::string& line) { return str::Trim(line).empty(); });
    return lines;
}

std::string FirstLine(const std::string& text) {
    const std::vector<std::string> lines = Lines(text);
    return lines.empty() ? "" : str::Trim(lines.front());
}

Collected Collect(Job& job) { return Collector(job).Run(); }

}  // namespace cpanel
