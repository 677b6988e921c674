/// Collects every log event, of all levels, while the object lives.
#pragma once

#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "vel/vel_log.h"

class LogCapture {
public:
    struct Event {
        int level;
        std::string module, text;
    };

    LogCapture()
        : before_(
              vel_log::SetSink([this](int level, std::string_view module, std::string_view text) {
                  const std::lock_guard lock(mutex_);
                  events_.push_back({level, std::string(module), std::string(text)});
              })) {}
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    ~LogCapture() { vel_log::SetSink(std::move(before_)); }

    std::vector<Event> Events() const {
        const std::lock_guard lock(mutex_);
        return events_;
    }
    /// Whether an event of this level has exactly this text.
    bool Has(int level, std::string_view text) const {
        for (const Event& event : Events()) {
            if (event.level == level && event.text == text) return true;
        }
        return false;
    }
    /// Whether any event, of whatever level, contains the text.
    bool Mentions(std::string_view text) const {
        for (const Event& event : Events()) {
            if (event.text.find(text) != std::string::npos) return true;
        }
        return false;
    }

private:
    mutable std::mutex mutex_;
    std::vector<Event> events_;
    vel_log::Sink before_;  // last: events come as soon as it is set
};
