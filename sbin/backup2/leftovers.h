/// What a run of one user leaves that died: an unfinished backup of some day, here and on the
/// storage. A working info file names it.
#pragma once

#include <string>

namespace backup2_admin {

/// Only for the process that alone works for the user (WorkLock "run"); BACKUP_TOKEN must hold the
/// storage whenever something is removed.
class Leftovers {
public:
    Leftovers(std::string local_dir, std::string user);

    std::string WorkingInfo(const std::string& day) const;
    /// What died on other days than `date`. A backup that is there already was complete but for its
    /// tidying up.
    void RemoveOtherDays(const std::string& date) const;
    /// The unfinished backup of this day, with its slices. Its working info file stays when the
    /// storage does not let go of them.
    void RemoveDay(const std::string& day) const;

private:
    void RemoveTornInfos() const;

    std::string local_dir_, user_;
};

}  // namespace backup2_admin
