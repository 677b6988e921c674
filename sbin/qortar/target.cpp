#include "sbin/qortar/target.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/openat2.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>

#include <xxhash.h>

#include "vel/str.h"
#include "vel/vel_err.h"
#include "vel/vel_file.h"
#include "vel/vel_user.h"

namespace qortar {
namespace {

using vel_file::ResHandle;

constexpr std::size_t kLongestPath = 4095, kLongestPart = 255;
constexpr const char* kAccessAcl = "system.posix_acl_access";
constexpr const char* kDefaultAcl = "system.posix_acl_default";

[[noreturn]] void Refuse(const std::string& reason) {
    throw vel_err::Error("restore", "refused", reason);
}

[[noreturn]] void Fail(const std::string& op, int err) {
    if (err == ENOSPC || err == EDQUOT)
        throw vel_err::Error("restore", "disk_full", std::string(::strerror(err)));
    if (err == ELOOP) Refuse("a link stands in the place of a folder");
    if (err == ENOTDIR) Refuse("something else stands in the place of a folder");
    throw vel_err::Error("restore", op, op + ": " + ::strerror(err));
}

struct Name {
    std::string folder, leaf;  // folder "." is the root
};

Name Cut(const std::string& name) {
    const std::size_t slash = name.rfind('/');
    if (slash == std::string::npos) return {".", name};
    return {name.substr(0, slash), name.substr(slash + 1)};
}

// One name for each leaf, so that a restore that is repeated meets what a killed one left.
std::string TemporaryName(const std::string& leaf) {
    XXH64_canonical_t hash;
    XXH64_canonicalFromHash(&hash, XXH3_64bits(leaf.data(), leaf.size()));
    return ".qortar-" +
           str::hex::Encode(std::string(reinterpret_cast<const char*>(hash.digest), sizeof hash));
}

std::string RandomTemporaryName() { return TemporaryName(str::Random(8)); }

/// The running thread acts with the user's rights while this lives. Only the checks of the file
/// system change (per thread), so another thread may act as root at the same time.
class AsUser {
public:
    explicit AsUser(const Target& target) : active_(target.with_rights) {
        if (active_) before_ = static_cast<uid_t>(::setfsuid(target.uid));
    }
    ~AsUser() {
        if (active_) ::setfsuid(before_);
    }
    AsUser(const AsUser&) = delete;
    AsUser& operator=(const AsUser&) = delete;

private:
    bool active_;
    uid_t before_ = 0;
};

// The C library's setgroups changes all threads; the kernel's only the caller.
void SetThreadGroups(const std::vector<gid_t>& groups) {
    if (::syscall(SYS_setgroups, groups.size(), groups.data()) != 0) Fail("setgroups", errno);
}

std::vector<gid_t> GroupsOf(const std::string& user, gid_t gid) {
    int count = 64;
    std::vector<gid_t> groups(static_cast<std::size_t>(count));
    while (::getgrouplist(user.c_str(), gid, groups.data(), &count) < 0)
        groups.resize(static_cast<std::size_t>(count));
    groups.resize(static_cast<std::size_t>(count));
    return groups;
}

std::string ProcPath(int fd) { return "/proc/self/fd/" + std::to_string(fd); }

void WriteAt(int fd, std::string_view bytes, uint64_t offset) {
    while (!bytes.empty()) {
        const ssize_t n = ::pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(offset));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) Fail("write", errno);
        bytes.remove_prefix(static_cast<std::size_t>(n));
        offset += static_cast<uint64_t>(n);
    }
}

void Fill(int fd, const Item& item, const Writer::Content& content) {
    std::string_view bytes;
    uint64_t offset = 0, end = 0;
    while (content(bytes, offset)) {
        if (bytes.empty()) continue;
        if (offset > item.size || bytes.size() > item.size - offset)
            Refuse("more content than its size in the archive");
        WriteAt(fd, bytes, offset);
        end = offset + bytes.size();
    }
    if (end < item.size && ::ftruncate(fd, static_cast<off_t>(item.size)) != 0)
        Fail("truncate", errno);
}

mode_t TypeBits(char type) {
    switch (type) {
        case 'd':
            return S_IFDIR;
        case 'l':
            return S_IFLNK;
        case 'p':
            return S_IFIFO;
        case 'c':
            return S_IFCHR;
        case 'b':
            return S_IFBLK;
        default:
            return S_IFREG;
    }
}

bool Later(const timespec& a, const timespec& b) {
    return a.tv_sec != b.tv_sec ? a.tv_sec > b.tv_sec : a.tv_nsec > b.tv_nsec;
}

bool Differs(const Item& item, const struct stat& old) {
    if (item.type == 'h') return true;
    return (old.st_mode & S_IFMT) != TypeBits(item.type) || Later(item.mtime, old.st_mtim) ||
           Later(old.st_mtim, item.mtime) ||
           (item.type == 'f' && static_cast<uint64_t>(old.st_size) != item.size);
}

ResHandle OpenBeneath(int root, const std::string& name, int flags) {
    open_how how{};
    how.flags = static_cast<uint64_t>(flags | O_CLOEXEC);
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    while (true) {  // EAGAIN: a rename elsewhere made the kernel unsure
        const long fd = ::syscall(SYS_openat2, root, name.c_str(), &how, sizeof how);
        if (fd >= 0 || (errno != EAGAIN && errno != EINTR)) return ResHandle(static_cast<int>(fd));
    }
}

ResHandle OpenRoot(const Options& options, bool& made) {
    made = !vel_file::Exists(options.root);
    if (made && !options.dry_run) vel_file::MkDir(options.root);
    const int fd = ::open(options.root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) vel_err::RaiseErrno("open", options.root, errno);
    return ResHandle(fd);
}

/// A root that the user cannot enter is out of his reach: no need (and no way) to act as him there.
bool MayEnter(const Target& target) {
    const uid_t before = static_cast<uid_t>(::setfsuid(target.uid));
    const ResHandle fd(::openat(target.root, "./.", O_PATH | O_DIRECTORY | O_CLOEXEC));
    ::setfsuid(before);
    return bool(fd);
}

}  // namespace

std::string NameProblem(const std::string& name) {
    if (name.empty()) return "an empty name";
    if (name == ".") return "";
    if (name.size() > kLongestPath) return "the name is too long";
    if (name[0] == '/') return "an absolute name";
    for (std::size_t begin = 0; begin <= name.size();) {
        const std::size_t end = std::min(name.find('/', begin), name.size());
        const std::string part = name.substr(begin, end - begin);
        if (part.empty() || part == "." || part == "..") return "a name that leaves the root";
        if (part.size() > kLongestPart) return "a part of the name is too long";
        begin = end + 1;
    }
    return name.find('\0') == std::string::npos ? "" : "a NUL byte in the name";
}

Target::Target(const Options& options)
    : overwrite(options.overwrite), privileged(::geteuid() == 0) {
    bool made = false;
    root = OpenRoot(options, made);
    if (options.user.empty()) return;
    for_user = true;
    uid = vel_user::Uid(options.user);
    gid = vel_user::Gid(options.user);
    groups = GroupsOf(options.user, gid);
    if (made && privileged && ::fchown(root, uid, gid) != 0) Fail("chown", errno);
    with_rights = privileged && uid != 0 && MayEnter(*this);
    own = options.own;
}

void Target::Adopt(Item& item) const {
    if (!own) return;
    item.uid = uid;
    item.gid = gid;
    item.mode &= 01777;
}

// ---- The thread's rights ------------------------------------------------------------------------

Writer::Writer(const Target& target) : target_(target) {
    if (!target_.with_rights) return;
    SetThreadGroups(target_.groups);
    ::setfsgid(target_.gid);
}

Writer::~Writer() {
    if (!target_.with_rights) return;
    ::setfsgid(::getegid());
    ::syscall(SYS_setgroups, 0, nullptr);  // root needs none
}

// ---- Folders ------------------------------------------------------------------------------------

ResHandle Writer::OpenFolder(const std::string& name, int flags) const {
    return OpenBeneath(target_.root, name, flags | O_DIRECTORY);
}

/// The folder that holds `name`. Kept for the next name: the descriptor stays the same folder
/// whatever happens to its name meanwhile.
const Writer::Parent& Writer::OpenParent(const std::string& name) {
    std::string folder = Cut(name).folder;
    if (has_parent_ && folder == parent_name_) return parent_;
    has_parent_ = false;
    ResHandle fd = OpenFolder(folder, O_PATH);
    if (!fd && errno == ENOENT) {
        MakeFolder(folder, false);
        fd = OpenFolder(folder, O_PATH);
    }
    struct stat st {};
    if (!fd || ::fstat(fd, &st) != 0) Fail("open folder", errno);
    parent_.fd = fd;
    parent_.keeps_group = (st.st_mode & S_ISGID) != 0;
    const ssize_t acl = ::getxattr(ProcPath(fd).c_str(), kDefaultAcl, nullptr, 0);
    parent_.has_acl = acl > 0 || (acl < 0 && errno != ENODATA && errno != EOPNOTSUPP);
    parent_name_ = std::move(folder);
    has_parent_ = true;
    return parent_;
}

FolderState Writer::NewFolder(const std::string& name) {
    const Name cut = Cut(name);
    const ResHandle parent = OpenParent(name).fd;
    bool as_root = false;
    if (::mkdirat(parent, cut.leaf.c_str(), 0700) != 0) {
        as_root = (errno == EACCES || errno == EPERM) && cut.folder == "." && target_.with_rights;
        if (!as_root) Fail("make folder", errno);
        ::setfsuid(0);
        const int code = ::mkdirat(parent, cut.leaf.c_str(), 0700);
        const int err = errno;
        ResHandle fd = OpenFolder(name, O_RDONLY);
        if (code == 0 && fd && ::fchown(fd, target_.uid, target_.gid) != 0) Fail("chown", errno);
        ::setfsuid(target_.uid);
        if (code != 0) Fail("make folder", err);
    }
    struct stat st {};
    const ResHandle made = OpenFolder(name, O_PATH);
    if (!made || ::fstat(made, &st) != 0) Fail("open folder", errno);
    return {st.st_dev, st.st_ino, true};
}

FolderState Writer::MakeFolder(const std::string& name, bool in_archive) {
    if (const std::string problem = NameProblem(name); !problem.empty()) Refuse(problem);
    const AsUser rights(target_);
    const ResHandle fd = OpenFolder(name, O_PATH);
    const int err = errno;
    struct stat st {};
    if (fd && ::fstat(fd, &st) == 0) return {st.st_dev, st.st_ino, false};
    if (err == ENOENT) return NewFolder(name);
    const bool replace = in_archive && target_.overwrite != Overwrite::Never;
    if ((err != ELOOP && err != ENOTDIR) || !replace) Fail("open folder", err);
    const ResHandle parent = OpenParent(name).fd;  // fails when the link is further up
    if (::unlinkat(parent, Cut(name).leaf.c_str(), 0) != 0) Fail("remove", errno);
    return NewFolder(name);
}

void Writer::FinishFolder(const Item& item, const FolderState& state) {
    const ResHandle fd = OpenFolder(item.name, O_RDONLY | O_NOFOLLOW);
    struct stat st {};
    if (!fd || ::fstat(fd, &st) != 0) Fail("open folder", errno);
    if (st.st_dev != state.device || st.st_ino != state.inode)
        Refuse("the folder was exchanged during the restore");
    if (target_.for_user && !state.made && st.st_uid != target_.uid) return;
    const bool owned = st.st_uid == item.uid && st.st_gid == item.gid;
    SetAttributes(fd, item, owned, ::flistxattr(fd, nullptr, 0) != 0);
}

// ---- Attributes ---------------------------------------------------------------------------------

mode_t Writer::AllowedMode(const Item& item) const {
    if (!target_.for_user || (item.uid == target_.uid && item.gid == target_.gid)) return item.mode;
    return item.mode & (item.uid == target_.uid ? ~static_cast<mode_t>(S_ISGID) : 01777);
}

/// The first problem, "" when there was none. `by_path`: an O_PATH descriptor takes no attributes,
/// its name in /proc does.
std::string Writer::SetXattrs(int fd, const Item& item, bool by_path) const {
    std::string problem;
    if (!item.left_out.empty()) problem = "its ACL names '" + item.left_out + "', unknown here";
    for (const Xattr& xattr : item.xattrs) {
        const char* name = xattr.name.c_str();
        const bool acl = xattr.name == kAccessAcl || xattr.name == kDefaultAcl;
        if (target_.for_user && !acl && !str::StartsWith(xattr.name, "user.")) continue;
        const int code = by_path ? ::setxattr(ProcPath(fd).c_str(), name, xattr.value.data(),
                                              xattr.value.size(), 0)
                                 : ::fsetxattr(fd, name, xattr.value.data(), xattr.value.size(), 0);
        if (code != 0 && problem.empty())
            problem = "attribute " + xattr.name + ": " + ::strerror(errno);
    }
    return problem;
}

/// Whether what the thread has just made in parent_ got its owner by being made.
bool Writer::BornRight(const Item& item) const {
    return !parent_.keeps_group && !made_by_root_ &&
           item.uid == (target_.with_rights ? target_.uid : 0) &&
           item.gid == (target_.with_rights ? target_.gid : 0);
}

/// `owned`: its owner is right. `inherited`: it may have got a default ACL of the folder in which
/// it was made, which goes when the item has no list of its own.
void Writer::SetAttributes(int fd, const Item& item, bool owned, bool inherited) {
    if (target_.privileged && !owned && ::fchown(fd, item.uid, item.gid) != 0) Fail("chown", errno);
    if (::fchmod(fd, AllowedMode(item)) != 0) Fail("chmod", errno);
    if (inherited) {
        ::fremovexattr(fd, kAccessAcl);  // fails when there is none, which is what is wanted
        if (item.type == 'd') ::fremovexattr(fd, kDefaultAcl);
    }
    const std::string problem = SetXattrs(fd, item, /*by_path=*/false);
    const timespec times[2] = {{0, UTIME_OMIT}, item.mtime};
    if (::futimens(fd, times) != 0) Fail("set times", errno);
    if (!problem.empty()) throw vel_err::Error("restore", "attributes", problem);
}

/// For what cannot be opened: `fd` is an O_PATH descriptor. The owner of the folder may have put
/// something else into the place meanwhile, then nothing of it is touched.
void Writer::SetByPath(int fd, const Item& item) {
    struct stat st {};
    if (::fstat(fd, &st) != 0) Fail("stat", errno);
    if ((st.st_mode & S_IFMT) != TypeBits(item.type) || st.st_nlink != 1)
        Refuse("it was exchanged during the restore");
    if (target_.privileged && ::fchownat(fd, "", item.uid, item.gid, AT_EMPTY_PATH) != 0)
        Fail("chown", errno);
    if (item.type != 'l' && ::chmod(ProcPath(fd).c_str(), AllowedMode(item)) != 0)
        Fail("chmod", errno);
    if (item.type != 'l' && parent_.has_acl) ::removexattr(ProcPath(fd).c_str(), kAccessAcl);
    const std::string problem = SetXattrs(fd, item, /*by_path=*/true);
    const timespec times[2] = {{0, UTIME_OMIT}, item.mtime};
    if (::utimensat(fd, "", times, AT_EMPTY_PATH) != 0) Fail("set times", errno);
    if (!problem.empty()) throw vel_err::Error("restore", "attributes", problem);
}

// ---- Names --------------------------------------------------------------------------------------

bool Writer::MayReplace(const Item& item, const struct stat& old) const {
    switch (target_.overwrite) {
        case Overwrite::Never:
            return false;
        case Overwrite::Changed:
            return Differs(item, old);
        case Overwrite::Newer:
            return Later(item.mtime, old.st_mtim);
        default:
            return true;
    }
}

/// A name in a folder, and the name under which the new thing is made before it takes that place.
struct Writer::Spot {
    ResHandle folder;
    std::string leaf, made;
    bool in_root;          // directly
    bool by_root = false;  // made with root's rights
    bool done = false;

    ~Spot() {
        if (!done && !made.empty()) ::unlinkat(folder, made.c_str(), 0);
    }
};

/// What stands there already: false when it stays. An empty folder goes at once, anything else is
/// replaced by renaming.
bool Writer::Clear(const Item& item, const Spot& spot) {
    struct stat old {};
    if (::fstatat(spot.folder, spot.leaf.c_str(), &old, AT_SYMLINK_NOFOLLOW) != 0) return true;
    if (!MayReplace(item, old)) return false;
    if (!S_ISDIR(old.st_mode)) return true;
    if (::unlinkat(spot.folder, spot.leaf.c_str(), AT_REMOVEDIR) == 0) return true;
    if (errno == ENOTEMPTY || errno == EEXIST) Refuse("a folder with files stands in its place");
    Fail("remove", errno);
}

/// make(folder, leaf, step): step 0 creates (0, or -1 with errno), step 1 fills what was created.
template <class Make>
bool Writer::Place(const Item& item, const Make& make) {
    if (const std::string problem = NameProblem(item.name); !problem.empty()) Refuse(problem);
    const Name cut = Cut(item.name);
    if (item.name == ".") Refuse("the root is a folder");
    Spot spot{ResHandle(), cut.leaf, "", cut.folder == "."};
    {
        const AsUser rights(target_);
        spot.folder = OpenParent(item.name).fd;
        std::string name = cut.leaf;
        for (int tries = 0; make(spot.folder, name, 0) != 0; ++tries) {
            const int err = errno;
            if (err == ENOENT && tries == 0) {  // the folder was removed: make it again
                has_parent_ = false;
                spot.folder = OpenParent(item.name).fd;
            } else if ((err == EACCES || err == EPERM) && spot.in_root && name == cut.leaf &&
                       target_.with_rights && tries == 0) {
                ::setfsuid(0);  // the root itself may be the administrator's
                spot.by_root = true;
            } else if (err != EEXIST || tries > 8) {
                Fail("create", err);
            } else if (name == cut.leaf) {
                if (spot.by_root) Fail("replace", EACCES);
                if (!Clear(item, spot)) return false;
                name = TemporaryName(cut.leaf);
            } else if (::unlinkat(spot.folder, name.c_str(), 0) != 0) {
                name = RandomTemporaryName();
            }
        }
        spot.made = name;
    }
    made_by_root_ = spot.by_root;
    std::exception_ptr attributes;
    try {
        make(spot.folder, spot.made, 1);
    } catch (const vel_err::Error& error) {  // the rest of it is worth keeping
        if (error.object() != "attributes") throw;
        attributes = std::current_exception();
    }
    const AsUser rights(target_);
    if (spot.made != spot.leaf &&
        ::renameat(spot.folder, spot.made.c_str(), spot.folder, spot.leaf.c_str()) != 0)
        Fail("rename", errno);
    spot.done = true;
    if (attributes) std::rethrow_exception(attributes);
    return true;
}

bool Writer::WriteFile(const Item& item, const Content& content) {
    ResHandle fd;
    return Place(item, [&](int folder, const std::string& name, int step) {
        if (step == 0) {
            constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
            const int made = ::openat(folder, name.c_str(), kFlags, 0600);
            fd = ResHandle(made);
            return made < 0 ? -1 : 0;
        }
        Fill(fd, item, content);
        SetAttributes(fd, item, BornRight(item), parent_.has_acl);
        return 0;
    });
}

void Writer::MakeLink(const Item& item) {
    Place(item, [&](int folder, const std::string& name, int step) {
        if (step == 0) return ::symlinkat(item.target.c_str(), folder, name.c_str());
        const ResHandle fd(::openat(folder, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        if (!fd) Fail("open", errno);
        SetByPath(fd, item);
        return 0;
    });
}

void Writer::MakeSpecial(const Item& item) {
    if (target_.for_user && item.type != 'p') Refuse("device nodes are not made in a user's tree");
    Place(item, [&](int folder, const std::string& name, int step) {
        if (step == 0)
            return ::mknodat(folder, name.c_str(), TypeBits(item.type) | 0600, item.device);
        const ResHandle fd(::openat(folder, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        if (!fd) Fail("open", errno);
        SetByPath(fd, item);
        return 0;
    });
}

void Writer::MakeHardLink(const Item& item) {
    if (const std::string problem = NameProblem(item.target); !problem.empty())
        Refuse("the link's target: " + problem);
    const Name from = Cut(item.target);
    ResHandle folder;
    struct stat source {
    }, old{};
    {
        const AsUser rights(target_);
        folder = OpenFolder(from.folder, O_PATH);
        if (!folder || ::fstatat(folder, from.leaf.c_str(), &source, AT_SYMLINK_NOFOLLOW) != 0)
            Fail("the link's target", errno);
        if (S_ISDIR(source.st_mode)) Refuse("the link's target is a folder");
        const ResHandle place = OpenParent(item.name).fd;
        const bool there =
            ::fstatat(place, Cut(item.name).leaf.c_str(), &old, AT_SYMLINK_NOFOLLOW) == 0;
        if (there && old.st_dev == source.st_dev && old.st_ino == source.st_ino) return;
    }
    Place(item, [&](int to, const std::string& name, int step) {
        if (step != 0) return 0;
        const int code = ::linkat(folder, from.leaf.c_str(), to, name.c_str(), 0);
        if (code == 0 || errno != EPERM || !target_.with_rights) return code;
        // Not his own file: the kernel refuses such links. It lies in the tree already.
        ::setfsuid(0);
        const int as_root = ::linkat(folder, from.leaf.c_str(), to, name.c_str(), 0);
        const int err = errno;
        ::setfsuid(target_.uid);
        errno = err;
        return as_root;
    });
}

void Writer::Remove(const std::string& name) {
    if (const std::string problem = NameProblem(name); !problem.empty()) Refuse(problem);
    const Name cut = Cut(name);
    const AsUser rights(target_);
    const ResHandle folder = OpenFolder(cut.folder, O_PATH);
    if (!folder && errno == ENOENT) return;
    if (!folder) Fail("open folder", errno);
    if (::unlinkat(folder, cut.leaf.c_str(), 0) == 0 || errno == ENOENT) return;
    if (errno != EISDIR) Fail("remove", errno);
    if (::unlinkat(folder, cut.leaf.c_str(), AT_REMOVEDIR) != 0 && errno != ENOTEMPTY &&
        errno != EEXIST && errno != ENOENT)
        Fail("remove", errno);
}

bool Writer::Exists(const std::string& name) {
    if (!NameProblem(name).empty()) return false;
    return bool(OpenBeneath(target_.root, name, O_PATH | O_NOFOLLOW));
}

std::string Writer::Preview(const Item& item) {
    if (const std::string problem = NameProblem(item.name); !problem.empty()) Refuse(problem);
    const ResHandle fd = OpenBeneath(target_.root, item.name, O_PATH | O_NOFOLLOW);
    struct stat old {};
    if (!fd && errno != ENOENT) Fail("open", errno);
    if (!fd || ::fstat(fd, &old) != 0) return "create";
    if (item.type == 'd' && S_ISDIR(old.st_mode)) return "";
    return MayReplace(item, old) ? "replace" : "";
}

}  // namespace qortar
