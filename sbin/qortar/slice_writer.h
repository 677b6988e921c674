/// Cuts the archive's bytes into slices on disk and hands each finished one to a command.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace qortar {

/// A place in the archive.
struct SlicePlace {
    uint32_t slice = 0;   ///< from 1
    uint64_t offset = 0;  ///< in the slice
};

/// A slice is a locked temporary beside the archive until it is complete; then it gets its name
/// (ARCHIVE when it is the only one, else ARCHIVE.partK) and the command is run on a thread of its
/// own while the next slice grows. At most two slices are on disk when there is a command.
///
/// The pieces of an older archive of this name go when the first slice gets its name. One thread
/// at a time may call.
class SliceWriter {
public:
    /// `size` in bytes, 0 = one piece. Left-overs of dead runs of this archive are removed.
    /// Throws vel_err::Error("archive", "busy", archive) when a live process writes it.
    SliceWriter(const std::string& archive, uint64_t size, const std::string& command);
    /// Waits for a running command. Without Finish it removes the slices that are still there.
    ~SliceWriter();
    SliceWriter(const SliceWriter&) = delete;
    SliceWriter& operator=(const SliceWriter&) = delete;

    SlicePlace Next() const;  ///< where the next byte goes
    /// Throws vel_err::Error: "sys" when the disk refuses, "command" when a slice's command failed.
    void Write(const uint8_t* data, std::size_t size);
    /// Completes the last slice and waits for its command. Nothing may be written behind it.
    void Finish();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

/// Whether `name` (without folder) is a file that creating the archive `archive` makes: a piece or
/// a temporary of one.
bool IsPieceOf(const std::string& archive, const std::string& name);

}  // namespace qortar
