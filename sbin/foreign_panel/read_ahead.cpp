#include "sbin/foreign_panel/read_ahead.h"

#include <utility>

namespace foreign_panel {
namespace {

constexpr std::size_t kBlock = 512 << 10, kAhead = 4;

}  // namespace

ReadAhead::ReadAhead(Source source) : source_(std::move(source)), free_(kAhead) {
    thread_ = std::thread([this] { Work(); });
}

ReadAhead::~ReadAhead() {
    {
        const std::lock_guard lock(mutex_);
        stop_ = true;
    }
    changed_.notify_all();
    thread_.join();
}

std::string_view ReadAhead::Next() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return !ready_.empty() || ended_; });
    if (ready_.empty()) {
        if (failure_) std::rethrow_exception(failure_);
        return {};
    }
    // A block that was given away is not taken back before the next call: somebody may look at it.
    if (current_.capacity() > 0) free_.push_back(std::move(current_));
    current_ = std::move(ready_.front());
    ready_.pop_front();
    changed_.notify_all();
    return current_;
}

bool ReadAhead::Fill(std::string& block) {
    block.resize(kBlock);
    std::size_t size = 0;
    while (size < kBlock) {
        const std::size_t got = source_(block.data() + size, kBlock - size);
        if (got == 0) break;
        size += got;
    }
    block.resize(size);
    return size > 0;
}

void ReadAhead::Work() {
    std::unique_lock lock(mutex_);
    while (!stop_ && !ended_) {
        changed_.wait(lock, [&] { return stop_ || !free_.empty(); });
        if (stop_) return;
        std::string block = std::move(free_.front());
        free_.pop_front();
        lock.unlock();
        std::exception_ptr failure;
        bool more = false;
        try {
            more = Fill(block);
        } catch (...) {
            failure = std::current_exception();
        }
        lock.lock();
        if (more) ready_.push_back(std::move(block));
        failure_ = failure;
        ended_ = !more;
        changed_.notify_all();
    }
}

}  // namespace foreign_panel
