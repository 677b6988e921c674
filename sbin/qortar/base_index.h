/// The base listing of an incremental archive, kept small: 40 bytes for an entry.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "sbin/qortar/listing.h"

namespace qortar {

/// What is known of an entry's last stored state. Names and states are kept as hashes under a
/// secret of this run, so nobody can prepare files that are taken for each other.
class BaseIndex {
public:
    /// Reads the listing. Throws as ReadListing does, and vel_err::Error("listing", "incremental",
    /// path) for a listing that has a base itself.
    explicit BaseIndex(const std::string& path);

    /// Marks the name as still there. When the entry is unchanged since the base, which stored it
    /// whole, fills in its place and flags and returns true.
    bool TakeUnchanged(Entry& entry);
    /// Calls `each` for the base's entries that were never asked for.
    void ForEachUnseen(const std::function<void(const Entry&)>& each) const;

private:
    struct Record {
        uint64_t name, state;
        uint64_t member : 48, flags : 16;
        uint32_t slice, offset;
        uint64_t number;  // of the entry in the listing
    };
    static_assert(sizeof(Record) == 40);

    uint64_t NameHash(const std::string& name) const;
    uint64_t StateHash(const Entry& entry) const;
    const Record* Find(uint64_t name_hash) const;

    std::string path_;
    uint64_t secret_;
    std::vector<Record> records_;  // by name hash
};

}  // namespace qortar
