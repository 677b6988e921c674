/// Long work that was started at the page: runs of the program backup2, each with a thread of its
/// own. In memory only: they go on while nobody looks and end with the panel.
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
    bool running = true;
    int status = 0;                     ///< exit status, once it does not run any more
    int64_t started = 0, finished = 0;  ///< seconds since the epoch
    std::vector<std::string> lines;     ///< what it printed: the first 1000 lines and the last
    uint64_t line_count = 0;
    std::map<std::string, uint64_t> actions;  ///< of a preview: how many entries for each action
    std::string step;                         ///< what is being done, as the programs call it
    uint64_t bytes = 0, of_bytes = 0, files = 0, of_files = 0;  ///< of_...: 0 = unknown
};

class Jobs {
public:
    Jobs();
    ~Jobs();  ///< ends what still runs
    Jobs(const Jobs&) = delete;
    Jobs& operator=(const Jobs&) = delete;

    /// The id of the job that was begun (32 hex digits). Throws vel_err::Error("busy", USER) when
    /// one of the same user runs, and ("busy", "") when too many run in all.
    std::string Start(const JobRequest& request);
    std::optional<JobState> Find(const std::string& id);
    /// Of one user, or of all with no name; the newest first, without lines.
    std::vector<JobState> Of(const std::string& user);

private:
    class Job;
    void DropOld();

    std::mutex mutex_;
    std::map<uint64_t, std::unique_ptr<Job>> jobs_;  // by the order of their beginning
    uint64_t next_ = 0;
};

}  // namespace panel
