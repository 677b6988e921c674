#include "vel/vel_proc.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <optional>
#include <string_view>

#include "vel/stream.h"
#include "vel/vel_err.h"
#include "vel/vel_log.h"

namespace vel_proc {

using vel_err::RaiseErrno;
using vel_file::ResHandle;

namespace {

const vel_log::Module logger("proc");

constexpr int kCannotStart = 127;
constexpr int kSignalBase = 128;
constexpr int kPipeBytes = 1024 * 1024;
constexpr std::size_t kChunk = 256 * 1024;
constexpr std::size_t kTailBytes = 4096;
constexpr std::size_t kInputHighWater = 1024 * 1024;
constexpr int kTermWaitMs = 2000;
constexpr int kPollWithoutPidfdMs = 20;
const char* const kDefaultPath = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";

bool IsBare(char c) {
    const std::string_view marks = "_@%+=:,./-";
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
           marks.find(c) != std::string_view::npos;
}

void SetNonBlocking(int fd) {
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags < 0 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) RaiseErrno("fcntl", "", errno);
}

/// A copy above 2, so that setting up the child's 0, 1 and 2 never overwrites a source.
ResHandle CopyAboveStandard(int fd) {
    ResHandle copy(::fcntl(fd, F_DUPFD_CLOEXEC, 3));
    if (!copy) RaiseErrno("dup", "descriptor " + std::to_string(fd), errno);
    return copy;
}

// ---- What the child needs, made ready before fork -----------------------------------------------

using EnvChanges = std::map<std::string, std::optional<std::string>>;

std::vector<std::string> MakeEnvironment(const EnvChanges& changes) {
    std::vector<std::string> result;
    for (char** entry = environ; entry && *entry; ++entry) {
        const std::string text = *entry;
        if (changes.count(text.substr(0, text.find('='))) == 0) result.push_back(text);
    }
    for (const auto& [name, value] : changes) {
        if (value) result.push_back(name + "=" + *value);
    }
    return result;
}

std::string SearchPath(const std::vector<std::string>& environment) {
    for (const std::string& entry : environment) {
        if (entry.compare(0, 5, "PATH=") == 0) return entry.substr(5);
    }
    return kDefaultPath;
}

bool IsProgram(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
           ::faccessat(AT_FDCWD, path.c_str(), X_OK, AT_EACCESS) == 0;
}

/// "" when no folder of PATH has it. Empty elements, the working directory in disguise, do not
/// count.
std::string FindProgram(const std::string& name, const std::vector<std::string>& environment) {
    if (name.find('/') != std::string::npos) return name;
    std::string path = SearchPath(environment);
    for (std::size_t begin = 0; begin <= path.size();) {
        const std::size_t end = std::min(path.find(':', begin), path.size());
        const std::string candidate = path.substr(begin, end - begin) + "/" + name;
        if (end > begin && IsProgram(candidate)) return candidate;
        begin = end + 1;
    }
    return "";
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
    std::vector<char*> result;
    for (std::string& text : texts) result.push_back(text.data());
    result.push_back(nullptr);
    return result;
}

void RefuseNul(const std::vector<std::string>& texts) {
    for (const std::string& text : texts) {
        if (text.find('\0') != std::string::npos) {
            throw vel_err::Error("sys", "exec", "an argument or variable holds a NUL byte");
        }
    }
}

struct Limit {
    int resource;
    rlimit value;
};

/// What a process has read and written so far; nothing where the system does not count that.
std::optional<uint64_t> BytesMoved(pid_t pid) {
    std::ifstream counts("/proc/" + std::to_string(pid) + "/io");
    std::string read, written;
    uint64_t in = 0, out = 0;
    if (!(counts >> read >> in >> written >> out) || read != "rchar:") return std::nullopt;
    return in + out;
}

/// How long a child may take, and be silent.
class Leash {
public:
    void LimitTime(int seconds) { time_ = std::chrono::seconds(seconds); }
    void LimitStall(int seconds) { stall_ = std::chrono::seconds(seconds); }
    void Begin() { began_ = moved_at_ = looked_ = Clock::now(); }
    /// For a wait of so many milliseconds, -1 for ever: until the next look at the child.
    int Shortened(int milliseconds) const {
        if (time_.count() == 0 && stall_.count() == 0) return milliseconds;
        return milliseconds < 0 ? kLookMs : std::min(milliseconds, kLookMs);
    }
    bool IsOver(pid_t pid) {
        const auto now = Clock::now();
        const auto since_look = now - looked_;
        if (since_look < std::chrono::milliseconds(kLookMs)) return false;
        looked_ = now;
        if (since_look > kPause) moved_at_ += since_look;  // nobody looked, or all were stopped
        if (time_.count() > 0 && now - began_ >= time_) return true;
        return stall_.count() > 0 && IsStalled(pid, now);
    }

private:
    using Clock = std::chrono::steady_clock;
    static constexpr int kLookMs = 200;
    static constexpr std::chrono::seconds kPause{5};
    static constexpr int kSlowest = 16;  // bytes a second that count as moving

    bool IsStalled(pid_t pid, Clock::time_point now) {
        const std::optional<uint64_t> moved = BytesMoved(pid);
        if (!moved || *moved - moved_ >= static_cast<uint64_t>(kSlowest * stall_.count())) {
            moved_ = moved.value_or(0);
            moved_at_ = now;
        }
        return now - moved_at_ >= stall_;
    }

    std::chrono::seconds time_{0}, stall_{0};
    Clock::time_point began_, moved_at_, looked_;
    uint64_t moved_ = 0;
};

struct Plan {
    const char* program = nullptr;
    char* const* argv = nullptr;
    char* const* envp = nullptr;
    int in = -1, out = -1, err = -1;  ///< above 2, or -1: the child keeps this process's own
    int report = -1;                  ///< write end of the pipe that carries errno of a failed exec
    const Limit* limits = nullptr;
    std::size_t limit_count = 0;
    pid_t parent = -1;
};

// ---- In the child: async-signal-safe calls only -------------------------------------------------

void ResetSignals() {
    struct sigaction standard {};
    standard.sa_handler = SIG_DFL;
    for (int number = 1; number < NSIG; ++number) ::sigaction(number, &standard, nullptr);
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

/// Libraries may have opened descriptors without close-on-exec.
void HideDescriptors() {
    constexpr unsigned kCloseOnExec = 4;  // CLOSE_RANGE_CLOEXEC
    if (::syscall(SYS_close_range, 3u, ~0u, kCloseOnExec) == 0) return;
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    const int end = static_cast<int>(std::min<rlim_t>(limit.rlim_cur, 65536));
    for (int fd = 3; fd < end; ++fd) ::fcntl(fd, F_SETFD, FD_CLOEXEC);
}

bool SetLimits(const Plan& plan) {
    for (std::size_t i = 0; i < plan.limit_count; ++i) {
        if (::setrlimit(plan.limits[i].resource, &plan.limits[i].value) != 0) return false;
    }
    return true;
}

[[noreturn]] void BecomeProgram(const Plan& plan) {
    ResetSignals();
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() != plan.parent) ::_exit(kCannotStart);  // it died before the call
    const bool placed = (plan.in < 0 || ::dup2(plan.in, 0) == 0) &&
                        (plan.out < 0 || ::dup2(plan.out, 1) == 1) &&
                        (plan.err < 0 || ::dup2(plan.err, 2) == 2);
    if (placed && SetLimits(plan)) {
        HideDescriptors();
        ::execve(plan.program, plan.argv, plan.envp);
    }
    const int err = errno;
    const ssize_t ignored = ::write(plan.report, &err, sizeof err);  // nobody left to tell
    (void)ignored;
    ::_exit(kCannotStart);
}

// ---- In the parent ------------------------------------------------------------------------------

/// No handler of this process may run in the child before it has dropped them all.
pid_t ForkWithSignalsBlocked(const Plan& plan) {
    sigset_t all, old;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &old);
    const pid_t pid = ::fork();
    if (pid == 0) BecomeProgram(plan);
    const int err = errno;
    ::pthread_sigmask(SIG_SETMASK, &old, nullptr);
    errno = err;
    return pid;
}

/// 0 once the child has become the program, otherwise the errno of what failed there.
int ReadReport(int fd) {
    int err = 0;
    ssize_t got;
    do {
        got = ::read(fd, &err, sizeof err);
    } while (got < 0 && errno == EINTR);
    return got == static_cast<ssize_t>(sizeof err) ? err : 0;
}

std::size_t Unread(int pipe) {
    int count = 0;
    return ::ioctl(pipe, FIONREAD, &count) == 0 && count > 0 ? static_cast<std::size_t>(count) : 0;
}

}  // namespace

// ---- Small things -------------------------------------------------------------------------------

std::string Escape(const std::string& text) {
    if (!text.empty() && std::all_of(text.begin(), text.end(), IsBare)) return text;
    std::string result = "'";
    for (const char c : text) {
        if (c == '\'') {
            result += "'\\''";
        } else {
            result += c;
        }
    }
    return result + "'";
}

void Sleep(int milliseconds) {
    timespec left{milliseconds / 1000, (milliseconds % 1000) * 1000000L};
    while (::nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

Pipe::Pipe() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) RaiseErrno("pipe", "", errno);
    in_ = ResHandle(ends[0]);
    out_ = ResHandle(ends[1]);
    ::fcntl(ends[1], F_SETPIPE_SZ, kPipeBytes);  // only speed is lost when refused
}

// ---- Execute ------------------------------------------------------------------------------------

struct Execute::Impl {
    Impl(std::vector<std::string> words, int run_mode) : argv(std::move(words)), mode(run_mode) {}
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;
    ~Impl() { End(); }

    void Start();
    /// One turn of the poll loop: feeds standard input, keeps the tail of standard error, notes the
    /// child's end. True when `want_output` and the output can be read without waiting.
    bool Turn(bool want_output, int timeout_ms);
    /// The next output, waiting for it; 0 at the end. ReadOutput gives first what was captured.
    std::size_t ReadPipe(char* to, std::size_t size);
    std::size_t ReadOutput(char* to, std::size_t size);
    /// Reads on into `captured`, which grows to `most` bytes; what is over is lost. False at the
    /// end.
    bool Capture(std::size_t most);
    void FinishInput();
    void PumpInput();
    void FeedWithoutWaiting();
    int Finish();
    void End() noexcept;

    std::vector<std::string> argv;
    const int mode;
    EnvChanges env;
    std::vector<Limit> limits;
    Leash leash;
    std::string input;  // not yet taken by the child, from input_done on
    std::size_t input_done = 0;
    bool has_input = false, input_closed = false;
    ResHandle redirected_in, redirected_out;

    bool started = false, ended = false, overdue = false;
    pid_t pid = -1;
    std::optional<int> status;
    ResHandle in, out, err, pidfd;  // this process's ends
    std::string captured;           // output read ahead of Str or Out
    std::size_t captured_done = 0;
    std::size_t left_in_out = 0;  // when the child has ended
    std::string tail;
    std::unique_ptr<std::streambuf> out_buffer;
    std::unique_ptr<std::istream> out_stream;

private:
    void Launch(const std::string& program, std::vector<std::string>& environment);
    void ConnectInput(Plan& plan, std::vector<ResHandle>& child_ends);
    void ConnectOutput(Plan& plan, std::vector<ResHandle>& child_ends);
    void CannotStart(int reason);
    void Feed();
    std::size_t KeepTail() noexcept;
    void NoteEnd() noexcept;
    void Reap();
    bool WaitForEnd(int milliseconds) noexcept;
    void Terminate() noexcept;
    void EndOverdue();
    void LogFailure() const;
    std::size_t InputLeft() const { return input.size() - input_done; }
};

void Execute::Impl::Start() {
    if (started) return;
    if (argv.empty()) throw vel_err::Error("sys", "exec", "no program given");
    std::vector<std::string> environment = MakeEnvironment(env);
    RefuseNul(argv);
    RefuseNul(environment);
    const std::string program = FindProgram(argv[0], environment);
    if (program.empty()) {
        started = true;
        CannotStart(ENOENT);
    } else {
        Launch(program, environment);
    }
}

void Execute::Impl::Launch(const std::string& program, std::vector<std::string>& environment) {
    const std::vector<char*> words = Pointers(argv), variables = Pointers(environment);
    const Pipe report;
    std::vector<ResHandle> child_ends;  // closed here once the child has its own
    Plan plan;
    plan.program = program.c_str();
    plan.argv = words.data();
    plan.envp = variables.data();
    child_ends.push_back(CopyAboveStandard(report.Out()));
    plan.report = child_ends.back();
    plan.parent = ::getpid();
    plan.limits = limits.data();
    plan.limit_count = limits.size();
    ConnectInput(plan, child_ends);
    ConnectOutput(plan, child_ends);
    pid = ForkWithSignalsBlocked(plan);
    if (pid < 0) RaiseErrno("fork", argv[0], errno);
    started = true;
    leash.Begin();
    pidfd = ResHandle(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
    child_ends.clear();
    redirected_in = redirected_out = ResHandle();
    report.Out().Close();
    if (const int reason = ReadReport(report.In())) {
        while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
        }
        CannotStart(reason);
    }
}

void Execute::Impl::ConnectInput(Plan& plan, std::vector<ResHandle>& child_ends) {
    if (redirected_in) {
        child_ends.push_back(redirected_in);
    } else if (has_input) {
        const Pipe pipe;
        child_ends.push_back(CopyAboveStandard(pipe.In()));
        pipe.In().Close();
        in = pipe.Out();
        SetNonBlocking(in);
    } else {
        const ResHandle null(::open("/dev/null", O_RDONLY | O_CLOEXEC));
        if (!null) RaiseErrno("open", "/dev/null", errno);
        child_ends.push_back(CopyAboveStandard(null));
    }
    plan.in = child_ends.back();
}

void Execute::Impl::ConnectOutput(Plan& plan, std::vector<ResHandle>& child_ends) {
    if (redirected_out) {
        child_ends.push_back(redirected_out);
        plan.out = redirected_out;
    } else if ((mode & kInheritOutput) == 0) {
        const Pipe pipe;
        child_ends.push_back(CopyAboveStandard(pipe.Out()));
        pipe.Out().Close();
        out = pipe.In();
        SetNonBlocking(out);
        plan.out = child_ends.back();
    }
    if ((mode & kJoinErrors) != 0) {
        child_ends.push_back(CopyAboveStandard(plan.out < 0 ? STDOUT_FILENO : plan.out));
    } else {
        const Pipe pipe;
        // Whoever serves the other end of such a child's input or output is not here to read its
        // messages: those that find no room are lost, so that it never stops for them.
        if (redirected_in || redirected_out) SetNonBlocking(pipe.Out());
        child_ends.push_back(CopyAboveStandard(pipe.Out()));
        pipe.Out().Close();
        err = pipe.In();
        SetNonBlocking(err);
    }
    plan.err = child_ends.back();
}

void Execute::Impl::CannotStart(int reason) {
    logger.Write(4, "Cannot start '%s': %s", argv[0], ::strerror(reason));
    ended = true;
    status = kCannotStart;
    pid = -1;
    redirected_in = redirected_out = ResHandle();
    for (ResHandle* end : {&in, &out, &err, &pidfd}) end->Close();
}

bool Execute::Impl::Turn(bool want_output, int timeout_ms) {
    enum { kIn, kOut, kErr, kChild };
    std::array<pollfd, 4> waited{};
    waited[kIn] = {InputLeft() > 0 ? int(in) : -1, POLLOUT, 0};
    waited[kOut] = {want_output ? int(out) : -1, POLLIN, 0};
    waited[kErr] = {err, POLLIN, 0};
    waited[kChild] = {ended ? -1 : int(pidfd), POLLIN, 0};
    timeout_ms = leash.Shortened(timeout_ms);
    if (!ended && !pidfd && (timeout_ms < 0 || timeout_ms > kPollWithoutPidfdMs)) {
        timeout_ms = kPollWithoutPidfdMs;
    }
    if (::poll(waited.data(), waited.size(), timeout_ms) < 0) {
        if (errno == EINTR) return false;
        RaiseErrno("poll", argv[0], errno);
    }
    if (waited[kIn].revents != 0) Feed();
    if (waited[kErr].revents != 0) KeepTail();
    if (!ended && (!pidfd || waited[kChild].revents != 0)) NoteEnd();
    if (!ended && !overdue && leash.IsOver(pid)) EndOverdue();
    return waited[kOut].revents != 0;
}

void Execute::Impl::Feed() {
    const std::size_t part = std::min(InputLeft(), kChunk);
    const ssize_t done = vel_file::WriteQuietly(in, input.data() + input_done, part);
    if (done > 0) {
        input_done += static_cast<std::size_t>(done);
    } else if (done < 0 && errno != EAGAIN) {
        // A child that does not read its input is no failure: its status tells.
        input_done = input.size();
        in.Close();
    }
    if (InputLeft() == 0) {
        input.clear();
        input_done = 0;
        if (input_closed) in.Close();
    }
}

std::size_t Execute::Impl::KeepTail() noexcept {
    std::array<char, 16384> bytes;
    const ssize_t got = ::read(err, bytes.data(), bytes.size());
    if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) err.Close();
    if (got <= 0) return 0;
    tail.append(bytes.data(), static_cast<std::size_t>(got));
    if (tail.size() > kTailBytes) tail.erase(0, tail.size() - kTailBytes);
    return static_cast<std::size_t>(got);
}

/// Looks without reaping: the number must stay the child's until Reap.
void Execute::Impl::NoteEnd() noexcept {
    siginfo_t info{};
    const int failed = ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT);
    ended = failed != 0 ? errno != EINTR : info.si_pid == pid;
    if (!ended) return;
    left_in_out = Unread(out);
    for (std::size_t left = Unread(err); left > 0;) {
        const std::size_t got = KeepTail();
        left = got == 0 ? 0 : left - std::min(left, got);
    }
    err.Close();
}

std::size_t Execute::Impl::ReadPipe(char* to, std::size_t size) {
    while (out) {
        if (!ended && !Turn(true, -1)) continue;
        // A grandchild may keep the pipe for ever: what the child left in it is all there is.
        if (ended) size = std::min(size, left_in_out);
        const ssize_t got = size > 0 ? ::read(out, to, size) : 0;
        if (got < 0 && (errno == EAGAIN || errno == EINTR)) continue;
        if (got < 0) RaiseErrno("read", argv[0], errno);
        if (got == 0) out.Close();
        left_in_out -= std::min(left_in_out, static_cast<std::size_t>(got));
        return static_cast<std::size_t>(got);
    }
    return 0;
}

std::size_t Execute::Impl::ReadOutput(char* to, std::size_t size) {
    const std::size_t part = std::min(size, captured.size() - captured_done);
    if (part == 0) return ReadPipe(to, size);
    std::memcpy(to, captured.data() + captured_done, part);
    captured_done += part;
    return part;
}

bool Execute::Impl::Capture(std::size_t most) {
    std::array<char, 65536> bytes;
    const std::size_t got = ReadPipe(bytes.data(), bytes.size());
    const std::size_t room = most - std::min(most, captured.size());
    captured.append(bytes.data(), std::min(got, room));
    return got > 0;
}

void Execute::Impl::FinishInput() {
    input_closed = true;
    if (InputLeft() == 0) in.Close();
}

void Execute::Impl::PumpInput() {
    while (in && InputLeft() > kInputHighWater) {
        // The child may wait for room in its output before it reads on.
        if (Turn(true, -1)) Capture(std::string::npos);
    }
    FeedWithoutWaiting();
}

void Execute::Impl::FeedWithoutWaiting() {
    if (in && InputLeft() > 0) Turn(false, 0);
}

int Execute::Impl::Finish() {
    Start();
    if (status) return *status;
    FinishInput();
    // A stream that nobody reads to its end may be of any size.
    while (Capture((mode & kStream) != 0 ? kInputHighWater : std::string::npos)) {
    }
    while (!ended) Turn(false, -1);
    Reap();
    return *status;
}

void Execute::Impl::Reap() {
    int raw = 0;
    pid_t reaped;
    do {
        reaped = pid < 0 ? -1 : ::waitpid(pid, &raw, 0);
    } while (reaped < 0 && pid >= 0 && errno == EINTR);
    for (ResHandle* end : {&in, &out, &err, &pidfd}) end->Close();
    if (pid < 0 || reaped < 0) {
        // This process ignores SIGCHLD, or somebody else waited: the status is lost.
        pid = -1;
        RaiseErrno("wait", argv[0], ECHILD);
    }
    pid = -1;
    status = WIFSIGNALED(raw) ? kSignalBase + WTERMSIG(raw) : WEXITSTATUS(raw);
    if (*status != 0) LogFailure();
}

void Execute::Impl::LogFailure() const {
    std::string text = tail;
    while (!text.empty() && text.back() == '\n') text.pop_back();
    std::replace(text.begin(), text.end(), '\n', '|');
    logger.Write(6, "'%s' ended with status %d: %s", argv[0], *status, text);
}

bool Execute::Impl::WaitForEnd(int milliseconds) noexcept {
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    for (NoteEnd(); !ended; NoteEnd()) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return false;
        const int slice = pidfd ? static_cast<int>(left.count()) : kPollWithoutPidfdMs;
        pollfd waited{pidfd, POLLIN, 0};
        ::poll(&waited, 1, slice);
    }
    return true;
}

void Execute::Impl::Terminate() noexcept {
    ::kill(pid, SIGTERM);
    if (!WaitForEnd(kTermWaitMs)) ::kill(pid, SIGKILL);
}

void Execute::Impl::EndOverdue() {
    logger.Write(4, "'%s' does not go on and is ended", argv[0]);
    overdue = true;
    Terminate();
}

void Execute::Impl::End() noexcept {
    if (pid < 0) return;
    for (ResHandle* end : {&in, &out, &err}) end->Close();
    Terminate();
    while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
    pid = -1;
}

/// What Out() reads: the pipe, with everything else of the child served meanwhile.
class Execute::OutputBuffer : public std::streambuf {
public:
    explicit OutputBuffer(Impl& impl) : impl_(impl), bytes_(kChunk) {}

protected:
    int_type underflow() override {
        const std::size_t got = impl_.ReadOutput(bytes_.data(), bytes_.size());
        setg(bytes_.data(), bytes_.data(), bytes_.data() + got);
        return got == 0 ? traits_type::eof() : traits_type::to_int_type(*gptr());
    }
    std::streamsize xsgetn(char* to, std::streamsize wanted) override {
        std::streamsize got = 0;
        while (got < wanted) {
            const std::streamsize missing = wanted - got;
            std::streamsize part = std::min<std::streamsize>(missing, egptr() - gptr());
            if (part > 0) {
                std::memcpy(to + got, gptr(), static_cast<std::size_t>(part));
                setg(eback(), gptr() + part, egptr());
            } else if (missing >= static_cast<std::streamsize>(kChunk)) {
                part = static_cast<std::streamsize>(
                    impl_.ReadOutput(to + got, static_cast<std::size_t>(missing)));
                if (part == 0) break;
            } else if (underflow() == traits_type::eof()) {
                break;
            }
            got += part;
        }
        return got;
    }

private:
    Impl& impl_;
    std::vector<char> bytes_;
};

Execute::Execute() : Execute(std::vector<std::string>(), 0) {}
Execute::Execute(std::vector<std::string> argv, int mode)
    : impl_(std::make_unique<Impl>(std::move(argv), mode)) {}
Execute::Execute(const std::string& shell_command, int mode)
    : Execute(std::vector<std::string>{"/bin/sh", "-c", shell_command}, mode) {}
Execute::Execute(Execute&&) noexcept = default;
Execute& Execute::operator=(Execute&&) noexcept = default;
Execute::~Execute() = default;

Execute& Execute::SetEnv(const std::string& name, const std::string& value) {
    impl_->env[name] = value;
    return *this;
}

Execute& Execute::UnsetEnv(const std::string& name) {
    impl_->env[name] = std::nullopt;
    return *this;
}

Execute& Execute::SetLimit(int resource, uint64_t value) {
    impl_->limits.push_back({resource, {value, value}});
    return *this;
}

Execute& Execute::EndAfter(int seconds) {
    impl_->leash.LimitTime(seconds);
    return *this;
}

Execute& Execute::EndWhenStalled(int seconds) {
    impl_->leash.LimitStall(seconds);
    return *this;
}

bool Execute::WasEnded() const { return impl_->overdue; }

Execute& Execute::In(const std::string& bytes) {
    if (impl_->input_closed || (impl_->started && !impl_->has_input)) {
        throw vel_err::Error("sys", "write", "the child's standard input is not open");
    }
    impl_->has_input = true;
    // A child that ended, or closed its input, takes nothing more; its status tells why.
    if (impl_->started && !impl_->in) return *this;
    impl_->input += bytes;
    if (impl_->started) impl_->PumpInput();
    return *this;
}

Execute& Execute::CloseIn() {
    impl_->FinishInput();
    return *this;
}

Execute& Execute::RedirectInTo(ResHandle fd) {
    impl_->redirected_in = CopyAboveStandard(fd);
    return *this;
}

Execute& Execute::RedirectOutTo(ResHandle fd) {
    impl_->redirected_out = CopyAboveStandard(fd);
    return *this;
}

Execute& Execute::Run() {
    impl_->Start();
    impl_->FeedWithoutWaiting();
    return *this;
}

std::istream& Execute::Out() {
    impl_->Start();
    if (!impl_->out_stream) {
        impl_->out_buffer = std::make_unique<OutputBuffer>(*impl_);
        impl_->out_stream = std::make_unique<std::istream>(impl_->out_buffer.get());
        impl_->out_stream->exceptions(std::ios_base::badbit);
    }
    return *impl_->out_stream;
}

std::string Execute::Str() {
    impl_->Start();
    impl_->FinishInput();
    while (impl_->Capture(std::string::npos)) {
    }
    return impl_->captured;
}

int Execute::Result() { return impl_->Finish(); }

pid_t Execute::Pid() const { return impl_->pid; }

}  // namespace vel_proc
