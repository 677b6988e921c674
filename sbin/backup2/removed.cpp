#include "sbin/backup2/removed.h"

#include <algorithm>
#include <iostream>
#include <map>
#include <stdexcept>
#include <vector>

#include "vel/str.h"
#include "vel/vel_client.h"
#include "vel/vel_err.h"
#include "vel/vel_file.h"
#include "vel/vel_tool.h"

#include "backup_common/backup2_misc.h"

namespace backup2_admin {
namespace {

const std::string kUid = "uid";

[[noreturn]] void ThrowNonsense() {
    throw std::runtime_error("the panel's answers make no sense, nothing is deleted");
}

/// True when the panel describes a job for the user, false when it says that there is no such user.
/// Nothing else counts as an answer.
bool HasJob(const std::string& user) try {
    if (AskJob(user).value("local_dir").empty()) ThrowNonsense();
    return true;
} catch (const vel_err::Error& error) {
    if (error.type() != "missed" || error.object() != "user") throw;
    return false;
}

vel_client::Result AskForm(const std::string& user) try {
    return Panel().Query("func=user.edit&elid=?", user);
} catch (const vel_err::Error& error) {
    if (error.type() != "missed") throw;
    return {};
}

bool IsNumber(const std::string& text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

/// The user's number in the panel's list, "" when he is not in it.
std::string NumberInList(const std::string& user) {
    const auto list = Panel().Query("func=user");
    for (const auto& name : list.GetNodes("/doc/elem/name"))
        if (name.Str() == user)
            for (auto node = name.Parent().FirstChild(); node; node = node.Next())
                if (node.Name() == kUid) return node.Str();
    return "";
}

/// What the form says about the user's number, or that he has gone, is only believed when two more
/// requests agree with it.
void Confirm(const vel_client::Result& form, const std::string& user) {
    const std::string uid = form.value(kUid), listed = NumberInList(user);
    const bool gone = !form.GetRoot().FirstChild() && listed.empty();
    const bool there = IsNumber(uid) && form.value("name") == user && listed == uid;
    if (gone == there || HasJob(user) != there) ThrowNonsense();
}

/// One user's backups, all of them, in the order of their dates.
class FormerUser {
public:
    FormerUser(std::string user, std::vector<Backup> backups)
        : user_(std::move(user)),
          backups_(std::move(backups)),
          form_(AskForm(user_)),
          uid_(form_.value(kUid)) {}

    int Delete() {
        if (std::none_of(backups_.begin(), backups_.end(),
                         [this](const Backup& backup) { return IsFormer(backup); }))
            return vel_tool::kDone;
        Confirm(form_, user_);
        const WorkLock alone("delete", user_);
        int status = vel_tool::kDone;
        for (const Backup& backup : backups_)
            if (IsFormer(backup)) status = WorseStatus(status, DeleteOne(backup));
        return status;
    }

private:
    bool IsFormer(const Backup& backup) const {
        return !backup.Get(kUid).empty() && backup.Get(kUid) != uid_;
    }
    /// Why the backup stays although it is a former user's, "" when it goes.
    std::string WhyItStays(const Backup& backup) const {
        if (backup.Pinned()) return "it is pinned";
        for (const Backup& other : backups_)
            if (!IsFormer(other) && other.BaseDate() == backup.date)
                return "the backup of " + other.date + " builds on it";
        return "";
    }
    /// What is in the place now counts: since the backups were listed, a run may have put the
    /// present user's there.
    int DeleteOne(const Backup& listed) const {
        const bool gone = !vel_file::Exists(listed.info_path);  // an increment, with its base
        const Backup backup = gone ? listed : ReadBackup(listed.info_path);
        if (!IsFormer(backup)) return vel_tool::kDone;
        std::cout << backup.Title() << ": ";
        if (const std::string why = WhyItStays(backup); !why.empty()) {
            std::cout << "is a former user's, but " << why << std::endl;
            return vel_tool::kWarnings;
        }
        const FailureWatch watch;
        if (!gone) backup2::CheckDeletedUser(user_, backup.date, backup.Get(kUid));
        if (vel_file::Exists(backup.info_path)) {
            std::cout << "could not be deleted" << watch.Reason() << std::endl;
            return vel_tool::kFailed;
        }
        std::cout << "deleted, the user "
                  << (uid_.empty() ? "was removed" : "is another one of the same name now")
                  << std::endl;
        return vel_tool::kDone;
    }

    std::string user_;
    std::vector<Backup> backups_;
    vel_client::Result form_;
    std::string uid_;  // that he has now, "" when he has gone
};

}  // namespace

int DeleteFormerUsers(const Site& site, const std::string& user) {
    std::map<std::string, std::vector<Backup>> by_user;
    for (Backup& backup : FindBackups(site.local_dir, user, "")) {
        const bool role = backup.user.find('#') != std::string::npos;
        if (!role && backup.user != "root") by_user[backup.user].push_back(std::move(backup));
    }
    int status = vel_tool::kDone;
    for (auto& [name, backups] : by_user) {
        try {
            status = WorseStatus(status, FormerUser(name, std::move(backups)).Delete());
        } catch (const Busy& busy) {
            std::cout << busy.what() << std::endl;
            status = WorseStatus(status, vel_tool::kWarnings);
        } catch (const std::exception& error) {
            std::cout << name << ": " << Reason(error) << std::endl;
            std::cerr << "backup2: " << name << ": " << Reason(error) << std::endl;
            status = vel_tool::kFailed;
        }
    }
    return status;
}

}  // namespace backup2_admin
