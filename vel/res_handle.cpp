#include "vel/res_handle.h"

#include <unistd.h>

#include <atomic>

namespace vel_file {

struct ResHandle::Owner {
    explicit Owner(int number) : fd(number) {}
    ~Owner() { Close(); }
    /// Not repeated after EINTR: Linux has let go of the descriptor by then.
    void Close() noexcept {
        const int old = fd.exchange(-1);
        if (old >= 0) ::close(old);
    }
    std::atomic<int> fd;
};

ResHandle::ResHandle(int fd) {
    if (fd < 0) return;
    try {
        owner_ = std::make_shared<Owner>(fd);
    } catch (...) {
        ::close(fd);
        throw;
    }
}

ResHandle::operator int() const noexcept { return owner_ ? owner_->fd.load() : -1; }

void ResHandle::Close() noexcept {
    if (owner_) owner_->Close();
}

int ResHandle::Release() noexcept { return owner_ ? owner_->fd.exchange(-1) : -1; }

}  // namespace vel_file
