/// The slices of one archive as files: those that lie there and those that a command brings.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "vel/res_handle.h"

namespace qortar {

/// An open slice. While an object lives, a fetched file stays on the disk.
struct Slice {
    std::string path;
    uint64_t size = 0;
    vel_file::ResHandle fd;
    std::shared_ptr<void> in_use;  // tells the fetcher when it is let go
};

/// Safe to use from several threads, each of which holds at most one slice at a time and lets go of
/// it before it asks for the next one (so that nobody waits for room that a waiting thread holds).
class Slices {
public:
    /// `archive` is the name without ".partK". `fetch` is a shell command that brings a missing
    /// slice to its place (%p its folder and %f its name, both quoted, %c "fetch", %% "%"), or "".
    Slices(std::string archive, std::string fetch);
    ~Slices();  ///< ends the fetching and removes what was fetched
    Slices(const Slices&) = delete;
    Slices& operator=(const Slices&) = delete;

    /// The numbers that will be asked for: the next one is fetched while one is in use. A number
    /// above 1 says that the archive consists of parts.
    void Expect(std::vector<uint32_t> numbers);
    /// Numbers from 1. Throws vel_err::Error("archive", "slice_missing" | "fetch_failed" |
    /// "open_failed", "<path>: <why>").
    Slice Open(uint32_t number);
    /// True when the slice lies there, or could be fetched.
    bool MayExist(uint32_t number) const;
    /// Where the slice is looked for.
    std::string Path(uint32_t number) const;

private:
    struct Impl;
    std::shared_ptr<Impl> impl_;
};

}  // namespace qortar
