#include "sbin/qortar/tree_walker.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

namespace qortar {
namespace {

// Directories that stay open while the walk is below them; others are opened again by "..".
constexpr std::size_t kOpenDirs = 64;
// What the names that wait to be visited may take, over all levels.
constexpr std::size_t kNamesBudget = 24 << 20;
constexpr std::size_t kLargeRead = 64 << 10;
constexpr std::size_t kSmallRead = 1 << 10;  // holds any one name
// Longer paths are left out: nothing could read them back.
constexpr std::size_t kLongestPath = 128 << 10;

vel_file::ResHandle TryOpen(int dir, const std::string& name, int flags) {
    open_how how{};
    how.flags = static_cast<uint64_t>(flags);
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS | RESOLVE_NO_XDEV;
    long fd = -1;
    do {
        fd = ::syscall(SYS_openat2, dir, name.c_str(), &how, sizeof how);
    } while (fd < 0 && (errno == EINTR || errno == EAGAIN));
    return vel_file::ResHandle(static_cast<int>(fd));
}

struct Item {
    uint64_t inode;
    uint32_t name_at;
    unsigned char type;
};

// One directory on the way down: a batch of its names and where the next batch begins.
struct Level {
    vel_file::ResHandle fd;
    dev_t dev = 0;
    ino_t inode = 0;
    std::size_t path_size = 0;
    std::vector<Item> items;
    std::string names;  // NUL-ended
    std::size_t next = 0;
    off64_t resume = 0;
    bool exhausted = false;

    std::size_t Bytes() const { return items.size() * sizeof(Item) + names.size(); }
};

class Walk {
public:
    Walk(const std::string& path, TreeVisitor& visitor) : path_(path), visitor_(visitor) {}

    void Run(vel_file::ResHandle top) {
        Push(std::move(top));
        while (!levels_.empty()) Step();
    }

private:
    void Step() {
        Level& level = levels_.back();
        path_.resize(level.path_size);
        if (level.next == level.items.size() && !ReadBatch(level)) return Pop();
        const Item& item = level.items[level.next++];
        name_ = level.names.c_str() + item.name_at;
        if (!path_.empty()) path_ += '/';
        path_ += name_;
        if (path_.size() > kLongestPath) return visitor_.Lost(path_, ENAMETOOLONG);
        vel_file::ResHandle inside = visitor_.Visit({level.fd, name_, path_, item.type});
        if (!inside) return;
        Push(std::move(inside));
    }

    void Push(vel_file::ResHandle fd) {
        struct stat st {};
        if (::fstat(fd, &st) != 0) return visitor_.Lost(path_, errno);
        // The top stays open: it is where closed ones are looked for.
        if (levels_.size() > kOpenDirs) levels_[levels_.size() - kOpenDirs].fd = {};
        Level level;
        level.fd = std::move(fd);
        level.dev = st.st_dev;
        level.inode = st.st_ino;
        level.path_size = path_.size();
        levels_.push_back(std::move(level));
    }

    // Back to the directory above, which is opened again when it was closed.
    void Pop() {
        const Level below = std::move(levels_.back());
        levels_.pop_back();
        in_use_ -= below.Bytes();
        if (levels_.empty() || levels_.back().fd) return;
        Level& level = levels_.back();
        path_.resize(level.path_size);
        level.fd = OpenIfSame(below.fd, "..", level);
        if (!level.fd) level.fd = OpenFromTop(level);
        if (level.fd) return;
        in_use_ -= level.Bytes();
        level.items.clear();
        level.names.clear();
        level.next = 0;
        level.exhausted = true;
        visitor_.Lost(path_, ESTALE);
    }

    // A directory that is not the recorded one is not entered: what lies behind ".." may have been
    // moved anywhere.
    static vel_file::ResHandle OpenIfSame(int from, const char* name, const Level& level) {
        vel_file::ResHandle fd(
            ::openat(from, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
        struct stat st {};
        const bool same =
            fd && ::fstat(fd, &st) == 0 && st.st_dev == level.dev && st.st_ino == level.inode;
        return same ? fd : vel_file::ResHandle();
    }

    vel_file::ResHandle OpenFromTop(const Level& level) {
        vel_file::ResHandle fd = levels_.front().fd;
        std::size_t at = levels_.front().path_size;
        while (fd && at < level.path_size) {
            if (path_[at] == '/') ++at;
            const std::size_t end = std::min(path_.find('/', at), level.path_size);
            fd = OpenBeneath(fd, path_.substr(at, end - at), O_RDONLY | O_DIRECTORY);
            at = end;
        }
        return fd ? OpenIfSame(fd, ".", level) : fd;
    }

    // Reads the next names. Returns false when there are none.
    bool ReadBatch(Level& level) {
        in_use_ -= level.Bytes();
        level.items.clear();
        level.names.clear();
        level.next = 0;
        const std::size_t spare = in_use_ < kNamesBudget ? kNamesBudget - in_use_ : 0;
        const std::size_t read_size = spare / 2 > kLargeRead ? kLargeRead : kSmallRead;
        // A directory that was opened again begins at its start.
        if (!level.exhausted && ::lseek(level.fd, level.resume, SEEK_SET) < 0) LoseRest(level);
        while (!level.exhausted && (level.items.empty() || level.Bytes() <= spare / 2)) {
            const ssize_t size = ::getdents64(level.fd, buffer_.data(), read_size);
            if (size < 0) LoseRest(level);
            if (size <= 0) level.exhausted = true;
            if (size > 0) TakeNames(level, static_cast<std::size_t>(size));
        }
        in_use_ += level.Bytes();
        std::sort(level.items.begin(), level.items.end(),
                  [](const Item& a, const Item& b) { return a.inode < b.inode; });
        return !level.items.empty();
    }

    void LoseRest(Level& level) {
        const int error = errno;
        level.exhausted = true;
        visitor_.Lost(path_, error);
    }

    void TakeNames(Level& level, std::size_t size) {
        for (std::size_t at = 0; at < size;) {
            const auto* entry = reinterpret_cast<const dirent64*>(buffer_.data() + at);
            at += entry->d_reclen;
            level.resume = entry->d_off;
            const char* name = entry->d_name;
            if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) continue;
            level.items.push_back(
                {entry->d_ino, static_cast<uint32_t>(level.names.size()), entry->d_type});
            level.names.append(name, std::strlen(name) + 1);
        }
    }

    std::string path_, name_;
    TreeVisitor& visitor_;
    std::vector<Level> levels_;
    std::size_t in_use_ = 0;
    alignas(dirent64) std::array<char, kLargeRead> buffer_;
};

}  // namespace

vel_file::ResHandle OpenBeneath(int dir, const std::string& name, int flags) {
    flags |= O_CLOEXEC | O_NOFOLLOW;
    if ((flags & O_PATH) != 0) return TryOpen(dir, name, flags);
    flags |= O_NONBLOCK;
    vel_file::ResHandle fd = TryOpen(dir, name, flags | O_NOATIME);
    if (!fd && errno == EPERM)
        fd = TryOpen(dir, name, flags);  // only owners and root may say O_NOATIME
    return fd;
}

void WalkTree(vel_file::ResHandle top, const std::string& path, TreeVisitor& visitor) {
    Walk(path, visitor).Run(std::move(top));
}

}  // namespace qortar
