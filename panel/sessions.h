/// Who is logged in: sessions, one-time keys and the count of failed tries. All in memory; a
/// restarted panel has forgotten them. Safe to use from several threads.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "panel/store.h"

namespace panel {

class Sessions {
public:
    using Clock = std::chrono::steady_clock;

    /// A new session's id (32 hex digits). Throws vel_err::Error("auth", "limit") when too many
    /// are open.
    std::string Open(const User& user);
    /// Whose session it is. Nothing for an unknown or expired id, and when the user has gone, or
    /// has another number or password than at its opening. Using it keeps it alive.
    std::optional<User> Holder(const std::string& id, Store& store);
    /// As Holder, and ends the session: it has served its one request.
    std::optional<User> Take(const std::string& id, Store& store);

    /// Lets `user` log in once with `key` within five minutes. `issuer`: the session that asks.
    /// Throws vel_err::Error("value", "key") for one that could be guessed.
    void AddKey(const std::string& key, const std::string& user, const std::string& issuer);
    /// True once for a key, its user and (when given) its issuer. The key is gone in any case.
    bool TakeKey(const std::string& key, const std::string& user, const std::string& issuer);

    /// One try to log in, made before the password is looked at: many at once are not more than
    /// one after the other.
    class Try {
    public:
        /// Throws vel_err::Error("auth", "tries") after five failures of this name from this
        /// address, or fifty of this name from anywhere, within five minutes. Waits while that
        /// depends on tries that are not decided yet.
        Try(Sessions& sessions, const std::string& user, const std::string& address);
        ~Try();
        Try(const Try&) = delete;
        Try& operator=(const Try&) = delete;
        void Failed() { failed_ = true; }

    private:
        Sessions& sessions_;
        const std::string here_, anywhere_;
        bool failed_ = false;
    };

private:
    struct Entry {
        std::string user, mark, issuer;
        Clock::time_point expires;
    };
    using Entries = std::map<std::string, Entry>;  // by the digest of the secret
    struct Tries {
        std::deque<Clock::time_point> failed;
        std::size_t undecided = 0;
    };

    void Add(Entries& entries, const std::string& secret, Entry entry);
    Tries& RecentTries(const std::string& who);
    void DropOldTries();

    std::mutex mutex_;
    Entries sessions_, keys_;
    std::condition_variable decided_;
    std::map<std::string, Tries> tries_;  // by the digest of whose and whence
};

}  // namespace panel
