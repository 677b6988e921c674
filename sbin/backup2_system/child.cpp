#include "sbin/backup2_system/child.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "vel/str.h"
#include "vel/stream.h"
#include "vel/vel_err.h"
#include "vel/vel_proc.h"

namespace backup2_system {
namespace {

constexpr char kSecretsBase[] = "var/run";
constexpr char kSecretsName[] = "backup2_system.";  // then the process and a number
constexpr std::size_t kLongestReason = 400;

/// Settings of the caller's shell must not turn a dump to another server or another account.
constexpr const char* kForeignVariables[] = {
    "BACKUP_TOKEN",    "BACKUP_STORAGE", "PASSWORD",       "PGHOST",        "PGHOSTADDR",
    "PGPORT",          "PGUSER",         "PGPASSWORD",     "PGDATABASE",    "PGSERVICE",
    "PGOPTIONS",       "PGPASSFILE",     "PGSYSCONFDIR",   "PGSERVICEFILE", "PGSSLMODE",
    "PGAPPNAME",       "MYSQL_PWD",      "MYSQL_HOST",     "MYSQL_HOME",    "MYSQL_TCP_PORT",
    "MYSQL_UNIX_PORT", "HOME",           "XDG_CONFIG_HOME"};

std::string NewSecretsPath() {
    static int count = 0;
    return vel_file::ConcatPath(
        kSecretsBase, kSecretsName + std::to_string(::getpid()) + "." + std::to_string(count++));
}

/// The first line that speaks of an error, else the first one.
std::string Reason(const std::string& errors) {
    std::vector<std::string> lines;
    str::Split(errors, "\n", lines);
    std::string reason = lines.empty() ? "" : lines.front();
    for (const std::string& line : lines) {
        if (str::Lower(line).find("error") == std::string::npos) continue;
        reason = line;
        break;
    }
    return reason.substr(0, kLongestReason);
}

std::string EndOf(int status) {
    if (status > 128) return "ended by signal " + std::to_string(status - 128);
    return status == 127 ? "cannot be started" : "status " + std::to_string(status);
}

/// Standard error goes to a file of its own: joined to the output it would end up in the dump.
Words WithErrorsTo(const std::string& file, const Words& program) {
    Words words{"/bin/sh", "-c", "errors=$1; shift; exec \"$@\" 2>\"$errors\"", "sh", file};
    words.insert(words.end(), program.begin(), program.end());
    return words;
}

vel_file::ResHandle OpenNull() {
    vel_file::ResHandle fd(::open("/dev/null", O_WRONLY | O_CLOEXEC));
    if (fd < 0) vel_err::RaiseErrno("open", "/dev/null", errno);
    return fd;
}

/// A program that ends early breaks the pipe: its status says why, so that error is not thrown.
void Feed(const Job& job, vel_proc::Pipe& pipe) {
    try {
        vel_file::OutStream out(pipe.Out());
        job.writer(out);
        out.Close();
    } catch (const vel_err::Error& e) {
        if (e.object() != "write_failed") throw;
    }
}

void Prepare(vel_proc::Execute& child, const Job& job) {
    for (const char* name : kForeignVariables) child.UnsetEnv(name);
    for (const auto& [name, value] : job.environment) child.SetEnv(name, value);
    if (job.input_file) child.RedirectInTo(job.input_file);
    if (!job.input.empty()) child.In(job.input).CloseIn();
    if (job.output_file) child.RedirectOutTo(job.output_file);
    if (job.discard_output) child.RedirectOutTo(OpenNull());
}

}  // namespace

Secrets::Secrets() : dir_(vel_file::TmpDir::At(NewSecretsPath())) {}

void SweepSecrets() {
    for (vel_file::Dir dir(kSecretsBase); dir.Next();) {
        std::string name = dir.Name();
        if (!str::StartsWith(name, kSecretsName)) continue;
        str::GetWord(name, '.');
        const pid_t pid = str::Int(str::GetWord(name, '.'));
        if (pid > 0 && ::kill(pid, 0) != 0 && errno == ESRCH) vel_file::Remove(dir.Path());
    }
}

std::string Secrets::Add(const std::string& name, const std::string& content) {
    // Absolute: the programs' own start scripts may change the directory.
    const std::string here = std::filesystem::current_path().string();
    const std::string path = vel_file::ConcatPath(here, dir_.Path(), name);
    vel_file::Write(path, content);
    return path;
}

std::string Run(const std::string& what, const Job& job) {
    Secrets own;  // apart from the job's: the program itself may own those
    const std::string errors = own.Add("errors", "");
    vel_proc::Execute child(WithErrorsTo(errors, job.program), 0);
    Prepare(child, job);
    if (job.writer) {
        vel_proc::Pipe pipe;
        child.RedirectInTo(pipe.In()).Run();
        pipe.In().Close();
        Feed(job, pipe);
    }
    const std::string output = job.output_file || job.discard_output ? "" : child.Str();
    const int status = child.Result();
    if (status != 0) {
        const std::string reason = Reason(vel_file::Read(errors));
        throw vel_err::Error("database", what, reason.empty() ? EndOf(status) : reason);
    }
    return output;
}

Words Unprivileged(const Words& program) {
    constexpr uid_t kFirst = 0x70000000;  // far above accounts, subordinate ids and system ranges
    const std::string id = std::to_string(kFirst + static_cast<uid_t>(::getpid()));
    Words words{"setpriv",        "--reuid=" + id,   "--regid=" + id,       "--clear-groups",
                "--no-new-privs", "--inh-caps=-all", "--bounding-set=-all", "--"};
    words.insert(words.end(), program.begin(), program.end());
    return words;
}

}  // namespace backup2_system
