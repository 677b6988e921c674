#include "sbin/backup2/import_place.h"

#include <map>
#include <stdexcept>

#include "vel/str.h"
#include "vel/vel_user.h"

#include "sbin/backup2/job.h"

namespace backup2_admin {
namespace {

const std::string kFolder = ".import.";  // and the user

}  // namespace

std::string NeedImportRoot(const std::string& user) {
    const std::string root = AskUserRoot(CheckUser(user));
    if (root.empty()) throw std::runtime_error(user + " has no root in the panel");
    if (!vel_user::Exists(user)) throw std::runtime_error(user + " has no account on this machine");
    return root;
}

vel_file::TmpDir MakeImportDir(const std::string& user) {
    const std::string local_dir = AskSite().local_dir;
    vel_file::MkDir(local_dir);
    const std::string path = vel_file::ConcatPath(local_dir, kFolder + user);
    EndOrphans(path);
    return vel_file::TmpDir::At(path);
}

void DropImportDirs(const std::string& local_dir) {
    std::map<std::string, std::string> left;  // user -> folder
    if (!vel_file::Exists(local_dir)) return;
    for (vel_file::Dir entries(local_dir, 2); entries.Next();)
        if (str::StartsWith(entries.Name(), kFolder))
            left[entries.Name().substr(kFolder.size())] = entries.Path();
    for (const auto& [user, folder] : left) {
        try {
            const WorkLock alone("restore", user);
            EndOrphans(folder);
            vel_file::Remove(folder);
        } catch (const Busy&) {
            // an import that goes on
        }
    }
}

}  // namespace backup2_admin
