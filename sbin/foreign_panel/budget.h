/// What one conversion may use: entries, bytes and growth are counted over all archives within the
/// archive, so that nothing small can become endless.
#pragma once

#include <cstdint>
#include <stdexcept>

namespace foreign_panel {

/// What concerns one entry of an archive only: the conversion goes on without it.
struct EntryError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct Limits {
    uint64_t entries = 5'000'000;
    uint64_t bytes = UINT64_MAX;  ///< of unpacked content, and of any one file
    uint64_t ratio = 200;         ///< unpacked bytes for one packed byte, from the first GiB on
};

/// All functions throw std::runtime_error "the archive ..." when a limit is passed, and
/// "ended by a signal" after SIGINT or SIGTERM (see RunConverter).
class Budget {
public:
    explicit Budget(const Limits& limits) : limits_(limits) {}
    void CountEntry();
    void CountBytes(uint64_t bytes);
    /// Before a file is made: a size that alone is too much is refused without reading it.
    void CheckSize(uint64_t size) const;
    /// Of one archive: bytes taken from it and bytes that its compression gave for them.
    void CheckGrowth(uint64_t packed, uint64_t unpacked) const;
    uint64_t Bytes() const { return bytes_; }
    uint64_t Entries() const { return entries_; }

private:
    Limits limits_;
    uint64_t entries_ = 0, bytes_ = 0;
};

/// Makes SIGINT and SIGTERM end the conversion in an orderly way: what was written is removed.
void CatchSignals();

}  // namespace foreign_panel
