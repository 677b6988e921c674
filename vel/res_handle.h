/// A file descriptor with shared ownership.
#pragma once

#include <memory>

namespace vel_file {

/// Copies share one descriptor; the last one, or the first Close, closes it.
class ResHandle {
public:
    ResHandle() = default;          ///< no descriptor: converts to -1
    explicit ResHandle(int fd);     ///< takes ownership; a negative number is none
    operator int() const noexcept;  // NOLINT: used wherever a descriptor is
    bool operator==(int fd) const noexcept { return int(*this) == fd; }
    explicit operator bool() const noexcept { return int(*this) >= 0; }
    /// Closes for every copy. A failing close is not reported: who needs to know calls fsync first.
    void Close() noexcept;
    /// Gives the descriptor up: nobody closes it any more.
    int Release() noexcept;

private:
    struct Owner;
    std::shared_ptr<Owner> owner_;
};

}  // namespace vel_file
