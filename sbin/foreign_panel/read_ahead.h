/// Takes bytes from a slow source in a thread of its own, a few blocks ahead of the reader.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <exception>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

namespace foreign_panel {

class ReadAhead {
public:
    /// Fills up to `room` bytes and says how many; 0 at the end. Runs in the other thread only.
    using Source = std::function<std::size_t(char* to, std::size_t room)>;
    explicit ReadAhead(Source source);
    ~ReadAhead();  ///< waits until the source returns
    ReadAhead(const ReadAhead&) = delete;
    ReadAhead& operator=(const ReadAhead&) = delete;
    /// The next bytes, valid until the next call; nothing at the end. Throws what the source threw,
    /// behind the bytes that came before.
    std::string_view Next();

private:
    void Work();
    bool Fill(std::string& block);

    Source source_;
    std::mutex mutex_;  // guards all but `current_` and what the source has
    std::condition_variable changed_;
    std::deque<std::string> ready_, free_;
    std::string current_;
    std::exception_ptr failure_;
    bool ended_ = false, stop_ = false;
    std::thread thread_;
};

}  // namespace foreign_panel
