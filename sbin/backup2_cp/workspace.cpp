#include "sbin/backup2_cp/workspace.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <exception>
#include <list>

#include "vel/str.h"
#include "vel/vel_log.h"

namespace backup2_cp {

namespace {

const vel_log::Module logger("backup2_cp");
const std::string kBase = "var/backup2_cp.tmp";

bool IsAlive(const std::string& pid) { return ::kill(str::Int(pid), 0) == 0 || errno != ESRCH; }

/// Entries are "<process id>.<number>".
void Sweep() {
    std::list<std::string> dead;
    for (vel_file::Dir dir(kBase, 2); dir.Next();) {
        std::string pid = dir.Name();
        if (!IsAlive(str::GetWord(pid, '.'))) dead.push_back(dir.Path());
    }
    for (const auto& path : dead) vel_file::Remove(path);
}

vel_file::TmpDir Make() {
    static std::atomic<int> count{0};
    vel_file::MkDir(kBase, vel_file::Attrs(0700));
    try {
        Sweep();
    } catch (const std::exception& e) {  // another process sweeps, too
        logger.Write(6, "sweeping %s: %s", kBase, e.what());
    }
    return vel_file::TmpDir::At(kBase + "/" + str::Str(::getpid()) + "." + str::Str(++count));
}

}  // namespace

Workspace::Workspace() : dir_(Make()) {}

}  // namespace backup2_cp
