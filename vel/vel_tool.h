/// What every program of the service does alike: where it runs, how it fails, how it shows
/// progress.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace vel_tool {

enum Exit : int { kDone = 0, kFailed = 1, kUsage = 2, kWarnings = 3 };

/// Wrong arguments: ends a program with status 2.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Runs `body(arguments without the program's name)` inside the install root: VEL_ROOT, else the
/// directory above the program's own sbin/ (or velcgi/), else /usr/local/vel5; umask 077, no core
/// files, C locale. `--version` is answered here. An exception becomes one line
/// "<program>: <what>" on standard output AND standard error, and status 1 (2 for UsageError).
/// A one-argument vel_err::Error is printed as its bare type.
int Main(int argc, char** argv, const std::function<int(std::vector<std::string>)>& body);

std::string ProgramName();
/// `path` made absolute against the directory in which the program was started.
std::string Absolute(const std::string& path);

/// Appends JSON lines to the file named by BACKUP2_PROGRESS (none: does nothing), at most ten a
/// second but for the last: {"tool":...,"step":...,"bytes":N,"of_bytes":N,"files":N,"of_files":N}.
/// A count of 0 in an "of_" field means unknown. Safe to call from several threads.
class Progress {
public:
    explicit Progress(const std::string& step);
    ~Progress();  ///< writes the last line
    void Total(uint64_t bytes, uint64_t files);
    void Add(uint64_t bytes, uint64_t files);

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace vel_tool
