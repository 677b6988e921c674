/// Who is logged in at the page. Apart from the sessions of the panel's protocol: an id that
/// travels in the address of a download must never open the page. In memory only; safe to use from
/// several threads.
#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <string>

#include "panel/store.h"

namespace panel {

class WebSessions {
public:
    /// A new session's id for the cookie (64 hex digits). Throws vel_err::Error("auth", "limit")
    /// when too many are open. Of one user's fifty the one that was used longest ago ends.
    std::string Open(const User& user);
    /// The session's user, "" for an unknown id and for one that was not used for half an hour or
    /// is twelve hours old.
    std::string User(const std::string& id);
    /// False when the user's password is another one than at the log-in: the session is over then.
    bool StillHis(const std::string& id, const panel::User& user);
    void Close(const std::string& id);

    /// What every request that changes something must carry in a header: a page of another origin
    /// sends the cookie at best, and cannot read this.
    static std::string CsrfToken(const std::string& id);

private:
    using Clock = std::chrono::steady_clock;
    struct Entry {
        std::string user, password_hash;
        Clock::time_point opened, used;
    };
    static bool Over(const Entry& entry);
    void DropOldestOf(const std::string& user);

    std::mutex mutex_;
    std::map<std::string, Entry> entries_;  // by the digest of the id
};

}  // namespace panel
