/// Rewriting of info files: read, change, replace in one step, under a lock.
#pragma once

#include <map>
#include <string>

#include "vel/vel_file.h"

#include "sbin/backup2_cp/names.h"
#include "sbin/backup2_cp/sums.h"

namespace backup2_cp {

using InfoMap = std::map<std::string, std::string>;

/// One locked info file. Waits for other processes ("<info>.lock"); the lock file goes with the
/// object. Keys that this tool does not know stay as they are.
class InfoRecord {
public:
    /// Throws when the file is missing, unreadable or a link.
    explicit InfoRecord(const std::string& path);
    InfoRecord(const InfoRecord&) = delete;
    InfoRecord& operator=(const InfoRecord&) = delete;
    ~InfoRecord();
    InfoMap& Keys() { return keys_; }
    void Save();

private:
    void DropLock() noexcept;

    std::string path_;
    vel_file::Lock lock_;
    InfoMap keys_;
};

/// The text of an info file.
std::string InfoText(const InfoMap& keys);

/// Records an uploaded slice: "slice.K", and what follows from all slices: "size", "parts"; for the
/// last one also "last-slice" = `stored`.
void RecordSlice(const std::string& info, uint32_t number, const SliceSums& sums,
                 const std::string& stored, bool last);

/// Throws std::runtime_error unless all names in the info file are those of the backup `name`, and
/// numbers are sane. What it lets through may become a path.
void CheckInfo(const InfoMap& keys, const BackupName& name);
/// Throws unless the slices 1 to "parts" and "last-slice" are all recorded.
void CheckComplete(const InfoMap& keys);

std::string Value(const InfoMap& keys, const std::string& key);  ///< "" when absent

}  // namespace backup2_cp
