#include "vel/vel_rpc/detail/http.h"

#include "vel/vel_proc.h"
#include "vel/vel_rpc/detail/transfer.h"

namespace vel_rpc::detail {

std::string Response::Header(const std::string& lower_case_name) const {
    const auto found = headers.find(lower_case_name);
    return found == headers.end() ? "" : found->second;
}

bool Response::TellsItsEnd() const {
    return headers.count("content-length") + headers.count("transfer-encoding") > 0;
}

class Http::Handle : public Transfer {
    using Transfer::Transfer;
};

Http::Http(std::string service) : handle_(std::make_unique<Handle>(std::move(service))) {}

Http::~Http() = default;

Response Http::Send(const Request& request) {
    handle_->Prepare(request);
    Outcome outcome = handle_->Perform();
    if (outcome.failure) std::rethrow_exception(outcome.failure);
    return std::move(outcome.response);
}

Response Http::SendRetried(const Request& request, const std::function<bool()>& again) {
    for (int n = 1;; ++n) {
        handle_->Prepare(request);
        Outcome outcome = handle_->Perform();
        const bool repeat =
            n <= kRepetitions && outcome.WorthRepeating() && (again ? again() : outcome.untouched);
        if (!repeat && outcome.failure) std::rethrow_exception(outcome.failure);
        if (!repeat) return std::move(outcome.response);
        vel_proc::Sleep(static_cast<int>(PauseBefore(n, outcome.response).count()));
    }
}

}  // namespace vel_rpc::detail
