/// An archive's tar entries from a given place on.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>

#include "sbin/qortar/gunzip.h"
#include "sbin/qortar/tar_stream.h"

namespace qortar {

/// Gives blocks of plain bytes in order: true and a block, or false at the end.
using BlockSource = std::function<bool(Block& block)>;

/// A tar stream over blocks that knows where each header stands. Belongs to one thread.
class EntryReader {
public:
    /// Begins `offset` bytes into the first block's member.
    EntryReader(BlockSource source, uint32_t offset);
    TarStream& Tar() { return tar_; }
    /// Place and offset in its member of the current entry's header.
    Place HeaderPlace(uint32_t& offset) const;
    /// True when the stream asked for more than there was: it has no end mark.
    bool RanDry() const { return ran_dry_; }

private:
    struct Begin {
        uint64_t position;  // in the stream
        Place place;
        std::size_t in_member;
    };
    std::string_view Feed();
    BlockSource source_;
    uint32_t skip_;
    Block block_;
    uint64_t position_ = 0;  // of the next block in the stream
    mutable std::deque<Begin> begins_;
    bool ran_dry_ = false;
    TarStream tar_;
};

}  // namespace qortar
