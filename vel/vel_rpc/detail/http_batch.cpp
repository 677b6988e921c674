#include <chrono>
#include <list>

#include <curl/curl.h>

#include "vel/vel_err.h"
#include "vel/vel_rpc/detail/http.h"
#include "vel/vel_rpc/detail/transfer.h"

namespace vel_rpc::detail {
namespace {

using Clock = std::chrono::steady_clock;

struct MultiFree {
    void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
};

}  // namespace

class HttpBatch::Impl {
public:
    explicit Impl(std::string service) : service_(std::move(service)), multi_(curl_multi_init()) {
        if (!multi_) throw vel_err::Error("network", service_, "libcurl cannot be set up");
    }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;
    ~Impl() { Drop(); }

    void Start(int tag, Request request);
    std::size_t UnderWay() const { return busy_.size(); }
    std::vector<Done> Work(int wait_ms);
    void Drop() {
        for (Slot& slot : busy_) curl_multi_remove_handle(multi_.get(), slot.transfer->Easy());
        busy_.clear();
    }

private:
    struct Slot {
        int tag = 0;
        Request request;
        std::unique_ptr<Transfer> transfer;
    };

    void Check(CURLMcode code) const {
        if (code != CURLM_OK) throw vel_err::Error("network", service_, curl_multi_strerror(code));
    }
    void ExcusePause();
    Done Take(CURL* easy, CURLcode code);

    const std::string service_;
    // Declared before the slots: a handle lets go of it first.
    const std::unique_ptr<CURLM, MultiFree> multi_;
    std::list<Slot> busy_, idle_;  // an idle one is used again
    Clock::time_point worked_ = Clock::now();
};

void HttpBatch::Impl::Start(int tag, Request request) {
    if (idle_.empty()) {
        idle_.emplace_back();
        idle_.back().transfer = std::make_unique<Transfer>(service_);
    }
    Slot& slot = idle_.front();
    slot.tag = tag;
    slot.request = std::move(request);
    slot.transfer->Prepare(slot.request);
    Check(curl_multi_add_handle(multi_.get(), slot.transfer->Easy()));
    busy_.splice(busy_.end(), idle_, idle_.begin());
}

void HttpBatch::Impl::ExcusePause() {
    const auto pause = Clock::now() - worked_;
    for (Slot& slot : busy_) slot.transfer->Excuse(pause);
}

std::vector<HttpBatch::Done> HttpBatch::Impl::Work(int wait_ms) {
    ExcusePause();
    if (wait_ms > 0) Check(curl_multi_poll(multi_.get(), nullptr, 0, wait_ms, nullptr));
    int running = 0;
    Check(curl_multi_perform(multi_.get(), &running));
    std::vector<Done> done;
    int left = 0;
    while (CURLMsg* message = curl_multi_info_read(multi_.get(), &left)) {
        if (message->msg != CURLMSG_DONE) continue;
        CURL* const easy = message->easy_handle;  // removal ends the message
        done.push_back(Take(easy, message->data.result));
    }
    worked_ = Clock::now();
    return done;
}

HttpBatch::Done HttpBatch::Impl::Take(CURL* easy, CURLcode code) {
    auto slot = busy_.begin();
    while (slot->transfer->Easy() != easy) ++slot;
    curl_multi_remove_handle(multi_.get(), easy);
    Outcome outcome = slot->transfer->Finish(code);
    idle_.splice(idle_.begin(), busy_, slot);
    return {slot->tag, std::move(slot->request), std::move(outcome.response), outcome.failure,
            outcome.WorthRepeating()};
}

HttpBatch::HttpBatch(std::string service) : impl_(std::make_unique<Impl>(std::move(service))) {}

HttpBatch::~HttpBatch() = default;

void HttpBatch::Start(int tag, Request request) { impl_->Start(tag, std::move(request)); }

std::size_t HttpBatch::UnderWay() const { return impl_->UnderWay(); }

std::vector<HttpBatch::Done> HttpBatch::Work(int wait_ms) { return impl_->Work(wait_ms); }

void HttpBatch::Drop() { impl_->Drop(); }

}  // namespace vel_rpc::detail
