/// Who is logged in: sessions, one-time keys and the count of failed tries. All in memory; a
/// restarted panel has forgotten them. Safe to use from several threads.
#pragma once

#include <chrono>
#include <deque>
#include <map>
#include <mutex>
#include <string>

namespace panel {

class Sessions {
public:
    using Clock = std::chrono::steady_clock;

    /// A new session's id (32 hex digits). Throws vel_err::Error("auth", "limit") when too many
    /// are open.
    std::string Open(const std::string& user);
    /// The session's user, "" for an unknown or expired id. Using it keeps it alive.
    std::string User(const std::string& id);
    /// As User, and ends the session: it has served its one request.
    std::string Take(const std::string& id);

    /// Lets `user` log in once with `key` within five minutes. `issuer`: the session that asks.
    /// Throws vel_err::Error("value", "key") for one that could be guessed.
    void AddKey(const std::string& key, const std::string& user, const std::string& issuer);
    /// True once for a key, its user and (when given) its issuer. The key is gone in any case.
    bool TakeKey(const std::string& key, const std::string& user, const std::string& issuer);

    /// Throws vel_err::Error("auth", "tries") after five failures of this name from this address,
    /// or fifty of this name from anywhere, within five minutes.
    void CheckTries(const std::string& user, const std::string& address);
    void Failed(const std::string& user, const std::string& address);

private:
    struct Entry {
        std::string user, issuer;
        Clock::time_point expires;
    };
    using Entries = std::map<std::string, Entry>;  // by the digest of the secret

    void Add(Entries& entries, const std::string& secret, Entry entry);
    std::size_t RecentTries(const std::string& who);

    std::mutex mutex_;
    Entries sessions_, keys_;
    std::map<std::string, std::deque<Clock::time_point>> tries_;
};

}  // namespace panel
