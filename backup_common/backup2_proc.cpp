#include "backup_common/backup2_proc.h"

#include <fcntl.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "vel/vel_err.h"
#include "vel/vel_log.h"

namespace backup2 {
namespace {

const vel_log::Module logger("backup");

// Part of the trace lines' format, so that they stay what log readers look for.
constexpr char kTraceFile[] = "backup2_proc.cpp";
constexpr int kTraceCloseLine = 110;
constexpr int kTraceSuspendLine = 116;
constexpr int kTraceFinishLine = 119;

constexpr int kForever = -1;

constexpr int kConnectionFailed = 255;
constexpr int kAttempts = 3;
constexpr int kWaitSeconds = 2;
constexpr char kDefaultPort[] = "22";
constexpr char kInstallFolder[] = "cd /usr/local/vel5; ";

/// A descriptor of our own, which lives on when the caller closes his.
vel_file::ResHandle CopyOf(const vel_file::ResHandle& fd) {
    vel_file::ResHandle copy(::fcntl(fd, F_DUPFD_CLOEXEC, 3));
    if (!copy) vel_err::RaiseErrno("dup", "descriptor " + std::to_string(int(fd)), errno);
    return copy;
}

}  // namespace

// ---- Expect -------------------------------------------------------------------------------------

Expect::BaseWorker::BaseWorker(vel_file::ResHandle fd, short events)
    : fd_(std::move(fd)), events_(events) {}

Expect::BaseWorker::~BaseWorker() = default;

Expect::~Expect() = default;

/// A worker as it was when poll was asked.
struct Expect::Watched {
    std::shared_ptr<BaseWorker> worker;
    int fd;
};

void Expect::Add(std::shared_ptr<BaseWorker> worker) { workers_.push_back(std::move(worker)); }

void Expect::SetEvents(int fd, short events) {
    logger.Write(8, "%s fd = %d, events = %x", "SetEvents", fd, events);
    const auto found = std::find_if(workers_.begin(), workers_.end(),
                                    [fd](const auto& worker) { return worker->fd_ == fd; });
    if (found != workers_.end()) (*found)->events_ = events;
}

std::vector<Expect::Watched> Expect::WatchedWorkers() const {
    std::vector<Watched> watched;
    for (const auto& worker : workers_) {
        // poll would wait for ever on a descriptor that its owner has closed.
        if (worker->events_ != 0 && worker->fd_) watched.push_back({worker, worker->fd_});
    }
    return watched;
}

/// Whether the worker is still there to be called: handlers before it in the same pass may have
/// removed it, or closed its descriptor, whose number may name something else by now.
bool Expect::IsReady(const Watched& watched) const {
    const auto found = std::find(workers_.begin(), workers_.end(), watched.worker);
    return found != workers_.end() && watched.worker->fd_ == watched.fd;
}

void Expect::Remove(const BaseWorker* worker) {
    workers_.remove_if([worker](const auto& other) { return other.get() == worker; });
}

/// False: the dialogue is over.
bool Expect::Serve(const Watched& watched) {
    const int64_t result = watched.worker->Handle(watched.worker->fd_);
    if (result == erSuspend) {
        logger.Write(9, "%s:%d Fd %d, got suspend result", kTraceFile, kTraceSuspendLine,
                     watched.fd);
        watched.worker->events_ = 0;
    } else if (result == erFinish) {
        logger.Write(9, "%s:%d Fd %d, got finish result", kTraceFile, kTraceFinishLine, watched.fd);
    } else if (result == erClose) {
        logger.Write(9, "%s:%d Fd %d, got close result", kTraceFile, kTraceCloseLine, watched.fd);
        Remove(watched.worker.get());
    }
    return result != erFinish;
}

void Expect::Run(int timeout_ms) {
    bool go_on = timeout_ms == kForever;
    do {
        const std::vector<Watched> watched = WatchedWorkers();
        if (watched.empty()) return;
        std::vector<pollfd> set;
        for (const Watched& one : watched) set.push_back({one.fd, one.worker->events_, 0});
        if (::poll(set.data(), set.size(), timeout_ms) <= 0) continue;
        for (std::size_t i = 0; i < set.size(); ++i) {
            if (set[i].revents == 0 || !IsReady(watched[i])) continue;
            if (!Serve(watched[i])) go_on = false;
        }
    } while (go_on && !workers_.empty());
}

// ---- Ssh ----------------------------------------------------------------------------------------

Ssh::Ssh(const std::string& host, const std::string& port, const std::string& key_path)
    : argv_{"ssh", "-q",
            "-o",  "StrictHostKeyChecking=no",
            "-p",  port.empty() ? kDefaultPort : port,
            "-i",  key_path,
            host,  ""} {
    // The client would take it for an option, and some options run commands.
    if (host.empty() || host[0] == '-') throw vel_err::Error("ssh", "bad_host", host);
}

Ssh& Ssh::Execute(const std::string& command, int mode) {
    argv_.back() = kInstallFolder + command;
    mode_ = mode;
    input_.clear();
    in_ = out_ = Redirection();
    Prepare();
    return *this;
}

Ssh& Ssh::Execute(int mode) { return Execute("/bin/sh", mode); }

/// A process that has not run yet, with all that the one before it was given: a remote shell
/// without its commands would do nothing and report success.
void Ssh::Prepare() {
    process_ = vel_proc::Execute(argv_, mode_);
    if (in_.used) process_.RedirectInTo(in_.End());
    if (out_.used) process_.RedirectOutTo(out_.End());
    if (!input_.empty()) process_.In(input_).CloseIn();
}

Ssh& Ssh::In(const std::string& text) {
    if (text.empty()) return *this;
    process_.In(text).CloseIn();
    input_ = text;
    return *this;
}

Ssh& Ssh::RedirectInTo(vel_file::ResHandle fd) {
    process_.RedirectInTo(fd);
    in_ = {true, fd, CopyOf(fd)};
    return *this;
}

Ssh& Ssh::RedirectOutTo(vel_file::ResHandle fd) {
    process_.RedirectOutTo(fd);
    out_ = {true, fd, CopyOf(fd)};
    return *this;
}

vel_proc::Execute& Ssh::GetExecute() {
    in_.copy = out_.copy = vel_file::ResHandle();
    return process_;
}

std::string Ssh::Str() {
    MakeAttempts(1);
    return process_.Str();
}

int Ssh::Result() {
    MakeAttempts(0);
    return process_.Result();
}

void Ssh::MakeAttempts(int run_type) {
    for (int attempt = 1; attempt <= kAttempts; ++attempt) {
        if (run_type == 1) process_.Str();
        if (process_.Result() != kConnectionFailed) break;
        logger.Write(4, "SSH connection failed. Attempt: %d of %d", attempt, kAttempts);
        logger.Write(6, "Wait %d seconds before next attempt", kWaitSeconds);
        vel_proc::Sleep(kWaitSeconds * 1000);
        Prepare();
    }
    in_ = out_ = Redirection();  // readers and writers at other ends of pipes wait for this
}

}  // namespace backup2
