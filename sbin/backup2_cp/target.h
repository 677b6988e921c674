/// The storage that one call works on.
#pragma once

#include <functional>
#include <memory>
#include <ostream>
#include <string>

#include "backup_common/backup2_storage.h"

#include "sbin/backup2_cp/sums.h"

namespace backup2_cp {

class Target {
public:
    /// BACKUP_TOKEN when set and not empty; else with BACKUP_STORAGE=user that user's storage as
    /// the panel names it; else the panel's own. Both variables are taken out of the environment,
    /// so that no child inherits them. Throws for a token that CheckToken refuses.
    /// `user`, when not empty, stands in the place of BACKUP_STORAGE.
    static Target FromEnvironment(const std::string& user = "");
    explicit Target(const backup2::BackupToken& token);

    const backup2::BackupToken& Token() const { return token_; }
    /// Whose own storage it is, as BACKUP_STORAGE said; "" for the administrator's.
    const std::string& User() const { return user_; }
    /// A fresh storage object: a failed one remembers directories that it could not make. The first
    /// call makes sure that there is a way in, which removing and listing by ssh would not tell.
    /// Throws Permanent when the server shows another host key than the recorded one.
    std::shared_ptr<backup2::Storage> Open() const;
    /// For one of many calls in a row: that a call got in a minute ago will do.
    void ReachOncePerMinute() { recent_will_do_ = true; }
    /// True when what goes there passes as a stream, which can be watched.
    bool Streams() const;
    /// True when `name` is listed in its folder: not every kind lists a file by its own name.
    bool Holds(const std::string& name) const;
    /// Path of a stored file of a local storage, "" for other kinds.
    std::string LocalPath(const std::string& name) const;
    /// True when the local file and the stored one are the same directory entry.
    bool IsStored(const std::string& local, const std::string& name) const;
    /// Writes the stored bytes of `name`, as they are.
    void ReadStored(const std::string& name, std::ostream& out) const;
    /// On a local storage: the stored file, and the folders that lead to it, are on the disk when
    /// this returns.
    void Sync(const std::string& name) const;
    /// True when `name` is passed through the cipher here.
    bool Encrypts(const std::string& name) const;
    std::string Describe() const;                         ///< "local storage /srv/backup"
    std::string Redacted(const std::exception& e) const;  ///< its Reason, without secrets

    /// Runs `attempt` up to four times, with pauses that grow from BACKUP2_RETRY_MS (1000); throws
    /// "<what>: <reason>" of the last failure. A Permanent one passes at once. `undo` runs after
    /// each failure and may throw, which ends it, too.
    void Retry(const std::string& what, const std::function<void()>& attempt,
               const std::function<void()>& undo = {}) const;

private:
    void Reach(backup2::Storage& storage) const;
    void ForgetReached() const;

    backup2::BackupToken token_;
    std::string user_;
    bool recent_will_do_ = false;
    mutable bool reached_ = false;
};

}  // namespace backup2_cp
