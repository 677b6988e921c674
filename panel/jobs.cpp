#include "panel/jobs.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <utility>

#include <nlohmann/json.hpp>

#include "vel/res_handle.h"
#include "vel/str.h"
#include "vel/vel_err.h"
#include "vel/vel_file.h"
#include "vel/vel_log.h"
#include "vel/vel_proc.h"

#include "panel/programs.h"

namespace panel {

// NOLINTNEXTLINE: what a record holds, by the names of the members
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE_WITH_DEFAULT(JobState, id, user, kind, date, report, uid, number,
                                                running, status, started, finished, lines,
                                                line_count, actions, step, bytes, of_bytes, files,
                                                of_files)

namespace {

using Json = nlohmann::json;

const vel_log::Module logger("panel");

constexpr char kJobsDir[] = "var/backup2_panel.jobs";
constexpr std::size_t kMostRunning = 8;
constexpr std::size_t kMostOfUser = 20;           // records of what has ended
constexpr int64_t kLongestKept = 30 * 24 * 3600;  // seconds; the newest of a user stays
constexpr std::size_t kMostLines = 1000, kMostLineBytes = 256 << 10;
constexpr std::size_t kMostActions = 16;
constexpr char kPanelWaitSeconds[] = "120";  // the panel may be started anew meanwhile

int64_t Now() {
    return std::chrono::system_clock::now().time_since_epoch() / std::chrono::seconds(1);
}

// ---- The record on the disk ---------------------------------------------------------------------

/// The files of one job. `record` is replaced as a whole; whoever keeps the job holds `lock`.
struct Place {
    explicit Place(const std::string& id) : dir(vel_file::ConcatPath(kJobsDir, id)) {}
    std::string Record() const { return vel_file::ConcatPath(dir, "record"); }
    std::string Words() const { return vel_file::ConcatPath(dir, "words"); }
    std::string Progress() const { return vel_file::ConcatPath(dir, "progress"); }
    std::string Lock() const { return vel_file::ConcatPath(dir, "lock"); }
    std::string dir;
};

void Save(const JobState& state) {
    const std::string text = Json(state).dump(1, ' ', false, Json::error_handler_t::replace);
    vel_file::Write(Place(state.id).Record(), text);
}

/// Nothing for what is no record of this job.
std::optional<JobState> Load(const std::string& id) try {
    auto state = Json::parse(vel_file::ReadE(Place(id).Record())).get<JobState>();
    if (state.id != id) throw vel_err::Error("value", "id");
    return state;
} catch (const std::exception& error) {
    logger.Write(4, "The record of the job %s cannot be read: %s", id, error.what());
    return std::nullopt;
}

bool IsKept(const Place& place) try {
    vel_file::Lock().DoLock(place.Lock(), true);
    return false;
} catch (const vel_err::Error& error) {
    if (error.type() != "lock") throw;
    return true;
}

// ---- Progress -----------------------------------------------------------------------------------

uint64_t Count(const Json& report, const char* name) {
    const auto found = report.find(name);
    return found != report.end() && found->is_number_unsigned() ? found->get<uint64_t>() : 0;
}

/// Follows the file to which the programs append.
class ProgressFile {
public:
    explicit ProgressFile(const std::string& path) : file_(path) {}

    void ReadInto(JobState& state) {
        char block[16 << 10];
        file_.clear();  // it may have grown behind its end
        while (file_.read(block, sizeof block) || file_.gcount() > 0)
            half_line_.append(block, static_cast<std::size_t>(file_.gcount()));
        std::size_t end;
        while ((end = half_line_.find('\n')) != std::string::npos) {
            const auto report = Json::parse(half_line_.substr(0, end), nullptr, false);
            half_line_.erase(0, end + 1);
            if (report.is_object()) Take(report, state);
        }
    }

private:
    /// The archiver counts what is asked for; the other programs only tell what is being done.
    void Take(const Json& report, JobState& state) {
        const std::string tool = report.value("tool", ""), step = report.value("step", "");
        if (step == "measure") {
            measured_ = Count(report, "of_bytes");
        } else {
            state.step = step;
        }
        if (tool == "qortar") {
            state.bytes = Count(report, "bytes");
            state.files = Count(report, "files");
            state.of_bytes = Count(report, "of_bytes");
            state.of_files = Count(report, "of_files");
        }
        if (state.of_bytes == 0) state.of_bytes = measured_;
    }

    std::ifstream file_;
    std::string half_line_;
    uint64_t measured_ = 0;
};

// ---- The keeper ---------------------------------------------------------------------------------

class Keeper {
public:
    explicit Keeper(const JobState& state) : state_(state), place_(state.id) {}

    /// Whatever happens, the record says in the end what did.
    void Work() {
        try {
            RunProgram();
        } catch (const std::exception& error) {
            logger.Write(4, "A job ended: %s", error.what());
            AddLine("the program could not be run");
            state_.status = 1;
        }
        ProgressFile(place_.Progress()).ReadInto(state_);
        if (state_.line_count > state_.lines.size()) state_.lines.push_back(last_line_);
        state_.finished = Now();
        state_.running = false;
        Save(state_);
        vel_file::Remove(place_.Progress());
        vel_file::Remove(place_.Words());
    }

private:
    void RunProgram() {
        std::vector<std::string> words;
        for (std::string rest = vel_file::ReadE(place_.Words()); !rest.empty();)
            words.push_back(str::GetWord(rest, '\0'));
        vel_proc::Execute program(Backup2(words), vel_proc::kStream | vel_proc::kJoinErrors);
        program.SetEnv("BACKUP2_PROGRESS", std::filesystem::absolute(place_.Progress()).string());
        program.SetEnv("VEL_PANEL_WAIT", kPanelWaitSeconds);
        std::string line;
        while (std::getline(program.Out(), line)) AddLine(line);
        state_.status = program.Result();
    }

    /// What failed is said on both outputs of a program: one of two equal neighbours is enough.
    void AddLine(const std::string& line) {
        const bool entry = line.find('\t') != std::string::npos;
        const std::string text = entry ? line : LastWord(line);
        if (text.empty() || text == last_line_) return;
        last_line_ = text;
        ++state_.line_count;
        if (state_.kind == "preview" && entry) CountAction(text.substr(0, text.find('\t')));
        if (state_.lines.size() >= kMostLines || line_bytes_ >= kMostLineBytes) return;
        line_bytes_ += text.size();
        state_.lines.push_back(text);
    }
    void CountAction(const std::string& action) {
        if (state_.actions.size() < kMostActions || state_.actions.count(action) != 0)
            ++state_.actions[action];
    }

    JobState state_;
    const Place place_;
    std::string last_line_;
    std::size_t line_bytes_ = 0;
};

void StartKeeper(const std::string& id) {
    const vel_file::ResHandle nowhere(::open("/dev/null", O_WRONLY | O_CLOEXEC));
    vel_proc::Execute keeper({"sbin/backup2_panel", "job", id}, vel_proc::kJoinErrors);
    keeper.RedirectOutTo(nowhere);  // nobody would read a pipe
    if (keeper.Result() != 0) throw vel_err::Error("panel", "job", id);
}

/// Nothing is left of it when it cannot be begun.
JobState Begin(const JobRequest& request, uint64_t number) {
    JobState state;
    state.id = str::hex::Encode(str::Random(16));
    state.user = request.user;
    state.uid = request.uid;
    state.number = number;
    state.kind = request.kind;
    state.date = request.date;
    state.report = request.report;
    state.started = Now();
    const Place place(state.id);
    std::string words;
    for (const std::string& word : request.words) words += word + '\0';
    try {
        vel_file::MkDir(place.dir, vel_file::Attrs(0700));
        vel_file::Write(place.Words(), words);
        vel_file::Write(place.Progress(), "");
        Save(state);
        StartKeeper(state.id);
    } catch (...) {
        vel_file::Remove(place.dir);
        throw;
    }
    return state;
}

bool IsJobId(const std::string& id) {
    return id.size() == 32 && id.find_first_not_of("0123456789abcdef") == std::string::npos;
}

}  // namespace

void KeepJob(const std::string& id) {
    const auto state = IsJobId(id) ? Load(id) : std::nullopt;
    if (!state || !state->running) throw vel_err::Error("missed", "job", id);
    vel_file::Lock lock;
    lock.DoLock(Place(id).Lock(), true);
    // The lock goes over to the process that stays; the kernel takes it when that has ended.
    if (::daemon(1, 1) != 0) vel_err::RaiseErrno("daemon", id, errno);
    Keeper(*state).Work();
}

// ---- What the panel knows -----------------------------------------------------------------------

class Jobs::Job {
public:
    explicit Job(JobState state)
        : place_(state.id), state_(std::move(state)), progress_(place_.Progress()) {
        Refresh();
        DropWords();
    }
    const JobState& State() const { return state_; }

    /// Looks at what runs: how far it is, and whether somebody still keeps it.
    void Refresh() {
        if (!state_.running) return;
        progress_.ReadInto(state_);
        if (IsKept(place_)) return;
        const auto record = Load(state_.id);
        if (record) state_ = *record;
        if (state_.running) BreakOff();
        DropWords();
    }
    /// With what it printed, as the record has it.
    JobState Whole() const { return state_.running ? state_ : Load(state_.id).value_or(state_); }
    void Forget() const { vel_file::Remove(place_.dir); }

private:
    /// The keeper would have written how it ended.
    void BreakOff() {
        state_.running = false;
        state_.status = 1;
        state_.finished =
            std::max(vel_file::Info(place_.Progress()).Stat().st_mtime, state_.started);
        state_.lines = {"broken off: the machine or the program was stopped"};
        state_.line_count = 1;
        try {
            Save(state_);
        } catch (const std::exception& error) {
            logger.Write(4, "A job that was broken off: %s", error.what());  // told again next time
        }
    }
    /// Many jobs are remembered; what they printed stays on the disk.
    void DropWords() {
        state_.lines.clear();
        state_.actions.clear();
    }

    const Place place_;
    JobState state_;
    ProgressFile progress_;
};

Jobs::Jobs() {
    vel_file::MkDir(kJobsDir, vel_file::Attrs(0700));
    for (vel_file::Dir entries(kJobsDir); entries.Next();) {
        const std::string id = entries.Name();
        auto state = IsJobId(id) ? Load(id) : std::nullopt;
        if (state) {
            jobs_.push_back(std::make_unique<Job>(std::move(*state)));
        } else {
            vel_file::Remove(entries.Path());  // made by a panel that was killed over it
        }
    }
    std::sort(jobs_.begin(), jobs_.end(),
              [](const auto& a, const auto& b) { return a->State().number < b->State().number; });
}

Jobs::~Jobs() = default;

std::string Jobs::Start(const JobRequest& request) {
    const std::lock_guard lock(mutex_);
    std::size_t running = 0;
    for (const auto& job : jobs_) {
        job->Refresh();
        if (!job->State().running) continue;
        if (job->State().user == request.user) throw vel_err::Error("busy", request.user);
        ++running;
    }
    if (running >= kMostRunning) throw vel_err::Error("busy", "");
    const uint64_t number = jobs_.empty() ? 1 : jobs_.back()->State().number + 1;
    jobs_.push_back(std::make_unique<Job>(Begin(request, number)));
    const std::string id = jobs_.back()->State().id;
    DropOld(request.user);
    return id;
}

/// Of those that have ended, however old: the newest stays.
void Jobs::DropOld(const std::string& user) {
    std::size_t ended = 0;
    for (std::size_t at = jobs_.size(); at-- > 0;) {
        const JobState& state = jobs_[at]->State();
        if (state.user != user || state.running) continue;
        const bool old = ended >= kMostOfUser || state.finished + kLongestKept < Now();
        if (ended++ == 0 || !old) continue;
        jobs_[at]->Forget();
        jobs_.erase(jobs_.begin() + static_cast<std::ptrdiff_t>(at));
    }
}

std::optional<JobState> Jobs::Find(const std::string& id) {
    const std::lock_guard lock(mutex_);
    for (const auto& job : jobs_) {
        if (job->State().id != id) continue;
        job->Refresh();
        return job->Whole();
    }
    return std::nullopt;
}

std::vector<JobState> Jobs::Of(const std::string& user) {
    std::vector<JobState> states;
    const std::lock_guard lock(mutex_);
    for (auto job = jobs_.rbegin(); job != jobs_.rend(); ++job) {
        (*job)->Refresh();
        if (user.empty() || (*job)->State().user == user) states.push_back((*job)->State());
    }
    return states;
}

}  // namespace panel
