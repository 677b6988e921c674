/// backup2 cleanup: removes what is nobody's: backups of users who have gone, and what broken
/// copies left in users' own storages.
#include <iostream>
#include <map>
#include <stdexcept>

#include <CLI/CLI.hpp>

#include "vel/vel_file.h"
#include "vel/vel_tool.h"

#include "sbin/backup2/commands.h"
#include "sbin/backup2/import_place.h"
#include "sbin/backup2/job.h"
#include "sbin/backup2/private.h"
#include "sbin/backup2/removed.h"

namespace backup2_admin {
namespace {

const char kExamples[] = R"(
A backup belongs to the user who had a number (uid) when it was made. When the panel says that he was
removed, or that his name has another number now, his backups are deleted from the administrator's
storage. Pinned ones stay. A panel that cannot be asked, or answers nonsense, deletes nothing.

While a backup is copied, a journal names it. What a journal still names when nobody copies is half
a copy: it is removed from the user's storage and from this machine. "backup2 copy" and the next
"backup2 run" of the user do the same for themselves.

Examples:
  backup2 cleanup        of all users
  backup2 cleanup bob    of bob alone

Exit status 3: something had to stay, or a copy is just being made; its user was left alone.)";

const char kOwnDirs[] = "var/backup/qorvel.private";

/// User -> local directory of his own storage: as the panel says, and what is on this machine of
/// users whom it knows no more.
std::map<std::string, std::string> OwnDirs() {
    std::map<std::string, std::string> dirs;
    if (vel_file::Exists(kOwnDirs)) {
        for (vel_file::Dir entries(kOwnDirs, 2); entries.Next();) {
            if (entries.Info(2).IsDir()) dirs[entries.Name()] = entries.Path();
        }
    }
    for (const auto& storage : AskOwnStorages()) {
        dirs[storage.GetProp("user")] = storage.GetProp("local_dir");
    }
    return dirs;
}

int Show(const std::string& user, const Replay& replay) {
    for (const auto& title : replay.removed)
        std::cout << title << ": the broken copy is removed" << std::endl;
    if (replay.why.empty()) return vel_tool::kDone;
    for (const auto& title : replay.left)
        std::cout << title << ": the broken copy stays" << std::endl;
    std::cout << user << ": " << replay.why << std::endl;
    std::cerr << "backup2: " << user << ": " << replay.why << std::endl;
    return vel_tool::kFailed;
}

int CleanUser(const std::string& user, const std::string& admin_dir, const std::string& own_dir) {
    try {
        const WorkLock alone("copy", user);
        return Show(user, ClearBrokenCopies(user, admin_dir, own_dir));
    } catch (const Busy& busy) {
        std::cout << busy.what() << std::endl;
        return vel_tool::kWarnings;
    } catch (const std::exception& error) {
        return Show(user, {{}, {}, Reason(error)});
    }
}

/// What killed uploads left where no later upload removes it: it takes room.
int Sweep(const Site& site) {
    const std::string type = site.token.Type();
    if (!backup2::IsS3Type(type) && type != "yandex") return vel_tool::kDone;
    UseStorage(site.token);
    const Done done = RunTool({"backup2_cp", "--sweep"});
    std::cout << done.output << std::flush;
    return done.status;
}

int Cleanup(const std::string& user) {
    const Site admin = AskSite();
    const std::string admin_dir = admin.local_dir;
    if (!user.empty()) CheckUser(user);
    if (admin_dir.empty()) throw std::runtime_error("the panel names no local directory");
    int status = DeleteFormerUsers(admin, user);
    DropImportDirs(admin_dir);
    for (const auto& [name, dir] : OwnDirs())
        if (user.empty() || name == user)
            status = WorseStatus(status, CleanUser(name, admin_dir, dir));
    if (user.empty()) status = WorseStatus(status, Sweep(admin));
    for (const auto& storage : AskOwnStorages(user))
        status = WorseStatus(status, Sweep(Site(storage)));
    return status;
}

}  // namespace

void AddCleanup(CLI::App& app, Action& chosen) {
    auto* command = app.add_subcommand("cleanup", "Remove what is nobody's any more");
    const auto user = std::make_shared<std::string>();
    command->add_option("user", *user, "Only what was this user's");
    const auto all = std::make_shared<bool>(false);
    command->add_flag("--all", *all, "Of all users; the same as no name");
    command->footer(kExamples);
    command->callback([user, all, &chosen] {
        if (*all && !user->empty())
            throw vel_tool::UsageError("a name and --all exclude each other");
        chosen = [user] { return Cleanup(*user); };
    });
}

}  // namespace backup2_admin
