#include "vel/vel_tool.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <clocale>
#include <cstdio>
#include <exception>
#include <iostream>
#include <mutex>
#include <new>

#include <errno.h>
#include <nlohmann/json.hpp>

#include "vel/res_handle.h"
#include "vel/str.h"
#include "vel/stream.h"
#include "vel/vel_env.h"
#include "vel/vel_err.h"
#include "vel/vel_file.h"
#include "vel/vel_log.h"

namespace vel_tool {
namespace {

const vel_log::Module logger("vel_tool");

constexpr const char* kDefaultRoot = "/usr/local/vel5";

// ---- Where a program runs -----------------------------------------------------------------------

/// The working directory at the start; "" when it is gone.
std::string& StartDir() {
    static std::string dir = [] {
        char buffer[PATH_MAX];
        return std::string(::getcwd(buffer, sizeof buffer) ? buffer : "");
    }();
    return dir;
}

std::string OwnPath() {
    char buffer[PATH_MAX];
    const ssize_t size = ::readlink("/proc/self/exe", buffer, sizeof buffer);
    return size > 0 ? std::string(buffer, static_cast<std::size_t>(size)) : "";
}

std::string InstallRoot() {
    const std::string root = vel_env::GetEnv("VEL_ROOT");
    if (!root.empty()) return Absolute(root);
    const vel_file::Split place = vel_file::SplitPath(vel_file::SplitPath(OwnPath()).dir);
    if (place.tail == "/sbin" || place.tail == "/velcgi") {
        return place.dir.empty() ? "/" : place.dir;
    }
    return kDefaultRoot;
}

/// A program that was started without one of the standard descriptors must not get a data file in
/// its place, into which its messages would go.
void FillStandardDescriptors() {
    for (int fd = 0; fd <= 2; ++fd) {
        if (::fcntl(fd, F_GETFD) >= 0) continue;
        // The lowest free number is `fd`; it stays open for the life of the process.
        if (::open("/dev/null", O_RDWR) != fd) ::_exit(kFailed);  // NOLINT(android-cloexec-open)
    }
}

/// A caller may ignore signals, and that is inherited: without SIGCHLD no child's status can be
/// had, and without SIGPIPE a filter that lost its reader goes on for nothing.
void ResetSignals() {
    for (const int number : {SIGCHLD, SIGPIPE}) ::signal(number, SIG_DFL);
}

void EnterRoot() {
    StartDir();  // before the directory changes
    ::umask(077);
    const rlimit none{0, 0};
    if (::setrlimit(RLIMIT_CORE, &none) != 0) vel_err::RaiseErrno("setrlimit", "core", errno);
    (void)std::setlocale(LC_ALL, "C");
    vel_env::SetEnv("LC_ALL", "C");  // for the programs this one starts and whose words it reads
    const std::string root = InstallRoot();
    if (::chdir(root.c_str()) != 0) vel_err::RaiseErrno("chdir", root, errno);
}

// ---- How a program ends -------------------------------------------------------------------------

std::string TextOf(const vel_err::Error& e) {
    const bool bare = e.what() == "Type: '" + e.type() + "'";
    return bare ? e.type() : e.what();
}

int Fail(int status, const std::string& text) {
    const std::string one_line = str::badchars::Escape(text, str::badchars::Controls(), '\\');
    const std::string line = ProgramName() + ": " + one_line + "\n";
    std::cout << line << std::flush;
    std::cerr << line << std::flush;
    return status;
}

int Failed(const std::string& text) {
    logger.Write(3, "%s: %s", ProgramName(), text);
    return Fail(kFailed, text);
}

/// A result that did not reach its reader is no success.
int CheckOutput(int status) {
    std::cout.flush();
    if (std::cout && std::fflush(stdout) == 0) return status;
    std::cerr << ProgramName() << ": standard output cannot be written\n";
    return status == kDone || status == kWarnings ? kFailed : status;
}

}  // namespace

int Main(int argc, char** argv, const std::function<int(std::vector<std::string>)>& body) {
    FillStandardDescriptors();
    ResetSignals();
    const std::vector<std::string> arguments(argv + (argc > 0 ? 1 : 0), argv + argc);
    if (!arguments.empty() && arguments[0] == "--version") {
        std::cout << ProgramName() << " " << BACKUP2_VERSION << "\n";
        return CheckOutput(kDone);
    }
    try {
        EnterRoot();
        return CheckOutput(body(arguments));
    } catch (const UsageError& e) {
        return Fail(kUsage, e.what());
    } catch (const vel_err::Error& e) {
        return Failed(TextOf(e));
    } catch (const std::bad_alloc&) {
        return Failed("out of memory");
    } catch (const std::exception& e) {
        return Failed(e.what());
    }
}

std::string ProgramName() { return ::program_invocation_short_name; }

std::string Absolute(const std::string& path) {
    if (str::StartsWith(path, "/")) return path;
    if (StartDir().empty()) vel_err::RaiseErrno("getcwd", path, ENOENT);
    return vel_file::ConcatPath(StartDir(), path);
}

// ---- Progress -----------------------------------------------------------------------------------

struct Progress::Impl {
    using Clock = std::chrono::steady_clock;
    static constexpr int64_t kPauseNs = 100'000'000;

    std::string step;
    vel_file::ResHandle out;
    std::atomic<uint64_t> bytes{0}, files{0}, of_bytes{0}, of_files{0};
    std::atomic<int64_t> next_ns{0};

    static int64_t Now() { return Clock::now().time_since_epoch() / std::chrono::nanoseconds(1); }

    /// Of several threads that come when a line is due, one writes it.
    void WriteWhenDue() {
        if (!out) return;
        int64_t due = next_ns;
        const int64_t now = Now();
        if (now >= due && next_ns.compare_exchange_strong(due, now + kPauseNs)) Write();
    }

    void Write() {
        const nlohmann::ordered_json line = {
            {"tool", ProgramName()},       {"step", step},          {"bytes", bytes.load()},
            {"of_bytes", of_bytes.load()}, {"files", files.load()}, {"of_files", of_files.load()}};
        using Json = nlohmann::ordered_json;
        const std::string text = line.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
        // Who draws the bar may be gone; the work goes on without it.
        [[maybe_unused]] const ssize_t lost = vel_file::WriteQuietly(out, text.data(), text.size());
    }
};

Progress::Progress(const std::string& step) : impl_(new Impl) {
    impl_->step = step;
    const std::string path = vel_env::GetEnv("BACKUP2_PROGRESS");
    if (path.empty()) return;
    const int flags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
    impl_->out = vel_file::ResHandle(::open(Absolute(path).c_str(), flags, 0600));
}

Progress::~Progress() {
    try {
        if (impl_->out) impl_->Write();
    } catch (const std::exception& e) {
        logger.Write(4, "Progress of '%s' is lost: %s", impl_->step, e.what());
    }
}

void Progress::Total(uint64_t bytes, uint64_t files) {
    impl_->of_bytes = bytes;
    impl_->of_files = files;
    impl_->WriteWhenDue();
}

void Progress::Add(uint64_t bytes, uint64_t files) {
    impl_->bytes += bytes;
    impl_->files += files;
    impl_->WriteWhenDue();
}

}  // namespace vel_tool
