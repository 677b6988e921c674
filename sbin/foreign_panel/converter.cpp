#include "sbin/foreign_panel/converter.h"

#include <sys/statvfs.h>

#include <algorithm>
#include <iostream>
#include <map>
#include <stdexcept>

#include <CLI/CLI.hpp>

#include "vel/str.h"
#include "vel/vel_date.h"
#include "vel/vel_err.h"
#include "vel/vel_file.h"
#include "vel/vel_tool.h"
#include "vel/vel_user.h"

#include "sbin/foreign_panel/sql_dump.h"
#include "sbin/foreign_panel/values.h"

namespace foreign_panel {
namespace {

constexpr uint64_t kSpared = 256ULL << 20;  // of the disk's room

// ---- Command line -------------------------------------------------------------------------------

uint64_t Size(const std::string& text) {
    static const std::string kLetters = "KMGT";
    std::string digits = text;
    const std::size_t power = text.empty() ? std::string::npos : kLetters.find(text.back());
    if (power != std::string::npos) digits.pop_back();
    const auto number = Number(digits);
    const unsigned shift = power == std::string::npos ? 0 : 10 * (static_cast<unsigned>(power) + 1);
    if (number && *number <= (UINT64_MAX >> shift)) return *number << shift;
    throw vel_tool::UsageError("'" + text + "' is no size (a number, then K, M, G or T)");
}

Owner FindOwner(const std::string& text) {
    std::string gid = text;
    const auto uid = Number(str::GetWord(gid, ':'));
    const auto group = Number(gid);
    if (uid && group && *uid < UINT32_MAX && *group < UINT32_MAX)
        return {static_cast<uid_t>(*uid), static_cast<gid_t>(*group)};
    if (!vel_user::Exists(text))
        throw vel_tool::UsageError("--owner: there is no user '" + text + "'");
    return {vel_user::Uid(text), vel_user::Gid(text)};
}

/// What the text of options is before it is looked at.
struct Words {
    std::string owner, max_size;
};

void Describe(CLI::App& app, Options& options, Words& words) {
    app.add_option("archive", options.archive, "The other panel's archive")->required();
    app.add_option("outdir", options.out, "Folder to fill: missing or empty");
    app.add_flag("--dry-run", options.dry_run, "Write nothing, only say what would become of what");
    app.add_flag("--json", options.json, "The report as JSON");
    app.add_option("--report", options.report_file, "The report as JSON into this file");
    app.add_option("--account", options.account, "Which account, when there are several");
    app.add_option("--user", options.user, "The account's name here");
    app.add_option("--owner", words.owner, "Whom the files are to belong to: a user or UID:GID");
    app.add_option("--max-entries", options.limits.entries, "Most entries to read (5000000)")
        ->check(CLI::PositiveNumber);
    app.add_option("--max-size", words.max_size, "Most bytes to unpack: K, M, G, T (what is free)");
    app.add_option("--max-ratio", options.limits.ratio,
                   "Most bytes for one byte of the archive, from 1 GiB on (200)")
        ->check(CLI::PositiveNumber);
}

void Check(Options& options, const Words& words) {
    if (options.out.empty() && !options.dry_run)
        throw vel_tool::UsageError("say which folder to fill, or --dry-run");
    if (!options.user.empty() && !IsName(options.user))
        throw vel_tool::UsageError("--user: no name of an account");
    if (!words.owner.empty()) options.owner = FindOwner(words.owner);
    options.archive = vel_tool::Absolute(options.archive);
    if (!options.out.empty()) options.out = vel_tool::Absolute(options.out);
    while (options.out.size() > 1 && options.out.back() == '/') options.out.pop_back();
    if (!options.report_file.empty()) options.report_file = vel_tool::Absolute(options.report_file);
}

/// Free room where the folder is to be.
uint64_t Room(const std::string& out) {
    std::string folder = out;
    struct statvfs state {};
    while (::statvfs(folder.c_str(), &state) != 0) {
        if (folder == "/" || folder.empty()) return UINT64_MAX;
        folder = vel_file::SplitPath(folder).dir;
        if (folder.empty()) folder = "/";
    }
    const uint64_t free = static_cast<uint64_t>(state.f_bavail) * state.f_frsize;
    return free > kSpared ? free - kSpared : 0;
}

bool Parse(const std::string& help, const std::vector<std::string>& arguments, Options& options) {
    CLI::App app(help, vel_tool::ProgramName());
    app.footer(
        "\nStatus: 0 everything was carried, 1 failed, 2 wrong usage, 3 something was lost.");
    Words words;
    Describe(app, options, words);
    std::vector<std::string> reversed(arguments.rbegin(), arguments.rend());
    try {
        app.parse(std::move(reversed));
    } catch (const CLI::Success& shown) {
        app.exit(shown);
        return false;
    } catch (const CLI::ParseError& wrong) {
        throw vel_tool::UsageError(std::string(wrong.what()) + " (--help shows the usage)");
    }
    Check(options, words);
    const uint64_t room = options.out.empty() ? UINT64_MAX : Room(options.out);
    options.limits.bytes = words.max_size.empty() ? room : Size(words.max_size);
    return true;
}

// ---- One run ------------------------------------------------------------------------------------

std::string Reason(const vel_err::Error& error) {
    return error.value().empty() ? error.what() : error.object() + ": " + error.value();
}

int Finish(const Options& options, const Report& report) {
    if (!options.report_file.empty()) vel_file::Write(options.report_file, report.Json());
    std::cout << (options.json ? report.Json() : report.Text()) << std::flush;
    if (!std::cout) throw std::runtime_error("standard output cannot be written");
    return report.AnythingLost() ? vel_tool::kWarnings : vel_tool::kDone;
}

int Convert(const std::string& panel, const Options& options,
            const std::function<void(Job&)>& convert) {
    Report report;
    report.Set("panel", panel);
    report.Set("archive", vel_file::Name(options.archive));
    Budget budget(options.limits);
    OutTree tree(options.out, options.owner, options.dry_run);
    Unpacker unpacker(tree, report, budget, options.dry_run);
    PanelDocument document;
    document.External("panel", panel);
    document.External("archive", Line(vel_file::Name(options.archive)));
    Job job{options, budget, tree, unpacker, report, document};
    { ArchiveReader(options.archive, budget); }  // before anything is made
    tree.Begin();
    tree.MakeFolder("data", {0755, {::time(nullptr), 0}, true});
    tree.MakeFolder("db", {0700, {::time(nullptr), 0}, false});
    convert(job);
    unpacker.Finish();
    if (!options.dry_run) tree.MakeText("doc.xml", document.Text());
    tree.Finish();
    const int status = Finish(options, report);
    tree.Keep();
    return status;
}

}  // namespace

int RunConverter(const std::string& panel, const std::string& help,
                 const std::vector<std::string>& arguments,
                 const std::function<void(Job&)>& convert) {
    Options options;
    if (!Parse(help, arguments, options)) return vel_tool::kDone;
    CatchSignals();
    try {
        return Convert(panel, options, convert);
    } catch (const vel_err::Error& error) {
        throw std::runtime_error(Reason(error));
    }
}

// ---- Parts that both converters have ------------------------------------------------------------

void Job::Secret(PanelObject& object, const Password& password, const std::string& kind,
                 const std::string& name) {
    object.Secret(password);
    if (!password.problem.empty()) Changed(kind, name, "needs a new password: " + password.problem);
}

void Dump::Describe(PanelObject& database) const {
    database.Param("dump", path).Param("format", format).Param("version", Line(version));
    database.Flag("complete", !complete, "no");
}

std::optional<Dump> Job::MysqlDump(const std::string& name, const OutTree::Content& content) {
    Dump facts{"db/mysql." + str::url::Encode(name) + ".sql", "sql", "", true};
    SqlDump dump(content);
    tree.MakeFile(facts.path, {0600, {::time(nullptr), 0}, false}, dump.Content(), 0);
    facts.version = dump.Version();
    facts.complete = dump.Complete();
    if (dump.Collations() > 0)
        Changed("database", name, str::Str(dump.Collations()) + " collations of MySQL 8 replaced");
    if (!facts.complete) Lost("database", name, "its dump has no end mark: it may have been cut");
    return facts;
}

std::optional<Dump> Job::PostgresqlDump(const std::string& name, const OutTree::Content& content) {
    // Enough bytes for the decision come first, the rest as it comes.
    std::string beginning;
    std::string_view piece;
    uint64_t offset = 0;
    bool more = true, given = false;
    while (beginning.size() < 512 && (more = content(piece, offset))) beginning.append(piece);
    const PostgresqlForm form = FormOf(beginning);
    if (form == PostgresqlForm::Text) {
        Lost("database", name, "a PostgreSQL dump in SQL text, which only psql could run");
        return std::nullopt;
    }
    const bool custom = form == PostgresqlForm::Custom;
    Dump facts{"db/postgresql." + str::url::Encode(name) + (custom ? ".dump" : ".tar"),
               custom ? "custom" : "tar", "", true};
    const auto joined = [&](std::string_view& bytes, uint64_t& at) {
        if (given) return more && content(bytes, at);
        bytes = beginning;
        at = 0;
        return given = true;
    };
    tree.MakeFile(facts.path, {0600, {::time(nullptr), 0}, false}, joined, 0);
    return facts;
}

}  // namespace foreign_panel
