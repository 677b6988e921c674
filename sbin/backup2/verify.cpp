/// backup2 verify: is what the storage keeps still what was put there?
#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <list>
#include <new>
#include <set>
#include <streambuf>
#include <system_error>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "vel/str.h"
#include "vel/stream.h"
#include "vel/vel_err.h"
#include "vel/vel_file.h"
#include "vel/vel_hash.h"
#include "vel/vel_tool.h"

#include "sbin/backup2/commands.h"
#include "sbin/backup2/extract.h"
#include "sbin/backup2/job.h"
#include "sbin/backup2/output.h"
#include "sbin/backup2/progress.h"
#include "sbin/backup2/verified.h"

namespace backup2_admin {
namespace {

const char kExamples[] = R"(
Every stored slice is read back whole; its size and SHA-256 must be those of the info file. --deep
decrypts and unpacks it too and compares every entry with the listing. Of an increment the full
backup is checked as well.

Examples:
  backup2 verify                      everything
  backup2 verify bob                  all backups of bob
  backup2 verify bob 2024-01-31 --deep

Exit status 1: something is wrong; the bad slices are named. So it is when a storage cannot be
reached: nothing is known then, and what was known of its backups stays.)";

struct Options {
    std::string user, date;
    bool deep = false, own = false, json = false;
};

struct Report {
    std::string user, date;
    uint64_t slices = 0, bytes = 0;
    std::vector<std::pair<std::string, std::string>> bad;  // name, why
    std::string unknown;                                   // why nothing was learned of the backup

    bool IsGood() const { return bad.empty() && unknown.empty(); }
};

/// True for failures that say nothing about the backup: of the way to the storage, or of this
/// machine.
bool IsOfTheWay(const std::exception& error) {
    static const std::set<std::string> kNoWayIn = {"unreachable", "login_refused", "host_key"};
    if (const auto* own = dynamic_cast<const vel_err::Error*>(&error)) {
        return own->type() == "network" || own->type() == "unauthorized" ||
               (own->type() == "storage" && kNoWayIn.count(own->object()) != 0);
    }
    return dynamic_cast<const Busy*>(&error) || dynamic_cast<const std::system_error*>(&error) ||
           dynamic_cast<const std::bad_alloc*>(&error);
}

/// Takes bytes and keeps their number and digest.
class SumBuffer : public std::streambuf {
public:
    uint64_t Size() const { return size_; }
    std::string Sum() { return str::hex::Encode(hash_.Str()); }

protected:
    std::streamsize xsputn(const char* bytes, std::streamsize count) override {
        hash_.Update(bytes, static_cast<std::size_t>(count));
        size_ += static_cast<uint64_t>(count);
        return count;
    }
    int_type overflow(int_type c) override {
        const char byte = traits_type::to_char_type(c);
        if (!traits_type::eq_int_type(c, traits_type::eof())) xsputn(&byte, 1);
        return traits_type::not_eof(c);
    }

private:
    vel_hash::Hash hash_{vel_hash::HashType::Sha256};
    uint64_t size_ = 0;
};

void Pump(const std::string& file, std::ostream& out) {
    vel_file::InStream in(file);
    out << in.rdbuf();
}

/// Storages behind ssh hand out files. This one lies where the copy tool sweeps after dead
/// programs.
void ReadBySsh(backup2::BackupToken token, const std::string& name, std::ostream& out) {
    const std::string top = "var/backup2_cp.tmp";
    vel_file::MkDir(top, vel_file::Attrs(0700));
    const auto work = vel_file::TmpDir::At(vel_file::ConcatPath(top, str::Str(::getpid()) + ".0"));
    const std::string file = vel_file::ConcatPath(work.Path(), "stored");
    token.DropParam("arch_password");  // without it the bytes come as they are
    backup2::GetStorage(token)->Get(name, file);
    Pump(file, out);
}

/// The stored bytes as they are.
void ReadStored(const backup2::BackupToken& token, const std::string& name, std::ostream& out) {
    const std::string type = token.Type();
    if (type == "sftp" || type == "node") return ReadBySsh(token, name, out);
    if (!token.IsLocal()) return backup2::GetStorage(token)->GetArch(name, out);
    Pump(vel_file::ConcatPath(token.GetParam("path"), name), out);
}

/// "" when the stored slice is as it was recorded, else what is wrong with it.
std::string CheckSlice(const backup2::BackupToken& token, const Slice& slice, uint64_t& bytes) {
    SumBuffer sums;
    std::ostream out(&sums);
    out.exceptions(std::ios::badbit);
    try {
        ReadStored(token, slice.path, out);
    } catch (const std::exception& error) {
        if (IsOfTheWay(error)) throw;
        return "cannot be read: " + Reason(error);
    }
    bytes += sums.Size();
    if (slice.stored_sum.empty()) return "";  // an old backup: that it can be read must do
    if (sums.Size() != slice.stored) {
        return "has " + str::Str(sums.Size()) + " bytes in place of " + str::Str(slice.stored);
    }
    return sums.Sum() == slice.stored_sum ? "" : "its content has changed";
}

class Verification {
public:
    Verification(Site site, bool deep) : site_(std::move(site)), deep_(deep) {}

    Report Check(const Backup& backup);

private:
    void CheckFiles(const Backup& backup, Report& report);
    void CheckSlices(const Backup& backup, Report& report);
    void CheckBase(const Backup& backup, Report& report);
    void CheckDeep(const Backup& backup, Report& report);

    Site site_;
    bool deep_;
    std::set<std::string> good_;  // titles: increments share a full backup
};

Report Verification::Check(const Backup& backup) {
    Report report;
    report.user = backup.user;
    report.date = backup.date;
    const auto in_use = Protect(backup);
    try {
        CheckFiles(backup, report);
        CheckSlices(backup, report);
        CheckBase(backup, report);
        if (deep_ && report.bad.empty()) CheckDeep(backup, report);
    } catch (const std::exception& error) {
        if (IsOfTheWay(error)) {
            report.unknown = Reason(error);
        } else {
            report.bad.emplace_back(backup.Title(), Reason(error));
        }
    }
    if (report.IsGood()) good_.insert(backup.Title());
    if (report.IsGood() || !report.bad.empty())
        RecordVerified(backup, {"", report.IsGood(), deep_});
    return report;
}

/// Without its info file on the storage no reader there would know the backup.
void Verification::CheckFiles(const Backup& backup, Report& report) {
    std::list<std::string> found;
    const auto storage = backup2::GetStorage(site_.token);
    storage->Reach();
    storage->List(found, vel_file::SplitPath(backup2::GetPath(backup.info_path)).dir);
    const auto need = [&](const std::string& name) {
        if (std::find(found.begin(), found.end(), vel_file::Name(name)) == found.end())
            report.bad.emplace_back(name, "is missing");
    };
    need(backup.StoredIndex(site_.token));
    need(backup2::GetPath(backup.info_path));
}

void Verification::CheckSlices(const Backup& backup, Report& report) {
    for (const Slice& slice : backup.Slices()) {
        const std::string why = CheckSlice(site_.token, slice, report.bytes);
        ++report.slices;
        if (!why.empty()) report.bad.emplace_back(slice.path, why);
    }
}

void Verification::CheckBase(const Backup& backup, Report& report) {
    if (backup.BaseDate().empty()) return;
    const Backup base = GetBackup(site_.local_dir, backup.user, backup.BaseDate());
    if (good_.count(base.Title()) != 0) return;
    CheckSlices(base, report);
    if (report.bad.empty()) good_.insert(base.Title());
}

void Verification::CheckDeep(const Backup& backup, Report& report) {
    CheckPassword(backup, site_.token);
    const WorkLock alone("verify", backup.user);
    ProgressView progress("verify " + backup.Title(), alone.Dir());
    const Extraction archiver("verify", backup, site_.local_dir, NeedIndex(backup, site_.token));
    const auto result = archiver.Run("--verify", "", {}, {});
    for (std::string line : result.lines) {
        const std::string name = str::GetWord(line, '\t');
        report.bad.emplace_back(name, line);
    }
    if (result.status != 0 && result.lines.empty()) {
        report.bad.emplace_back(backup.Archive(), result.message);
    }
}

nlohmann::json Json(const Report& report) {
    nlohmann::json json = {{"user", report.user},      {"date", report.date},
                           {"slices", report.slices},  {"bytes", report.bytes},
                           {"good", report.IsGood()},  {"bad", nlohmann::json::array()},
                           {"unknown", report.unknown}};
    for (const auto& [name, why] : report.bad) {
        json["bad"].push_back({{"name", name}, {"why", why}});
    }
    return json;
}

void Print(const Report& report) {
    std::cout << Printable(report.user) << " " << report.date << ": ";
    if (report.IsGood()) {
        std::cout << "good, " << Plural(report.slices, "slice") << ", " << HumanSize(report.bytes)
                  << std::endl;
        return;
    }
    std::cout << (report.bad.empty() ? "not checked" : "BAD") << std::endl;
    for (const auto& [name, why] : report.bad) std::cout << name << "\t" << why << std::endl;
    if (!report.unknown.empty()) std::cout << report.unknown << std::endl;
}

std::vector<Report> VerifySite(const Options& options, const Site& site, const std::string& user,
                               const std::string& date) {
    UseStorage(site.token);
    const auto backups = date.empty() ? FindBackups(site.local_dir, user, "")
                                      : std::vector{GetBackup(site.local_dir, user, date)};
    Verification verification(site, options.deep);
    std::vector<Report> reports;
    for (const Backup& backup : backups) {
        reports.push_back(verification.Check(backup));
        if (!options.json) Print(reports.back());
    }
    return reports;
}

int Verify(const Options& options) {
    const std::string user = options.user.empty() ? "" : CheckUser(options.user);
    const std::string date = options.date.empty() ? "" : CheckDate(options.date);
    nlohmann::json rows = nlohmann::json::array();
    std::size_t bad = 0, unknown = 0;
    for (const Site& site : AskSites(options.own, user)) {
        for (const Report& report : VerifySite(options, site, user, date)) {
            bad += report.bad.empty() ? 0 : 1;
            unknown += report.bad.empty() && !report.unknown.empty() ? 1 : 0;
            rows.push_back(Json(report));
        }
    }
    // Of a user who has none, or is misspelt, nothing is known to be good.
    if (rows.empty() && !user.empty()) throw vel_err::Error("missed", "backup", "of " + user);
    if (options.json) PrintJson(rows);
    if (!options.json && rows.empty()) std::cout << "no backups\n";
    const auto tell = [](std::size_t count, const char* what) {
        if (count > 0)
            std::cerr << "backup2: " << Plural(count, "backup") << " " << what << std::endl;
    };
    tell(bad, "cannot be relied on");
    tell(unknown, "could not be checked");
    return bad + unknown == 0 ? vel_tool::kDone : vel_tool::kFailed;
}

}  // namespace

void AddVerify(CLI::App& app, Action& chosen) {
    auto* command = app.add_subcommand("verify", "Read stored backups back and check them");
    const auto options = std::make_shared<Options>();
    command->add_option("user", options->user, "Only the backups of this user");
    command->add_option("date", options->date, "Only the one of this day, or \"custom\"");
    command->add_flag("--deep", options->deep, "Unpack everything and compare with the listing");
    command->add_flag("--private", options->own, "The copies in users' own storages");
    command->add_flag("--json", options->json, "Report as JSON");
    command->footer(kExamples);
    command->callback([options, &chosen] { chosen = [options] { return Verify(*options); }; });
}

}  // namespace backup2_admin
