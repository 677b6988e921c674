/// Puts a tree's entries into the tar stream and the listing.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "vel/res_handle.h"
#include "vel/vel_tool.h"

#include "sbin/qortar/archive_stream.h"
#include "sbin/qortar/base_index.h"
#include "sbin/qortar/options.h"
#include "sbin/qortar/tar_header.h"
#include "sbin/qortar/tree_walker.h"

namespace qortar {

struct SaveCounts {
    uint64_t entries = 0;   ///< stored or kept from the base
    uint64_t stored = 0;    ///< of these, stored
    uint64_t reported = 0;  ///< unreadable, vanished, changed, somebody else's
    uint64_t removed = 0;   ///< in the base, gone now
    uint64_t bytes = 0;     ///< of file content read
};

/// The names of inodes that have more names than were met so far. What it holds is bounded: names
/// that do not fit any more are stored as files of their own.
class LinkMap {
public:
    /// The first name of this inode, or nullptr when it was not met yet.
    const std::string* FirstName(const struct stat& st);
    /// Remembers the first name. Returns false when there is no room.
    bool Remember(const struct stat& st, const std::string& name);

private:
    struct Known {
        std::string name;
        uint64_t missing;  // names not met yet
    };
    std::map<std::pair<dev_t, ino_t>, Known> known_;
    std::string last_;  // the name whose inode is complete by the call that returns it
    std::size_t bytes_ = 0;
};

class TreeSaver final : public TreeVisitor {
public:
    /// `base` may be null. All must outlive the object.
    TreeSaver(const Options& options, ArchiveStream& stream, BaseIndex* base);

    /// Saves `folder` (relative to the root, "." for the root itself) and what is below it; the
    /// folders above it are saved without their content.
    void SaveFolder(const std::string& folder);
    /// Lists what the base has and the tree has not.
    void ListRemoved();
    const SaveCounts& Counts() const { return counts_; }

    vel_file::ResHandle Visit(const Found& found) override;
    void Lost(const std::string& path, int error) override;

private:
    /// How reading a file's content ended.
    enum class Content { Same, Changed, Broken };

    bool Excluded(const std::string& path) const;
    bool OwnOutput(const std::string& path) const;
    bool Hooked(const std::string& path) const;
    unsigned char TypeOf(const Found& found);

    vel_file::ResHandle SaveDirectory(const Found& found);
    void SaveParents(const std::string& folder);
    void SaveSpecial(const Found& found, char type);
    void SaveFile(const Found& found);
    void SaveHookedFile(const Found& found);
    bool KeepFile(const Found& found);
    void StoreFile(const Found& found);
    bool TryStoreFile(const Found& found, int attempt);
    void SettleForCopy(const std::string& path);
    void StoreLink(const std::string& path, const struct stat& st, const std::string& first);
    void RememberLink(const std::string& path, const struct stat& st);
    void AddUnlisted(const std::string& path);
    bool SomebodyElses(const struct stat& st) const;

    Content CopyContent(int fd, const std::string& path, const TarItem& item,
                        const struct stat& before);
    Content CopyRange(int fd, const std::string& path, const Extent& range);
    std::optional<TarItem> Describe(const Entry& entry, int fd, bool readable);
    void FinishEntry(Entry entry);
    bool KeepUnchanged(Entry& entry);

    void Report(const std::string& path, const std::string& reason);
    void ReportEntry(const Found& found, char flag, const std::string& reason);
    void ReportRefused(const Found& found, const struct stat& st, int error);
    void ReportOpenFailure(const Found& found, int error);

    const Options& options_;
    ArchiveStream& stream_;
    BaseIndex* base_;
    vel_file::ResHandle root_;
    dev_t root_dev_ = 0;
    std::optional<uid_t> user_;
    std::string own_output_;  // the archive's name below the root, "" when it lies elsewhere
    std::string hook_dir_;
    LinkMap links_;
    bool links_full_reported_ = false, long_name_reported_ = false;
    std::set<std::string> parents_;      // saved as such
    std::vector<std::string> unlisted_;  // folders whose content is not known now
    std::size_t unlisted_bytes_ = 0;
    std::string read_error_;             // of the file that is being read
    std::optional<Entry> changed_copy_;  // of it, which the stream cannot take back any more
    SaveCounts counts_;
    vel_tool::Progress progress_;
};

}  // namespace qortar
