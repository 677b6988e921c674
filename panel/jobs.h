/// Long work that was started at the page: runs of the program backup2, each under a keeper, a
/// process of its own (backup2_panel job ID). The work goes on while nobody looks and while the
/// panel is away; its record lies in var/backup2_panel.jobs/ID, where the next panel finds it.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace panel {

struct JobRequest {
    std::string user;                ///< whose data it is about; "" for the administrator's storage
    std::string kind;                ///< run | restore | preview | verify | check
    std::string date;                ///< of the backup, "" when it is about none
    std::string report;              ///< id of the report that a restore will write, else ""
    std::vector<std::string> words;  ///< behind "backup2"
    int64_t uid = 0;                 ///< the user's number
};

/// What is known of a job at one moment.
struct JobState {
    std::string id, user, kind, date, report;
    int64_t uid = 0;
    uint64_t number = 0;  ///< in the order of their beginning
    bool running = true;
    int status = 0;                     ///< exit status, once it does not run any more
    int64_t started = 0, finished = 0;  ///< seconds since the epoch
    std::vector<std::string> lines;     ///< what it printed: the first, at most 1000, and the last
    uint64_t line_count = 0;
    std::map<std::string, uint64_t> actions;  ///< of a preview: how many entries for each action
    std::string step;                         ///< what is being done, as the programs call it
    uint64_t bytes = 0, of_bytes = 0, files = 0, of_files = 0;  ///< of_...: 0 = unknown
};

class Jobs {
public:
    /// With what earlier panels began: what runs still, and what has ended meanwhile.
    Jobs();
    ~Jobs();  ///< nothing ends by this
    Jobs(const Jobs&) = delete;
    Jobs& operator=(const Jobs&) = delete;

    /// The id of the job that was begun (32 hex digits). Throws vel_err::Error("busy", USER) when
    /// one of the same user runs, and ("busy", "") when too many run in all.
    std::string Start(const JobRequest& request);
    std::optional<JobState> Find(const std::string& id);
    /// Of one user, or of all with no name; the newest first, without lines and actions.
    std::vector<JobState> Of(const std::string& user);

private:
    class Job;
    void DropOld(const std::string& user);

    std::mutex mutex_;
    std::vector<std::unique_ptr<Job>> jobs_;  // in the order of their beginning
};

/// The keeper: runs what the record of the job says and writes there what came of it. The calling
/// process goes into the background; this returns in the one that stays, when the work is done.
/// Throws vel_err::Error before that when there is no such job or somebody keeps it already.
void KeepJob(const std::string& id);

}  // namespace panel
