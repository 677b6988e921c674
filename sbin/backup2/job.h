/// What the subcommands of backup2 share: the panel's view, the backups in the local tree, the
/// names of one backup and its storage.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "vel/vel_client.h"
#include "vel/vel_err.h"
#include "vel/vel_xml.h"

#include "backup_common/backup2_misc.h"
#include "backup_common/backup2_storage.h"

namespace backup2_admin {

inline constexpr char kPanel[] = "qorvel";
inline constexpr char kCustom[] = "custom";

// ---- Words of the administrator -----------------------------------------------------------------

/// A user's name as it can stand in file names. Throws vel_tool::UsageError for others ("", ".",
/// with "/", "#" or control bytes, with a leading "-").
std::string CheckUser(const std::string& user);
/// "custom", or the day in the form YYYY-MM-DD ("" is today). Throws vel_tool::UsageError.
std::string CheckDate(const std::string& date);
/// Help of the option --uid for those who act for one user, who must not see what a former one of
/// his name had.
inline constexpr char kUidHelp[] = "Nothing that was made for another number of the user";
/// An error in words for people.
std::string Reason(const std::exception& error);
/// The same in a line that a program printed about itself.
std::string PlainWords(const std::string& line);
/// Of two exit statuses of users' jobs the one to end with: a failure before warnings.
int WorseStatus(int a, int b);

// ---- The panel ----------------------------------------------------------------------------------

vel_client::Local Panel();  ///< waits while it is locked
/// A storage and the local tree that belongs to it.
struct Site {
    Site() = default;
    explicit Site(const vel_xml::XmlNode& storage);  ///< an element "storage" of the panel's
    std::string owner;                               ///< the user whose own it is; "" administrator
    std::string local_dir;
    backup2::BackupToken token{""};
    std::string slice_size, size_limit, count_limit;
};
Site AskSite();  ///< the administrator's
/// The user's own one. Throws when he has none.
Site AskOwnSite(const std::string& user);
/// The administrator's, or with `own` the user's own; with `own` and no user all that there are.
std::vector<Site> AskSites(bool own, const std::string& user);
/// Throws when the storage `own` of a user is the administrator's: both would keep the same files,
/// and what limits, copies and deletions do to the one would be done to the other.
void CheckApart(const std::string& user, const backup2::BackupToken& own);
/// True when both tokens lead to one place, as far as can be told: accounts of one provider may be
/// different ones.
bool MayBeSamePlace(const backup2::BackupToken& a, const backup2::BackupToken& b);
/// The panel's answer about the user's job ("backup2.item.info").
vel_client::Result AskJob(const std::string& user);
/// The elements of users' own storages: of all, or of one (perhaps none).
std::vector<vel_xml::XmlNode> AskOwnStorages(const std::string& user = "");
std::vector<std::string> AskUsers();               ///< all users of the panel, in its order
std::string AskUserRoot(const std::string& user);  ///< "" when the panel gives none
/// The number that the user has in the panel, "" when it does not know him: by it a backup is told
/// from those of a former user of his name.
std::string AskUserUid(const std::string& user);
/// Puts the storage into BACKUP_TOKEN for the programs that are started next.
void UseStorage(const backup2::BackupToken& token);

// ---- Backups ------------------------------------------------------------------------------------

/// One file of an archive on the storage. Sizes and sums are empty when the info file has none.
struct Slice {
    std::string path;  ///< below the storage's base directory
    uint64_t plain = 0, stored = 0;
    std::string plain_sum, stored_sum;
};

/// A finished backup, as its info file in the local tree describes it.
struct Backup {
    std::string user;  ///< for a role "user#role"
    std::string date;  ///< or "custom"
    std::string info_path;
    std::map<std::string, std::string> info;

    std::string Get(const std::string& key) const;  ///< "" when the info file has no such key
    std::string Title() const { return user + " " + date; }
    /// A digest of when it was made and what it holds: tells it from another under the same name
    /// and is that of its copies, too. A custom one may replace another within a second.
    std::string Identity() const;
    std::string Kind() const { return Get("type"); }
    /// False when it records another number of its user; "" is anybody's.
    bool MadeFor(const std::string& uid) const;
    bool Damaged() const;  ///< CheckRecord throws
    bool Usable() const { return !Deleted() && !Damaged(); }
    bool Deleted() const { return info.count("deleted") != 0; }
    bool Pinned() const { return info.count("pinned") != 0; }
    /// Name of the archive as the archiver knows it: no ".aes", no ".partK".
    std::string Archive() const;
    std::string Base() const;       ///< of an increment the Archive() of its full backup, else ""
    std::string BaseDate() const;   ///< and its date
    std::string IndexPath() const;  ///< the local listing, whether it is there or not
    std::string StoredIndex(const backup2::BackupToken& token) const;
    std::vector<Slice> Slices() const;  ///< throws as CheckRecord does
    /// Throws std::runtime_error for an info file that is cut, or names what belongs to another
    /// backup: with half of its sums damage would pass as an old backup, which has none.
    void CheckRecord() const;
};

/// The backups of a user ("" all), of a date ("" all), by user and date. A working info file is no
/// backup yet and is left out.
std::vector<Backup> FindBackups(const std::string& local_dir, const std::string& user,
                                const std::string& date);
/// Throws vel_err::Error("missed", "backup", "<user> <date> ...") when there is none, and none
/// MadeFor this number.
Backup GetBackup(const std::string& local_dir, const std::string& user, const std::string& date,
                 const std::string& uid = "");
Backup ReadBackup(const std::string& info_path);
/// Changes the info file on the storage and then here, in one step each and under its lock.
/// `change` gets a copy. Needs UseStorage. Both are as before when `change` or the upload throws.
void ChangeInfo(const Backup& backup, const std::function<void(const std::string& copy)>& change);
/// Throws when the backup was encrypted with another password than the storage has now.
void CheckPassword(const Backup& backup, const backup2::BackupToken& token);
/// Fetches the listing from the storage when the local tree has lost it; its local path.
/// Needs UseStorage.
std::string NeedIndex(const Backup& backup, const backup2::BackupToken& token);

// ---- Programs -----------------------------------------------------------------------------------

struct Done {
    int status = 0;
    std::string output;
    std::string LastLine() const;
    /// Throws std::runtime_error "<what>: <last line>" unless the program succeeded.
    void ThrowIfFailed(const std::string& what) const;
};
/// Runs a program of sbin/ with its output captured.
Done RunTool(std::vector<std::string> argv);
/// The command with which qortar gets the slices of any backup below `local_dir`.
std::string FetchCommand(const std::string& local_dir);

/// Hears why a program failed that the library runs while the object lives: the library logs that
/// and tells its caller only that one failed. One at a time.
class FailureWatch {
public:
    FailureWatch();
    FailureWatch(const FailureWatch&) = delete;
    FailureWatch& operator=(const FailureWatch&) = delete;
    ~FailureWatch();
    std::string Reason() const;  ///< ": <the program's last word, or how it ended>", or ""

private:
    std::shared_ptr<std::string> failure_ = std::make_shared<std::string>();
};

/// Another process does the same work for the same user.
struct Busy : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Only one process at a time does `work` ("run", "restore", "verify", "copy") for a user; held
/// while the object lives. Throws Busy when another one does it.
class WorkLock {
public:
    WorkLock(const std::string& work, const std::string& user);
    /// A directory of this work alone, empty but for what its holder puts there.
    const std::string& Dir() const { return dir_; }

private:
    std::string dir_;
    std::unique_ptr<backup2::Lock> lock_;
};
/// Ends programs of this install root that still work with the file or folder `path` although the
/// "backup2" or the archiver that started them is dead. Throws when they do not end.
void EndOrphans(const std::string& path);
/// Removes the temporaries in `dir` that begin with `beginning`: what a dead run left.
void RemoveTemporaries(const std::string& dir, const std::string& beginning);
/// Marks the directory of a backup that is read as in use. Null when somebody else has marked it
/// already: it is protected then as well.
std::unique_ptr<backup2::Lock> Protect(const Backup& backup);

}  // namespace backup2_admin
