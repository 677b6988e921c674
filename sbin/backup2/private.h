/// Users' own storages: copying backups into them, and clearing what broken copies left there.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "vel/vel_xml.h"

#include "backup_common/backup2_qortar.h"

#include "sbin/backup2/job.h"

namespace backup2_admin {

/// What the journal of a user's own storage named, and what became of it.
struct Replay {
    std::vector<std::string> removed;  ///< "<user> <date>" of broken copies that are gone now
    std::vector<std::string> left;     ///< of those that are not; unreadable lines as "?"
    std::string why;                   ///< the copy tool's reason for them
};

/// Removes what copies left that died: their programs, their temporaries below `admin_dir`, and
/// what the journal in `own_dir` names, also from the storage. Other backups are not touched. Needs
/// the lock of "copy". Throws for what this machine refuses, and before anything is done when a
/// line means the administrator's storage.
Replay ClearBrokenCopies(const std::string& user, const std::string& admin_dir,
                         const std::string& own_dir);

/// The copies of one user, who is worked for by nobody else while it lives (else: throws Busy).
class PrivateCopy {
public:
    /// `settings`: the panel's answer about the user's job; `storage`: the element of his own
    /// storage. Clears what broken copies left; that failing is a warning.
    PrivateCopy(vel_xml::Xml settings, vel_xml::XmlNode storage);

    /// False: it is there already. An increment's full backup goes first when it is not there.
    /// Nothing is begun when the administrator's storage has another password by now than the
    /// backups were made with. A copy that fails stays in the journal, and goes with the next call
    /// or "backup2 cleanup". Leaves the user's token in BACKUP_TOKEN.
    bool Copy(const std::string& date);

    /// The dates that his storage should have and does not, by age: of all backups, here and there,
    /// the newest that it may hold by their number. With a size limit nothing older than its newest
    /// one is named, since that would drive newer ones out.
    std::vector<std::string> Lacking() const;

    const std::vector<std::string>& Warnings() const { return warnings_; }

private:
    std::map<std::string, std::string> BasesOf(const Site& site) const;
    std::vector<Backup> Missing(const std::string& date) const;
    void CheckOutsideTree() const;
    void ApplyLimits(const std::string& date);
    void CheckBeforeReplacing(const std::vector<Backup>& missing) const;
    bool IsComplete(const Backup& backup) const;
    void CopyOne(Backup backup);
    void TakeOverLines(const std::string& date) const;
    std::vector<backup2::PendingCleanup> LinesAbout(const std::string& date) const;
    void RemoveReplaced(const Backup& copy) const;

    vel_xml::Xml settings_;
    vel_xml::XmlNode storage_;
    Site admin_, own_;
    WorkLock alone_;
    std::vector<std::string> warnings_;
};

/// Lets the info file say where the backup lies on the storage of the element `storage`, and
/// uploads it: what needs an increment's base finds it there. Leaves the token in BACKUP_TOKEN.
void RecordPlace(const vel_xml::XmlNode& storage, const Backup& backup);

}  // namespace backup2_admin
