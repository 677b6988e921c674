/// Custom backups: a user has one, under the date "custom", and a new one takes its place only
/// when it is complete. Their names on the storage are those of the same folder:
///
///   user/custom/C<stamp>.user.tgz...   slices: the stamp is a day that the one before has not
///   user/custom/custom.user.tgz        index: the new one overwrites the old one at the very end
///   user/custom/custom.user.info       info: the same; with it the new backup counts
///
/// Locally everything new stays in a directory of its own until then, so what the local tree says
/// is always one complete backup, and a broken run can put the old index and info back. While
/// somebody reads the one before, it stays.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "backup_common/backup2_storage.h"

namespace backup2_admin {

class CustomBackup {
public:
    /// `local_dir` is the administrator's local tree, `place` the directory of the user's custom
    /// backup in it. BACKUP_TOKEN must hold the token whenever something is called.
    CustomBackup(std::string local_dir, std::string place, std::string user,
                 const backup2::BackupToken& token);

    /// Ends what runs left that died: takes back what was incomplete, finishes what was complete,
    /// as Finish does.
    void Recover();
    /// Begins a new one: chooses the stamp and makes the directory WorkDir().
    void Begin();
    const std::string& Stamp() const { return stamp_; }
    std::string WorkDir() const;
    /// The backup in WorkDir() is complete and uploaded: it takes the place of the one before,
    /// whose slices are removed. Waits an hour at most for those who read that, then throws; the
    /// new one takes its place with the next run.
    void Finish();
    /// Removes what was made, also from the storage; the one before is as it was.
    void TakeBack();

private:
    std::string Dir(const std::string& state, const std::string& stamp) const;
    std::vector<std::string> StampsOf(const std::string& state) const;
    std::string StampIn(const std::string& info_path) const;
    void Complete(const std::string& stamp);
    void TakeBack(const std::string& stamp);
    void DeleteStored(const std::string& beginning);

    std::string local_dir_, place_, user_, stamp_;
    backup2::BackupToken token_;
};

}  // namespace backup2_admin
