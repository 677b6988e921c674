/// The report of one restore: what did not come back, for the owner of the data.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "sbin/backup2/extract.h"

namespace backup2_admin {

/// Written step by step while the restore goes on, each step under the report's lock: a restore
/// that is killed leaves what was known by then. That a report cannot be written never stops the
/// restore; Trouble() tells.
class RestoreReport {
public:
    /// `id`: [A-Za-z0-9_-]{1,64}; "" makes one of the user, the time and a random number. Throws
    /// vel_tool::UsageError for another text. No file is made yet.
    RestoreReport(const std::string& id, const std::string& owner);

    /// Makes the file, or goes on in one of this id that nobody has viewed. Throws
    /// vel_tool::UsageError when it is another user's, or a former one's of his name. The other
    /// functions call it when nobody did.
    void Begin();
    /// What the archiver could not restore.
    void AddFiles(const Extraction::Result& result);
    /// A database (SERVER.DATABASE) or the panel's document; `why` it did not come back.
    void AddSystem(const std::string& name, const std::string& why);
    /// A failure of the restore as a whole; `code` is the exit status of what failed.
    void AddFailure(const std::string& why, int code);
    /// `type`: "all", "selected" or "import". Prints how to read the report. Of each user's reports
    /// that have ended the newest hundred stay, and none longer than a year after it was written or
    /// viewed; the newest that nobody has viewed stays however old it is.
    void Finish(const std::string& type);

    const std::string& Id() const { return id_; }
    const std::string& Trouble() const { return trouble_; }  ///< "" while all was written

private:
    void Write(const std::function<void()>& write);
    void CheckOwner(const std::string& uid) const;

    std::string id_, owner_, trouble_;
    bool begun_ = false;
};

/// Runs `restore`, which returns an exit status, and sees to the end of the report: what it throws
/// goes into the report and on. vel_tool::UsageError goes on without a report.
int Reported(RestoreReport& report, const std::string& type, const std::function<int()>& restore);

// ---- Reading ------------------------------------------------------------------------------------

/// Throws vel_tool::UsageError for a text that cannot be a report's id.
std::string CheckReportId(const std::string& id);

struct ReportEvent {
    std::string date, name, owner, type, code, error;
};

struct StoredReport {
    std::string id, owner, uid, date, type;  ///< "" for what it does not say
    bool finalized = false, viewed = false, badchars = false;
    std::vector<ReportEvent> events;
};

/// All reports of this install root, by date and id. One that cannot be read is left out;
/// `unreadable` gets a line for it, its id, a TAB and why.
std::vector<StoredReport> ListReports(std::vector<std::string>* unreadable = nullptr);
/// Reads a report and marks it as viewed: whatever writes to it next begins afresh. Throws
/// vel_err::Error("missed", "report", id), and for a file that is no XML, which is set aside under
/// its name and ".bad".
StoredReport ViewReport(const std::string& id);

}  // namespace backup2_admin
