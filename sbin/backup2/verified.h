/// When backups were last read back, and what came of it. Known on this machine only: a small text
/// file, var/backup2.verified, one line a backup; lines of backups that are gone drop out.
#pragma once

#include <map>
#include <string>

#include "sbin/backup2/job.h"

namespace backup2_admin {

struct Verified {
    std::string when;   ///< local time, "YYYY-MM-DD HH:MM:SS"; "" = never
    bool good = false;  ///< everything was as recorded
    bool deep = false;  ///< unpacked and compared with the listing, too
};

/// What the file says, read once. A line that makes no sense counts as none.
class VerifiedBook {
public:
    VerifiedBook();
    /// Of this very backup: a custom one that has replaced another was never verified.
    Verified Find(const Backup& backup) const;

private:
    std::map<std::string, Verified> entries_;
};

/// Keeps the result under the present time (`result.when` is not looked at), in one step and under
/// a lock. Throws when the file cannot be written; it is as before then.
void RecordVerified(const Backup& backup, const Verified& result);

}  // namespace backup2_admin
