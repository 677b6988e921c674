#include "sbin/foreign_panel/out_tree.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "vel/stream.h"
#include "vel/vel_err.h"
#include "vel/vel_file.h"
#include "vel/vel_log.h"

namespace foreign_panel {
namespace {

using vel_file::ResHandle;

const vel_log::Module logger("foreign_panel");

constexpr mode_t kPermissions = 0777;
constexpr std::size_t kNotesBlock = 64 << 10;

[[noreturn]] void Fail(const std::string& what, int err) {
    if (err == ENOSPC || err == EDQUOT) throw OutTree::OutOfRoom();
    if (err == ELOOP) throw EntryError("a link stands in the place of a folder");
    if (err == ENOTDIR) throw EntryError("a file stands in the place of a folder");
    throw EntryError(what + ": " + ::strerror(err));
}

void WriteAt(int fd, std::string_view bytes, uint64_t offset) {
    while (!bytes.empty()) {
        const ssize_t n = ::pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(offset));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) Fail("write", errno);
        bytes.remove_prefix(static_cast<std::size_t>(n));
        offset += static_cast<uint64_t>(n);
    }
}

void Fill(int fd, const OutTree::Content& content, uint64_t size) {
    std::string_view bytes;
    uint64_t end = 0;
    for (uint64_t offset = 0; content(bytes, offset);) {
        if (offset > INT64_MAX - bytes.size()) throw EntryError("an offset beyond all files");
        WriteAt(fd, bytes, offset);
        end = std::max<uint64_t>(end, offset + bytes.size());
    }
    if (end < size && ::ftruncate(fd, static_cast<off_t>(size)) != 0) Fail("truncate", errno);
}

void Drain(const OutTree::Content& content) {
    std::string_view bytes;
    for (uint64_t offset = 0; content(bytes, offset);) continue;
}

void SetTime(int fd, timespec mtime) {
    const timespec times[2] = {{0, UTIME_OMIT}, mtime};
    if (::futimens(fd, times) != 0) Fail("set the time", errno);
}

void SetLinkTime(int folder, const char* leaf, timespec mtime) {
    const timespec times[2] = {{0, UTIME_OMIT}, mtime};
    if (::utimensat(folder, leaf, times, AT_SYMLINK_NOFOLLOW) != 0) Fail("set the time", errno);
}

/// One note of a folder in the notes file.
struct NoteHead {
    mode_t mode;
    uint32_t owned, size;
    timespec mtime;
};

}  // namespace

OutTree::OutTree(std::string path, std::optional<Owner> owner, bool dry)
    : path_(std::move(path)), owner_(owner), dry_(dry) {}

OutTree::~OutTree() {
    if (!begun_ || kept_) return;
    try {
        last_folder_.Close();
        notes_.Close();
        made_ ? vel_file::Remove(path_) : vel_file::Empty(root_, path_);
    } catch (const std::exception& e) {
        logger.Write(3, "Cannot remove %s: %s", path_, e.what());
    }
}

void OutTree::Begin() {
    if (dry_) return;
    made_ = ::mkdir(path_.c_str(), 0700) == 0;
    if (!made_ && errno != EEXIST) vel_err::RaiseErrno("mkdir", path_, errno);
    root_ = ResHandle(::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!root_) vel_err::RaiseErrno("open", path_, errno);
    struct stat st {};
    if (::fstat(root_, &st) != 0) vel_err::RaiseErrno("fstat", path_, errno);
    if (st.st_uid != ::geteuid()) throw std::runtime_error(path_ + " belongs to somebody else");
    if (!made_ && vel_file::Dir(path_).Next()) throw std::runtime_error(path_ + " is not empty");
    begun_ = true;
    if (::fchmod(root_, 0700) != 0) vel_err::RaiseErrno("fchmod", path_, errno);
    notes_ = ResHandle(::openat(root_, ".", O_RDWR | O_TMPFILE | O_CLOEXEC, 0600));
    if (!notes_) vel_err::RaiseErrno("open a nameless file", path_, errno);
}

// ---- Places -------------------------------------------------------------------------------------

ResHandle OutTree::OpenBeneath(const std::string& name, int flags) const {
    open_how how{};
    how.flags = static_cast<uint64_t>(flags | O_CLOEXEC);
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    return ResHandle(
        static_cast<int>(::syscall(SYS_openat2, int(root_), name.c_str(), &how, sizeof how)));
}

/// The folder, made with all that lead to it when missing.
ResHandle OutTree::OpenFolder(const std::string& name) {
    if (name.empty()) return root_;
    if (last_folder_ && name == last_name_) return last_folder_;
    ResHandle fd = OpenBeneath(name, O_RDONLY | O_DIRECTORY);
    if (!fd && errno == ENOENT) {
        const std::size_t slash = name.rfind('/');
        const std::string parent = slash == std::string::npos ? "" : name.substr(0, slash);
        const std::string leaf = slash == std::string::npos ? name : name.substr(slash + 1);
        const ResHandle above = OpenFolder(parent);
        if (::mkdirat(above, leaf.c_str(), 0700) != 0 && errno != EEXIST)
            Fail("make a folder", errno);
        Note(name, {0755, {::time(nullptr), 0}, true});
        fd = OpenBeneath(name, O_RDONLY | O_DIRECTORY);
    }
    if (!fd) Fail("open a folder", errno);
    last_folder_ = fd;
    last_name_ = name;
    return fd;
}

OutTree::Place OutTree::Open(const std::string& name) {
    const std::size_t slash = name.rfind('/');
    if (slash == std::string::npos) return {root_, name};
    return {OpenFolder(name.substr(0, slash)), name.substr(slash + 1)};
}

/// Runs `make`, after taking away a file or link that has its name already.
bool OutTree::Make(const Place& place, const std::function<int()>& make) {
    if (make() >= 0) return true;
    if (errno != EEXIST) Fail("make", errno);
    if (::unlinkat(place.folder, place.leaf.c_str(), 0) != 0)
        errno == EISDIR ? throw EntryError("a folder stands in its place") : Fail("remove", errno);
    if (make() < 0) Fail("make", errno);
    return false;
}

void OutTree::Own(int fd, const char* leaf, bool owned) const {
    if (!owner_ || !owned) return;
    const int flags = AT_SYMLINK_NOFOLLOW | (*leaf == '\0' ? AT_EMPTY_PATH : 0);
    if (::fchownat(fd, leaf, owner_->uid, owner_->gid, flags) != 0) Fail("set the owner", errno);
}

// ---- Files and links ----------------------------------------------------------------------------

bool OutTree::MakeFile(const std::string& name, const Attributes& attributes,
                       const Content& content, uint64_t size) {
    if (dry_) return Drain(content), true;
    const Place place = Open(name);
    ResHandle fd;
    const bool fresh = Make(place, [&] {
        fd = ResHandle(::openat(place.folder, place.leaf.c_str(),
                                O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        return int(fd);
    });
    try {
        Fill(fd, content, size);
        Own(fd, "", attributes.owned);
        if (::fchmod(fd, attributes.mode & kPermissions) != 0) Fail("set the mode", errno);
        SetTime(fd, attributes.mtime);
    } catch (...) {
        ::unlinkat(place.folder, place.leaf.c_str(), 0);  // the first failure is what counts
        throw;
    }
    return fresh;
}

void OutTree::MakeText(const std::string& name, const std::string& text) {
    bool given = false;
    const auto content = [&](std::string_view& bytes, uint64_t& offset) {
        if (given) return false;
        bytes = text;
        offset = 0;
        return given = true;
    };
    MakeFile(name, {0600, {::time(nullptr), 0}, false}, content, text.size());
}

bool OutTree::MakeLink(const std::string& name, const std::string& target, timespec mtime) {
    if (dry_) return true;
    const Place place = Open(name);
    const bool fresh =
        Make(place, [&] { return ::symlinkat(target.c_str(), place.folder, place.leaf.c_str()); });
    Own(place.folder, place.leaf.c_str(), true);
    SetLinkTime(place.folder, place.leaf.c_str(), mtime);
    return fresh;
}

bool OutTree::MakeHardLink(const std::string& name, const std::string& file) {
    if (dry_) return true;
    const std::size_t slash = file.rfind('/');
    const std::string leaf = slash == std::string::npos ? file : file.substr(slash + 1);
    const ResHandle from = slash == std::string::npos
                               ? root_
                               : OpenBeneath(file.substr(0, slash), O_RDONLY | O_DIRECTORY);
    struct stat st {};
    if (!from || ::fstatat(from, leaf.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0)
        throw EntryError("what it links to is not in the archive before it");
    if (!S_ISREG(st.st_mode)) throw EntryError("what it links to is no file");
    if (name == file) return true;
    const Place place = Open(name);
    return Make(place,
                [&] { return ::linkat(from, leaf.c_str(), place.folder, place.leaf.c_str(), 0); });
}

// ---- Folders ------------------------------------------------------------------------------------

void OutTree::MakeFolder(const std::string& name, const Attributes& attributes) {
    if (dry_) return;
    const Place place = Open(name);
    if (::mkdirat(place.folder, place.leaf.c_str(), 0700) != 0 && errno != EEXIST)
        Fail("make a folder", errno);
    if (!OpenBeneath(name, O_RDONLY | O_DIRECTORY)) Fail("open a folder", errno);
    Note(name, attributes);
}

void OutTree::Note(const std::string& folder, const Attributes& attributes) {
    const NoteHead head{attributes.mode, attributes.owned, static_cast<uint32_t>(folder.size()),
                        attributes.mtime};
    notes_buffer_.append(reinterpret_cast<const char*>(&head), sizeof head).append(folder);
    if (notes_buffer_.size() < kNotesBlock) return;
    vel_file::WriteAll(notes_, notes_buffer_, path_);
    notes_buffer_.clear();
}

void OutTree::FinishFolder(const std::string& name, const Attributes& attributes) {
    const ResHandle fd = OpenBeneath(name, O_RDONLY | O_DIRECTORY);
    if (!fd) Fail("open a folder", errno);
    Own(fd, "", attributes.owned);
    if (::fchmod(fd, attributes.mode & kPermissions) != 0) Fail("set the mode", errno);
    SetTime(fd, attributes.mtime);
}

void OutTree::Finish() {
    if (dry_) return;
    vel_file::WriteAll(notes_, notes_buffer_, path_);
    notes_buffer_.clear();
    if (::lseek(notes_, 0, SEEK_SET) != 0) vel_err::RaiseErrno("lseek", path_, errno);
    vel_file::InStream notes(notes_);
    NoteHead head{};
    std::string name;
    while (notes.read(reinterpret_cast<char*>(&head), sizeof head)) {
        name.resize(head.size);
        notes.read(name.data(), head.size);
        FinishFolder(name, {head.mode, head.mtime, head.owned != 0});
    }
}

}  // namespace foreign_panel
