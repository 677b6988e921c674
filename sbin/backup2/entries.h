/// What the listing of a backup says about its entries.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace backup2_admin {

struct FlaggedEntry {
    std::string name, why;
};

/// Entries that were not saved as they stood: changed while they were read, unreadable, vanished,
/// somebody else's. `index` is a local listing.
std::vector<FlaggedEntry> FlaggedEntries(const std::string& index);
/// The names directly below the root, without ".system".
std::vector<std::string> TopNames(const std::string& index);

}  // namespace backup2_admin
