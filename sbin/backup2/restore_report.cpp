#include "sbin/backup2/restore_report.h"

#include <algorithm>
#include <chrono>
#include <iostream>
#include <map>
#include <tuple>
#include <utility>

#include "vel/str.h"
#include "vel/vel_date.h"
#include "vel/vel_err.h"
#include "vel/vel_file.h"
#include "vel/vel_log.h"
#include "vel/vel_tool.h"
#include "vel/vel_xml.h"

#include "backup_common/backup2_misc.h"

#include "sbin/backup2/job.h"

namespace backup2_admin {
namespace {

const vel_log::Module logger("backup2");

const std::string kIdBytes = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-";
constexpr std::size_t kLongestId = 64, kLongestUser = 32;
constexpr std::size_t kMostOfOwner = 100;          // reports that have ended
constexpr int64_t kLongestKept = 365 * 24 * 3600;  // seconds without being written or viewed
const std::string kDatabase = "Database";  // the word by which the library knows a database's event
const std::string kSystemTool = "backup2_system: ";
const std::string kYes = "yes";

/// One process at a time writes a report. The lock's file goes with the last of them.
class ReportLock {
public:
    explicit ReportLock(const std::string& id) : path_(backup2::GetReportFile(id) + ".lock") {
        lock_.DoLock(path_, false);
    }
    ReportLock(const ReportLock&) = delete;
    ReportLock& operator=(const ReportLock&) = delete;
    ~ReportLock() {
        try {
            if (lock_.Owns()) vel_file::RemoveFile(path_);
        } catch (const std::exception& error) {
            logger.Write(4, "Cannot remove '%s': %s", path_, error.what());
        }
    }

private:
    const std::string path_;
    vel_file::Lock lock_;
};

std::string MakeId(const std::string& owner) {
    std::string id;
    for (const char c : owner.substr(0, kLongestUser))
        id += kIdBytes.find(c) == std::string::npos ? '_' : c;
    for (const char c : vel_date::DateTime().AsDateTime())
        if (c != '-' && c != ':') id += c == ' ' ? '-' : c;
    return id.insert(std::min(owner.size(), kLongestUser), "-") + "-" +
           str::hex::Encode(str::Random(2));
}

bool IsDamage(const vel_err::Error& error) {
    return error.type() == "xml" && error.object() == "parse_failed";
}

/// Where a report of the same id is no hindrance any more.
std::string SetAside(const std::string& id) {
    const std::string path = backup2::GetReportFile(id), aside = path + ".bad";
    vel_file::Move(path, aside);
    logger.Write(4, "The report '%s' is no XML and was set aside as '%s'", id, aside);
    return aside;
}

vel_xml::Xml Load(const std::string& id) {
    vel_xml::Xml xml;
    xml.LoadFromFile(backup2::GetReportFile(id));
    return xml;
}

}  // namespace

// ---- What nobody needs any more -----------------------------------------------------------------

namespace {

bool IsOld(const std::string& id) {
    const auto now = std::chrono::system_clock::now().time_since_epoch() / std::chrono::seconds(1);
    return vel_file::Info(backup2::GetReportFile(id)).Stat().st_mtime + kLongestKept < now;
}

/// Unless a restore has begun it afresh meanwhile.
void Drop(const StoredReport& report) {
    const ReportLock lock(report.id);
    if (Load(report.id).GetRoot().GetProp("date") != report.date) return;
    vel_file::RemoveFile(backup2::GetReportFile(report.id));
}

/// Of each owner the newest that nobody has viewed stays, and the one just written.
void DropOldReports(const std::string& just_written) try {
    struct Seen {
        bool unviewed = false;
        std::size_t ended = 0;
    };
    std::map<std::pair<std::string, std::string>, Seen> seen_of;
    const auto reports = ListReports();
    for (auto report = reports.rbegin(); report != reports.rend(); ++report) {
        Seen& seen = seen_of[{report->owner, report->uid}];
        const bool stays = !report->viewed && !std::exchange(seen.unviewed, true);
        const bool over = report->finalized && ++seen.ended > kMostOfOwner;
        if ((over || IsOld(report->id)) && !stays && report->id != just_written) Drop(*report);
    }
} catch (const std::exception& error) {
    logger.Write(4, "Old reports stay: %s", error.what());
}

}  // namespace

// ---- Writing ------------------------------------------------------------------------------------

std::string CheckReportId(const std::string& id) {
    const bool good = !id.empty() && id.size() <= kLongestId &&
                      id.find_first_not_of(kIdBytes) == std::string::npos;
    if (!good)
        throw vel_tool::UsageError(
            "the id of a report consists of 1 to 64 letters, digits, \"_\" "
            "and \"-\"");
    return id;
}

RestoreReport::RestoreReport(const std::string& id, const std::string& owner)
    : id_(id.empty() ? MakeId(owner) : CheckReportId(id)), owner_(owner) {}

void RestoreReport::Write(const std::function<void()>& write) try {
    Begin();
    const ReportLock lock(id_);
    try {
        write();
    } catch (const vel_err::Error& error) {
        if (!IsDamage(error)) throw;
        SetAside(id_);
        write();
    }
} catch (const vel_tool::UsageError&) {
    throw;
} catch (const std::exception& error) {
    if (trouble_.empty()) trouble_ = "the report " + id_ + " is not complete: " + Reason(error);
}

void RestoreReport::CheckOwner(const std::string& uid) const {
    const vel_xml::XmlNode root = Load(id_).GetRoot();
    const std::string former = root.GetProp("owner"), former_uid = root.GetProp("uid");
    if (!former.empty() && former != owner_)
        throw vel_tool::UsageError("the report " + id_ + " belongs to " + former);
    if (!former_uid.empty() && !uid.empty() && former_uid != uid)
        throw vel_tool::UsageError("the report " + id_ + " belongs to a former " + former);
}

void RestoreReport::Begin() {
    if (begun_) return;
    begun_ = true;
    Write([this] {
        const bool exists = vel_file::Exists(backup2::GetReportFile(id_));
        const std::string uid = AskUserUid(owner_);
        if (exists) CheckOwner(uid);
        backup2::SaveFileReport(owner_, id_, "", 0);
        const vel_xml::Xml xml = Load(id_);
        xml.GetRoot().SetProp("owner", owner_).SetProp("date", vel_date::DateTime().AsDateTime());
        if (!uid.empty()) xml.GetRoot().SetProp("uid", uid);
        xml.Save(backup2::GetReportFile(id_), false);
    });
}

/// A name may hold the word by which the library knows databases: such an event gets its type and
/// its reason in another way.
void RestoreReport::AddFiles(const Extraction::Result& result) {
    std::vector<std::string> lines;
    str::Split(result.failed, "\n", lines);
    std::string usual;
    for (const std::string& line : lines) {
        if (line.find(kDatabase) == std::string::npos) {
            usual += line + "\n";
            continue;
        }
        std::string reason = line;
        const std::string name = str::GetWord(reason, '\t');
        const vel_xml::Xml answer;
        answer.GetRoot().AppendChild("error").SetProp("type", "file").AppendChild("msg", reason);
        Write([&] {
            backup2::SaveDataReport(vel_file::SplitPath(name).tail, owner_, id_, "file", answer);
        });
    }
    Write([&] { backup2::SaveFileReport(owner_, id_, backup2::ParseErrorFiles(usual), 0); });
}

void RestoreReport::AddSystem(const std::string& name, const std::string& why) {
    std::string text = why;
    if (str::StartsWith(text, kSystemTool)) text = text.substr(kSystemTool.size());
    if (text.find(kDatabase) == std::string::npos) text = kDatabase + " " + name + ": " + text;
    Write([&] { backup2::SaveFileReport(owner_, id_, text, vel_tool::kFailed); });
}

void RestoreReport::AddFailure(const std::string& why, int code) {
    Write([&] { backup2::SaveFileReport(owner_, id_, why, code); });
}

void RestoreReport::Finish(const std::string& type) {
    Write([&] { backup2::FinalizeReport(id_, type); });
    DropOldReports(id_);
    if (trouble_.empty()) {
        std::cout << "Report: backup2 report " << id_ << std::endl;
    } else {
        std::cout << trouble_ << std::endl;
    }
}

int Reported(RestoreReport& report, const std::string& type, const std::function<int()>& restore) {
    int status = vel_tool::kFailed;
    try {
        status = restore();
    } catch (const vel_tool::UsageError&) {
        throw;
    } catch (const std::exception& error) {
        report.AddFailure(Reason(error), vel_tool::kFailed);
        report.Finish(type);
        throw;
    }
    report.Finish(type);
    const bool warn = status == vel_tool::kDone && !report.Trouble().empty();
    return warn ? vel_tool::kWarnings : status;
}

// ---- Reading ------------------------------------------------------------------------------------

namespace {

StoredReport ReadReport(const std::string& id, const vel_xml::Xml& xml) {
    const vel_xml::XmlNode root = xml.GetRoot();
    StoredReport report;
    report.id = id;
    report.owner = root.GetProp("owner");
    report.uid = root.GetProp("uid");
    report.date = root.GetProp("date");
    report.type = root.GetProp("type");
    report.finalized = root.GetProp("finalized") == kYes;
    report.viewed = root.GetProp("viewed") == kYes;
    report.badchars = root.GetProp("badchars") == kYes;
    for (auto elem = root.FirstChild(); elem; elem = elem.Next()) {
        const auto prop = [&elem](const char* name) { return elem.GetProp(name); };
        report.events.push_back({prop("date"), prop("name"), prop("owner"), prop("type"),
                                 prop("code"), elem.FirstChild().Str()});
    }
    return report;
}

/// The id in a file's name; "" for what is no report.
std::string IdOf(const std::string& file) {
    const std::string empty = vel_file::Name(backup2::GetReportFile(""));  // head..xml
    const std::size_t head = empty.find("..") + 1, tail = empty.size() - head;
    if (file.size() <= empty.size() || file.compare(0, head, empty, 0, head) != 0) return "";
    if (file.compare(file.size() - tail, tail, empty, head) != 0) return "";
    return file.substr(head, file.size() - empty.size());
}

}  // namespace

std::vector<StoredReport> ListReports(std::vector<std::string>* unreadable) {
    std::vector<StoredReport> reports;
    for (vel_file::Dir entries(vel_file::SplitPath(backup2::GetReportFile("")).dir, 2);
         entries.Next();) {
        const std::string id = IdOf(entries.Name());
        if (id.empty() || !entries.IsFile()) continue;
        try {
            reports.push_back(ReadReport(id, Load(id)));
        } catch (const vel_err::Error& error) {
            logger.Write(4, "Cannot read the report '%s': %s", id, error.what());
            if (unreadable) unreadable->push_back(id + "\t" + Reason(error));
        }
    }
    std::sort(reports.begin(), reports.end(), [](const StoredReport& a, const StoredReport& b) {
        return std::tie(a.date, a.id) < std::tie(b.date, b.id);
    });
    return reports;
}

StoredReport ViewReport(const std::string& id) {
    const ReportLock lock(id);
    if (!vel_file::Exists(backup2::GetReportFile(id))) throw vel_err::Error("missed", "report", id);
    try {
        const vel_xml::Xml xml = Load(id);
        StoredReport report = ReadReport(id, xml);
        xml.GetRoot().SetProp("viewed", kYes);
        xml.Save(backup2::GetReportFile(id), false);
        return report;
    } catch (const vel_err::Error& error) {
        if (!IsDamage(error)) throw;
        const std::string aside = SetAside(id);
        throw std::runtime_error("the report " + id + " is no XML document (" + error.value() +
                                 "); it is set aside as " + aside);
    }
}

}  // namespace backup2_admin
