#include "panel/storages.h"

#include <filesystem>

#include "vel/str.h"
#include "vel/vel_file.h"
#include "vel/vel_tool.h"

#include "panel/checks.h"

namespace panel {
namespace {

std::string DefaultLocalDir(const std::string& user) {
    const std::string below =
        user.empty() ? "var/backup/qorvel" : "var/backup/qorvel.private/" + user;
    return vel_file::ConcatPath(std::filesystem::current_path().string(), below);
}

/// The service tells the administrator's folder from users' ones by its end, and finds what the
/// latter hold already by their place.
void CheckLocalDir(const Storage& storage) {
    CheckAbsolutePath("local-dir", storage.local_dir);
    if (storage.user.empty() && !str::EndsWith(storage.local_dir, "/var/backup/qorvel"))
        throw vel_tool::UsageError("local-dir: must end in /var/backup/qorvel");
    if (!storage.user.empty() && storage.local_dir != DefaultLocalDir(storage.user))
        throw vel_tool::UsageError("local-dir: a user's is always " +
                                   DefaultLocalDir(storage.user));
}

}  // namespace

void KeepStorage(Storage storage) {
    CheckSize("slice-size", storage.slice_size);
    CheckSize("size-limit", storage.size_limit);
    CheckSize("count-limit", storage.count_limit);
    if (storage.local_dir.empty()) storage.local_dir = DefaultLocalDir(storage.user);
    CheckLocalDir(storage);
    CheckToken(storage.token);
    Store().SetStorage(storage);
}

}  // namespace panel
