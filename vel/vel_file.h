/// Paths, files and directories as root must handle them: no link is followed where a stranger
/// could have planted one (whatever creates, changes, reads or removes refuses links in the last
/// component; before it, it follows those that this user or root made in a folder of their own),
/// nothing half-written stands under a final name, every descriptor is close-on-exec. Paths are
/// byte strings. Failures throw vel_err::Error; "sys" carries the operation as object and "<path>:
/// <reason>" as value.
#pragma once

#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "vel/res_handle.h"
#include "vel/stream.h"

namespace vel_file {

// ---- Paths: text only, nothing looks at the disk ------------------------------------------------

/// Joined by exactly one "/"; an empty part adds nothing; a last part "/" keeps a trailing "/".
std::string ConcatPath(const std::string& a, const std::string& b);
std::string ConcatPath(const std::string& a, const std::string& b, const std::string& c);
/// Cut at the last "/": `dir` is the text before it, `tail` begins with it. Without a "/" `dir`
/// is empty and `tail` is the whole text.
struct Split {
    std::string dir, tail;
};
Split SplitPath(const std::string& path);
std::string Name(const std::string& path);  ///< the bare last component ("" for "a/")
/// Without "//", "." and ".."; what normalises to the root gives "/"; a relative path that is "."
/// or climbs out gives "".
std::string GoodPath(const std::string& path);

// ---- What is there ------------------------------------------------------------------------------

class Info {
public:
    Info() = default;  ///< of something missing
    /// A missing file is no error (Exists() is false); other failures throw.
    explicit Info(const std::string& path, bool follow_links = true);
    explicit Info(const struct stat& st) : exists_(true), st_(st) {}
    bool Exists() const { return exists_; }
    bool IsDir() const { return exists_ && S_ISDIR(st_.st_mode); }
    bool IsFile() const { return exists_ && S_ISREG(st_.st_mode); }
    bool IsLink() const { return exists_ && S_ISLNK(st_.st_mode); }
    uint64_t Size() const { return exists_ ? static_cast<uint64_t>(st_.st_size) : 0; }
    const struct stat& Stat() const { return st_; }

private:
    bool exists_ = false;
    struct stat st_ {};
};

bool Exists(const std::string& path);  ///< follows links: a dangling one does not exist

/// Reads one directory in the kernel's order, without "." and "..".
/// The flag 2 (of the constructor and of Info) asks for information without following links.
class Dir {
public:
    explicit Dir(const std::string& path, int flags = 0);  ///< throws when it cannot be listed
    bool Next();                                           ///< false at the end
    std::string Name() const { return std::string(NameView()); }  ///< of the current entry
    std::string_view NameView() const;                            ///< the same, valid until Next()
    std::string Path() const;                                     ///< directory joined with Name()
    vel_file::Info Info(int flags) const;
    /// What the entry itself is, no link followed: mostly known from the listing, at no cost.
    bool IsDir() const { return Type() == DT_DIR; }
    bool IsFile() const { return Type() == DT_REG; }
    bool HasExt(std::string_view ext) const;  ///< ".info": longer than ext and ends with it
    /// Lists the entry, a folder, wherever this one lies by now; no link is followed. Throws as the
    /// constructor.
    Dir Enter() const;

private:
    Dir(std::string path, ResHandle fd);  // takes the descriptor over
    unsigned char Type() const;

    std::string path_;
    std::shared_ptr<DIR> dir_;
    const dirent* entry_ = nullptr;
};

// ---- Change -------------------------------------------------------------------------------------

/// Mode and owner. -1 leaves a value as it is.
struct Attrs {
    explicit Attrs(mode_t m) : mode(m) {}
    Attrs(mode_t m, uid_t u) : mode(m), uid(u) {}
    Attrs(mode_t m, uid_t u, gid_t g) : mode(m), uid(u), gid(g) {}
    /// Owner first, then mode (a chown would drop set-id bits). A symbolic link in the place is
    /// refused. Recursion never follows one, and leaves files alone that have a second name and
    /// another owner than the folder: a user may have linked somebody else's file into his tree.
    void Set(const std::string& path, bool recursive = false) const;
    void Set(int fd) const;

    mode_t mode = static_cast<mode_t>(-1);
    uid_t uid = static_cast<uid_t>(-1);
    gid_t gid = static_cast<gid_t>(-1);
};

/// Makes the directory and its missing parents (0755 less umask); an existing one is no error.
/// With attributes: they are set on the last directory when this call made it.
void MkDir(const std::string& path);
void MkDir(const std::string& path, const Attrs& attrs);
/// A folder as the base of openat and its like, for nothing else (O_PATH).
ResHandle OpenDir(const std::string& path);

/// Replaces or creates the file in one step: temporary beside it, fsync, rename, fsync of the
/// directory. Mode and owner of an existing file stay; a new one is 0600. Refuses a path that is
/// something else than a regular file. On failure the old content is untouched.
void Write(const std::string& path, const std::string& content);
/// The same with a content that `fill` writes to the descriptor; what it throws passes through.
void Write(const std::string& path, const std::function<void(int fd)>& fill);
/// The whole regular file; opened without following a link and without waiting for a FIFO.
std::string ReadE(const std::string& path);
std::string Read(const std::string& path);  ///< the same, "" when it does not exist

void RemoveFile(const std::string& path);  ///< one file or link; a missing one throws
/// A file, or a directory with all it holds, through directory descriptors: never follows a link,
/// never leaves the tree. A missing path is no error. Refuses "", "/", "." and "..".
void Remove(const std::string& path);
/// The same for one name in an open folder, wherever that lies by now; `path` is for messages.
void RemoveAt(const ResHandle& folder, const std::string& name, const std::string& path);
/// Removes all that an open folder holds; the folder stays.
void Empty(const ResHandle& folder, const std::string& path);

/// A file (CopyFile) or a file, link or tree (Copy). Content, holes, mode, owner and times; `to`
/// appears in one step, is on the disk by then, and never shares its old inode. Nothing to do when
/// both are the same inode already. Copy makes the missing parents of `to`; a tree is never merged
/// into an existing folder that holds something (ENOTEMPTY).
void CopyFile(const std::string& from, const std::string& to);
void Copy(const std::string& from, const std::string& to);
/// rename with fsync of the directory; across file systems copy, then remove.
void Move(const std::string& from, const std::string& to);
/// The content of the file or folder, and its name in its own folder, are on the disk then.
void Sync(const std::string& path);

// ---- Temporaries and locks ----------------------------------------------------------------------

/// A new empty file of mode 0600 in the directory of `beside` (made 0700 when missing).
/// The destructor removes it unless it was moved away or released.
class Tmp {
public:
    explicit Tmp(const std::string& beside);
    Tmp(const Tmp&) = delete;
    Tmp& operator=(const Tmp&) = delete;
    ~Tmp();
    const std::string& Path() const { return path_; }
    operator std::string() const { return path_; }  // NOLINT: stands where its path does
    void Release() { path_.clear(); }

private:
    std::string path_;
};

/// A directory (0700) that is removed with its contents by the destructor.
class TmpDir {
public:
    /// Exactly this path: what a crash left there goes first; a link in the place is unlinked.
    static TmpDir At(const std::string& path);
    /// A fresh ".tmp.XXXXXX" below `base`, which is made when missing.
    static TmpDir Under(const std::string& base);
    TmpDir(TmpDir&& other) noexcept;
    TmpDir& operator=(TmpDir&& other) noexcept;
    ~TmpDir();
    const std::string& Path() const { return path_; }
    operator std::string() const { return path_; }  // NOLINT

private:
    explicit TmpDir(std::string path) : path_(std::move(path)) {}
    std::string path_;
};

/// An exclusive lock between processes on a file, which is created (0600) when missing.
///
/// All objects of one process that lock the same file share one lock: none of them waits for
/// another, each sees what another wrote, and the lock is given up with the last of them. (So it
/// does not keep the threads of a process apart.) Opening and closing the file elsewhere in the
/// process does not lose the lock. A forked process holds it, too, until it runs another program:
/// for that moment a lock can outlive its killed owner.
class Lock {
public:
    Lock() = default;
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;
    ~Lock();  ///< releases

    /// marker false: waits for the holder. marker true: throws
    /// vel_err::Error("lock", "busy", path) at once when a live process holds it.
    /// Two objects of one process never wait for each other. A link, FIFO or folder in the place
    /// is a clear error, never a hang. What this object held before is released first.
    void DoLock(const std::string& path, bool marker);
    ResHandle GetResHandle() const;  ///< of the locked file; another one after Write
    std::string Read() const;        ///< whole content of the locked file
    /// Replaces the content in one step; lock, mode and owner are kept over it. A killed process
    /// leaves the old or the new text (and at most one ".<name>.new", which the next Write takes
    /// away). Throws with the old text in place on failure, and vel_err::Error("lock", "lost",
    /// path) when the path names another file by now.
    void Write(const std::string& content);
    /// The same, but after a power failure the old text may be there again, until Sync(path): for
    /// files with many writers, who give the lock up before they wait for the disk.
    void Replace(const std::string& content);
    /// True while the path still names the locked file.
    bool Owns() const;
    void Release() noexcept;

private:
    struct Held;
    class Registry;
    std::string path_;
    std::shared_ptr<Held> held_;
};

}  // namespace vel_file
