#include "vel/vel_file.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/random.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <map>
#include <mutex>
#include <string_view>
#include <utility>
#include <vector>

#include "vel/vel_err.h"
#include "vel/vel_log.h"

namespace vel_file {

using vel_err::RaiseErrno;

namespace {

const vel_log::Module logger("file");

constexpr std::size_t kCopyChunk = 256 * 1024;
constexpr int kNameTries = 100;  // random names that are taken already
constexpr int kRaceTries = 64;   // times that a stranger may undo a step before it counts as failed
constexpr int kMaxLinks = 40;    // as the kernel's own limit
constexpr int kPlain = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

[[noreturn]] void Raise(const std::string& op, const std::string& path) {
    RaiseErrno(op, path, errno);
}

int ErrorOfKind(mode_t mode) { return S_ISLNK(mode) ? ELOOP : S_ISDIR(mode) ? EISDIR : 0; }

[[noreturn]] void RefuseKind(const std::string& op, const std::string& path, mode_t mode) {
    if (const int err = ErrorOfKind(mode)) RaiseErrno(op, path, err);
    throw vel_err::Error("sys", op, path + ": Not a regular file");
}

// ---- Places: an open folder and a name in it ----------------------------------------------------

int OpenAt2(int dir, const char* path, int flags, uint64_t resolve) {
    open_how how{};
    how.flags = static_cast<uint64_t>(flags);
    how.resolve = resolve;
    return static_cast<int>(::syscall(SYS_openat2, dir, path, &how, sizeof how));
}

/// The kernel, or a filter before it, does not know the call.
bool IsUnknownCall(int err) { return err == ENOSYS || err == EPERM; }

bool IsOurs(const struct stat& st) { return st.st_uid == 0 || st.st_uid == ::geteuid(); }

/// Nobody but root and this user can have put the link there.
bool IsTrustedLink(const struct stat& folder, const struct stat& link) {
    const bool open_to_others = (folder.st_mode & (S_IWGRP | S_IWOTH)) != 0;
    return IsOurs(folder) && IsOurs(link) && (!open_to_others || (folder.st_mode & S_ISVTX) != 0);
}

std::string ReadLink(int link) {
    std::array<char, PATH_MAX> target;
    const ssize_t size = ::readlinkat(link, "", target.data(), target.size());
    return size < 0 ? "" : std::string(target.data(), static_cast<std::size_t>(size));
}

std::string CutComponent(std::string& path) {
    const std::size_t end = std::min(path.find('/'), path.size());
    std::string component = path.substr(0, end);
    path.erase(0, std::min(path.find_first_not_of('/', end), path.size()));
    return component;
}

ResHandle OpenStart(std::string& path) {
    const bool absolute = !path.empty() && path.front() == '/';
    path.erase(0, std::min(path.find_first_not_of('/'), path.size()));
    return ResHandle(::open(absolute ? "/" : ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
}

/// Component by component, stepping only over links that can be trusted. None with errno set.
ResHandle WalkToFolder(std::string path) {
    ResHandle folder = OpenStart(path);
    for (int links = 0; folder && !path.empty();) {
        const std::string component = CutComponent(path);
        const ResHandle next(::openat(folder, component.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        struct stat here, there;
        if (!next || ::fstat(folder, &here) != 0 || ::fstat(next, &there) != 0) return {};
        if (!S_ISLNK(there.st_mode)) {
            folder = next;
            continue;
        }
        if (++links > kMaxLinks || !IsTrustedLink(here, there)) {
            errno = ELOOP;
            return {};
        }
        const std::string target = ReadLink(next);
        if (target.empty()) return {};
        path = target + (path.empty() ? "" : "/" + path);
        if (path.front() == '/') folder = OpenStart(path);
    }
    return folder;
}

/// For use as the base of other calls only (O_PATH). None with errno set.
ResHandle OpenFolder(const std::string& path) {
    const int flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
    ResHandle folder(OpenAt2(AT_FDCWD, path.c_str(), flags, RESOLVE_NO_SYMLINKS));
    if (folder || (errno != ELOOP && !IsUnknownCall(errno))) return folder;
    return WalkToFolder(path);
}

std::string WithoutEndSlashes(const std::string& path) {
    const std::size_t last = path.find_last_not_of('/');
    return last == std::string::npos ? "" : path.substr(0, last + 1);
}

std::string ParentOf(const std::string& path) {
    const Split split = SplitPath(WithoutEndSlashes(path));
    if (!split.dir.empty()) return split.dir;
    return !path.empty() && path.front() == '/' ? "/" : ".";
}

/// What a path names, found once: later changes of the folders above it make no difference.
struct Place {
    ResHandle folder;
    std::string name;
    std::string path;  // for messages

    /// Without following a link. False with errno set.
    bool Stat(struct stat& st) const {
        return ::fstatat(folder, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0;
    }
    ResHandle Open(int flags) const {
        return ResHandle(::openat(folder, name.c_str(), flags | O_NOFOLLOW | O_CLOEXEC));
    }
};

/// False with errno set when the folder cannot be reached.
bool FindPlace(const std::string& path, Place& place) {
    place = {OpenFolder(ParentOf(path)), Name(WithoutEndSlashes(path)), path};
    if (!place.folder) return false;
    errno = EINVAL;
    return !place.name.empty();
}

Place PlaceOf(const std::string& op, const std::string& path) {
    Place place;
    if (!FindPlace(path, place)) Raise(op, path);
    return place;
}

void SyncFolder(const Place& place) {
    const ResHandle folder(::openat(place.folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder || ::fsync(folder) != 0) Raise("fsync", ParentOf(place.path));
}

/// A folder somewhere below `root`, however deep, never through a link. None with errno set.
ResHandle OpenBelow(const ResHandle& root, const std::string& relative) {
    constexpr std::size_t kHop = 3000;  // below the kernel's limit of a path
    const int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    const uint64_t resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS;
    ResHandle folder(OpenAt2(root, ".", flags, resolve));
    const bool by_component = !folder && IsUnknownCall(errno);
    if (by_component) folder = ResHandle(::openat(root, ".", flags));
    for (std::size_t begin = 0; folder && begin < relative.size();) {
        std::size_t end = relative.size();
        if (by_component) end = std::min(relative.find('/', begin), end);
        if (end - begin > kHop) end = relative.rfind('/', begin + kHop);
        const std::string hop = relative.substr(begin, end - begin);
        folder = ResHandle(by_component ? ::openat(folder, hop.c_str(), flags)
                                        : OpenAt2(folder, hop.c_str(), flags, resolve));
        begin = end + 1;
    }
    return folder;
}

struct CloseDir {
    void operator()(DIR* dir) const { ::closedir(dir); }
};
using DirHandle = std::unique_ptr<DIR, CloseDir>;

/// Takes the descriptor over. None with errno set.
DirHandle ListDescriptor(ResHandle fd) {
    if (!fd) return nullptr;
    DirHandle dir(::fdopendir(fd));
    if (dir) fd.Release();
    return dir;
}

/// Null at the end, with errno 0, or on failure.
const dirent* NextEntry(DIR* dir) {
    const dirent* entry;
    do {
        errno = 0;
        entry = ::readdir(dir);
    } while (entry &&
             (std::string_view(entry->d_name) == "." || std::string_view(entry->d_name) == ".."));
    return entry;
}

// ---- Temporaries and content --------------------------------------------------------------------

std::string RandomName() {
    static const char kLetters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ012345";
    std::array<unsigned char, 6> bytes;
    if (::getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
        Raise("getrandom", "");
    }
    std::string name = ".tmp.";
    for (const unsigned char byte : bytes) name += kLetters[byte % (sizeof kLetters - 1)];
    return name;
}

/// Calls make(name), which gives 0 or errno, until a free name was found.
template <class Make>
std::string MakeUnderRandomName(const std::string& op, const std::string& path, Make make) {
    for (int i = 0; i < kNameTries; ++i) {
        const std::string name = RandomName();
        const int err = make(name);
        if (err == 0) return name;
        if (err != EEXIST) RaiseErrno(op, path, err);
    }
    RaiseErrno(op, path, EEXIST);
}

/// A file (0600) beside a place, gone unless it took the place's name.
class Temporary {
public:
    explicit Temporary(const Place& place) : place_(place) {
        name_ = MakeUnderRandomName("open", place.path,
                                    [this](const std::string& name) { return Create(name); });
    }
    /// Under this name: what stands there is a crash's left-over.
    Temporary(const Place& place, std::string name) : place_(place), name_(std::move(name)) {
        if (::unlinkat(place_.folder, name_.c_str(), 0) != 0 && errno != ENOENT) {
            Raise("unlink", place_.path);
        }
        if (const int err = Create(name_)) RaiseErrno("open", place_.path, err);
    }
    Temporary(const Temporary&) = delete;
    Temporary& operator=(const Temporary&) = delete;
    ~Temporary() {
        if (!name_.empty()) ::unlinkat(place_.folder, name_.c_str(), 0);
    }
    const ResHandle& Fd() const { return fd_; }
    void SyncAndRename() {
        if (::fsync(fd_) != 0) Raise("fsync", place_.path);
        Rename();
        SyncFolder(place_);
    }
    void Rename() {
        if (::renameat(place_.folder, name_.c_str(), place_.folder, place_.name.c_str()) != 0) {
            Raise("rename", place_.path);
        }
        name_.clear();
    }

private:
    int Create(const std::string& name) {
        const int flags = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
        fd_ = ResHandle(::openat(place_.folder, name.c_str(), flags, 0600));
        return fd_ ? 0 : errno;
    }

    const Place& place_;
    std::string name_;
    ResHandle fd_;
};

void KeepOwnerAndMode(int fd, const struct stat& old, const std::string& path) {
    struct stat now;
    if (::fstat(fd, &now) != 0) Raise("stat", path);
    const bool same_owner = now.st_uid == old.st_uid && now.st_gid == old.st_gid;
    if (!same_owner && ::fchown(fd, old.st_uid, old.st_gid) != 0) Raise("chown", path);
    if (::fchmod(fd, old.st_mode & 07777) != 0) Raise("chmod", path);
}

void KeepTimes(int fd, const struct stat& old, const std::string& path) {
    const timespec times[2] = {old.st_atim, old.st_mtim};
    if (::futimens(fd, times) != 0) Raise("utimens", path);
}

/// None with errno set; anything but a regular file throws.
ResHandle CheckRegular(ResHandle fd, struct stat& st, const std::string& path) {
    if (!fd) return fd;
    if (::fstat(fd, &st) != 0) Raise("stat", path);
    if (!S_ISREG(st.st_mode)) RefuseKind("open", path, st.st_mode);
    return fd;
}

ResHandle OpenRegular(const Place& place, struct stat& st) {
    return CheckRegular(place.Open(O_RDONLY | kPlain), st, place.path);
}

/// In one step where no link is in the way.
ResHandle OpenRegular(const std::string& path, struct stat& st) {
    ResHandle fd(OpenAt2(AT_FDCWD, path.c_str(), O_RDONLY | kPlain, RESOLVE_NO_SYMLINKS));
    if (fd || errno == ENOENT) return CheckRegular(std::move(fd), st, path);
    Place place;
    return FindPlace(path, place) ? OpenRegular(place, st) : ResHandle();
}

std::string ReadToEnd(int fd, const struct stat& st, const std::string& path) {
    std::string text(static_cast<std::size_t>(st.st_size) + 1, '\0');  // one more finds the end
    for (std::size_t size = 0;;) {
        if (size == text.size()) text.resize(size + std::max(kCopyChunk, size / 2));
        const ssize_t got =
            ::pread(fd, text.data() + size, text.size() - size, static_cast<off_t>(size));
        if (got < 0 && errno != EINTR) Raise("read", path);
        size += static_cast<std::size_t>(std::max<ssize_t>(got, 0));
        if (got == 0) {
            text.resize(size);
            return text;
        }
    }
}

void WriteAt(int fd, const char* bytes, std::size_t size, off_t at, const std::string& path) {
    while (size > 0) {
        const ssize_t done = ::pwrite(fd, bytes, size, at);
        if (done < 0 && errno != EINTR) Raise("write", path);
        if (done < 0) continue;
        bytes += done;
        at += done;
        size -= static_cast<std::size_t>(done);
    }
}

/// Copies one file's content; `at` moves over the data, holes stay holes.
class ContentCopy {
public:
    ContentCopy(int in, int out, off_t size, const std::string& path, const std::string& to)
        : in_(in), out_(out), size_(size), path_(path), to_(to) {}

    void Run() {
        for (off_t at = 0; at < size_;) {
            const off_t data = ::lseek(in_, at, SEEK_DATA);
            if (data < 0 && errno == ENXIO) break;  // only a hole is left
            const off_t begin = data < 0 ? at : data;
            const off_t hole = data < 0 ? size_ : ::lseek(in_, begin, SEEK_HOLE);
            const off_t end = hole < 0 ? size_ : std::min(hole, size_);
            CopyRange(begin, end);
            at = end;
        }
        if (IsShorter()) throw Cut();
        if (::ftruncate(out_, size_) != 0) Raise("truncate", to_);
    }

private:
    void CopyRange(off_t begin, off_t end) {
        while (begin < end) {
            const ssize_t done = in_kernel_ ? CopyInKernel(begin, end) : 0;
            // Not every pair of file systems can: the plain way works, or finds the real error.
            in_kernel_ = done > 0;
            begin += in_kernel_ ? done : CopyThrough(begin, end);
        }
    }
    ssize_t CopyInKernel(off_t begin, off_t end) const {
        off_t from = begin, to = begin;
        const auto size = static_cast<std::size_t>(end - begin);
        return ::copy_file_range(in_, &from, out_, &to, size, 0);
    }
    ssize_t CopyThrough(off_t begin, off_t end) {
        buffer_.resize(kCopyChunk);
        const auto wanted = std::min(buffer_.size(), static_cast<std::size_t>(end - begin));
        ssize_t got;
        do {
            got = ::pread(in_, buffer_.data(), wanted, begin);
        } while (got < 0 && errno == EINTR);
        if (got < 0) Raise("read", path_);
        if (got == 0) throw Cut();
        WriteAt(out_, buffer_.data(), static_cast<std::size_t>(got), begin, to_);
        return got;
    }
    bool IsShorter() const {
        struct stat st;
        return ::fstat(in_, &st) != 0 || st.st_size < size_;
    }
    vel_err::Error Cut() const {
        return vel_err::Error("sys", "read", path_ + ": The file became shorter while it was read");
    }

    const int in_, out_;
    const off_t size_;
    const std::string &path_, &to_;
    bool in_kernel_ = true;
    std::vector<char> buffer_;
};

}  // namespace

// ---- Paths --------------------------------------------------------------------------------------

std::string ConcatPath(const std::string& a, const std::string& b) {
    if (a.empty()) return b;
    if (b.empty()) return a;
    const std::size_t end = a.find_last_not_of('/');
    const std::size_t begin = b.find_first_not_of('/');
    const std::string head = end == std::string::npos ? "" : a.substr(0, end + 1);
    return head + "/" + (begin == std::string::npos ? "" : b.substr(begin));
}

std::string ConcatPath(const std::string& a, const std::string& b, const std::string& c) {
    return ConcatPath(ConcatPath(a, b), c);
}

Split SplitPath(const std::string& path) {
    const std::size_t cut = path.rfind('/');
    if (cut == std::string::npos) return {"", path};
    return {path.substr(0, cut), path.substr(cut)};
}

std::string Name(const std::string& path) {
    const std::size_t cut = path.rfind('/');
    return cut == std::string::npos ? path : path.substr(cut + 1);
}

std::string GoodPath(const std::string& path) {
    const bool absolute = !path.empty() && path.front() == '/';
    std::vector<std::string> kept;
    std::string rest = path;
    rest.erase(0, std::min(rest.find_first_not_of('/'), rest.size()));
    while (!rest.empty()) {
        const std::string component = CutComponent(rest);
        if (component == ".") continue;
        if (component != "..") {
            kept.push_back(component);
        } else if (!kept.empty()) {
            kept.pop_back();
        } else if (!absolute) {
            return "";
        }
    }
    std::string result = absolute && kept.empty() ? "/" : "";
    for (const std::string& component : kept) {
        result += (absolute || !result.empty() ? "/" : "") + component;
    }
    return result;
}

// ---- What is there ------------------------------------------------------------------------------

Info::Info(const std::string& path, bool follow_links) {
    const int flags = follow_links ? 0 : AT_SYMLINK_NOFOLLOW;
    exists_ = ::fstatat(AT_FDCWD, path.c_str(), &st_, flags) == 0;
    const bool dangling = follow_links && errno == ELOOP;
    if (!exists_ && errno != ENOENT && errno != ENOTDIR && !dangling) Raise("stat", path);
}

bool Exists(const std::string& path) { return Info(path).Exists(); }

Dir::Dir(const std::string& path, int flags)
    : Dir(path, ResHandle(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC |
                                                   ((flags & 2) != 0 ? O_NOFOLLOW : 0)))) {}

Dir::Dir(std::string path, ResHandle fd)
    : path_(std::move(path)), dir_(ListDescriptor(std::move(fd))) {
    if (!dir_) Raise("opendir", path_);
}

Dir Dir::Enter() const {
    const int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    const char* name = entry_ ? entry_->d_name : "";
    return {Path(), ResHandle(::openat(::dirfd(dir_.get()), name, flags))};
}

bool Dir::Next() {
    entry_ = NextEntry(dir_.get());
    if (!entry_ && errno != 0) Raise("readdir", path_);
    return entry_ != nullptr;
}

std::string_view Dir::NameView() const { return entry_ ? entry_->d_name : ""; }

std::string Dir::Path() const { return ConcatPath(path_, Name()); }

unsigned char Dir::Type() const {
    const unsigned char listed = entry_ ? entry_->d_type : static_cast<unsigned char>(DT_UNKNOWN);
    if (!entry_ || listed != DT_UNKNOWN) return listed;
    const vel_file::Info info = Info(2);  // not every file system tells in its listing
    return info.Exists() ? IFTODT(info.Stat().st_mode) & 0xFF : listed;
}

vel_file::Info Dir::Info(int flags) const {
    struct stat st;
    const int links = (flags & 2) != 0 ? AT_SYMLINK_NOFOLLOW : 0;
    if (::fstatat(::dirfd(dir_.get()), Name().c_str(), &st, links) == 0) return vel_file::Info(st);
    const bool dangling = links == 0 && errno == ELOOP;
    if (errno != ENOENT && errno != ENOTDIR && !dangling) Raise("stat", Path());
    return {};
}

bool Dir::HasExt(std::string_view ext) const {
    return NameView().size() > ext.size() && NameView().ends_with(ext);
}

// ---- Attrs --------------------------------------------------------------------------------------

namespace {

/// `fd` may be an O_PATH descriptor. A symbolic link has no mode of its own.
void SetAttrs(const Attrs& attrs, int fd, bool is_link, const std::string& path) {
    const bool owned = attrs.uid != static_cast<uid_t>(-1) || attrs.gid != static_cast<gid_t>(-1);
    if (owned && ::fchownat(fd, "", attrs.uid, attrs.gid, AT_EMPTY_PATH) != 0) Raise("chown", path);
    if (is_link || attrs.mode == static_cast<mode_t>(-1)) return;
    const std::string through = "/proc/self/fd/" + std::to_string(fd);
    if (::chmod(through.c_str(), attrs.mode) != 0) Raise("chmod", path);
}

/// Everything below `root`, whose owner was `owner`.
void SetAttrsBelow(const Attrs& attrs, const ResHandle& root, uid_t owner,
                   const std::string& path) {
    std::vector<std::string> folders = {""};
    while (!folders.empty()) {
        const std::string relative = std::move(folders.back());
        folders.pop_back();
        const DirHandle dir = ListDescriptor(OpenBelow(root, relative));
        if (!dir && errno == ENOENT) continue;
        if (!dir) Raise("opendir", ConcatPath(path, relative));
        while (const dirent* entry = NextEntry(dir.get())) {
            const std::string below = ConcatPath(relative, entry->d_name);
            const ResHandle fd(
                ::openat(::dirfd(dir.get()), entry->d_name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
            struct stat st;
            if (!fd && errno == ENOENT) continue;
            if (!fd || ::fstat(fd, &st) != 0) Raise("stat", ConcatPath(path, below));
            const bool shared = !S_ISDIR(st.st_mode) && st.st_nlink > 1;
            if (shared && st.st_uid != owner && st.st_uid != attrs.uid) continue;
            SetAttrs(attrs, fd, S_ISLNK(st.st_mode), ConcatPath(path, below));
            if (S_ISDIR(st.st_mode)) folders.push_back(below);
        }
        if (errno != 0) Raise("readdir", ConcatPath(path, relative));
    }
}

}  // namespace

void Attrs::Set(const std::string& path, bool recursive) const {
    const Place place = PlaceOf("chmod", path);
    const ResHandle fd = place.Open(O_PATH);
    struct stat st;
    if (!fd || ::fstat(fd, &st) != 0) Raise("chmod", path);
    if (S_ISLNK(st.st_mode)) RaiseErrno("chmod", path, ELOOP);
    SetAttrs(*this, fd, false, path);
    if (recursive && S_ISDIR(st.st_mode)) SetAttrsBelow(*this, fd, st.st_uid, path);
}

void Attrs::Set(int fd) const {
    const std::string name = "descriptor " + std::to_string(fd);
    const bool owned = uid != static_cast<uid_t>(-1) || gid != static_cast<gid_t>(-1);
    if (owned && ::fchown(fd, uid, gid) != 0) Raise("chown", name);
    if (mode != static_cast<mode_t>(-1) && ::fchmod(fd, mode) != 0) Raise("chmod", name);
}

// ---- Folders ------------------------------------------------------------------------------------

namespace {

/// True when this call made it.
bool MakeFolder(const std::string& path, mode_t mode) {
    if (WithoutEndSlashes(path).empty() && !path.empty()) return false;  // the root
    Place place;
    if (!FindPlace(path, place)) {
        if (errno != ENOENT || path.empty()) Raise("mkdir", path);
        MakeFolder(ParentOf(path), 0755);
        place = PlaceOf("mkdir", path);
    }
    if (::mkdirat(place.folder, place.name.c_str(), mode) == 0) return true;
    const int err = errno;
    struct stat st;
    const bool is_folder = err == EEXIST &&
                           ::fstatat(place.folder, place.name.c_str(), &st, 0) == 0 &&
                           S_ISDIR(st.st_mode);
    if (!is_folder) RaiseErrno("mkdir", path, err);
    return false;
}

}  // namespace

void MkDir(const std::string& path) { MakeFolder(path, 0755); }

void MkDir(const std::string& path, const Attrs& attrs) {
    const bool has_mode = attrs.mode != static_cast<mode_t>(-1);
    if (!MakeFolder(path, has_mode ? 0700 : 0755)) return;
    const Place place = PlaceOf("mkdir", path);
    const ResHandle fd = place.Open(O_RDONLY | O_DIRECTORY);
    struct stat st;
    if (!fd || ::fstat(fd, &st) != 0) Raise("mkdir", path);
    // Somebody who may write here could have put another folder into the place.
    if (st.st_uid != ::geteuid()) RaiseErrno("mkdir", path, EPERM);
    attrs.Set(fd);
}

ResHandle OpenDir(const std::string& path) {
    ResHandle folder = OpenFolder(path);
    if (!folder) Raise("open", path);
    return folder;
}

// ---- Write and read -----------------------------------------------------------------------------

void Write(const std::string& path, const std::function<void(int fd)>& fill) {
    const Place place = PlaceOf("write", path);
    struct stat old;
    const bool exists = place.Stat(old);
    if (!exists && errno != ENOENT) Raise("stat", path);
    if (exists && !S_ISREG(old.st_mode)) RefuseKind("write", path, old.st_mode);
    Temporary temporary(place);
    if (exists) KeepOwnerAndMode(temporary.Fd(), old, path);
    fill(temporary.Fd());
    temporary.SyncAndRename();
}

void Write(const std::string& path, const std::string& content) {
    Write(path, [&](int fd) { WriteAll(fd, content, path); });
}

std::string ReadE(const std::string& path) {
    struct stat st;
    const ResHandle fd = OpenRegular(path, st);
    if (!fd) Raise("open", path);
    return ReadToEnd(fd, st, path);
}

std::string Read(const std::string& path) {
    struct stat st;
    const ResHandle fd = OpenRegular(path, st);
    if (!fd && (errno == ENOENT || errno == ENOTDIR)) return "";
    if (!fd) Raise("open", path);
    return ReadToEnd(fd, st, path);
}

// ---- Remove -------------------------------------------------------------------------------------

namespace {

/// A folder to empty: what is mounted there is not a part of the tree (EXDEV).
ResHandle OpenOnSameMount(int folder, const char* name) {
    constexpr int kFolder = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    ResHandle fd(OpenAt2(folder, name, kFolder, RESOLVE_NO_XDEV | RESOLVE_NO_SYMLINKS));
    if (fd || !IsUnknownCall(errno)) return fd;
    fd = ResHandle(::openat(folder, name, kFolder));
    struct stat here, there;
    if (!fd || ::fstat(folder, &here) != 0 || ::fstat(fd, &there) != 0) return {};
    if (here.st_dev == there.st_dev) return fd;
    errno = EXDEV;
    return {};
}

/// Empties one folder. Holds at most kMaxDepth descriptors: what lies deeper is moved up into the
/// folder itself and taken in a later pass, so no ".." is ever used and no depth is too deep.
class Emptier {
public:
    Emptier(ResHandle top, std::string path) : top_(std::move(top)), path_(std::move(path)) {}

    /// Throws the first failure, after everything else was removed.
    void Run() {
        for (int races = 0; races < kRaceTries;) {
            again_ = moved_ = false;
            Pass();
            if (moved_) continue;
            if (failure_ != 0) RaiseErrno("remove", path_, failure_);
            if (!again_) return;
            ++races;
        }
        RaiseErrno("remove", path_, ENOTEMPTY);
    }

private:
    static constexpr std::size_t kMaxDepth = 32;
    struct Level {
        DirHandle dir;
        std::string name;  // in the level above
    };

    void Pass() {
        if (!Enter(top_, ".")) Note(errno);
        while (!levels_.empty()) {
            DIR* dir = levels_.back().dir.get();
            const dirent* entry = NextEntry(dir);
            if (!entry) {
                if (errno != 0) Note(errno);
                Leave();
            } else if (entry->d_type == DT_DIR || !Unlink(::dirfd(dir), entry->d_name)) {
                TakeFolder(::dirfd(dir), entry->d_name);
            }
        }
    }
    void Leave() {
        const std::string name = std::move(levels_.back().name);
        levels_.pop_back();
        if (levels_.empty()) return;
        const int above = ::dirfd(levels_.back().dir.get());
        if (::unlinkat(above, name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT) return;
        // Filled, or swapped for something else, since it was listed.
        if (errno == ENOTEMPTY || errno == EEXIST || errno == ENOTDIR) {
            again_ = true;
        } else {
            Note(errno);
        }
    }
    /// False for a folder.
    bool Unlink(int folder, const char* name) {
        if (::unlinkat(folder, name, 0) == 0 || errno == ENOENT) return true;
        if (errno == EISDIR) return false;
        Note(errno);
        return true;
    }
    void TakeFolder(int folder, const char* name) {
        if (levels_.size() >= kMaxDepth) {
            MoveUp(folder, name);
        } else if (!Enter(folder, name) && (errno == ENOTDIR || errno == ELOOP)) {
            again_ = !Unlink(folder, name) || again_;  // it was a folder a moment ago
        } else if (errno != 0 && errno != ENOENT) {
            Note(errno);
        }
    }
    void MoveUp(int folder, const char* name) {
        for (int i = 0; i < kNameTries; ++i) {
            const std::string to = RandomName();
            if (::renameat2(folder, name, top_, to.c_str(), RENAME_NOREPLACE) == 0) {
                moved_ = true;
                return;
            }
            if (errno != EEXIST) break;
        }
        if (errno != ENOENT) Note(errno);
    }
    /// False with errno set; errno is 0 on success.
    bool Enter(int folder, const char* name) {
        DirHandle dir = ListDescriptor(OpenOnSameMount(folder, name));
        if (!dir) return false;
        levels_.push_back({std::move(dir), name});
        errno = 0;
        return true;
    }
    void Note(int err) {
        if (failure_ == 0) failure_ = err;
    }

    const ResHandle top_;
    const std::string path_;
    std::vector<Level> levels_;
    bool again_ = false, moved_ = false;
    int failure_ = 0;
};

void RefuseToRemove(const std::string& name, const std::string& path) {
    const bool is_name = !name.empty() && name.find('/') == std::string::npos;
    if (!is_name || name == "." || name == "..") RaiseErrno("remove", path, EINVAL);
}

}  // namespace

void RemoveFile(const std::string& path) {
    const Place place = PlaceOf("unlink", path);
    if (::unlinkat(place.folder, place.name.c_str(), 0) != 0) Raise("unlink", path);
}

void Remove(const std::string& path) {
    RefuseToRemove(Name(WithoutEndSlashes(path)), path);
    Place place;
    if (FindPlace(path, place)) return RemoveAt(place.folder, place.name, path);
    if (errno != ENOENT && errno != ENOTDIR) Raise("remove", path);
}

void Empty(const ResHandle& folder, const std::string& path) { Emptier(folder, path).Run(); }

void RemoveAt(const ResHandle& folder, const std::string& name, const std::string& path) {
    RefuseToRemove(name, path);
    for (int i = 0; i < kRaceTries; ++i) {
        if (::unlinkat(folder, name.c_str(), 0) == 0 || errno == ENOENT) return;
        if (errno != EISDIR) Raise("remove", path);
        const ResHandle top = OpenOnSameMount(folder, name.c_str());
        if (!top && (errno == ENOTDIR || errno == ELOOP || errno == ENOENT)) continue;
        if (!top) Raise("remove", path);
        Empty(top, path);
        if (::unlinkat(folder, name.c_str(), AT_REMOVEDIR) == 0) return;
        if (errno != ENOTEMPTY && errno != EEXIST && errno != ENOTDIR && errno != ENOENT) {
            Raise("remove", path);
        }
    }
    RaiseErrno("remove", path, ENOTEMPTY);
}

// ---- Copy and move ------------------------------------------------------------------------------

namespace {

void CopyRegular(const Place& from, int out, const std::string& to) {
    struct stat st;
    const ResHandle in = OpenRegular(from, st);
    if (!in) Raise("open", from.path);
    ContentCopy(in, out, st.st_size, from.path, to).Run();
    KeepOwnerAndMode(out, st, from.path);
    KeepTimes(out, st, from.path);
}

/// A link, FIFO, socket or device.
void CopySpecial(const Place& from, const struct stat& st, int folder, const char* name) {
    if (S_ISLNK(st.st_mode)) {
        std::array<char, PATH_MAX> target{};
        const ssize_t size =
            ::readlinkat(from.folder, from.name.c_str(), target.data(), target.size() - 1);
        if (size < 0 || ::symlinkat(target.data(), folder, name) != 0) Raise("symlink", from.path);
    } else if (::mknodat(folder, name, st.st_mode & (S_IFMT | 0700), st.st_rdev) != 0) {
        Raise("mknod", from.path);
    }
    const ResHandle fd(::openat(folder, name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!fd) Raise("open", from.path);
    const bool is_link = S_ISLNK(st.st_mode);
    SetAttrs(Attrs(st.st_mode & 07777, st.st_uid, st.st_gid), fd, is_link, from.path);
    const timespec times[2] = {st.st_atim, st.st_mtim};
    if (::utimensat(folder, name, times, AT_SYMLINK_NOFOLLOW) != 0) Raise("utimens", from.path);
}

/// Fills the empty folder `to`, which nobody else can enter yet.
class TreeCopy {
public:
    TreeCopy(ResHandle from, ResHandle to, std::string path)
        : from_(std::move(from)), to_(std::move(to)), path_(std::move(path)) {
        if (::fstat(to_, &target_) != 0) Raise("stat", path_);
    }
    void Run() {
        struct stat st;
        if (::fstat(from_, &st) != 0) Raise("stat", path_);
        folders_.push_back({"", st});
        for (std::size_t i = 0; i < folders_.size(); ++i) CopyFolder(folders_[i].relative);
        // From the end: what is made in a folder changes its times.
        for (auto folder = folders_.rbegin(); folder != folders_.rend(); ++folder) {
            const ResHandle fd = OpenBelow(to_, folder->relative);
            if (!fd) Raise("open", path_);
            KeepOwnerAndMode(fd, folder->st, path_);
            KeepTimes(fd, folder->st, path_);
        }
    }

private:
    struct Folder {
        std::string relative;
        struct stat st;
    };

    void CopyFolder(const std::string relative) {  // a copy: folders_ grows meanwhile
        const ResHandle source = OpenBelow(from_, relative);
        const ResHandle target = OpenBelow(to_, relative);
        if (!source || !target) Raise("open", ConcatPath(path_, relative));
        const DirHandle dir = ListDescriptor(ResHandle(::fcntl(source, F_DUPFD_CLOEXEC, 0)));
        if (!dir) Raise("opendir", ConcatPath(path_, relative));
        while (const dirent* entry = NextEntry(dir.get())) {
            const std::string below = ConcatPath(relative, entry->d_name);
            CopyEntry({source, entry->d_name, ConcatPath(path_, below)}, target, below);
        }
        if (errno != 0) Raise("readdir", ConcatPath(path_, relative));
    }
    void CopyEntry(const Place& from, const ResHandle& target, const std::string& below) {
        struct stat st;
        if (!from.Stat(st)) Raise("stat", from.path);
        if (st.st_ino == target_.st_ino && st.st_dev == target_.st_dev)
            return;  // copied into itself
        if (S_ISDIR(st.st_mode)) {
            if (::mkdirat(target, from.name.c_str(), 0700) != 0) Raise("mkdir", from.path);
            folders_.push_back({below, st});
        } else if (S_ISREG(st.st_mode)) {
            const int flags = O_WRONLY | O_CREAT | O_EXCL | kPlain;
            const ResHandle out(::openat(target, from.name.c_str(), flags, 0600));
            if (!out) Raise("open", from.path);
            CopyRegular(from, out, from.path);
        } else {
            CopySpecial(from, st, target, from.name.c_str());
        }
    }

    const ResHandle from_, to_;
    const std::string path_;
    struct stat target_;
    std::vector<Folder> folders_;
};

bool IsSameInode(const struct stat& a, const struct stat& b) {
    return a.st_ino == b.st_ino && a.st_dev == b.st_dev;
}

/// A folder (0700) beside a place, removed unless it took the place's name.
class TemporaryFolder {
public:
    explicit TemporaryFolder(const Place& place) : place_(place) {
        name_ = MakeUnderRandomName("mkdir", place.path, [&place](const std::string& name) {
            return ::mkdirat(place.folder, name.c_str(), 0700) == 0 ? 0 : errno;
        });
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    ~TemporaryFolder() {
        if (!name_.empty()) Drop();
    }
    const std::string& Name() const { return name_; }
    void Rename() {
        if (::renameat(place_.folder, name_.c_str(), place_.folder, place_.name.c_str()) != 0) {
            Raise("rename", place_.path);
        }
        name_.clear();
    }

private:
    void Drop() const {
        try {
            const ResHandle top(
                ::openat(place_.folder, name_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
            if (top) Emptier(top, place_.path).Run();
            ::unlinkat(place_.folder, name_.c_str(), AT_REMOVEDIR);
        } catch (const std::exception& e) {
            logger.Write(4, "Cannot remove '%s' beside '%s': %s", name_, place_.path, e.what());
        }
    }

    const Place& place_;
    std::string name_;
};

void CopyTree(const Place& from, const Place& to) {
    const ResHandle source = from.Open(O_RDONLY | O_DIRECTORY);
    if (!source) Raise("opendir", from.path);
    TemporaryFolder temporary(to);
    const ResHandle target(::openat(to.folder, temporary.Name().c_str(),
                                    O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!target) Raise("open", to.path);
    TreeCopy(source, target, from.path).Run();
    if (::syncfs(target) != 0) Raise("fsync", to.path);
    temporary.Rename();
    SyncFolder(to);
}

void CopySpecialTo(const Place& from, const struct stat& st, const Place& to) {
    TemporaryFolder temporary(to);
    const ResHandle folder(
        ::openat(to.folder, temporary.Name().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!folder) Raise("open", to.path);
    CopySpecial(from, st, folder, "copy");
    if (::renameat(folder, "copy", to.folder, to.name.c_str()) != 0) Raise("rename", to.path);
    SyncFolder(to);
}

void CopyFileTo(const Place& from, const Place& to) {
    Temporary temporary(to);
    CopyRegular(from, temporary.Fd(), to.path);
    temporary.SyncAndRename();
}

}  // namespace

void CopyFile(const std::string& from, const std::string& to) {
    const Place source = PlaceOf("copy", from), target = PlaceOf("copy", to);
    struct stat a, b;
    if (!source.Stat(a)) Raise("copy", from);
    if (!S_ISREG(a.st_mode)) RefuseKind("copy", from, a.st_mode);
    if (target.Stat(b) && IsSameInode(a, b)) return;
    CopyFileTo(source, target);
}

void Copy(const std::string& from, const std::string& to) {
    const Place source = PlaceOf("copy", from);
    MkDir(ParentOf(to));
    const Place target = PlaceOf("copy", to);
    struct stat a, b;
    if (!source.Stat(a)) Raise("copy", from);
    if (target.Stat(b) && IsSameInode(a, b)) return;
    if (S_ISDIR(a.st_mode)) {
        CopyTree(source, target);
    } else if (S_ISREG(a.st_mode)) {
        CopyFileTo(source, target);
    } else {
        CopySpecialTo(source, a, target);
    }
}

void Move(const std::string& from, const std::string& to) {
    const Place source = PlaceOf("rename", from), target = PlaceOf("rename", to);
    if (::renameat(source.folder, source.name.c_str(), target.folder, target.name.c_str()) != 0) {
        if (errno != EXDEV) Raise("rename", from + " to " + to);
        Copy(from, to);
        Remove(from);
    }
    SyncFolder(target);
}

void Sync(const std::string& path) {
    const Place place = PlaceOf("fsync", path);
    const ResHandle fd = place.Open(O_RDONLY | O_NONBLOCK);
    if (!fd || ::fsync(fd) != 0) Raise("fsync", path);
    SyncFolder(place);
}

// ---- Temporaries --------------------------------------------------------------------------------

Tmp::Tmp(const std::string& beside) {
    const std::string folder = SplitPath(beside).dir;
    const std::string parent = ParentOf(beside);
    MkDir(parent, Attrs(0700));
    const Place place = PlaceOf("open", ConcatPath(parent, "tmp"));
    const std::string name =
        MakeUnderRandomName("open", beside, [&place](const std::string& candidate) {
            const int flags = O_RDWR | O_CREAT | O_EXCL | kPlain;
            const ResHandle fd(::openat(place.folder, candidate.c_str(), flags, 0600));
            return fd ? 0 : errno;
        });
    path_ = folder.empty() && parent == "." ? name : ConcatPath(parent, name);
}

Tmp::~Tmp() {
    Place place;
    if (path_.empty() || !FindPlace(path_, place)) return;
    ::unlinkat(place.folder, place.name.c_str(), 0);  // gone already when it was moved
}

TmpDir TmpDir::At(const std::string& path) {
    for (int i = 0; i < kRaceTries; ++i) {
        Remove(path);
        const Place place = PlaceOf("mkdir", path);
        if (::mkdirat(place.folder, place.name.c_str(), 0700) == 0) return TmpDir(path);
        if (errno != EEXIST) Raise("mkdir", path);
    }
    RaiseErrno("mkdir", path, EEXIST);
}

TmpDir TmpDir::Under(const std::string& base) {
    MkDir(base);
    const Place place = PlaceOf("mkdir", ConcatPath(base, "tmp"));
    return TmpDir(
        ConcatPath(base, MakeUnderRandomName("mkdir", base, [&place](const std::string& name) {
                       return ::mkdirat(place.folder, name.c_str(), 0700) == 0 ? 0 : errno;
                   })));
}

TmpDir::TmpDir(TmpDir&& other) noexcept : path_(std::exchange(other.path_, "")) {}

TmpDir& TmpDir::operator=(TmpDir&& other) noexcept {
    std::swap(path_, other.path_);  // the other one removes what was here
    return *this;
}

TmpDir::~TmpDir() {
    if (path_.empty()) return;
    try {
        Remove(path_);
    } catch (const std::exception& e) {
        logger.Write(4, "Cannot remove '%s': %s", path_, e.what());
    }
}

// ---- Lock ---------------------------------------------------------------------------------------

/// What the objects of one process share: one open file description and the lock on it. Record
/// locks of the process (F_SETLK) would vanish whenever anything in it closes the file; these stay
/// with the description, and exclude the holders of either kind in other processes.
struct Lock::Held {
    using Inode = std::pair<dev_t, ino_t>;
    ResHandle Fd() {
        const std::lock_guard guard(state);
        return fd;
    }
    Inode File() {
        const std::lock_guard guard(state);
        return inode;
    }
    std::mutex state;  // of these two, which Write replaces
    ResHandle fd;
    Inode inode;
    int users = 0;
    const pid_t process = ::getpid();
    std::mutex writing;
};

/// The files that this process has locked or waits for, by inode.
class Lock::Registry {
public:
    static Registry& Get() {
        static Registry& registry = *new Registry;  // locks of static objects outlive all else
        return registry;
    }
    /// The shared lock for the file that `fd` has open.
    std::shared_ptr<Held> Join(const ResHandle& fd, const std::string& path) {
        struct stat st;
        if (::fstat(fd, &st) != 0) Raise("lock", path);
        if (!S_ISREG(st.st_mode)) RefuseKind("lock", path, st.st_mode);
        const std::lock_guard guard(mutex_);
        if (process_ != ::getpid()) held_.clear();  // a fork's copy: the locks are the parent's
        process_ = ::getpid();
        std::shared_ptr<Held>& held = held_[{st.st_dev, st.st_ino}];
        if (!held) {
            held = std::make_shared<Held>();
            held->fd = fd;
            held->inode = {st.st_dev, st.st_ino};
        }
        ++held->users;
        return held;
    }
    void Leave(const std::shared_ptr<Held>& held) noexcept {
        if (held->process != ::getpid()) return;
        const std::lock_guard guard(mutex_);
        if (--held->users > 0) return;
        Unlock(held->fd);  // copies of the handle may live on
        held_.erase(held->inode);
    }
    /// Publishes the file behind `next`, already locked, and lets the old one go.
    void Replace(Held& held, Temporary& next) {
        struct stat st;
        const std::lock_guard guard(mutex_);
        if (::fstat(next.Fd(), &st) != 0) Raise("stat", "");
        auto node = held_.extract(held.inode);
        try {
            next.Rename();
        } catch (...) {
            held_.insert(std::move(node));
            throw;
        }
        const ResHandle old = held.Fd();
        {
            const std::lock_guard state(held.state);
            held.fd = next.Fd();
            node.key() = held.inode = {st.st_dev, st.st_ino};
        }
        held_.insert(std::move(node));
        Unlock(old);  // who waits for it finds the new file
    }
    static bool TryLock(int fd, int command) {
        struct flock whole {};
        whole.l_type = F_WRLCK;
        whole.l_whence = SEEK_SET;
        int failed;
        do {
            failed = ::fcntl(fd, command, &whole);
        } while (failed != 0 && errno == EINTR && command == F_OFD_SETLKW);
        return failed == 0;
    }

private:
    static void Unlock(int fd) noexcept {
        struct flock whole {};
        whole.l_type = F_UNLCK;
        whole.l_whence = SEEK_SET;
        ::fcntl(fd, F_OFD_SETLK, &whole);
    }

    std::mutex mutex_;
    pid_t process_ = ::getpid();
    std::map<std::pair<dev_t, ino_t>, std::shared_ptr<Held>> held_;
};

Lock::~Lock() { Release(); }

void Lock::DoLock(const std::string& path, bool marker) {
    Release();
    path_ = path;
    for (;;) {
        const Place place = PlaceOf("lock", path);
        const ResHandle fd(
            ::openat(place.folder, place.name.c_str(), O_RDWR | O_CREAT | kPlain, 0600));
        if (!fd) Raise("lock", path);
        held_ = Registry::Get().Join(fd, path);
        const bool locked = Registry::TryLock(held_->Fd(), marker ? F_OFD_SETLK : F_OFD_SETLKW);
        const int err = errno;
        if (locked && Owns()) return;
        Release();
        if (locked) continue;  // replaced or removed while this process waited
        if (err == EAGAIN || err == EACCES) throw vel_err::Error("lock", "busy", path);
        RaiseErrno("lock", path, err);
    }
}

ResHandle Lock::GetResHandle() const { return held_ ? held_->Fd() : ResHandle(); }

std::string Lock::Read() const {
    const ResHandle fd = GetResHandle();
    struct stat st;
    if (::fstat(fd, &st) != 0) Raise("stat", path_);
    return ReadToEnd(fd, st, path_);
}

void Lock::Write(const std::string& content) {
    Replace(content);
    SyncFolder(PlaceOf("lock", path_));
}

void Lock::Replace(const std::string& content) {
    const std::shared_ptr<Held> held = held_;
    if (!held) throw vel_err::Error("lock", "lost", path_);
    const std::lock_guard guard(held->writing);
    if (!Owns()) throw vel_err::Error("lock", "lost", path_);
    const Place place = PlaceOf("lock", path_);
    struct stat old;
    if (::fstat(held->Fd(), &old) != 0) Raise("stat", path_);
    Temporary next(place, "." + place.name + ".new");
    KeepOwnerAndMode(next.Fd(), old, path_);
    if (!Registry::TryLock(next.Fd(), F_OFD_SETLK)) Raise("lock", path_);
    WriteAll(next.Fd(), content, path_);
    if (::fsync(next.Fd()) != 0) Raise("fsync", path_);
    Registry::Get().Replace(*held, next);
}

bool Lock::Owns() const {
    Place place;
    struct stat st;
    if (!held_ || !FindPlace(path_, place) || !place.Stat(st)) return false;
    return held_->File() == std::pair(st.st_dev, st.st_ino);
}

void Lock::Release() noexcept {
    if (held_) Registry::Get().Leave(held_);
    held_.reset();
}

}  // namespace vel_file
