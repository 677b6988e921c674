/// One request as CGI/1.1 hands it over.
#pragma once

#include <stdexcept>
#include <string>

namespace backup2_download {

/// Why there is nothing to download. `what()` is a word for programs; it tells nothing of this
/// machine.
struct Refusal : std::runtime_error {
    Refusal(int http_status, const std::string& word)
        : std::runtime_error(word), status(http_status) {}
    int status;
};

/// There is no field for a user, a name, a date or a path, and never will be: the session alone
/// says whose backup is served.
struct Request {
    std::string method;           ///< GET, HEAD or POST
    std::string session;          ///< 32 hex digits, or "" for what cannot be a session
    std::string part = "1";       ///< "1", "2" or "listing"
    std::string range, if_range;  ///< of the headers, "" without
    bool check_only = false;      ///< only say whether it would be served

    /// Throws Refusal 400 for a parameter that is given twice, in whatever place, and for values
    /// outside their grammar; `check_only` says by then how to tell it. Parameters that are not
    /// known count for nothing. The variables with the query are taken out of the environment.
    void Read();
};

}  // namespace backup2_download
