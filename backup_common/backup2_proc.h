/// Remote commands over ssh, and dialogues with several children at once.
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "vel/res_handle.h"
#include "vel/vel_proc.h"

#include "backup_common/export.h"

namespace backup2 {

// ---- Expect -------------------------------------------------------------------------------------

/// Watches descriptors with poll, each served by a worker, in the thread that calls Run.
class BACKUP2_EXPORT Expect {
public:
    // What a handler answers; any other number counts as erOk.
    static constexpr int64_t erOk = 0;        ///< go on
    static constexpr int64_t erClose = -1;    ///< remove this worker
    static constexpr int64_t erFinish = -2;   ///< the dialogue is over: stop after this pass
    static constexpr int64_t erSuspend = -3;  ///< do not watch this worker until SetEvents

    /// Serves one descriptor.
    class BACKUP2_EXPORT BaseWorker {
    public:
        /// `events`: a poll mask; 0 is not watched.
        BaseWorker(vel_file::ResHandle fd, short events);
        BaseWorker(const BaseWorker&) = delete;
        BaseWorker& operator=(const BaseWorker&) = delete;
        virtual ~BaseWorker();
        /// Called when `fd` is ready. May add workers, change and close any of them, and throw,
        /// which ends Run and leaves the workers as they are.
        virtual int64_t Handle(vel_file::ResHandle fd) = 0;

    private:
        friend class Expect;
        vel_file::ResHandle fd_;
        short events_;
    };

    Expect() = default;
    Expect(const Expect&) = delete;
    Expect& operator=(const Expect&) = delete;
    ~Expect();

    void Add(std::shared_ptr<BaseWorker> worker);
    /// Gives the first worker of this descriptor a new mask; an unknown descriptor is ignored.
    void SetEvents(int fd, short events);
    /// With -1 serves the workers until one says erFinish or none is left to watch; with another
    /// timeout polls once. A worker whose descriptor was closed is not watched any more.
    void Run(int timeout_ms);

private:
    struct Watched;
    std::vector<Watched> WatchedWorkers() const;
    bool IsReady(const Watched& watched) const;
    bool Serve(const Watched& watched);
    void Remove(const BaseWorker* worker);

    std::list<std::shared_ptr<BaseWorker>> workers_;
};

// ---- Ssh ----------------------------------------------------------------------------------------

/// One command on another host through the `ssh` client, with a private key and any host key.
///
/// A failed connection (status 255) is tried again, up to three times with 2 s between; each try
/// gets the same input and redirections. Without In or RedirectInTo the command reads nothing,
/// never the caller's standard input.
class BACKUP2_EXPORT Ssh {
public:
    /// Port and key path go into the argument vector as they are; an empty port is "22".
    /// Throws vel_err::Error("ssh", "bad_host", host) for a host that is empty or begins with "-".
    Ssh(const std::string& host, const std::string& port, const std::string& key_path);

    /// Prepares the command, to be run in the panel's folder; what an earlier one had is dropped.
    Ssh& Execute(const std::string& command, int mode);
    Ssh& Execute(int mode);  ///< a remote shell, which reads its commands from the input
    /// The whole input of the command. An empty text does nothing: the input stays open.
    Ssh& In(const std::string& text);
    /// The descriptors are copied, so the caller may close his own at once. What a lost connection
    /// has read from one or written to one stays read or written.
    Ssh& RedirectInTo(vel_file::ResHandle fd);
    Ssh& RedirectOutTo(vel_file::ResHandle fd);
    /// The process, for a caller who starts it himself; that start is not repeated. Copies of
    /// redirections are given up, so that the other ends of pipes see them close: a later try needs
    /// the caller's own descriptors to be open still.
    vel_proc::Execute& GetExecute();

    std::string Str();  ///< MakeAttempts(1), then the whole output
    int Result();       ///< MakeAttempts(0), then the exit status
    /// Runs until the status is another than 255, three times at most; after the third failure the
    /// process is a new one that has not run. `run_type` 1 captures the output.
    void MakeAttempts(int run_type);

private:
    struct Redirection {
        bool used = false;
        vel_file::ResHandle callers, copy;
        const vel_file::ResHandle& End() const { return copy ? copy : callers; }
    };
    void Prepare();

    std::vector<std::string> argv_;
    vel_proc::Execute process_;
    int mode_ = 0;
    std::string input_;  // for the next try, like the redirections
    Redirection in_, out_;
};

}  // namespace backup2
