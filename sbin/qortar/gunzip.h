/// Reads the plain bytes of an archive, gzip member by gzip member, over the slices' borders.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "sbin/qortar/slices.h"

namespace qortar {

/// Where a gzip member begins.
struct Place {
    uint32_t slice = 0;
    uint64_t member = 0;
    auto operator<=>(const Place&) const = default;
};

/// Plain bytes of one member: all of it, or a piece when it is longer than the buffer.
struct Block {
    static constexpr std::size_t kCapacity = (1 << 20) + (64 << 10);
    std::unique_ptr<unsigned char[]> bytes{new unsigned char[kCapacity]};
    std::size_t size = 0;
    Place place;
    std::size_t in_member = 0;  ///< where in the member's plain bytes the block begins
};

/// Not for several threads at once. Holds one slice at most, none before the first Read.
class Gunzip {
public:
    /// Starts with the member at `start`.
    Gunzip(Slices& slices, Place start);
    ~Gunzip();
    /// The next block, never empty; false when the last slice that lies there ended between two
    /// members. With a fetch command a missing slice is always asked for.
    /// Throws vel_err::Error("archive", "damaged", "<slice>: gzip member at N: <why>") for wrong
    /// bytes, a wrong checksum or a cut slice, and what Slices::Open throws.
    bool Read(Block& block);
    /// Asks for no slice that does not lie there: what is behind the end of the tar stream.
    void StayLocal();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace qortar
