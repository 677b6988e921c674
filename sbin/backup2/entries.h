/// What the listing of a backup says about its entries.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace backup2_admin {

/// One line of a listing (docs/formats.md), as far as people want to see it.
struct ListedEntry {
    char type = 'f';  ///< f file, d folder, l symbolic link, h hard link, p FIFO
    uint64_t size = 0;
    int64_t mtime = 0;  ///< seconds since the epoch
    std::string flags, name, target;

    bool Has(char flag) const { return flags.find(flag) != std::string::npos; }
    bool Gone() const { return Has('D'); }  ///< it was in the base only
    /// Why the backup does not hold it as it stood, else "".
    std::string Flaw() const;
};

/// Calls `each` for every entry of the local listing `index`, in its order. Throws
/// std::runtime_error for a listing that is broken or cut; `each` has seen a part of it then.
void EachListedEntry(const std::string& index, const std::function<void(const ListedEntry&)>& each);

struct FlaggedEntry {
    std::string name, why;
};

/// Entries that were not saved as they stood: changed while they were read, unreadable, vanished,
/// somebody else's. `index` is a local listing.
std::vector<FlaggedEntry> FlaggedEntries(const std::string& index);
/// The names directly below the root, without ".system".
std::vector<std::string> TopNames(const std::string& index);

}  // namespace backup2_admin
