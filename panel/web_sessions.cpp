#include "panel/web_sessions.h"

#include "vel/str.h"
#include "vel/vel_err.h"
#include "vel/vel_hash.h"

namespace panel {
namespace {

constexpr std::chrono::minutes kIdle{30};
constexpr std::chrono::hours kLongest{12};
constexpr std::size_t kMaxEntries = 10000;
constexpr std::ptrdiff_t kMostOfUser = 50;
constexpr std::size_t kIdBytes = 32;

std::string Digest(const std::string& text) {
    return vel_hash::Digest(vel_hash::HashType::Sha256, text);
}

}  // namespace

bool WebSessions::Over(const Entry& entry) {
    const auto now = Clock::now();
    return entry.used + kIdle <= now || entry.opened + kLongest <= now;
}

/// Nobody's log-ins take the room of others.
void WebSessions::DropOldestOf(const std::string& user) {
    auto oldest = entries_.end();
    std::ptrdiff_t count = 0;
    for (auto at = entries_.begin(); at != entries_.end(); ++at) {
        if (at->second.user != user) continue;
        ++count;
        if (oldest == entries_.end() || at->second.used < oldest->second.used) oldest = at;
    }
    if (count >= kMostOfUser) entries_.erase(oldest);
}

std::string WebSessions::Open(const panel::User& user) {
    const std::string id = str::hex::Encode(str::Random(kIdBytes));
    const std::lock_guard lock(mutex_);
    std::erase_if(entries_, [](const auto& item) { return Over(item.second); });
    DropOldestOf(user.name);
    if (entries_.size() >= kMaxEntries) throw vel_err::Error("auth", "limit");
    entries_[Digest(id)] = {user.name, user.password_hash, Clock::now(), Clock::now()};
    return id;
}

std::string WebSessions::User(const std::string& id) {
    const std::lock_guard lock(mutex_);
    const auto found = entries_.find(Digest(id));
    if (found == entries_.end() || Over(found->second)) return "";
    found->second.used = Clock::now();
    return found->second.user;
}

bool WebSessions::StillHis(const std::string& id, const panel::User& user) {
    const std::lock_guard lock(mutex_);
    const auto found = entries_.find(Digest(id));
    if (found == entries_.end() || found->second.user != user.name) return false;
    if (found->second.password_hash == user.password_hash) return true;
    entries_.erase(found);
    return false;
}

void WebSessions::Close(const std::string& id) {
    const std::lock_guard lock(mutex_);
    entries_.erase(Digest(id));
}

std::string WebSessions::CsrfToken(const std::string& id) {
    return str::hex::Encode(Digest("csrf " + id));
}

}  // namespace panel
