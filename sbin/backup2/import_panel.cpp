#include "sbin/backup2/import_panel.h"

#include <iostream>
#include <set>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "vel/str.h"
#include "vel/vel_file.h"
#include "vel/vel_proc.h"
#include "vel/vel_rpc/fetch_file.h"
#include "vel/vel_tool.h"
#include "vel/vel_user.h"
#include "vel/vel_xml.h"

#include "sbin/backup2/entries.h"
#include "sbin/backup2/extract.h"
#include "sbin/backup2/folder_on_signal.h"
#include "sbin/backup2/import_place.h"
#include "sbin/backup2/job.h"
#include "sbin/backup2/other_panel.h"
#include "sbin/backup2/output.h"
#include "sbin/backup2/progress.h"
#include "sbin/backup2/restore_report.h"
#include "sbin/backup2/secret.h"
#include "sbin/backup2/system_data.h"

namespace backup2_admin {
namespace {

const std::string kArchiver = "sbin/qortar", kSystem = ".system";
constexpr std::size_t kFlagsField = 12;  // of a listing's line, see docs/formats.md

// ---- What was fetched ---------------------------------------------------------------------------

bool IsSystem(const std::string& name) {
    return name == kSystem || str::StartsWith(name, kSystem + "/");
}

/// Names directly below the root of an archive that lies here.
struct TopLevel {
    std::vector<std::string> files;
    bool system = false;
};

/// Reads the archive to its end, which shows that it is whole.
TopLevel Look(const std::string& archive) {
    vel_proc::Execute list({kArchiver, "--list", archive, "--json"}, vel_proc::kStream);
    std::set<std::string> names;
    for (std::string line; std::getline(list.Out(), line);) {
        const auto entry = nlohmann::json::parse(line, nullptr, false);
        if (entry.is_discarded()) continue;
        std::string name = str::hex::Decode(entry.value("name_hex", ""));
        if (name.empty()) name = entry.value("name", "");
        names.insert(str::GetWord(name, '/'));
    }
    if (list.Result() != 0) throw std::runtime_error("the archive that was fetched is damaged");
    for (const char* none : {".", ""}) names.erase(none);
    TopLevel top;
    top.system = names.erase(kSystem) > 0;
    top.files.assign(names.begin(), names.end());
    return top;
}

/// A listing of nothing but what the increment's user had removed since the full backup: the
/// archives are read as streams, in which removals do not stand. False when there is none.
bool MakeListOfRemovals(const std::string& listing, const std::string& dir) {
    vel_proc::Execute tar({"tar", "-xzOf", listing, "listing"}, vel_proc::kStream);
    std::string text = "#qortar-listing 1\n";
    uint64_t count = 0;
    for (std::string line; std::getline(tar.Out(), line);) {
        std::string rest = line;
        for (std::size_t i = 0; i < kFlagsField; ++i) str::GetWord(rest, '\t');
        const std::string flags = str::GetWord(rest, '\t');
        if (flags.find('D') == std::string::npos || IsSystem(str::GetWord(rest, '\t'))) continue;
        text += line + "\n";
        ++count;
    }
    if (tar.Result() != 0) throw std::runtime_error("the listing that was fetched is damaged");
    vel_file::Write(vel_file::ConcatPath(dir, "listing"), text + "#end " + str::Str(count) + "\n");
    vel_proc::Execute pack(
        {"tar", "-czf", vel_file::ConcatPath(dir, "removals"), "-C", dir, "listing"},
        vel_proc::kJoinErrors);
    if (pack.Result() != 0) throw std::runtime_error("no listing can be made in " + dir);
    return count > 0;
}

// ---- The import ---------------------------------------------------------------------------------

class Import {
public:
    Import(const PanelImport& options, const std::string& password, RestoreReport& report);
    int Run();

private:
    std::string In(const std::string& name) const {
        return vel_file::ConcatPath(work_.Path(), name);
    }
    void Fetch();
    bool FetchOnce();
    void StageSystem();
    void DropRemovedSystem(const std::string& staged) const;
    bool IsOtherNumber() const;
    int Files();
    int Extract(const std::string& archive, const TopLevel& top, ProgressView& progress);
    int System();

    const PanelImport& options_;
    RestoreReport& report_;
    const std::string root_;
    const OtherPanel panel_;
    const WorkLock alone_;
    const vel_file::TmpDir work_;  // root's alone: it holds all that the user has
    const FolderOnSignal folder_on_signal_;
    bool has_listing_ = false, has_increment_ = false;
    TopLevel full_, increment_;
};

Import::Import(const PanelImport& options, const std::string& password, RestoreReport& report)
    : options_(options),
      report_(report),
      root_(NeedImportRoot(options.user)),
      panel_(options.from, options.admin, password, options.user),
      alone_("restore", options.user),
      work_(MakeImportDir(options.user)),
      folder_on_signal_(work_.Path()) {}

/// False when another backup became the newest there meanwhile.
bool Import::FetchOnce() {
    has_listing_ = panel_.FetchPart("listing", In("list.tgz"));
    panel_.FetchArchive(In("full.tgz"));
    has_increment_ = has_listing_ && panel_.FetchPart("2", In("increment.tgz"));
    if (!has_listing_) return true;
    panel_.FetchPart("listing", In("again.tgz"));
    return vel_file::ReadE(In("list.tgz")) == vel_file::ReadE(In("again.tgz"));
}

void Import::Fetch() {
    if (!FetchOnce() && !FetchOnce())
        throw std::runtime_error(
            "the backups there change while they are fetched: try again later");
    full_ = Look(In("full.tgz"));
    if (full_.files.empty() && !full_.system)
        throw std::runtime_error("the archive that was fetched is empty");
    if (has_increment_) increment_ = Look(In("increment.tgz"));
    uint64_t bytes = vel_file::Info(In("full.tgz")).Size();
    if (has_increment_) bytes += vel_file::Info(In("increment.tgz")).Size();
    std::cout << options_.user << ": " << HumanSize(bytes) << " fetched from "
              << Printable(options_.from) << std::endl;
    if (!has_listing_)
        std::cout << "The other panel is of an older version: its one archive is taken"
                  << std::endl;
}

/// The panel's document and the dumps, where the user cannot see them.
void Import::StageSystem() {
    const std::string staged = In("system");
    vel_file::MkDir(staged, vel_file::Attrs(0700));
    const auto take = [&](const std::string& archive, const TopLevel& top) {
        if (!top.system) return;
        const auto result =
            RunArchiver({kArchiver, "--extract", In(archive), "--root", staged, "--", kSystem});
        report_.AddFiles(result);
        if (result.status != 0) result.ThrowIfFatal("panel data");
    };
    take("full.tgz", full_);
    take("increment.tgz", increment_);
    if (has_listing_) DropRemovedSystem(vel_file::ConcatPath(staged, kSystem));
}

/// Databases that were there when the full backup was made, and no more at the increment.
void Import::DropRemovedSystem(const std::string& staged) const {
    std::set<std::string> living;
    EachListedEntry(In("list.tgz"), [&living](const ListedEntry& entry) {
        if (IsSystem(entry.name) && !entry.Gone()) living.insert(vel_file::Name(entry.name));
    });
    if (!vel_file::Exists(staged)) return;
    std::vector<std::string> removed;
    for (vel_file::Dir entries(staged, 2); entries.Next();)
        if (living.count(entries.Name()) == 0) removed.push_back(entries.Path());
    for (const std::string& path : removed) vel_file::Remove(path);
}

/// Whether the user had another number there: then no owner in the archive means anything here.
bool Import::IsOtherNumber() const {
    const std::string path = vel_file::ConcatPath(In("system"), kSystem, "user." + options_.user);
    if (!vel_file::Exists(path)) return true;
    vel_xml::Xml document;
    document.LoadFromFile(path);
    const std::string uid =
        document.GetNode("/doc/elem[@name='user.edit']/param[@name='uid']").Str();
    return uid != str::Str(int64_t{vel_user::Uid(options_.user)});
}

int Import::Extract(const std::string& archive, const TopLevel& top, ProgressView& progress) {
    if (top.files.empty()) return vel_tool::kDone;
    std::vector<std::string> argv = {kArchiver, "--extract", In(archive),  "--root",
                                     root_,     "--user",    options_.user};
    if (IsOtherNumber()) argv.push_back("--own");
    argv.push_back("--");
    argv.insert(argv.end(), top.files.begin(), top.files.end());
    const auto result = RunArchiver(std::move(argv));
    for (const std::string& line : result.lines) std::cout << line << "\n";
    const auto seen = progress.Finish("qortar");
    std::cout << options_.user << ": " << Plural(seen.files, "file") << ", "
              << HumanSize(seen.bytes) << " in " << HumanTime(progress.Seconds()) << std::endl;
    result.ThrowIfFatal(Printable(root_));
    report_.AddFiles(result);
    return result.status;
}

/// The full backup, then what was removed and what was changed since.
int Import::Files() {
    vel_file::MkDir(root_);
    int status = vel_tool::kDone;
    {
        ProgressView progress("import of " + options_.user, alone_.Dir());
        status = Extract("full.tgz", full_, progress);
    }
    if (!has_increment_) return status;
    if (MakeListOfRemovals(In("list.tgz"), work_.Path())) {
        const auto result = RunArchiver({kArchiver, "--extract", In("increment.tgz"), "--listing",
                                         In("removals"), "--root", root_, "--user", options_.user});
        result.ThrowIfFatal("removals");
        report_.AddFiles(result);
        status = WorseStatus(status, result.status);
    }
    ProgressView progress("increment of " + options_.user, alone_.Dir());
    return WorseStatus(status, Extract("increment.tgz", increment_, progress));
}

int Import::System() {
    const std::string dumps = vel_file::ConcatPath(In("system"), kSystem);
    if (!vel_file::Exists(dumps)) return vel_tool::kDone;
    const auto done = [this](const std::string& name, const std::string& why) {
        if (!why.empty()) report_.AddSystem(name, why);
    };
    return RestoreSystem(dumps, options_.user, options_.host_dist, done);
}

int Import::Run() {
    Fetch();
    StageSystem();
    report_.Begin();
    const int status = Files();
    return WorseStatus(status, System());
}

}  // namespace

int ImportFromPanel(const PanelImport& options) {
    CheckUser(options.user);
    CheckPanelAddress(options.from, options.insecure);
    RestoreReport report(options.report, options.user);
    const std::string password = AskSecret("Password of " + options.admin);
    vel_rpc::TrustPanels({options.ca_file, options.insecure});
    const int status =
        Reported(report, "import", [&] { return Import(options, password, report).Run(); });
    if (status == vel_tool::kFailed)
        throw std::runtime_error(options.user + ": not everything came over, see above");
    return status;
}

}  // namespace backup2_admin
