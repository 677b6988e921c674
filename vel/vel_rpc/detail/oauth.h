/// Requests in the name of a user of a provider, whose access tokens end.
#pragma once

#include <chrono>
#include <istream>
#include <map>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "vel/vel_err.h"
#include "vel/vel_rpc/detail/http.h"
#include "vel/vel_rpc/detail/json.h"
#include "vel/vel_rpc/detail/token_file.h"
#include "vel/vel_rpc/detail/transfer.h"

namespace vel_rpc::detail {

/// What an answer without success means.
enum class Trouble { Busy, Missing, NoRoom, Other };

/// A failure as the callers of clients see it, told apart by class within them.
struct Unauthorized : vel_err::Error {
    Unauthorized(const std::string& service, const std::string& why)
        : Error("unauthorized", service, why) {}
};
struct Missing : vel_err::Error {
    explicit Missing(const std::string& what) : Error("storage", "missed", what) {}
};
struct NoRoom : vel_err::Error {
    explicit NoRoom(const std::string& what) : Error("storage", "refused", what) {}
};

/// The pauses between attempts, or between questions whether something is done: 1, 2, 4 s and then
/// always 8 s (times BACKUP2_RETRY_MS/1000), or what the server asks for.
class Patience {
public:
    explicit Patience(uint64_t pauses = kRepetitions) : left_(pauses) {}
    /// Pauses; false at once when the patience has ended.
    bool Wait(const Response& last = {});

private:
    uint64_t left_;
    int waited_ = 0;
};

struct Provider {
    std::string service;  ///< for messages: "Dropbox"
    std::string scheme;   ///< the word before the token: "Bearer"
    /// The addresses ("https://name") that may see the access token; all others never do.
    std::vector<std::string> hosts;
    std::string token_url;                ///< where tokens are refreshed
    Trouble (*judge)(const Response&){};  ///< of an answer that is neither 2xx nor 3xx nor 401
};

/// What most providers mean by a status: 429 and 5xx Busy, 404 Missing, 507 NoRoom.
Trouble JudgeStatus(const Response& response);

/// One user's access to one provider. The access token is refreshed when it has run out or the
/// provider refuses it, once for each refusal.
///
/// Errors begin with `what` ("put /a/b") after the service's name and hold no token.
class Account {
public:
    Account(Provider provider, const std::string& credential);

    const std::string& Service() const { return provider_.service; }
    /// The address of one of the provider's, or the same path at the credential's "api".
    std::string Url(const std::string& url) const;

    /// One attempt. An answer of 2xx without a sink has its text in Response::body (at most 4 MiB,
    /// else it throws). Throws Unauthorized; a failure of the network is in the Outcome.
    Outcome Try(Request& request);
    /// The same without the token, for an address that needs none.
    Outcome TryUnnamed(Request& request) { return Perform(request); }
    /// Repeats while the provider is busy or does not answer; throws when that does not end.
    Response Call(Request& request);
    /// The JSON of a 2xx answer; throws by Refuse for every other.
    Json Ask(const std::string& what, Request request);
    /// Downloads, along at most 5 redirects, none from https to http.
    void Fetch(const std::string& what, Request request, std::ostream& out);
    /// Posts a form; the access token is not shown. For the provider's token addresses.
    Response PostForm(const std::string& url, const std::map<std::string, std::string>& fields);

    Trouble Judge(const Response& response) const;
    /// Throws what the answer means: Unauthorized, Missing, NoRoom, else "storage", "refused".
    [[noreturn]] void Refuse(const std::string& what, const Response& response) const;
    [[noreturn]] void Refuse(const std::string& what, const std::string& why) const;
    /// Throws for an address that the server gave and that is not http(s), or plain after `from`
    /// was not.
    void CheckTarget(const std::string& what, const std::string& from, const std::string& to) const;

    /// "access_token", "refresh_token", "client_id", "client_secret"; "" when absent.
    std::string Member(const std::string& name) const;
    void Forget();  ///< every later call throws Unauthorized

private:
    Outcome Perform(Request& request);
    Outcome PerformAs(Request& request);
    bool MaySeeToken(const std::string& url) const;
    bool RunOut() const;
    /// With the tokens as they are now: a refresh may bring a new refresh token.
    std::string Credential() const;
    bool TakeKept();
    void Renew();
    void Refresh();
    std::string Words(const Response& response) const;

    Provider provider_;
    std::map<std::string, std::string> credential_;
    TokenFile kept_;
    std::chrono::steady_clock::time_point ends_ = std::chrono::steady_clock::time_point::max();
    Transfer transfer_;
};

}  // namespace vel_rpc::detail
