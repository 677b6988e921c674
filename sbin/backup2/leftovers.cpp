#include "sbin/backup2/leftovers.h"

#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <vector>

#include "vel/str.h"
#include "vel/vel_file.h"

#include "backup_common/backup2_misc.h"

#include "sbin/backup2/job.h"

namespace backup2_admin {
namespace {

constexpr int kForgottenSeconds = 24 * 3600;

bool IsForgotten(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0 && ::time(nullptr) - st.st_mtime > kForgottenSeconds;
}

}  // namespace

Leftovers::Leftovers(std::string local_dir, std::string user)
    : local_dir_(std::move(local_dir)), user_(std::move(user)) {}

std::string Leftovers::WorkingInfo(const std::string& day) const {
    return backup2::ConcatPath(local_dir_, day + "." + user_ + ".info");
}

void Leftovers::RemoveOtherDays(const std::string& date) const {
    std::vector<std::string> days;
    for (vel_file::Dir entries(local_dir_, 2); entries.Next();) {
        const std::string day = backup2::GetDate(entries.Name());
        if (entries.Name() == day + "." + user_ + ".info" && day != date) days.push_back(day);
    }
    for (const std::string& day : days) {
        EndOrphans(WorkingInfo(day));
        const std::string file = day + "." + user_ + ".info";
        if (vel_file::Exists(
                vel_file::ConcatPath(local_dir_, user_, vel_file::ConcatPath(day, file)))) {
            vel_file::Remove(WorkingInfo(day));
        } else {
            RemoveDay(day);
        }
    }
}

void Leftovers::RemoveDay(const std::string& day) const {
    EndOrphans(WorkingInfo(day));
    backup2::DelBackupOnError(local_dir_, user_, day);
    for (const char* mark : {"F", "I"}) {
        RemoveTemporaries(local_dir_, "." + (mark + day) + "." + user_ + ".tgz");
    }
    RemoveTornInfos();
    const std::string dir = vel_file::SplitPath(backup2::GetInfoFile(local_dir_, user_, day)).dir;
    RemoveTemporaries(dir, ".tmp.");
    // Fails when other files are in it, and that is right.
    (void)::rmdir(dir.c_str());
}

/// The copy tool replaces the working info through a temporary beside it. Those of other users'
/// running jobs have the same kind of name and must stay: the content tells, and the age where
/// there is none yet. A live one is written and moved at once.
void Leftovers::RemoveTornInfos() const {
    std::vector<std::string> found;
    for (vel_file::Dir entries(local_dir_, 2); entries.Next();) {
        if (!str::StartsWith(entries.Name(), ".tmp.") || !entries.Info(2).IsFile()) continue;
        const std::string text = vel_file::Read(entries.Path());
        if (IsForgotten(entries.Path()) || text.find("\nuser=" + user_ + "\n") != std::string::npos)
            found.push_back(entries.Path());
    }
    for (const std::string& path : found) vel_file::Remove(path);
}

}  // namespace backup2_admin
