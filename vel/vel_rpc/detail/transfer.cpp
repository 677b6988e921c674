#include "vel/vel_rpc/detail/transfer.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <string_view>

#include <curl/curl.h>

#include "vel/str.h"
#include "vel/vel_env.h"
#include "vel/vel_err.h"

namespace vel_rpc::detail {
namespace {

using Clock = std::chrono::steady_clock;

constexpr long kConnectSeconds = 30;
constexpr int kStallSeconds = 60;
constexpr int kSlowest = 16;  // bytes a second of a body
constexpr int kMaxRetryAfterSeconds = 60;
constexpr long kExpectMs = 300;
constexpr long kBufferBytes = 512 << 10;
constexpr long kUploadBufferBytes = 2 << 20;
constexpr std::size_t kMaxBody = 64 << 10;
constexpr std::size_t kMaxHeaders = 256 << 10;
constexpr std::size_t kMaxReason = 200;

int Setting(const char* name, int otherwise) {
    const int n = str::Int(vel_env::GetEnv(name));
    return n > 0 ? n : otherwise;
}

std::string OneLine(std::string text) {
    for (char& c : text) {
        if (str::badchars::Controls().find(c) != std::string::npos) c = ' ';
    }
    return text.substr(0, kMaxReason);
}

/// Methods whose request has a body even when it is empty.
bool CarriesBody(const Request& request) {
    return request.source || !request.body.empty() || request.method == "PUT" ||
           request.method == "POST" || request.method == "PATCH";
}

/// The time limit of kStallSeconds, for the network only: while a source or a sink makes us wait,
/// or nobody works on the exchange, the clock stands still. (libcurl's own limit counts that.)
class Stall {
public:
    void Begin() {
        limit_ = std::chrono::seconds(Setting("BACKUP2_STALL_SECONDS", kStallSeconds));
        moved_ = 0;
        Touch();
    }
    void Touch() { since_ = Clock::now(); }
    void Excuse(Clock::duration pause) { since_ += pause; }
    /// `in_body`: else a byte now and then will do, by which servers tell that they still work.
    bool Over(curl_off_t moved, bool in_body) {
        const curl_off_t least = in_body ? kSlowest * limit_.count() : 1;
        if (moved < moved_ || moved - moved_ >= least) {
            Touch();
            moved_ = moved;
        }
        return Clock::now() - since_ >= limit_;
    }

private:
    std::chrono::seconds limit_{};
    Clock::time_point since_;
    curl_off_t moved_ = 0;
};

struct CurlFree {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

CURL* NewHandle(const std::string& service) {
    static const CURLcode ready = curl_global_init(CURL_GLOBAL_DEFAULT);
    CURL* handle = ready == CURLE_OK ? curl_easy_init() : nullptr;
    if (!handle) throw vel_err::Error("network", service, "libcurl cannot be set up");
    return handle;
}

}  // namespace

bool Outcome::WorthRepeating() const {
    if (failure) return no_answer;
    return response.status == 429 || (response.status >= 500 && response.status != 507);
}

std::chrono::milliseconds PauseBefore(int n, const Response& last) {
    const std::string after = last.Header("retry-after");
    if (after.empty()) {
        return std::chrono::milliseconds(Setting("BACKUP2_RETRY_MS", 1000)) * (1 << (n - 1));
    }
    int64_t seconds = str::Int64(after);
    if (after.find(':') != std::string::npos)
        seconds = ::curl_getdate(after.c_str(), nullptr) - ::time(nullptr);
    return std::chrono::seconds(std::clamp<int64_t>(seconds, 0, kMaxRetryAfterSeconds));
}

class Transfer::State {
public:
    explicit State(std::string service)
        : service_(std::move(service)), curl_(NewHandle(service_)) {}

    void Prepare(const Request& request);
    Outcome Finish(CURLcode code);
    CURL* Easy() const { return curl_.get(); }
    Stall& StallClock() { return stall_; }

private:
    template <class Value>
    void Set(CURLoption option, Value value);
    void SetLimits();
    void SetTrust();
    void SetHeaders();
    void SetBody();
    void SetSigning();

    std::size_t Give(char* to, std::size_t room);
    std::size_t GiveFromSource(char* to, std::size_t room);
    bool Rewind();
    bool IsInBody(curl_off_t up) const;
    bool Take(const char* data, std::size_t size);
    bool TakeIntoSink(const char* data, std::size_t size);
    bool TakeHeader(std::string_view line);
    /// Runs a step of a C callback; what it throws is kept for Finish.
    template <class Step, class Result>
    Result Guard(const Step& step, Result failed);

    static std::size_t OnRead(char* to, std::size_t size, std::size_t count, void* self);
    static std::size_t OnWrite(const char* data, std::size_t size, std::size_t count, void* self);
    static std::size_t OnHeader(const char* data, std::size_t size, std::size_t count, void* self);
    static int OnSeek(void* self, curl_off_t offset, int origin);
    static int OnProgress(void* self, curl_off_t, curl_off_t down, curl_off_t, curl_off_t up);

    const std::string service_;
    const std::unique_ptr<CURL, CurlFree> curl_;
    std::unique_ptr<curl_slist, CurlFree> headers_;
    const Request* request_ = nullptr;
    Response response_;
    std::exception_ptr thrown_;
    uint64_t sent_ = 0, received_ = 0;
    std::size_t header_bytes_ = 0;
    bool headers_whole_ = false;  // libcurl takes headers that were cut for an answer
    bool enough_ = false;         // the answer's text is longer than anybody wants to read
    Stall stall_;
    char reason_[CURL_ERROR_SIZE] = "";
};

template <class Value>
void Transfer::State::Set(CURLoption option, Value value) {
    const CURLcode code = curl_easy_setopt(curl_.get(), option, value);
    if (code != CURLE_OK) throw vel_err::Error("network", service_, curl_easy_strerror(code));
}

void Transfer::State::Prepare(const Request& request) {
    curl_easy_reset(curl_.get());  // keeps the connection
    request_ = &request;
    response_ = {};
    thrown_ = nullptr;
    sent_ = received_ = header_bytes_ = 0;
    headers_whole_ = enough_ = false;
    reason_[0] = '\0';
    Set(CURLOPT_URL, request.url.c_str());
    SetLimits();
    SetTrust();
    SetHeaders();
    SetBody();
    SetSigning();
    stall_.Begin();
}

void Transfer::State::SetLimits() {
    Set(CURLOPT_PROTOCOLS_STR, "http,https");
    Set(CURLOPT_FOLLOWLOCATION, 0L);
    Set(CURLOPT_PATH_AS_IS, 1L);
    Set(CURLOPT_PROXY, "");
    Set(CURLOPT_NOSIGNAL, 1L);
    Set(CURLOPT_USERAGENT, "backup2");
    Set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    Set(CURLOPT_CONNECTTIMEOUT, kConnectSeconds);
    Set(CURLOPT_BUFFERSIZE, kBufferBytes);
    Set(CURLOPT_ERRORBUFFER, static_cast<char*>(reason_));
    Set(CURLOPT_TIMEOUT, request_->limit_seconds);
    Set(CURLOPT_TCP_KEEPALIVE, 1L);
    Set(CURLOPT_NOPROGRESS, 0L);
    Set(CURLOPT_XFERINFOFUNCTION, &OnProgress);
    Set(CURLOPT_XFERINFODATA, this);
    Set(CURLOPT_WRITEFUNCTION, &OnWrite);
    Set(CURLOPT_WRITEDATA, this);
    Set(CURLOPT_HEADERFUNCTION, &OnHeader);
    Set(CURLOPT_HEADERDATA, this);
}

void Transfer::State::SetTrust() {
    const std::string& own = request_->ca_file;
    const std::string ca = own.empty() ? vel_env::GetEnv("BACKUP2_CA_FILE") : own;
    if (!ca.empty()) Set(CURLOPT_CAINFO, ca.c_str());
    if (!request_->any_certificate) return;
    Set(CURLOPT_SSL_VERIFYPEER, 0L);
    Set(CURLOPT_SSL_VERIFYHOST, 0L);
}

void Transfer::State::SetHeaders() {
    headers_.reset();
    const auto add = [this](const std::string& line) {
        curl_slist* list = curl_slist_append(headers_.get(), line.c_str());
        if (!list) throw std::bad_alloc();
        headers_.release();
        headers_.reset(list);
    };
    for (const std::string& line : request_->headers) add(line);
    // A body in memory can be sent again: it need not ask first whether it is welcome. But libcurl
    // would sign the empty header, so a signed request asks, and does not wait long.
    if (!request_->source && request_->sigv4.empty()) add("Expect:");
    if (!request_->source) Set(CURLOPT_EXPECT_100_TIMEOUT_MS, kExpectMs);
    Set(CURLOPT_HTTPHEADER, headers_.get());
}

void Transfer::State::SetBody() {
    if (request_->method == "HEAD") {
        Set(CURLOPT_NOBODY, 1L);
        return;
    }
    if (CarriesBody(*request_)) {
        const bool chunked = request_->source && !request_->size;
        const uint64_t size = request_->source ? request_->size.value_or(0) : request_->body.size();
        Set(CURLOPT_UPLOAD, 1L);
        Set(CURLOPT_UPLOAD_BUFFERSIZE, kUploadBufferBytes);
        Set(CURLOPT_INFILESIZE_LARGE, chunked ? curl_off_t{-1} : static_cast<curl_off_t>(size));
        Set(CURLOPT_READFUNCTION, &OnRead);
        Set(CURLOPT_READDATA, this);
        Set(CURLOPT_SEEKFUNCTION, &OnSeek);
        Set(CURLOPT_SEEKDATA, this);
    }
    Set(CURLOPT_CUSTOMREQUEST, request_->method.c_str());
}

void Transfer::State::SetSigning() {
    if (request_->sigv4.empty()) return;
    Set(CURLOPT_AWS_SIGV4, request_->sigv4.c_str());
    Set(CURLOPT_USERNAME, request_->access_key.c_str());
    Set(CURLOPT_PASSWORD, request_->secret_key.c_str());
}

Outcome Transfer::State::Finish(CURLcode code) {
    Outcome outcome;
    outcome.untouched = !(request_->source && sent_) && !(request_->sink && received_);
    curl_easy_getinfo(curl_.get(), CURLINFO_RESPONSE_CODE, &response_.status);
    outcome.response = std::move(response_);
    if (thrown_) {
        outcome.failure = thrown_;
    } else if ((code != CURLE_OK && !enough_) || !headers_whole_) {
        outcome.no_answer = true;
        const bool stalled = code == CURLE_ABORTED_BY_CALLBACK;
        const std::string reason = stalled            ? "hardly a byte came or went for too long"
                                   : reason_[0]       ? reason_
                                   : code == CURLE_OK ? "the answer is cut"
                                                      : curl_easy_strerror(code);
        outcome.failure =
            std::make_exception_ptr(vel_err::Error("network", service_, OneLine(reason)));
    }
    return outcome;
}

template <class Step, class Result>
Result Transfer::State::Guard(const Step& step, Result failed) {
    Result result = failed;
    const auto began = Clock::now();
    try {
        result = step();
    } catch (...) {
        thrown_ = std::current_exception();
    }
    stall_.Excuse(Clock::now() - began);
    return result;
}

std::size_t Transfer::State::Give(char* to, std::size_t room) {
    if (request_->source) return GiveFromSource(to, room);
    const std::size_t n = std::min<std::size_t>(room, request_->body.size() - sent_);
    std::memcpy(to, request_->body.data() + sent_, n);
    sent_ += n;
    return n;
}

std::size_t Transfer::State::GiveFromSource(char* to, std::size_t room) {
    std::istream& source = *request_->source;
    if (request_->size) room = std::min<uint64_t>(room, *request_->size - sent_);
    if (room == 0 || source.eof()) return 0;
    source.read(to, static_cast<std::streamsize>(room));
    const auto n = static_cast<std::size_t>(source.gcount());
    sent_ += n;
    if (source.bad() || (n < room && !source.eof()))
        throw vel_err::Error("storage", "source", "the data to be sent cannot be read");
    if (n < room && request_->size)
        throw vel_err::Error("storage", "source", "the data to be sent ended too early");
    return n;
}

/// libcurl sends again by itself when a kept connection turns out to be dead.
bool Transfer::State::Rewind() {
    if (request_->source && sent_ > 0) return false;
    sent_ = 0;
    return true;
}

/// While a body is on its way that was sent for its bytes, and not to tell how a request went.
bool Transfer::State::IsInBody(curl_off_t up) const {
    if (request_->sink && !request_->max_answer) return true;
    const uint64_t size = request_->source ? sent_ : request_->body.size();
    return static_cast<uint64_t>(up) < size || (request_->source && !request_->source->eof());
}

bool Transfer::State::Take(const char* data, std::size_t size) {
    long status = 0;
    curl_easy_getinfo(curl_.get(), CURLINFO_RESPONSE_CODE, &status);
    response_.status = status;
    if (request_->sink && response_.Ok()) return TakeIntoSink(data, size);
    const std::size_t n = std::min(size, kMaxBody - response_.body.size());
    response_.body.append(data, n);
    enough_ = n < size;
    return !enough_;
}

bool Transfer::State::TakeIntoSink(const char* data, std::size_t size) {
    received_ += size;
    if (request_->max_answer && received_ > *request_->max_answer)
        throw vel_err::Error("storage", "refused", service_ + ": the answer is too long");
    request_->sink->write(data, static_cast<std::streamsize>(size));
    if (!*request_->sink)
        throw vel_err::Error("storage", "sink", "the received data cannot be written");
    return true;
}

bool Transfer::State::TakeHeader(std::string_view line) {
    header_bytes_ += line.size();
    if (header_bytes_ > kMaxHeaders)
        throw vel_err::Error("network", service_, "the answer's headers are too long");
    if (line.starts_with("HTTP/")) response_ = {};  // the final answer follows an interim one
    headers_whole_ = line == "\r\n" || line == "\n";
    if (headers_whole_) stall_.Touch();
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) return true;
    response_.headers[str::Lower(std::string(line.substr(0, colon)))] =
        str::Trim(std::string(line.substr(colon + 1)));
    return true;
}

std::size_t Transfer::State::OnRead(char* to, std::size_t size, std::size_t count, void* self) {
    auto& state = *static_cast<State*>(self);
    return state.Guard([&] { return state.Give(to, size * count); },
                       std::size_t{CURL_READFUNC_ABORT});
}

std::size_t Transfer::State::OnWrite(const char* data, std::size_t size, std::size_t count,
                                     void* self) {
    auto& state = *static_cast<State*>(self);
    const std::size_t bytes = size * count;
    return state.Guard([&] { return state.Take(data, bytes); }, false) ? bytes : 0;
}

std::size_t Transfer::State::OnHeader(const char* data, std::size_t size, std::size_t count,
                                      void* self) {
    auto& state = *static_cast<State*>(self);
    const std::size_t bytes = size * count;
    return state.Guard([&] { return state.TakeHeader({data, bytes}); }, false) ? bytes : 0;
}

int Transfer::State::OnSeek(void* self, curl_off_t offset, int origin) {
    const bool to_begin = offset == 0 && origin == SEEK_SET;
    return to_begin && static_cast<State*>(self)->Rewind() ? CURL_SEEKFUNC_OK
                                                           : CURL_SEEKFUNC_CANTSEEK;
}

int Transfer::State::OnProgress(void* self, curl_off_t, curl_off_t down, curl_off_t,
                                curl_off_t up) {
    auto& state = *static_cast<State*>(self);
    if (state.request_->limit_seconds > 0) return 0;
    return state.stall_.Over(down + up, state.IsInBody(up)) ? 1 : 0;
}

Transfer::Transfer(std::string service) : state_(std::make_unique<State>(std::move(service))) {}

Transfer::~Transfer() = default;

void Transfer::Prepare(const Request& request) { state_->Prepare(request); }

Outcome Transfer::Perform() { return Finish(curl_easy_perform(state_->Easy())); }

void* Transfer::Easy() const { return state_->Easy(); }

Outcome Transfer::Finish(int code) { return state_->Finish(static_cast<CURLcode>(code)); }

void Transfer::Excuse(std::chrono::steady_clock::duration pause) {
    state_->StallClock().Excuse(pause);
}

}  // namespace vel_rpc::detail
