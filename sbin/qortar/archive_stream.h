/// The tar stream on its way to disk: cut into blocks, compressed on all cores, written in order.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

#include "sbin/qortar/listing.h"
#include "sbin/qortar/slice_writer.h"

namespace qortar {

/// One thread fills blocks of 1 MiB; each becomes one gzip member. The other threads compress what
/// is waiting; when enough is waiting, or no block is free, the filling thread compresses too, so
/// that every core works whichever side is slower. Memory is bounded by the number of blocks.
///
/// All functions are for the filling thread alone, and throw what failed in any thread.
class ArchiveStream {
public:
    /// `jobs` threads in all, this one included. Both writers must outlive the stream, which is
    /// the only one to use them until Finish.
    ArchiveStream(SliceWriter& slices, ListingWriter& listing, unsigned jobs, int level);
    ~ArchiveStream();  ///< without Finish, what is under way is dropped
    ArchiveStream(const ArchiveStream&) = delete;
    ArchiveStream& operator=(const ArchiveStream&) = delete;

    std::span<char> Room();          ///< free bytes of the current block, at least one
    void Advance(std::size_t size);  ///< that many bytes of the room are filled
    void Append(std::string_view bytes);
    void AppendZeros(uint64_t count);

    void BeginEntry();  ///< the next byte is the first of an entry's header
    /// Takes back everything since BeginEntry. Returns false, and takes nothing back, when a part
    /// of it has gone on its way already.
    bool Rewind();
    /// The entry is complete; its place is filled in and it goes into the listing.
    void EndEntry(Entry entry);
    /// An entry for the listing that is not stored here: its place stays as it is.
    void ListEntry(Entry entry);

    void Finish();  ///< everything has been written and listed when this returns

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace qortar
