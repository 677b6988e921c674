#include "vel/vel_ssh.h"

#include <unistd.h>

#include <filesystem>
#include <sstream>

#include "vel/str.h"
#include "vel/vel_env.h"
#include "vel/vel_err.h"
#include "vel/vel_file.h"
#include "vel/vel_proc.h"

namespace vel_ssh {
namespace {

constexpr char kPrograms[] = "lib/backup2_ssh";
constexpr char kSystemPath[] = "BACKUP2_SYSTEM_PATH";
constexpr char kUsualPath[] = "/usr/sbin:/usr/bin:/sbin:/bin";

/// As the file names a server: "host", or "[host]:port" for another port than 22.
std::string EntryOf(std::string host, const std::string& port) {
    const std::size_t at = host.find('@');
    if (at != std::string::npos) host.erase(0, at + 1);
    str::inpl::Replace(host, "[", "");
    str::inpl::Replace(host, "]", "");
    host = str::Lower(host);
    return port.empty() || port == "22" ? host : "[" + host + "]:" + port;
}

}  // namespace

void PinHostKeys() {
    if (!vel_env::GetEnv(kSystemPath).empty()) return;
    const std::string folder = std::filesystem::absolute(kPrograms).string();
    for (const std::string program : {"/ssh", "/scp"}) {
        const std::string path = folder + program;
        if (::access(path.c_str(), X_OK) != 0) vel_err::RaiseErrno("access", path, errno);
    }
    std::string path = vel_env::GetEnv("PATH");
    if (path.empty()) path = kUsualPath;  // what shells do: they would find nothing but ours else
    vel_env::SetEnv(kSystemPath, path);
    vel_env::SetEnv("PATH", folder + ":" + path);
}

std::vector<std::string> Fingerprints(const std::string& host, const std::string& port) {
    std::vector<std::string> found;
    if (!vel_file::Exists(kKnownHosts)) return found;
    vel_proc::Execute list({"ssh-keygen", "-l", "-F", EntryOf(host, port), "-f", kKnownHosts}, 0);
    std::istringstream lines(list.Str());
    list.Result();  // 1 for a server that is not there
    // "HOST ED25519 SHA256:...", below "# Host HOST found: line N"
    for (std::string line; std::getline(lines, line);) {
        if (str::StartsWith(line, "#")) continue;
        const std::string print = str::RGetWord(line, " ");
        found.push_back(print + " (" + str::RGetWord(line, " ") + ")");
    }
    return found;
}

void ForgetHost(const std::string& host, const std::string& port) {
    if (!vel_file::Exists(kKnownHosts)) return;
    vel_file::Lock alone;
    alone.DoLock(std::string(kKnownHosts) + ".lock", false);
    vel_proc::Execute remove({"ssh-keygen", "-q", "-R", EntryOf(host, port), "-f", kKnownHosts},
                             vel_proc::kJoinErrors);
    const std::string words = str::Trim(remove.Str());
    if (remove.Result() != 0) throw vel_err::Error("sys", "ssh-keygen", words);
    vel_file::Remove(std::string(kKnownHosts) + ".old");
}

}  // namespace vel_ssh
