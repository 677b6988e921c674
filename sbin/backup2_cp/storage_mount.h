/// Is the disk of a local storage mounted? Where it is not, there stands the folder below it, which
/// may hold anything and can be written: what is missing there is not gone, and what would go there
/// would fill another disk. So this machine remembers on which mount point a storage was, in
/// var/backup2.storages/<digest of its path>.
#pragma once

#include <string>

#include "backup_common/backup2_storage.h"

namespace backup2_cp {

/// Storages that are not local have no mount point here: nothing is done then.
class StorageMount {
public:
    explicit StorageMount(const backup2::BackupToken& token);
    /// Throws Permanent unless the storage lies on the mount point that is remembered, or deeper.
    void Check() const;
    /// The same before something is stored, which is what makes the mount point be remembered.
    void CheckAndRemember() const;
    /// Remembers where the storage lies now, wherever it was before.
    void Accept() const;

private:
    std::string Known() const;
    void Remember(const std::string& point) const;

    std::string path_, record_;  // empty for other kinds
};

}  // namespace backup2_cp
