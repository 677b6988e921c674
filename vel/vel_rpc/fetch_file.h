/// Downloads of single files, and queries with small answers, from other panels.
#pragma once

#include <cstddef>
#include <ostream>
#include <string>

namespace vel_rpc {

/// Certificates are verified unless the flag 1, or TrustPanels, says otherwise.
constexpr int kAnyCertificate = 1;

/// Whose certificates other panels may show to this process.
struct PanelTrust {
    std::string ca_file;           ///< PEM; "": the system's authorities (or BACKUP2_CA_FILE)
    bool any_certificate = false;  ///< also one that proves nothing: on the user's word only
};
/// For all requests to panels (HttpQuery, FetchFile, vel_client::Remote) of this process from now
/// on. Call it before there are threads.
void TrustPanels(const PanelTrust& trust);

/// One request at a time. The answer must have the status 200 unless AcceptAnyResponse was called.
/// Redirects are followed, five at most, on the same host and port (from http also to https); any
/// other is an answer like any other.
class HttpQuery {
public:
    explicit HttpQuery(int flags = 0) : flags_(flags) {}
    void SetMaxSize(std::size_t bytes) { max_size_ = bytes; }  ///< a longer answer throws
    /// Of the whole request; without it 60 s (BACKUP2_STALL_SECONDS) without a byte end it.
    void SetTimeout(long seconds) { timeout_ = seconds; }
    void AcceptAnyResponse() { accept_any_ = true; }
    /// Both throw vel_err::Error("network", host, reason) when no whole answer came, one that is
    /// too long ("storage", "refused", ...), and ("http", host, status) for a status that was not
    /// accepted. `out` may have got the beginning of an answer then. The body of a POST is a form.
    void Get(const std::string& url, std::ostream& out);
    void Post(const std::string& url, const std::string& body, std::ostream& out);

private:
    void Send(const std::string& url, const std::string* body, std::ostream& out);

    int flags_;
    std::size_t max_size_ = 0;
    long timeout_ = 0;
    bool accept_any_ = false;
};

/// Downloads into a temporary beside `path`, which appears (0600) complete or not at all. Redirects
/// as above. False for every failure, also for a status other than 200 and for an answer whose end
/// nothing tells; the reason is logged at level 4, without the query of the address.
bool FetchFile(const std::string& url, const std::string& path, int flags);

}  // namespace vel_rpc
