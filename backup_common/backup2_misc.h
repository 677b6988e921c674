/// Names, encodings and info files of backups, and the service's dealings with the panel.
#pragma once

#include <list>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "vel/vel_file.h"
#include "vel/vel_xml.h"

#include "backup_common/export.h"

namespace backup2 {

class BackupToken;
class Settings;

// ---- File-name encodings ------------------------------------------------------------------------

/// For one-line listings: TAB LF FF VT CR become \t \n \f \v \r, a backslash is doubled.
BACKUP2_EXPORT std::string EncodeFileName(std::string name);
/// The exact inverse. Throws std::runtime_error "Bad encoded filename '<as far as decoded>'".
BACKUP2_EXPORT std::string DecodeFileName(std::string name);
/// first: the decimal codes of all bytes joined by "||", "" when no byte is below 32;
/// second: the name with "?" for each such byte.
BACKUP2_EXPORT std::pair<std::string, std::string> EncodeBadFileName(const std::string& name);
/// Inverse of the code list; a text without "||" comes back as it is.
BACKUP2_EXPORT std::string DecodeBadFileName(const std::string& codes);
/// Text fit for an XML document: control bytes and UTF-8 sequences of three bytes and more become
/// one "?" each.
BACKUP2_EXPORT std::string ReplaceBadChars(const std::string& text);
/// "" stays "", else "t_" and lower-case hex digits.
BACKUP2_EXPORT std::string TreeEncode(const std::string& value);
/// Inverse; a value without "t_", or with something else than hex digits behind it, comes back.
BACKUP2_EXPORT std::string TreeDecode(const std::string& value);
/// An ssh key as one line: line breaks become "#rn", spaces "#ws".
BACKUP2_EXPORT std::string EscapeKey(std::string key);
/// Back to lines, with the line break that ssh of this system wants.
BACKUP2_EXPORT std::string UnescapeKey(std::string key);

// ---- Names of backups and slices ----------------------------------------------------------------

/// name.N.dar -> name. Throws vel_err::AssertError "Bad backup filename".
BACKUP2_EXPORT std::string DarStripSliceNumber(const std::string& name);
/// Base name of any archive: x.tgz, x.tgz.aes, x.tgz.N, x.N.dar -> x. Throws the same.
BACKUP2_EXPORT std::string StripSliceNumber(const std::string& name);
/// The ten characters of the date (behind one mark letter), or "custom".
/// Throws std::out_of_range for an empty name.
BACKUP2_EXPORT std::string GetDate(const std::string& name);
/// The part before ".tgz" or ".info" without its "#..."; "" when there is none.
BACKUP2_EXPORT std::string GetUserName(std::string name);
/// Bare file name with ".aes" set or removed to match the token; info files stay.
BACKUP2_EXPORT std::string GetName(const BackupToken& token, const std::string& path);
BACKUP2_EXPORT std::string GetExtByToken(const BackupToken& token);  ///< ".tgz" or ".tgz.aes"
BACKUP2_EXPORT std::string GetExtByInfo(const std::map<std::string, std::string>& info);
BACKUP2_EXPORT bool IsEncrypted(const std::string& name);
/// user/date/file of a backup file, its place on a storage.
BACKUP2_EXPORT std::string GetPath(const std::string& path);
BACKUP2_EXPORT std::string ConcatPath(const std::string& a, const std::string& b);  ///< a//b
BACKUP2_EXPORT std::string TruncateName(const std::string& name);  ///< at most 32 bytes
BACKUP2_EXPORT bool IsAdminData(const std::string& path);  ///< ends with "var/backup/qorvel"

// ---- Local files of a run -----------------------------------------------------------------------

/// Makes root/name, for the administrator's data root/user/name, with mode 0440 owned by the user
/// (uid 0 when there is no such user), and returns its path. An existing directory is kept.
BACKUP2_EXPORT std::string MkLocalDir(const std::string& root, const std::string& user,
                                      const std::string& name);
/// Directory of `path` when it holds an info file, else `path`.
BACKUP2_EXPORT std::string GetLocalBackupPath(const std::string& path);
/// Kept for callers of old versions: both do nothing.
BACKUP2_EXPORT void GetLocalTokenNodes(const BackupToken& token,
                                       std::map<std::string, std::string>& nodes);
BACKUP2_EXPORT void CopyFullIndexes(const std::string& from, const std::string& to,
                                    const std::string& user);
/// File names at the head of the archiver's error lines (before a TAB), joined by LF; lines that
/// begin with "Type:" are skipped.
BACKUP2_EXPORT std::string ParseErrorFiles(const std::string& text);

/// Marks a backup directory as in use (".backup.inuse"). A missing directory is not marked.
/// Throws vel_err::Error("lock", "busy", ...) when a live process holds the mark.
class BACKUP2_EXPORT Lock {
public:
    explicit Lock(const std::string& dir);
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;
    ~Lock();  ///< removes the marker while it is still this object's own

private:
    std::string marker_;
    vel_file::Lock lock_;
};

/// Hard link, or a copy where linking fails; an existing `to` is replaced, never written into and
/// never emptied. Only the copy's errors are thrown.
BACKUP2_EXPORT void Link(const std::string& from, const std::string& to);
/// Throws vel_err::AssertError "Path is symlink_link". A missing path passes.
BACKUP2_EXPORT void CheckLinkPath(const std::string& path);
/// Writes the file and dates it one hour back.
BACKUP2_EXPORT void WriteSystemFile(const std::string& path, const std::string& content);
BACKUP2_EXPORT void CreateAttemptsFile(const std::string& path);  ///< empty, path + ".attempts"
/// "var/backup2_restore_report.<id>.xml", relative to the install root.
BACKUP2_EXPORT std::string GetReportFile(const std::string& id);

// ---- Info and index files -----------------------------------------------------------------------

/// <dir>//<date>.<name><ext> when it exists, else below <date>/ (for the administrator's data
/// <user>/<date>/). Throws vel_err::AssertError for a link in the place; the file may be missing.
BACKUP2_EXPORT std::string GetServiceFile(const std::string& dir, const std::string& name,
                                          const std::string& date, const std::string& ext);
BACKUP2_EXPORT std::string GetInfoFile(const std::string& dir, const std::string& name,
                                       const std::string& date);
BACKUP2_EXPORT std::string GetIndexFile(const std::string& dir, const std::string& name,
                                        const std::string& date);
/// Keys and values of an info file ("key=value" lines).
BACKUP2_EXPORT std::map<std::string, std::string> GetInfo(const std::string& path);
BACKUP2_EXPORT std::string GetLastSliceLocalPath(const std::string& path);
BACKUP2_EXPORT bool IsInfoFile(const vel_file::Dir& entry);
BACKUP2_EXPORT bool CheckCondition(const vel_file::Dir& entry, const std::string& user,
                                   const std::string& date_prefix, bool flag);
/// Paths of the info files below `dir`, flat and nested, of one user and one date when those are
/// not empty. Links are never followed; nothing is sorted.
BACKUP2_EXPORT void GetInfoFiles(std::list<std::string>& out, const std::string& dir, bool flag,
                                 const std::string& user, const std::string& date);
/// Removes a failed backup through the copy tool; a failure is only logged.
BACKUP2_EXPORT void DelBackupOnError(const std::string& dir, const std::string& name,
                                     const std::string& date);

// ---- Panels and their answers -------------------------------------------------------------------

/// Opens a session of `user` on the panel at `url`, logging in as its administrator. Gives the
/// session's id, "" when the panel refuses a step (which one is logged at level 4, without a
/// secret). Throws vel_client::Remote's errors when the panel cannot be asked.
BACKUP2_EXPORT std::string Authorize(const std::string& url, const std::string& admin,
                                     std::string password, const std::string& user);
/// The answer that the panel expects from the backup tools: a document whose /doc/status is "ok",
/// or "ERR " and the result.
BACKUP2_EXPORT std::string DecorateAnswer(const std::string& result);
/// Throws vel_err::Error("backup2_invalid_password") when the backup was made with another password
/// than the token's; a backup that records none passes. `name`: its date or "custom"; `own`: the
/// copy in the user's own storage. A missing info file throws.
BACKUP2_EXPORT void CheckPassword(const BackupToken& token, const std::string& user,
                                  const std::string& name, bool own);
/// Parameters of the panel's page about a failed download. `what`: the text of the error.
BACKUP2_EXPORT std::map<std::string, std::string> FillDownloadError(const std::string& what);
/// Downloads the newest backup of `user` from the panel at `url` (its scheme and host count) to
/// `path`, which appears complete or not at all. False when the panel refuses the log-in. Throws
/// vel_err::Error("backup2_admin_import", "fetch_failed", url) when the download fails, and what
/// Authorize throws. The other side is first asked whether it would serve it; what it says to that
/// is only logged.
BACKUP2_EXPORT bool FetchRemoteManager(const std::string& url, const std::string& admin,
                                       std::string password, const std::string& user,
                                       const std::string& path);

// ---- Restore reports ----------------------------------------------------------------------------

// A report is the file GetReportFile(report). Each of these reads it, changes it and replaces it in
// one step; there is no lock, the steps of a restore follow each other. A report that was viewed
// begins afresh. Throw when the file cannot be read or written, or is no XML document; it is as it
// was then.

/// Adds the element "error" of a panel's answer, under a name and a type. An answer without one
/// changes nothing.
BACKUP2_EXPORT void SaveDataReport(const std::string& name, const std::string& owner,
                                   const std::string& report, const std::string& type,
                                   const vel_xml::Xml& answer);
/// Adds what a step of a restore printed: with the word "Database" in it as a database's event,
/// with a `code` other than 0 as that of the whole step, else each line as a file's. No text is
/// lost: what XML cannot hold becomes "?" and the report is marked with "badchars".
BACKUP2_EXPORT void SaveFileReport(const std::string& owner, const std::string& report,
                                   const std::string& output, int code);
/// Marks the report as ended; `type` is the kind of the restore. Without a file nothing is done.
BACKUP2_EXPORT void FinalizeReport(const std::string& report, const std::string& type);

// ---- Backups that nobody needs any more ---------------------------------------------------------

/// Removes the backup through the copy tool when the panel says that `user` has gone, or has
/// another uid than the one that the backup was made with: a new user must not see the data of a
/// former one of his name. "root" is never asked about. A failed deletion is only logged; errors of
/// the panel are thrown and nothing is removed then.
BACKUP2_EXPORT void CheckDeletedUser(const std::string& user, const std::string& name,
                                     const std::string& uid);
/// Removes a backup that was made only to carry an import, from the administrator's storage. A
/// failed deletion is only logged. For the panel's plug-in, whose imports make one where backups
/// are disabled; those of this service's own programs make none.
BACKUP2_EXPORT void DeleteAfterImport(const Settings& settings, const std::string& user,
                                      const std::string& name);

// ---- External converters ------------------------------------------------------------------------

/// Foreign panel -> converter program, relative to the install root.
BACKUP2_EXPORT std::map<std::string, std::string> GetExternalConvertors();
/// Words between spaces; no quoting is understood.
BACKUP2_EXPORT std::vector<std::string> Cmdline2Vector(const std::string& command_line);

}  // namespace backup2
