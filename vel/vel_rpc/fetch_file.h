/// Downloads of single files, and queries with small answers, from other panels.
#pragma once

#include <cstddef>
#include <ostream>
#include <string>

namespace vel_rpc {

/// Certificates are verified unless the flag 1 says otherwise; a redirect is followed on the same
/// host only; 60 s without a byte end it.
constexpr int kAnyCertificate = 1;

/// One request at a time; the answer must have the status 200 unless AcceptAnyResponse was called.
class HttpQuery {
public:
    explicit HttpQuery(int flags = 0) : flags_(flags) {}
    void SetMaxSize(std::size_t bytes) { max_size_ = bytes; }  ///< a longer answer throws
    void SetTimeout(long seconds) { timeout_ = seconds; }      ///< of the whole request
    void AcceptAnyResponse() { accept_any_ = true; }
    /// Throw vel_err::Error("network", host, reason), "http" with the status as value.
    void Get(const std::string& url, std::ostream& out);
    void Post(const std::string& url, const std::string& body, std::ostream& out);

private:
    void Send(const std::string& url, const std::string* body, std::ostream& out);

    int flags_;
    std::size_t max_size_ = 0;
    long timeout_ = 0;
    bool accept_any_ = false;
};

/// Downloads into a temporary beside `path`, which appears complete or not at all. False for every
/// failure; the reason is logged, without the query of the address.
bool FetchFile(const std::string& url, const std::string& path, int flags);

}  // namespace vel_rpc
