/// One HTTP exchange on one libcurl handle: what Http and HttpBatch have in common.
#pragma once

#include <chrono>
#include <exception>
#include <memory>
#include <string>

#include "vel/vel_rpc/detail/http.h"

namespace vel_rpc::detail {

/// How an exchange ended: with an answer, or with a failure.
struct Outcome {
    Response response;
    std::exception_ptr failure;  ///< null when `response` is a whole answer
    bool no_answer = false;      ///< the network's failure, not the source's or the sink's
    /// Nothing was taken from the source, nothing was given to the sink.
    bool untouched = true;

    bool WorthRepeating() const;
};

class Transfer {
public:
    explicit Transfer(std::string service);
    ~Transfer();
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;

    /// Sets the handle up for `request`, which must stay until Finish. Throws
    /// vel_err::Error("network", service, reason).
    void Prepare(const Request& request);
    Outcome Perform();
    /// The handle, a CURL*: for a multi handle.
    void* Easy() const;
    /// `code`: the CURLcode that the exchange ended with.
    Outcome Finish(int code);
    /// Does not count a time in which nobody worked on this exchange as a stall.
    void Excuse(std::chrono::steady_clock::duration pause);

private:
    class State;
    std::unique_ptr<State> state_;
};

/// What a repetition waits before attempt `n` (1: the first repetition): the server's Retry-After
/// of at most 60 s, else BACKUP2_RETRY_MS doubled each time.
std::chrono::milliseconds PauseBefore(int n, const Response& last);

constexpr int kRepetitions = 4;

}  // namespace vel_rpc::detail
