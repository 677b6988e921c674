/// Taking one backup away, from its storage and from this machine: what every action that removes
/// backups does alike.
#pragma once

#include <list>
#include <optional>
#include <string>

#include "sbin/backup2_cp/info_record.h"
#include "sbin/backup2_cp/names.h"
#include "sbin/backup2_cp/target.h"

namespace backup2_cp {

/// One backup and where its local files lie.
struct Place {
    BackupName name;
    std::string info;    ///< its info file, which may be missing
    std::string top;     ///< L, the local backup tree
    std::string folder;  ///< L/user/date, or L/date in a tree of one user
};

/// The info file lies in L itself or in the backup's own folder. Throws for another name.
Place PlaceOf(const std::string& info);
/// "user/date NAME", as messages call a backup.
std::string Shown(const BackupName& name);

/// Its keys, all names in them checked; nothing when the file is missing.
InfoMap ReadInfo(const Place& place);
/// Info files of the increments that need the full backup of this place, unfinished ones too.
std::list<std::string> Increments(const Place& place);
/// Info file of the full backup that `keys` build on, when it is marked as deleted and not pinned.
std::optional<std::string> DeletedBase(const Place& place, const InfoMap& keys);
/// Writes the key "deleted". Throws when there is no info file to write it to, or it is pinned.
void MarkDeleted(const Place& place);

/// Asks without touching anything whether a live process holds the folder's mark.
bool IsInUse(const Place& place);

/// Removes one backup, whatever builds on it: on the storage its info file first, so that nobody
/// takes the rest for a backup, then its slices and the index; then the local files, the info file
/// last, so that an interrupted call can be repeated. Folders go when they are empty. Who wants to
/// pin it meanwhile waits, and finds it gone. Throws vel_err::Error("lock", "busy", ...) for a
/// backup in use, std::runtime_error for a pinned one unless `even_pinned`, and what the storage
/// answers.
void RemoveBackup(const Target& target, const Place& place, bool even_pinned);
/// Its part on the storage alone.
void RemoveStored(const Target& target, const Place& place);

}  // namespace backup2_cp
