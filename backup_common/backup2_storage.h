/// Storage tokens and the storages that they open.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <istream>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <utility>

#include "backup_common/export.h"

namespace backup2 {

// ---- Token --------------------------------------------------------------------------------------

/// Names one storage and carries what is needed to open it: "name=value" parameters joined by ";".
///
/// Known names: type, path, arch_password (base64; the archives on this storage are encrypted),
/// token (clouds), ip, port, key_path (node), url, port, username, password, mode (ftp, sftp).
/// Other names are kept. Values hold no ";".
class BACKUP2_EXPORT BackupToken {
public:
    explicit BackupToken(const std::string& token);

    void Init();                           ///< parameters = the split token string
    void Reset(const std::string& token);  ///< a new token string, then Init
    void Erase();                          ///< no string, no parameters

    /// The parameters in the order of their names; SetParam and DropParam show here at once.
    std::string Str() const;
    operator std::string() const { return Str(); }        // NOLINT: travels as a string
    std::string GetParam(const std::string& name) const;  ///< "" when absent
    /// An empty value changes nothing, so optional fields can be copied without a test.
    BackupToken& SetParam(const std::string& name, const std::string& value);
    void DropParam(const std::string& name);

    std::string Type() const;
    bool IsLocal() const;
    explicit operator bool() const;  ///< names a storage: has a type
    bool IsEncrypted() const;        ///< has an archive password
    /// Fingerprint of the archive password: lower-case hex of the SHA-256 of its bytes, "" without.
    std::string Hash() const;
    /// One-sided: every parameter of this token but the archive password has the same value in
    /// `other`; what only `other` has is not looked at.
    bool operator==(const BackupToken& other) const;

private:
    std::string token_;
    std::map<std::string, std::string> params_;
};

// ---- Storage ------------------------------------------------------------------------------------

/// A place that keeps backup files: byte streams under names, directories, listings.
///
/// Names are relative to the storage's base directory (the token's "path"), byte strings without
/// NUL. Files whose names mark an encrypted archive pass through `openssl` when the token has a
/// password; all others are stored as they are. A storage is used by one thread at a time and
/// serves one task: after a failed MkDir take a new object.
///
/// Get and Put throw std::runtime_error "Fail to decode" / "Fail to encode" when openssl fails,
/// and vel_err::Error for what the back-end meets. None hangs: behind ssh a transfer ends after 5
/// minutes (BACKUP2_STALL_SECONDS) with hardly a byte, a log-in after one, another command after an
/// hour; the other kinds as their clients say. Get leaves the local file as it was when it
/// fails; Put may leave a partial file on the storage, which the caller removes.
/// The owner is always the shared pointer of GetStorage, which destroys the concrete class.
class BACKUP2_EXPORT Storage {
public:
    /// Downloads `name` to the path `local`, which it replaces in one step.
    virtual void Get(const std::string& name, const std::string& local);
    /// Uploads the file `local` as `name`. False: the storage has no room.
    virtual bool Put(const std::string& name, const std::string& local);
    /// Removes everything below the base directory, and it. Kinds that cannot only log it.
    virtual void Clear();
    /// Forgets the login of a cloud storage.
    virtual void DropToken();
    /// The stored bytes of `name`, as they are.
    virtual void GetArch(const std::string& name, std::ostream& out) = 0;
    /// Stores the bytes under `name`, as they are. False: no room.
    virtual bool PutArch(const std::string& name, std::istream& in) = 0;
    virtual void Delete(const std::string& name) = 0;
    /// Appends the bare names in the directory `dir` ("" is the base directory); of a file its own
    /// name; of what does not exist nothing.
    virtual void List(std::list<std::string>& out, const std::string& dir) = 0;
    virtual void RealMkDir(const std::string& full_path) = 0;
    /// Removes a directory with its contents, and its parent when that became empty.
    virtual void RmDir(const std::string& dir) = 0;
    /// Removes below the directory `dir` ("" is all) what killed uploads left that have not moved
    /// for more than `hours` (-1: of any age), where no later upload of the same file does that;
    /// how many.
    virtual int Sweep(const std::string& dir, int hours);
    /// Size and lower-case hex SHA-256 of the stored bytes of `name`, worked out where they lie.
    /// Nothing: this kind, or this server, cannot; only reading the bytes back tells.
    virtual std::optional<std::pair<uint64_t, std::string>> StoredSum(const std::string& name);
    /// Throws vel_err::Error "storage" with the object "host_key", "login_refused" or "unreachable"
    /// (value: the host and why) when there is no way in. For kinds whose other calls do not tell
    /// that: removing and listing behind ssh. All others do nothing here.
    virtual void Reach();

    /// From now on `watch` sees all that Put gives to PutArch, as it is stored, in order. Kinds
    /// that move whole files (local, node, sftp) show nothing.
    using Watch = std::function<void(const char* data, std::size_t size)>;
    void WatchPut(Watch watch);

    /// Makes the directory, asking the back-end at most once for each name.
    void MkDir(const std::string& dir);
    /// True when the file of this name passes without encryption here.
    bool SkipEncrypt(const std::string& name) const;
    /// Size of a local file; of an encrypted one the estimate of its plain size (0 for 0 bytes).
    uint64_t Size(const std::string& local) const;
    /// "<storage path> <size>[ <key hash>]" of a local backup file, as info files describe it.
    std::string GetFileInfo(const std::string& local) const;
    /// The normalised path, or "" (and a log line) for what must never be removed: empty, root,
    /// ".", a relative path that climbs out.
    std::string GetValidPath(const std::string& path) const;

protected:
    explicit Storage(const BackupToken& token);
    Storage(const Storage&) = delete;
    Storage& operator=(const Storage&) = delete;
    ~Storage() = default;

    BackupToken token_;
    std::string password_;
    std::set<std::string> made_dirs_;

private:
    bool PutWatched(const std::string& name, std::istream& in);
    void GetDecoded(const std::string& name, const std::string& plain);

    Watch watch_;
};

BACKUP2_EXPORT bool IsS3Type(const std::string& type);
/// Throws std::runtime_error "Unknown storage type '<type>'".
BACKUP2_EXPORT std::shared_ptr<Storage> GetStorage(const BackupToken& token);

}  // namespace backup2
