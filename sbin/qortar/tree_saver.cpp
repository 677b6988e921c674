#include "sbin/qortar/tree_saver.h"

#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

#include "vel/str.h"
#include "vel/vel_err.h"
#include "vel/vel_file.h"
#include "vel/vel_log.h"
#include "vel/vel_user.h"

#include "backup_common/backup2_misc.h"

#include "sbin/qortar/attributes.h"
#include "sbin/qortar/shell_command.h"

namespace qortar {
namespace {

const vel_log::Module logger("qortar");

constexpr int kAttempts = 3;
constexpr std::size_t kLinkMapBytes = 32 << 20;
// A file with more pieces is stored with its later holes filled, unless they are so large that
// somebody may have made them to keep the run busy for ever.
constexpr std::size_t kMostExtents = 1 << 18;
constexpr uint64_t kMostFilled = 4ULL << 30;

bool SameTime(const timespec& a, const timespec& b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

bool SameState(const struct stat& a, const struct stat& b) {
    return a.st_size == b.st_size && SameTime(a.st_mtim, b.st_mtim) &&
           SameTime(a.st_ctim, b.st_ctim);
}

Entry MakeEntry(char type, const std::string& path, const struct stat& st) {
    Entry entry;
    entry.type = type;
    entry.name = path;
    entry.mode = st.st_mode & 07777;
    entry.uid = st.st_uid;
    entry.gid = st.st_gid;
    entry.size = type == 'f' ? static_cast<uint64_t>(st.st_size) : 0;
    entry.mtime = st.st_mtim;
    entry.ctime = st.st_ctim;
    entry.dev = st.st_dev;
    entry.inode = st.st_ino;
    return entry;
}

TarType TarTypeOf(char type) {
    switch (type) {
        case 'd':
            return TarType::Directory;
        case 'l':
            return TarType::Symlink;
        case 'h':
            return TarType::HardLink;
        case 'p':
            return TarType::Fifo;
        default:
            return TarType::File;
    }
}

unsigned char DirentType(mode_t mode) { return static_cast<unsigned char>((mode & S_IFMT) >> 12); }

// Two changes within one tick of the file system's clock leave the same ctime. A file that was
// changed in the present tick is read in the next one, so that no later change can look like none.
void WaitForNextTick(const timespec& ctime) {
    constexpr timespec kPause = {0, 1000000};
    constexpr int kLongestTicks = 20;
    for (int i = 0; i < kLongestTicks; ++i) {
        timespec now{};
        ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
        const bool past = now.tv_sec != ctime.tv_sec || now.tv_nsec > ctime.tv_nsec;
        if (past) return;
        ::nanosleep(&kPause, nullptr);
    }
}

// Finds the runs of data; none when the file has no holes worth keeping. Returns false when it has
// too many.
bool FindExtents(int fd, const struct stat& st, std::vector<Extent>& extents) {
    constexpr uint64_t kStatBlock = 512;
    const auto size = static_cast<uint64_t>(st.st_size);
    const auto allocated = static_cast<uint64_t>(st.st_blocks) * kStatBlock;
    if (allocated >= size) return true;
    for (uint64_t at = 0; at < size;) {
        const off_t data = ::lseek(fd, static_cast<off_t>(at), SEEK_DATA);
        if (data < 0 || static_cast<uint64_t>(data) >= size) break;  // only a hole is left
        const off_t hole = ::lseek(fd, data, SEEK_HOLE);
        auto end = hole < 0 ? size : std::min(static_cast<uint64_t>(hole), size);
        if (extents.size() + 2 >= kMostExtents) {
            if (size - static_cast<uint64_t>(data) > allocated + kMostFilled) return false;
            end = size;
        }
        extents.push_back({static_cast<uint64_t>(data), end - static_cast<uint64_t>(data)});
        at = end;
    }
    if (extents.size() == 1 && extents[0].size == size) {
        extents.clear();
        return true;
    }
    // Readers learn the size from the last run.
    if (extents.empty() || extents.back().offset + extents.back().size < size)
        extents.push_back({size, 0});
    return true;
}

std::string ReadTarget(int fd) {
    std::string target(PATH_MAX, '\0');
    const ssize_t size = ::readlinkat(fd, "", target.data(), target.size());
    if (size < 0) vel_err::RaiseErrno("readlink", "", errno);
    target.resize(static_cast<std::size_t>(size));
    return target;
}

std::string RealPath(const std::string& path) {
    const std::unique_ptr<char, void (*)(void*)> real(::realpath(path.c_str(), nullptr), std::free);
    return real ? real.get() : "";
}

// The archive's name relative to the root, "" when it lies outside.
std::string BelowRoot(const std::string& root, const std::string& archive) {
    const std::string dir = RealPath(vel_file::SplitPath(archive).dir + "/");
    const std::string top = vel_file::ConcatPath(RealPath(root), "/");
    const std::string path = vel_file::ConcatPath(dir, vel_file::Name(archive));
    return path.compare(0, top.size(), top) == 0 ? path.substr(top.size()) : "";
}

bool IsBelow(const std::string& path, const std::string& folder) {
    return path.size() > folder.size() && path[folder.size()] == '/' &&
           path.compare(0, folder.size(), folder) == 0;
}

}  // namespace

// ---- Hard links ---------------------------------------------------------------------------------

const std::string* LinkMap::FirstName(const struct stat& st) {
    const auto found = known_.find({st.st_dev, st.st_ino});
    if (found == known_.end()) return nullptr;
    if (--found->second.missing > 0) return &found->second.name;
    bytes_ -= sizeof(Known) + found->second.name.size();
    last_ = std::move(found->second.name);
    known_.erase(found);
    return &last_;
}

bool LinkMap::Remember(const struct stat& st, const std::string& name) {
    if (bytes_ > kLinkMapBytes) return false;
    bytes_ += sizeof(Known) + name.size();
    known_[{st.st_dev, st.st_ino}] = {name, st.st_nlink - 1};
    return true;
}

// ---- The walk -----------------------------------------------------------------------------------

TreeSaver::TreeSaver(const Options& options, ArchiveStream& stream, BaseIndex* base)
    : options_(options),
      stream_(stream),
      base_(base),
      root_(::open(options.root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)),
      own_output_(BelowRoot(options.root, options.archive)),
      hook_dir_(vel_file::GoodPath(options.hook_dir)),
      progress_("archive") {
    struct stat st {};
    if (!root_ || ::fstat(root_, &st) != 0) vel_err::RaiseErrno("open", options.root, errno);
    root_dev_ = st.st_dev;
    if (!options.user.empty()) user_ = vel_user::Uid(options.user);
}

void TreeSaver::SaveFolder(const std::string& folder) {
    if (folder == ".") {
        const std::string name = ".";
        const vel_file::ResHandle fd = SaveDirectory({root_, name, name, DT_DIR});
        if (fd) WalkTree(fd, "", *this);
        return;
    }
    SaveParents(folder);
    const std::string dir = vel_file::SplitPath(folder).dir;
    const std::string name = vel_file::Name(folder);
    const vel_file::ResHandle parent =
        dir.empty() ? root_ : OpenBeneath(root_, dir, O_RDONLY | O_DIRECTORY);
    const Found whole{root_, folder, folder, DT_UNKNOWN};
    if (!parent && errno == ENOENT) return ReportOpenFailure(whole, ENOENT);
    if (!parent) return ReportEntry(whole, 'u', "what stands above it is no folder");
    const Found found{parent, name, folder, DT_UNKNOWN};
    if (TypeOf(found) == DT_LNK) return ReportEntry(found, 'u', "it is a link and not followed");
    const vel_file::ResHandle fd = Visit(found);
    if (fd) WalkTree(fd, folder, *this);
}

void TreeSaver::SaveParents(const std::string& folder) {
    for (std::size_t at = folder.find('/'); at != std::string::npos;
         at = folder.find('/', at + 1)) {
        const std::string path = folder.substr(0, at);
        // One that cannot be opened is reported with the folder itself.
        if (!parents_.insert(path).second || !OpenBeneath(root_, path, O_RDONLY | O_DIRECTORY))
            continue;
        SaveDirectory({root_, path, path, DT_DIR});
    }
}

vel_file::ResHandle TreeSaver::Visit(const Found& found) {
    if (Excluded(found.path) || OwnOutput(found.path)) return {};
    const unsigned char type = TypeOf(found);
    switch (type) {
        case DT_DIR:
            return SaveDirectory(found);
        case DT_REG:
            SaveFile(found);
            break;
        case DT_LNK:
            SaveSpecial(found, 'l');
            break;
        case DT_FIFO:
            SaveSpecial(found, 'p');
            break;
        case DT_UNKNOWN:
            ReportOpenFailure(found, errno);
            break;
        case DT_SOCK:
            std::printf("socket not saved: %s\n", backup2::EncodeFileName(found.path).c_str());
            break;
        default:
            ReportEntry(found, 'u', "device nodes are not saved");
            break;
    }
    return {};
}

void TreeSaver::Lost(const std::string& path, int error) {
    AddUnlisted(path);
    const std::string reason =
        error == ESTALE ? "it was moved while it was read" : ::strerror(error);
    Report(path.empty() ? "." : path, "not all of it could be listed: " + reason);
}

// More of them than fit count as: nothing is known of the whole tree.
void TreeSaver::AddUnlisted(const std::string& path) {
    constexpr std::size_t kMostBytes = 4 << 20;
    unlisted_bytes_ += path.size() + sizeof(std::string);
    if (unlisted_bytes_ > kMostBytes) unlisted_ = {""};
    if (unlisted_.empty() || !unlisted_[0].empty()) unlisted_.push_back(path);
}

void TreeSaver::ListRemoved() {
    if (base_ == nullptr) return;
    base_->ForEachUnseen([this](const Entry& before) {
        if (!before.Stored()) return;
        Entry entry = before;
        const bool unknown =
            std::any_of(unlisted_.begin(), unlisted_.end(), [&](const std::string& folder) {
                return folder.empty() || IsBelow(entry.name, folder);
            });
        if (unknown) {
            // Its folder could not be read: the last known state is better than none.
            entry.flags += 'b';
        } else {
            entry.slice = entry.offset = 0;
            entry.member = 0;
            entry.flags = "D";
            ++counts_.removed;
        }
        stream_.ListEntry(std::move(entry));
    });
}

// The directory's word where it gives one; DT_UNKNOWN with errno when there is nothing.
unsigned char TreeSaver::TypeOf(const Found& found) {
    if (found.type != DT_UNKNOWN) return found.type;
    struct stat st {};
    if (::fstatat(found.dir, found.name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return DT_UNKNOWN;
    return DirentType(st.st_mode);
}

bool TreeSaver::Excluded(const std::string& path) const {
    return std::any_of(options_.excludes.begin(), options_.excludes.end(),
                       [&](const std::string& pattern) {
                           if (pattern.empty()) return false;
                           const std::string name = pattern[0] == '/' ? "/" + path : path;
                           return ::fnmatch(pattern.c_str(), name.c_str(), 0) == 0;
                       });
}

bool TreeSaver::OwnOutput(const std::string& path) const {
    if (own_output_.empty()) return false;
    const std::string dir = vel_file::SplitPath(own_output_).dir;
    return vel_file::SplitPath(path).dir == dir && IsPieceOf(own_output_, vel_file::Name(path));
}

bool TreeSaver::Hooked(const std::string& path) const {
    return !options_.hook_execute.empty() && IsBelow(path, hook_dir_);
}

// ---- Directories, links, FIFOs ------------------------------------------------------------------

vel_file::ResHandle TreeSaver::SaveDirectory(const Found& found) {
    vel_file::ResHandle fd = OpenBeneath(found.dir, found.name, O_RDONLY | O_DIRECTORY);
    struct stat st {};
    if (!fd || ::fstat(fd, &st) != 0) {
        const int error = errno;
        AddUnlisted(found.path);
        ReportOpenFailure(found, error);
        return {};
    }
    Entry entry = MakeEntry('d', found.path, st);
    if (KeepUnchanged(entry)) return fd;
    const std::optional<TarItem> item = Describe(entry, fd, /*readable=*/true);
    if (item) {
        stream_.BeginEntry();
        stream_.Append(TarHeader(*item));
        if (!item->records.empty()) entry.flags += 'x';
        FinishEntry(std::move(entry));
    }
    return fd;
}

void TreeSaver::SaveSpecial(const Found& found, char type) {
    const vel_file::ResHandle fd = OpenBeneath(found.dir, found.name, O_PATH);
    struct stat st {};
    if (!fd || ::fstat(fd, &st) != 0) return ReportOpenFailure(found, errno);
    if (DirentType(st.st_mode) != (type == 'l' ? DT_LNK : DT_FIFO)) {
        return ReportEntry(found, 'v', "it was replaced while it was read");
    }
    Entry entry = MakeEntry(type, found.path, st);
    if (st.st_nlink > 1) {
        if (const std::string* first = links_.FirstName(st))
            return StoreLink(found.path, st, *first);
        RememberLink(found.path, st);
    }
    if (type == 'l') entry.target = ReadTarget(fd);
    if (KeepUnchanged(entry)) return;
    const std::optional<TarItem> item = Describe(entry, fd, /*readable=*/false);
    if (!item) return;
    stream_.BeginEntry();
    stream_.Append(TarHeader(*item));
    if (!item->records.empty()) entry.flags += 'x';
    FinishEntry(std::move(entry));
}

// Later names of the inode are links to this one.
void TreeSaver::RememberLink(const std::string& path, const struct stat& st) {
    if (st.st_nlink == 1 || links_.Remember(st, path)) return;
    if (std::exchange(links_full_reported_, true)) return;
    Report(path, "too many hard links: from here on they are saved as single files");
}

void TreeSaver::StoreLink(const std::string& path, const struct stat& st,
                          const std::string& first) {
    Entry entry = MakeEntry('h', path, st);
    entry.target = first;
    entry.size = 0;
    if (KeepUnchanged(entry)) return;
    TarItem item;
    item.type = TarType::HardLink;
    item.name = path;
    item.target = first;
    item.mode = entry.mode;
    item.uid = entry.uid;
    item.gid = entry.gid;
    item.mtime = entry.mtime;
    stream_.BeginEntry();
    stream_.Append(TarHeader(item));
    FinishEntry(std::move(entry));
}

// ---- Files --------------------------------------------------------------------------------------

void TreeSaver::SaveFile(const Found& found) {
    if (Hooked(found.path)) return SaveHookedFile(found);
    if (!KeepFile(found)) StoreFile(found);
}

void TreeSaver::SaveHookedFile(const Found& found) {
    const std::string path = vel_file::ConcatPath(options_.root, found.path);
    const auto run = [&](const char* word) {
        RunCommand(ExpandCommand(options_.hook_execute, word, vel_file::SplitPath(path).dir,
                                 vel_file::Name(path)),
                   found.path, Token::Hide);
    };
    try {
        run("start");
    } catch (const vel_err::Error& error) {
        return ReportEntry(found, 'u', error.value());
    }
    StoreFile(found);
    try {
        run("end");
    } catch (const vel_err::Error& error) {
        Report(found.path, error.value());
    }
}

// Looks whether the base has the file as it is, without opening it.
bool TreeSaver::KeepFile(const Found& found) {
    struct stat st {};
    if (base_ == nullptr ||
        ::fstatat(found.dir, found.name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISREG(st.st_mode) || st.st_dev != root_dev_ || st.st_nlink > 1) {
        return false;
    }
    Entry entry = MakeEntry('f', found.path, st);
    return KeepUnchanged(entry);
}

void TreeSaver::StoreFile(const Found& found) {
    changed_copy_.reset();
    for (int attempt = 1; !TryStoreFile(found, attempt); ++attempt) {
    }
}

bool TreeSaver::SomebodyElses(const struct stat& st) const {
    return user_ && st.st_nlink > 1 && st.st_uid != *user_;
}

// Returns false when the file changed while it was read and shall be read once more.
bool TreeSaver::TryStoreFile(const Found& found, int attempt) {
    const vel_file::ResHandle fd = OpenBeneath(found.dir, found.name, O_RDONLY);
    struct stat st {};
    const int error = fd && ::fstat(fd, &st) == 0 ? 0 : errno;
    if (error != 0 || !S_ISREG(st.st_mode) || SomebodyElses(st)) {
        changed_copy_ ? SettleForCopy(found.path) : ReportRefused(found, st, error);
        return true;
    }
    if (st.st_nlink > 1 && attempt == 1) {
        if (const std::string* first = links_.FirstName(st)) {
            StoreLink(found.path, st, *first);
            return true;
        }
    }
    Entry entry = MakeEntry('f', found.path, st);
    if (attempt == 1 && KeepUnchanged(entry)) {
        RememberLink(found.path, st);
        return true;
    }
    WaitForNextTick(st.st_ctim);
    std::optional<TarItem> item = Describe(entry, fd, /*readable=*/true);
    if (!item) return true;
    if (!FindExtents(fd, st, item->extents)) {
        changed_copy_ ? SettleForCopy(found.path)
                      : ReportEntry(found, 'u', "it has more holes than can be kept");
        return true;
    }
    item->sparse = !item->extents.empty();

    stream_.BeginEntry();
    stream_.Append(TarHeader(*item));
    const Content content = CopyContent(fd, found.path, *item, st);
    if (content == Content::Broken && !changed_copy_ && stream_.Rewind()) {
        ReportEntry(found, 'u', read_error_);
        return true;
    }
    if (content != Content::Same) entry.flags += 'c';
    if (item->sparse) entry.flags += 's';
    if (!item->records.empty()) entry.flags += 'x';
    if (content == Content::Changed && attempt < kAttempts) {
        // Where it is too late to take it back, the next one comes behind and counts.
        if (changed_copy_ || !stream_.Rewind()) changed_copy_ = std::move(entry);
        return false;
    }
    if (content == Content::Changed) Report(found.path, "it changed while it was read");
    if (content == Content::Broken)
        Report(found.path, read_error_ + ": the rest is filled with zeros");
    RememberLink(found.path, st);
    FinishEntry(std::move(entry));
    return true;
}

// What was put already stays the file's entry: every header of the stream is followed by a listed
// one of its name, or is listed.
void TreeSaver::SettleForCopy(const std::string& path) {
    Report(path, "it changed, and could not be read again");
    FinishEntry(std::move(*changed_copy_));
    changed_copy_.reset();
}

// Always puts as many bytes into the stream as the header promised.
TreeSaver::Content TreeSaver::CopyContent(int fd, const std::string& path, const TarItem& item,
                                          const struct stat& before) {
    Content result = Content::Same;
    const std::vector<Extent> whole = {{0, item.size}};
    for (const Extent& extent : item.sparse ? item.extents : whole) {
        const Content content = CopyRange(fd, path, extent);
        if (content != Content::Same) result = content;
    }
    const uint64_t size = TarDataSize(item);
    stream_.AppendZeros(TarPadding(size));
    counts_.bytes += size;
    progress_.Add(size, 1);
    struct stat after {};
    if (::fstat(fd, &after) != 0 || !SameState(before, after)) {
        if (result == Content::Same) result = Content::Changed;
    }
    return result;
}

TreeSaver::Content TreeSaver::CopyRange(int fd, const std::string& path, const Extent& range) {
    uint64_t done = 0;
    while (done < range.size) {
        const std::span<char> room = stream_.Room();
        const auto wanted =
            static_cast<std::size_t>(std::min<uint64_t>(room.size(), range.size - done));
        const ssize_t n = ::pread(fd, room.data(), wanted, static_cast<off_t>(range.offset + done));
        if (n < 0 && errno == EINTR) continue;
        if (n > 0) {
            stream_.Advance(static_cast<std::size_t>(n));
            done += static_cast<uint64_t>(n);
            if (done < range.size) progress_.Add(static_cast<uint64_t>(n), 0);
            continue;
        }
        if (n < 0) {
            read_error_ = std::string("read: ") + ::strerror(errno);
            logger.Write(4, "Fail to read '%s': %s", path, read_error_);
        }
        stream_.AppendZeros(range.size - done);
        return n < 0 ? Content::Broken : Content::Changed;
    }
    return Content::Same;
}

// ---- Entries ------------------------------------------------------------------------------------

// What the tar header needs. Nothing when the object's attributes cannot be read or do not fit:
// it is reported then.
std::optional<TarItem> TreeSaver::Describe(const Entry& entry, int fd, bool readable) {
    TarItem item;
    item.type = TarTypeOf(entry.type);
    item.name = entry.name;
    item.target = entry.target;
    item.mode = entry.mode;
    item.uid = entry.uid;
    item.gid = entry.gid;
    item.size = entry.size;
    item.mtime = entry.mtime;
    try {
        item.records = ReadAttributes(fd, readable ? FdKind::Readable : FdKind::PathOnly);
    } catch (const vel_err::Error& error) {
        Report(entry.name, "its extended attributes: " + error.value());
        if (changed_copy_) {
            SettleForCopy(entry.name);
            return std::nullopt;
        }
        Entry failed = entry;
        failed.flags = "u";
        stream_.ListEntry(std::move(failed));
        return std::nullopt;
    }
    return item;
}

bool TreeSaver::KeepUnchanged(Entry& entry) {
    if (base_ == nullptr || !base_->TakeUnchanged(entry)) return false;
    ++counts_.entries;
    stream_.ListEntry(std::move(entry));
    return true;
}

void TreeSaver::FinishEntry(Entry entry) {
    if (entry.name.size() >= PATH_MAX && !std::exchange(long_name_reported_, true))
        Report(entry.name,
               "this name, and what else is longer than 4095 bytes, cannot be restored");
    ++counts_.entries;
    ++counts_.stored;
    stream_.EndEntry(std::move(entry));
}

// ---- Reports ------------------------------------------------------------------------------------

void TreeSaver::Report(const std::string& path, const std::string& reason) {
    ++counts_.reported;
    std::fprintf(stderr, "%s\t%s\n", backup2::EncodeFileName(path).c_str(),
                 backup2::EncodeFileName(reason).c_str());
}

// The object is not stored: a line for the caller and a flagged one in the listing, with what can
// be learned without opening it.
void TreeSaver::ReportEntry(const Found& found, char flag, const std::string& reason) {
    Report(found.path, reason);
    struct stat st {};
    // A name of several components might lead through a link.
    const bool there = found.name.find('/') == std::string::npos &&
                       ::fstatat(found.dir, found.name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0;
    const unsigned char type = there ? DirentType(st.st_mode) : found.type;
    Entry entry = MakeEntry('f', found.path, st);
    if (type == DT_DIR) entry.type = 'd';
    if (type == DT_LNK) entry.type = 'l';
    if (type == DT_FIFO) entry.type = 'p';
    if (type != DT_REG) entry.size = 0;
    entry.flags = flag;
    if (base_ != nullptr && flag != 'v') {
        Entry seen = entry;
        base_->TakeUnchanged(seen);  // it is still there, so it is no deletion
    }
    stream_.ListEntry(std::move(entry));
}

void TreeSaver::ReportRefused(const Found& found, const struct stat& st, int error) {
    if (error != 0) return ReportOpenFailure(found, error);
    if (!S_ISREG(st.st_mode)) return ReportEntry(found, 'v', "it was replaced while it was read");
    ReportEntry(found, 'n', "it has other names and belongs to somebody else");
}

void TreeSaver::ReportOpenFailure(const Found& found, int error) {
    switch (error) {
        case ENOENT:
            return ReportEntry(found, 'v', "it does not exist (any more)");
        case ELOOP:
            return ReportEntry(found, 'u', "a link stands in the way and is not followed");
        case ENOTDIR:
            return ReportEntry(found, 'v', "it was replaced while it was read");
        case EXDEV:
            return ReportEntry(found, 'u', "it is on another file system or outside the root");
        default:
            return ReportEntry(found, 'u', ::strerror(error));
    }
}

}  // namespace qortar
