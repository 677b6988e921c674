#include "panel/sessions.h"

#include <algorithm>
#include <utility>

#include "vel/str.h"
#include "vel/vel_err.h"
#include "vel/vel_hash.h"

namespace panel {
namespace {

using std::chrono::minutes;

constexpr minutes kSessionLife{60};
constexpr minutes kKeyLife{5};
constexpr minutes kTryWindow{5};
constexpr std::size_t kMaxEntries = 10000;
constexpr std::size_t kTriesPerAddress = 5;
constexpr std::size_t kTriesPerName = 50;
constexpr std::size_t kMinKeyLength = 16;

/// Secrets are looked up by their digest: a comparison's time then tells nothing about them.
std::string Digest(const std::string& secret) {
    vel_hash::Hash hash(vel_hash::HashType::Sha256);
    hash.Update(secret);
    return hash.Str();
}

}  // namespace

void Sessions::Add(Entries& entries, const std::string& secret, Entry entry) {
    const auto now = Clock::now();
    std::erase_if(entries, [now](const auto& item) { return item.second.expires <= now; });
    if (entries.size() >= kMaxEntries) throw vel_err::Error("auth", "limit");
    entries[Digest(secret)] = std::move(entry);
}

std::string Sessions::Open(const std::string& user) {
    const std::string id = str::hex::Encode(str::Random(16));
    const std::lock_guard lock(mutex_);
    Add(sessions_, id, {user, "", Clock::now() + kSessionLife});
    return id;
}

std::string Sessions::User(const std::string& id) {
    const std::lock_guard lock(mutex_);
    const auto found = sessions_.find(Digest(id));
    if (found == sessions_.end() || found->second.expires <= Clock::now()) return "";
    found->second.expires = Clock::now() + kSessionLife;
    return found->second.user;
}

std::string Sessions::Take(const std::string& id) {
    const std::lock_guard lock(mutex_);
    const auto found = sessions_.find(Digest(id));
    if (found == sessions_.end()) return "";
    const Entry entry = std::move(found->second);
    sessions_.erase(found);
    return entry.expires > Clock::now() ? entry.user : "";
}

void Sessions::AddKey(const std::string& key, const std::string& user, const std::string& issuer) {
    if (key.size() < kMinKeyLength) throw vel_err::Error("value", "key");
    const std::lock_guard lock(mutex_);
    Add(keys_, key, {user, Digest(issuer), Clock::now() + kKeyLife});
}

bool Sessions::TakeKey(const std::string& key, const std::string& user, const std::string& issuer) {
    const std::lock_guard lock(mutex_);
    const auto found = keys_.find(Digest(key));
    if (found == keys_.end()) return false;
    const Entry entry = std::move(found->second);
    keys_.erase(found);
    return entry.user == user && (issuer.empty() || entry.issuer == Digest(issuer)) &&
           entry.expires > Clock::now();
}

std::size_t Sessions::RecentTries(const std::string& who) {
    const auto found = tries_.find(who);
    if (found == tries_.end()) return 0;
    auto& times = found->second;
    while (!times.empty() && times.front() + kTryWindow <= Clock::now()) times.pop_front();
    const std::size_t count = times.size();
    if (count == 0) tries_.erase(found);
    return count;
}

void Sessions::CheckTries(const std::string& user, const std::string& address) {
    const std::lock_guard lock(mutex_);
    if (tries_.size() >= kMaxEntries) {
        const auto now = Clock::now();
        std::erase_if(tries_, [now](const auto& t) { return t.second.back() + kTryWindow <= now; });
    }
    // A table full of live entries is a flood: nobody may try then, so that it stays bounded.
    if (tries_.size() >= kMaxEntries || RecentTries(user + "\n" + address) >= kTriesPerAddress ||
        RecentTries(user) >= kTriesPerName)
        throw vel_err::Error("auth", "tries");
}

void Sessions::Failed(const std::string& user, const std::string& address) {
    const std::lock_guard lock(mutex_);
    for (const std::string& who : {user + "\n" + address, user})
        tries_[who].push_back(Clock::now());
}

}  // namespace panel
