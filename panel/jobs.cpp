#include "panel/jobs.h"

#include <signal.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include <nlohmann/json.hpp>

#include "vel/str.h"
#include "vel/vel_err.h"
#include "vel/vel_file.h"
#include "vel/vel_log.h"
#include "vel/vel_proc.h"

#include "panel/programs.h"

namespace panel {
namespace {

const vel_log::Module logger("panel");

constexpr char kProgressDir[] = "var/run/backup2_panel";
constexpr std::size_t kMostRunning = 8;
constexpr std::size_t kMostRemembered = 200;
constexpr std::size_t kMostLines = 1000;
constexpr std::size_t kMostActions = 16;

int64_t Now() {
    return std::chrono::system_clock::now().time_since_epoch() / std::chrono::seconds(1);
}

uint64_t Count(const nlohmann::json& report, const char* name) {
    const auto found = report.find(name);
    return found != report.end() && found->is_number_unsigned() ? found->get<uint64_t>() : 0;
}

}  // namespace

class Jobs::Job {
public:
    explicit Job(const JobRequest& request);
    ~Job();
    JobState State();
    bool Is(const std::string& id) const { return state_.id == id; }
    bool Of(const std::string& user) const { return state_.user == user; }
    bool Running();

private:
    void Work(const std::vector<std::string>& argv);
    void RunProgram(const std::vector<std::string>& argv);
    void AddLine(const std::string& line);
    void ReadProgress();
    void TakeProgress(const nlohmann::json& report);
    void End(int status);

    std::mutex mutex_;
    JobState state_;
    std::string last_line_;
    vel_file::Tmp progress_;
    std::ifstream reports_;
    std::string half_report_;
    uint64_t measured_ = 0;
    pid_t pid_ = -1;
    bool stop_ = false;
    std::thread thread_;  // last: it uses the others
};

Jobs::Job::Job(const JobRequest& request)
    : progress_(vel_file::ConcatPath(kProgressDir, "progress")), reports_(progress_.Path()) {
    state_.id = str::hex::Encode(str::Random(16));
    state_.user = request.user;
    state_.uid = request.uid;
    state_.kind = request.kind;
    state_.date = request.date;
    state_.report = request.report;
    state_.started = Now();
    thread_ = std::thread([this, argv = Backup2(request.words)] { Work(argv); });
}

Jobs::Job::~Job() {
    {
        const std::lock_guard lock(mutex_);
        stop_ = true;
        if (pid_ > 0) ::kill(pid_, SIGTERM);  // not reaped before pid_ is -1: it is still this one
    }
    thread_.join();
}

bool Jobs::Job::Running() {
    const std::lock_guard lock(mutex_);
    return state_.running;
}

JobState Jobs::Job::State() {
    const std::lock_guard lock(mutex_);
    if (state_.running) ReadProgress();
    return state_;
}

void Jobs::Job::Work(const std::vector<std::string>& argv) try {
    RunProgram(argv);
} catch (const std::exception& error) {
    logger.Write(4, "A job ended: %s", error.what());
    AddLine("the program could not be run");
    End(1);
}

void Jobs::Job::RunProgram(const std::vector<std::string>& argv) {
    vel_proc::Execute program(argv, vel_proc::kStream | vel_proc::kJoinErrors);
    program.SetEnv("BACKUP2_PROGRESS", std::filesystem::absolute(progress_.Path()).string());
    {
        const std::lock_guard lock(mutex_);
        if (stop_) return;
        program.Run();
        pid_ = program.Pid();
    }
    std::string line;
    while (std::getline(program.Out(), line)) AddLine(line);
    {
        const std::lock_guard lock(mutex_);
        pid_ = -1;
    }
    End(program.Result());
}

/// What failed is said on both outputs of a program: one of two equal neighbours is enough.
void Jobs::Job::AddLine(const std::string& line) {
    const bool entry = line.find('\t') != std::string::npos;
    const std::string text = entry ? line : LastWord(line);
    const std::lock_guard lock(mutex_);
    if (text.empty() || text == last_line_) return;
    last_line_ = text;
    ++state_.line_count;
    if (state_.kind == "preview" && entry) {
        const std::string action = text.substr(0, text.find('\t'));
        if (state_.actions.size() < kMostActions || state_.actions.count(action) != 0)
            ++state_.actions[action];
    }
    if (state_.lines.size() < kMostLines) state_.lines.push_back(text);
}

void Jobs::Job::End(int status) {
    const std::lock_guard lock(mutex_);
    ReadProgress();
    if (state_.line_count > state_.lines.size()) state_.lines.push_back(last_line_);
    state_.status = status;
    state_.finished = Now();
    state_.running = false;
}

void Jobs::Job::ReadProgress() {
    char block[16 << 10];
    reports_.clear();  // it may have grown behind its end
    while (reports_.read(block, sizeof block) || reports_.gcount() > 0)
        half_report_.append(block, static_cast<std::size_t>(reports_.gcount()));
    std::size_t end;
    while ((end = half_report_.find('\n')) != std::string::npos) {
        const auto report = nlohmann::json::parse(half_report_.substr(0, end), nullptr, false);
        half_report_.erase(0, end + 1);
        if (report.is_object()) TakeProgress(report);
    }
}

/// The archiver counts what is asked for; the other programs only tell what is being done.
void Jobs::Job::TakeProgress(const nlohmann::json& report) {
    const std::string tool = report.value("tool", ""), step = report.value("step", "");
    if (step == "measure") {
        measured_ = Count(report, "of_bytes");
    } else {
        state_.step = step;
    }
    if (tool == "qortar") {
        state_.bytes = Count(report, "bytes");
        state_.files = Count(report, "files");
        state_.of_bytes = Count(report, "of_bytes");
        state_.of_files = Count(report, "of_files");
    }
    if (state_.of_bytes == 0) state_.of_bytes = measured_;
}

Jobs::Jobs() {
    if (vel_file::Exists(kProgressDir)) vel_file::Remove(kProgressDir);  // a dead panel's
    vel_file::MkDir(kProgressDir, vel_file::Attrs(0700));
}

Jobs::~Jobs() = default;

std::string Jobs::Start(const JobRequest& request) {
    const std::lock_guard lock(mutex_);
    std::size_t running = 0;
    for (const auto& numbered : jobs_) {
        Job& job = *numbered.second;
        if (!job.Running()) continue;
        if (job.Of(request.user)) throw vel_err::Error("busy", request.user);
        ++running;
    }
    if (running >= kMostRunning) throw vel_err::Error("busy", "");
    DropOld();
    const auto& job = jobs_[next_++] = std::make_unique<Job>(request);
    return job->State().id;
}

/// A map in the order of beginning: the first that does not run is the oldest.
void Jobs::DropOld() {
    if (jobs_.size() < kMostRemembered) return;
    const auto old = std::find_if(jobs_.begin(), jobs_.end(),
                                  [](const auto& item) { return !item.second->Running(); });
    if (old != jobs_.end()) jobs_.erase(old);
}

std::optional<JobState> Jobs::Find(const std::string& id) {
    const std::lock_guard lock(mutex_);
    for (const auto& numbered : jobs_)
        if (numbered.second->Is(id)) return numbered.second->State();
    return std::nullopt;
}

std::vector<JobState> Jobs::Of(const std::string& user) {
    std::vector<JobState> states;
    const std::lock_guard lock(mutex_);
    for (auto job = jobs_.rbegin(); job != jobs_.rend(); ++job) {
        if (!user.empty() && !job->second->Of(user)) continue;
        states.push_back(job->second->State());
        states.back().lines.clear();
    }
    return states;
}

}  // namespace panel
