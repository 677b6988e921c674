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
    return vel_hash::Digest(vel_hash::HashType::Sha256, secret);
}

/// What a user was when his session was opened; a later one of the same name is somebody else.
std::string Mark(const User& user) { return std::to_string(user.uid) + " " + user.password_hash; }

std::optional<User> StillThere(Store& store, const std::string& name, const std::string& mark) {
    auto user = store.FindUser(name);
    if (user && Mark(*user) != mark) user.reset();
    return user;
}

}  // namespace

void Sessions::Add(Entries& entries, const std::string& secret, Entry entry) {
    const auto now = Clock::now();
    std::erase_if(entries, [now](const auto& item) { return item.second.expires <= now; });
    if (entries.size() >= kMaxEntries) throw vel_err::Error("auth", "limit");
    entries[Digest(secret)] = std::move(entry);
}

std::string Sessions::Open(const User& user) {
    const std::string id = str::hex::Encode(str::Random(16));
    const std::lock_guard lock(mutex_);
    Add(sessions_, id, {user.name, Mark(user), "", Clock::now() + kSessionLife});
    return id;
}

std::optional<User> Sessions::Holder(const std::string& id, Store& store) {
    Entry entry;
    {
        const std::lock_guard lock(mutex_);
        const auto found = sessions_.find(Digest(id));
        if (found == sessions_.end() || found->second.expires <= Clock::now()) return {};
        found->second.expires = Clock::now() + kSessionLife;
        entry = found->second;
    }
    return StillThere(store, entry.user, entry.mark);
}

std::optional<User> Sessions::Take(const std::string& id, Store& store) {
    Entry entry;
    {
        const std::lock_guard lock(mutex_);
        const auto found = sessions_.find(Digest(id));
        if (found == sessions_.end()) return {};
        entry = std::move(found->second);
        sessions_.erase(found);
    }
    if (entry.expires <= Clock::now()) return {};
    return StillThere(store, entry.user, entry.mark);
}

void Sessions::AddKey(const std::string& key, const std::string& user, const std::string& issuer) {
    if (key.size() < kMinKeyLength) throw vel_err::Error("value", "key");
    const std::lock_guard lock(mutex_);
    Add(keys_, key, {user, "", Digest(issuer), Clock::now() + kKeyLife});
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

// ---- Tries --------------------------------------------------------------------------------------

Sessions::Tries& Sessions::RecentTries(const std::string& who) {
    Tries& tries = tries_[who];
    while (!tries.failed.empty() && tries.failed.front() + kTryWindow <= Clock::now())
        tries.failed.pop_front();
    return tries;
}

/// Over a flood the oldest are forgotten: nobody is kept out because others guess.
void Sessions::DropOldTries() {
    const auto now = Clock::now();
    std::erase_if(tries_, [now](const auto& item) {
        const Tries& tries = item.second;
        return tries.undecided == 0 &&
               (tries.failed.empty() || tries.failed.back() + kTryWindow <= now);
    });
    while (tries_.size() > kMaxEntries) {
        auto oldest = tries_.end();
        for (auto at = tries_.begin(); at != tries_.end(); ++at) {
            if (at->second.undecided > 0) continue;
            const bool older =
                oldest == tries_.end() || at->second.failed.back() < oldest->second.failed.back();
            if (older) oldest = at;
        }
        if (oldest == tries_.end()) return;
        tries_.erase(oldest);
    }
}

Sessions::Try::Try(Sessions& sessions, const std::string& user, const std::string& address)
    : sessions_(sessions),
      here_(Digest("here\n" + address + "\n" + user)),
      anywhere_(Digest("anywhere\n" + user)) {
    std::unique_lock lock(sessions_.mutex_);
    for (;;) {
        Tries& here = sessions_.RecentTries(here_);
        Tries& anywhere = sessions_.RecentTries(anywhere_);
        const std::size_t left_here = kTriesPerAddress - here.failed.size();
        const std::size_t left_anywhere = kTriesPerName - anywhere.failed.size();
        if (left_here == 0 || left_anywhere == 0) throw vel_err::Error("auth", "tries");
        if (here.undecided < left_here && anywhere.undecided < left_anywhere) break;
        sessions_.decided_.wait(lock);
    }
    ++sessions_.tries_[here_].undecided;
    ++sessions_.tries_[anywhere_].undecided;
}

Sessions::Try::~Try() {
    const std::lock_guard lock(sessions_.mutex_);
    for (const std::string& who : {here_, anywhere_}) {
        Tries& tries = sessions_.tries_[who];
        --tries.undecided;
        if (failed_) tries.failed.push_back(Clock::now());
    }
    if (sessions_.tries_.size() > kMaxEntries) sessions_.DropOldTries();
    sessions_.decided_.notify_all();
}

}  // namespace panel
