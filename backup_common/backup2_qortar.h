/// One backup job: its settings, the archiver's run, the base of an increment.
#pragma once

#include <list>
#include <map>
#include <memory>
#include <string>

#include "vel/vel_client.h"
#include "vel/vel_file.h"

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

}  // namespace backup2
