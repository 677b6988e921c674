#include "sbin/backup2/import_file.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <iostream>
#include <map>
#include <set>
#include <stdexcept>

#include "vel/str.h"
#include "vel/stream.h"
#include "vel/vel_env.h"
#include "vel/vel_err.h"
#include "vel/vel_file.h"
#include "vel/vel_proc.h"
#include "vel/vel_tool.h"
#include "vel/vel_xml.h"

#include "backup_common/backup2_misc.h"

#include "sbin/backup2/edition.h"
#include "sbin/backup2/extract.h"
#include "sbin/backup2/folder_on_signal.h"
#include "sbin/backup2/foreign_archive.h"
#include "sbin/backup2/import_place.h"
#include "sbin/backup2/job.h"
#include "sbin/backup2/output.h"
#include "sbin/backup2/progress.h"
#include "sbin/backup2/restore_report.h"
#include "sbin/backup2/system_data.h"

namespace backup2_admin {
namespace {

constexpr char kTree[] = "data";
constexpr char kDumps[] = "db";
constexpr char kEndMark[] = "\n-- Dump completed";
constexpr off_t kEndMarkRoom = 128;
constexpr std::size_t kMostLost = 200;  // lines of the restore report: each is written at once

std::string ParamOf(const vel_xml::XmlNode& elem, const std::string& name) {
    for (auto node = elem.FirstChild(); node; node = node.Next())
        if (node.Name() == "param" && node.GetProp("name") == name) return node.Str();
    return "";
}

// ---- The converter ------------------------------------------------------------------------------

std::string ConverterFor(const FileImport& import, const std::string& file) {
    const std::string panel = import.panel.empty() ? DetectPanel(file) : import.panel;
    if (panel.empty())
        throw vel_tool::UsageError("the archive does not tell which panel made it: add --panel");
    const auto converters = backup2::GetExternalConvertors();
    const auto found = converters.find(panel);
    if (found == converters.end())
        throw vel_tool::UsageError("there is no converter for archives of " + panel);
    std::cout << Printable(vel_file::Name(file)) << ": an archive of " << panel << "\n";
    return found->second;
}

/// What the converter's report calls lost, for the report of the import.
std::vector<std::string> LostLines(const std::string& output) {
    std::vector<std::string> lines, lost;
    str::Split(output, "\n", lines);
    for (std::string& line : lines)
        if (str::GetWord(line, '\t') == "lost") lost.push_back(str::Replace(line, "\t", ": "));
    return lost;
}

struct Conversion {
    bool complete = false;
    std::vector<std::string> lost;
};

/// Runs the converter and shows its report.
Conversion Convert(const FileImport& import, const std::string& file,
                   const std::vector<std::string>& more) {
    std::vector<std::string> argv = {ConverterFor(import, file), file};
    argv.insert(argv.end(), more.begin(), more.end());
    argv.insert(argv.end(), {"--user", import.user});
    if (!import.account.empty()) argv.push_back("--account=" + import.account);
    vel_proc::Execute converter(std::move(argv), vel_proc::kJoinErrors);
    Done done;
    done.output = converter.Str();
    done.status = converter.Result();
    if (done.status != vel_tool::kDone && done.status != vel_tool::kWarnings) {
        if (done.output.empty())
            done.output = "the converter ended with status " + str::Str(done.status);
        if (done.status == vel_tool::kUsage) throw vel_tool::UsageError(done.LastLine());
        done.ThrowIfFailed(Printable(import.file));
    }
    std::cout << done.output << std::flush;
    return {done.status == vel_tool::kDone, LostLines(done.output)};
}

// ---- Databases ----------------------------------------------------------------------------------

using Servers = std::map<std::string, std::string>;  // type -> name

/// Those that are named, else the first of each type.
Servers ChooseServers(const std::vector<std::string>& wanted) {
    Servers chosen;
    std::vector<std::string> missing = wanted;
    const auto answer = Panel().Query("func=backup2.server");
    for (const auto& server : answer.GetNodes("/doc/server")) {
        const std::string name = server.GetProp("name");
        const auto named = std::find(missing.begin(), missing.end(), name);
        if (!wanted.empty() && named == missing.end()) continue;
        if (named != missing.end()) missing.erase(named);
        chosen.emplace(server.GetProp("type"), name);
    }
    if (!missing.empty())
        throw vel_tool::UsageError("the panel has no database server " + missing.front());
    return chosen;
}

std::string Tail(const vel_file::ResHandle& fd, const std::string& path) {
    std::string tail(static_cast<std::size_t>(kEndMarkRoom), '\0');
    const off_t size = ::lseek(fd, 0, SEEK_END);
    const ssize_t got =
        size < 0 ? -1
                 : ::pread(fd, tail.data(), tail.size(), std::max<off_t>(0, size - kEndMarkRoom));
    if (got < 0) vel_err::RaiseErrno("read", path, errno);
    tail.resize(static_cast<std::size_t>(got));
    return tail;
}

bool IsWord(const std::string& text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char c) {
        return std::isalnum(c) || c == '_';
    });
}

/// The database's own character set, which its dump does not say; and the mark of a complete dump,
/// which dumps made in other ways lack: that this one is whole, the archive has shown.
void CompleteSqlDump(const std::string& path, const vel_xml::XmlNode& database) {
    const vel_file::ResHandle fd(
        ::open(path.c_str(), O_RDWR | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (fd < 0) vel_err::RaiseErrno("open", path, errno);
    const std::string charset = ParamOf(database, "charset");
    const std::string collation = ParamOf(database, "collation");
    std::string more;
    if (IsWord(charset)) {
        more = "\nALTER DATABASE CHARACTER SET " + charset;
        const bool known_here = collation.find("_0900_") == std::string::npos;  // MySQL's alone
        if (IsWord(collation) && str::StartsWith(collation, charset + "_") && known_here)
            more += " COLLATE " + collation;
        more += ";";
    }
    if (more.empty() && Tail(fd, path).find(kEndMark) != std::string::npos) return;
    vel_file::WriteAll(fd, more + kEndMark + "\n", path);
}

/// Brings what the converter made of the other panel's databases into the form in which a backup
/// holds them.
class Databases {
public:
    Databases(std::string converted, std::string system, const Servers& servers)
        : converted_(std::move(converted)), system_(std::move(system)), servers_(servers) {}

    /// Moves each dump to where backup2_system takes it, and writes into the document on which
    /// server the database will lie. What cannot be is told and leaves the document: a database
    /// that the panel knows and no server has would spoil every backup of the user.
    bool Place(const vel_xml::Xml& document, RestoreReport& report) {
        bool all = true;
        for (vel_xml::XmlNode elem : document.GetNodes("/doc/elem[@name='db']/elem")) {
            const std::string problem = PlaceOne(elem);
            if (problem.empty()) continue;
            const std::string name = ParamOf(elem, "name");
            std::cout << "database " << Printable(name) << "\t" << problem << std::endl;
            report.AddSystem(name, problem);
            elem.Unlink();
            all = false;
        }
        return all;
    }

private:
    std::string PlaceOne(vel_xml::XmlNode elem) {
        const std::string name = ParamOf(elem, "name"), type = ParamOf(elem, "type");
        const auto server = servers_.find(type);
        if (server == servers_.end()) return "the panel has no server for " + type;
        const auto plain = [](unsigned char c) { return std::isalnum(c) || c == '_'; };
        if (name.empty() || !plain(static_cast<unsigned char>(name[0])) ||
            !std::all_of(name.begin(), name.end(), [&plain](unsigned char c) {
                return plain(c) || c == '.' || c == '@' || c == '-';
            }))
            return "a database cannot have this name here";
        elem.AppendChild("param", server->second).SetProp("name", "dbserver");
        const std::string dump = ParamOf(elem, "dump");
        if (dump.empty()) return "it has no dump that could be loaded";
        if (vel_file::GoodPath(dump) != dump || vel_file::SplitPath(dump).dir != kDumps)
            return "its dump is not where dumps are";
        const std::string from = vel_file::ConcatPath(converted_, dump);
        if (!vel_file::Info(from, false).IsFile()) return "its dump is not there";
        if (ParamOf(elem, "format") == "sql") CompleteSqlDump(from, elem);
        vel_file::Move(from, vel_file::ConcatPath(system_, "db." + server->second + "." + name));
        return "";
    }

    std::string converted_, system_;
    const Servers& servers_;
};

/// Markers (db.SERVER.NAME) of the databases that the panel knows of the user.
std::set<std::string> KnownDatabases(const std::string& user) {
    std::set<std::string> markers;
    const auto job = AskJob(user);
    for (const auto& object : job.GetNodes("/doc/system/spec"))
        markers.insert(object.GetProp("type") + "." + object.GetProp("name"));
    return markers;
}

/// What could not be loaded, the panel need not know. It may not know it in the first place.
void Forget(const std::string& marker, const std::string& user) try {
    Panel().Query("func=backup2.database.remove&elid=?&user=?", marker.substr(3), user);
} catch (const vel_err::Error& error) {
    if (error.type() != "missed") throw;
}

// ---- The import ---------------------------------------------------------------------------------

class Import {
public:
    Import(const FileImport& options, std::string file, RestoreReport& report);
    int Run();

private:
    void ReportLost(const std::vector<std::string>& lost);
    void Files();
    int System();

    const FileImport& options_;
    RestoreReport& report_;
    std::string file_, root_;
    Servers servers_;
    WorkLock alone_;
    vel_file::TmpDir work_;  // private: it holds all that the archive holds
    const FolderOnSignal work_on_signal_;
    std::string converted_;
    int status_ = vel_tool::kDone;
};

Import::Import(const FileImport& options, std::string file, RestoreReport& report)
    : options_(options),
      report_(report),
      file_(std::move(file)),
      root_(NeedImportRoot(options.user)),
      servers_(ChooseServers(options.servers)),
      alone_("restore", options.user),
      work_(MakeImportDir(options.user)),
      work_on_signal_(work_.Path()),
      converted_(vel_file::ConcatPath(work_.Path(), "converted")) {}

void Import::ReportLost(const std::vector<std::string>& lost) {
    const std::size_t named = std::min(lost.size(), kMostLost);
    for (std::size_t i = 0; i < named; ++i)
        report_.AddFailure("not in a form that comes over: " + lost[i], vel_tool::kWarnings);
    if (named < lost.size())
        report_.AddFailure("and " + str::Str(static_cast<uint64_t>(lost.size() - named)) +
                               " more, which the import has printed",
                           vel_tool::kWarnings);
}

/// The tree becomes an archive, which the archiver unpacks as it does with a backup: with the
/// user's rights, beneath his root, through no link.
void Import::Files() {
    if (!vel_file::Info(vel_file::ConcatPath(converted_, kTree), false).IsDir()) return;
    const std::string archive = vel_file::ConcatPath(work_.Path(), "tree.tgz");
    const std::string listing = vel_file::ConcatPath(work_.Path(), "listing");
    ProgressView progress("import of " + options_.user, alone_.Dir());
    RunArchiver({"sbin/qortar", "--create", archive, "--root", converted_, "--save-listing",
                 listing, kTree})
        .ThrowIfFatal("the converted tree");
    vel_file::Remove(vel_file::ConcatPath(converted_, kTree));  // room for what is unpacked now
    vel_file::Remove(vel_file::ConcatPath(converted_, kTree));  // its room is needed
    vel_file::MkDir(root_);
    const auto result = RunArchiver({"sbin/qortar", "--extract", archive, "--listing", listing,
                                     "--root", root_, "--user", options_.user});
    for (const std::string& line : result.lines) std::cout << line << "\n";
    const auto seen = progress.Finish("qortar");
    std::cout << options_.user << ": " << Plural(seen.files, "file") << ", "
              << HumanSize(seen.bytes) << " in " << HumanTime(progress.Seconds()) << std::endl;
    result.ThrowIfFatal(options_.user);
    report_.AddFiles(result);
    status_ = WorseStatus(status_, result.status);
}

int Import::System() {
    const std::string document = vel_file::ConcatPath(converted_, "doc.xml");
    const std::string system = vel_file::ConcatPath(work_.Path(), ".system");
    vel_file::MkDir(system, vel_file::Attrs(0700));
    vel_xml::Xml xml;
    xml.LoadFromFile(document);
    if (!Databases(converted_, system, servers_).Place(xml, report_))
        status_ = WorseStatus(status_, vel_tool::kWarnings);
    xml.Save(vel_file::ConcatPath(system, "user." + options_.user), false);
    const std::set<std::string> known = KnownDatabases(options_.user);
    const auto done = [&](const std::string& name, const std::string& why) {
        if (why.empty()) return;
        report_.AddSystem(name, why);
        if (str::StartsWith(name, "db.") && known.count(name) == 0) Forget(name, options_.user);
    };
    return RestoreSystem(system, options_.user, options_.host_dist, done);
}

int Import::Run() {
    const Conversion conversion = Convert(options_, file_, {converted_, "--owner", options_.user});
    if (!conversion.complete) status_ = vel_tool::kWarnings;
    report_.Begin();
    ReportLost(conversion.lost);
    Files();
    const int system = System();
    return WorseStatus(status_, system);
}

}  // namespace

int ImportFile(const FileImport& import) {
    CheckUser(import.user);
    if (!import.host_dist.empty()) CheckDist(import.host_dist);
    const std::string file = vel_tool::Absolute(import.file);
    if (!vel_file::Info(file).IsFile())
        throw std::runtime_error(Printable(import.file) + " is no file");
    if (import.dry_run)
        return Convert(import, file, {"--dry-run"}).complete ? vel_tool::kDone
                                                             : vel_tool::kWarnings;
    RestoreReport report(import.report, import.user);
    const int status =
        Reported(report, "import", [&] { return Import(import, file, report).Run(); });
    if (status == vel_tool::kFailed)
        throw std::runtime_error(Printable(import.file) + ": not everything came in, see above");
    return status;
}

}  // namespace backup2_admin
