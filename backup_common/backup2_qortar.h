/// One backup job: its settings, the archiver's run, the base of an increment; and what becomes of
/// the finished backup: limits, the copy in the user's own storage, the journal of that copying.
#pragma once

#include <list>
#include <map>
#include <memory>
#include <string>

#include "vel/vel_client.h"
#include "vel/vel_file.h"
#include "vel/vel_proc.h"
#include "vel/vel_xml.h"

#include "backup_common/export.h"

namespace backup2 {

class SystemMarkers;

/// The settings of one user's job, as the panel answers them ("backup2.item.info"). Making it
/// prepares the working directories; the destructor removes what it made.
class BACKUP2_EXPORT Settings {
public:
    /// Asks the panel instance `manager`, waiting while it is locked. Throws the panel's
    /// vel_err::Error; nothing is left on disk then.
    Settings(const std::string& manager, const std::string& user, const std::string& role);
    Settings(const std::string& manager, const std::string& user, bool userdata,
             const std::string& role);
    Settings(const Settings&) = delete;
    Settings& operator=(const Settings&) = delete;
    ~Settings();

    /// Reads the document into the members and makes the directories. Called by the constructors.
    /// A second call appends to the lists. What it made before it threw is removed, but for the
    /// local directory. Throws vel_err::AssertError "Path is symlink_link" when a link stands in
    /// the place of `system`, vel_err::Error("file", "bad_name", ...) for a marker that would lie
    /// elsewhere, and "sys" for what the disk refuses.
    void Init();

    std::string manager() const { return manager_; }
    std::string user() const { return user_; }
    std::string root() const { return root_; }            ///< the folders are relative to it
    std::string local_dir() const { return local_dir_; }  ///< working directory of the job
    std::string system() const { return system_; }        ///< markers of system data, "" when none
    std::string command_prefix() const { return command_prefix_; }
    std::string slice_size() const { return slice_size_; }
    const std::list<std::string>& folders() const { return folders_; }
    const std::list<std::string>& exclude_files() const { return exclude_files_; }
    const std::map<std::string, std::string>& storage() const { return storage_; }
    vel_client::Result params() const { return *params_; }  ///< shares the answer's document
    bool empty() const { return system_.empty() && folders_.empty(); }

private:
    void ReadFolders();
    void ReadSystem();
    void ReadEnvironment();

    std::string manager_, user_, root_, local_dir_, system_, command_prefix_, slice_size_;
    std::list<std::string> folders_, exclude_files_;
    std::map<std::string, std::string> storage_;
    std::unique_ptr<vel_file::TmpDir> tmp_root_;
    std::shared_ptr<vel_client::Result> params_;
    std::unique_ptr<SystemMarkers> markers_;  // goes before tmp_root_, in which it may lie
};

/// Puts the job's storage token, with the archive password added, into BACKUP_TOKEN of this
/// process. An empty password keeps the token's own. Throws std::out_of_range "map::at" for
/// settings without a token. The two middle arguments are not used.
BACKUP2_EXPORT void SetStorageEnv(const Settings& settings, std::string name,
                                  const std::string& date, const std::string& password);

/// Runs the archiver, which hands each slice to the copy tool, and uploads the listing.
/// `info_file`: the working info file, removed at the end, kept on failure; `archive`: what to
/// create; `listing`: where the listing goes; `base`: listing of the full backup, or "" (a base
/// that does not exist makes a full backup). Throws std::runtime_error "Failed to create backup".
BACKUP2_EXPORT void BackupLocal(Settings& settings, const std::string& info_file,
                                const std::string& archive, const std::string& listing,
                                const std::string& base);

/// "exists" when the user has a backup of this date; else the index file of the earliest usable
/// full backup of the date's week (Sunday to Saturday), or "" when the backup must be full.
BACKUP2_EXPORT std::string LookupLastFull(const Settings& settings, const std::string& user,
                                          const std::string& date);

// ---- Cleanup journal ----------------------------------------------------------------------------

/// One line of the journal "<dir>/.cleanup": it names what must be removed from a storage should
/// this process not come to its end. The journal is shared by all processes that copy into the
/// storage of this directory; every change is made under its lock and in one step. It holds tokens
/// with their passwords: mode 0600.
class BACKUP2_EXPORT Cleanup {
public:
    /// Appends the line; it is on the disk when this returns. Makes a missing `dir` (0700). Throws
    /// vel_err::Error when the disk refuses, or something else than a file is in the journal's
    /// place; the journal is as it was then.
    Cleanup(const std::string& dir, const std::string& token, const std::string& name,
            const std::string& date, bool marked);
    Cleanup(const Cleanup&) = delete;
    Cleanup& operator=(const Cleanup&) = delete;
    /// Leaves the line where it is: only RemoveItem says that all went well.
    ~Cleanup();

    /// Takes the line out, and all that are equal to it. Keeps the journal locked until the object
    /// goes, which is when the change is on the disk; other objects of this process are not kept
    /// waiting.
    void RemoveItem();

private:
    std::string path_, line_;
    vel_file::Lock lock_;
};

/// A line that a journal still holds.
struct PendingCleanup {
    std::string token, date, name;
    bool marked = false;
    std::string line;  ///< as it stands there; all other members are empty when it makes no sense
};
/// What the journal of `dir` holds, in its order; nothing when there is none.
BACKUP2_EXPORT std::list<PendingCleanup> ReadCleanups(const std::string& dir);
/// Takes all lines equal to `line` out of the journal of `dir`, which stays, empty if need be.
BACKUP2_EXPORT void DropCleanup(const std::string& dir, const std::string& line);

/// True for "custom" and for a date, which is brought into the form YYYY-MM-DD; else `date` stays.
BACKUP2_EXPORT bool CheckDate(std::string& date);

// ---- Limits -------------------------------------------------------------------------------------

/// Starts the copy tool, which enforces the limits of one storage, and returns when it has closed
/// its output; Result() of what is returned gives its status. `storage`: text is the token,
/// attributes local_dir, size_limit, count_limit and, for a user's own storage, user. `date` counts
/// as present. Leaves the token in BACKUP_TOKEN of this process.
BACKUP2_EXPORT vel_proc::Execute BackupSizeControl(vel_xml::XmlNode storage,
                                                   const std::string& date);
/// A decimal size as info files of encrypted copies record it: the largest number not above it that
/// is one more than a multiple of 32; "" and "0" give "-31".
BACKUP2_EXPORT std::string EncryptedSize(const std::string& size);

// ---- Copies in users' own storages --------------------------------------------------------------

/// Rewrites an info file so that it describes the backup as it lies on the storage `target` (an
/// element whose text is a token) below `target_dir`: names, sizes, key_hash, base. Other keys keep
/// their values. Replaced in one step; unchanged when this throws.
BACKUP2_EXPORT void UpdateInfo(vel_xml::XmlNode target, const std::string& info_file,
                               const std::string& target_dir);

/// Copies the backup of `date` (or "custom") from the administrator's storage into that of `user`,
/// an element with the attributes user and local_dir and the storage's token as text; the full
/// backup of an increment first, when it is not there. `settings`: the panel's answer with
/// /doc/storage, /doc/backup and /doc/ssh_key.
///
/// The caller sees to it that a user has one copy at a time. While it works a line in the journal
/// of the user's local directory names the copy; it stays when this throws or dies, and so does
/// what was stored by then; a base that the journal still names is copied again. Throws
/// std::runtime_error "Failed to upload file to user storage", another std::runtime_error for names
/// that do not belong to this backup, and what the storages, the disk and the info files give.
/// Leaves the user's token in BACKUP_TOKEN of this process.
BACKUP2_EXPORT void CopyToPrivate(vel_xml::Xml& settings, const std::string& date,
                                  vel_xml::XmlNode user);

}  // namespace backup2
