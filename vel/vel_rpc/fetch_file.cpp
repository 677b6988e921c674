#include "vel/vel_rpc/fetch_file.h"

#include <memory>
#include <utility>

#include <curl/curl.h>

#include "vel/str.h"
#include "vel/vel_err.h"
#include "vel/vel_file.h"
#include "vel/vel_log.h"
#include "vel/vel_rpc/detail/http.h"

namespace vel_rpc {
namespace {

const vel_log::Module logger("vel_rpc");

constexpr int kMaxRedirects = 5;
constexpr long kOk = 200;

PanelTrust& Trust() {
    static PanelTrust trust;
    return trust;
}

// ---- Addresses ----------------------------------------------------------------------------------

class Address {
public:
    explicit Address(const std::string& url) : url_(curl_url()) { Move(url); }
    /// An absolute or relative one; false when that is none.
    bool Move(const std::string& url) {
        return url_ && curl_url_set(url_.get(), CURLUPART_URL, url.c_str(), 0) == CURLUE_OK;
    }
    std::string Part(CURLUPart part) const {
        char* text = nullptr;
        const bool there =
            url_ && curl_url_get(url_.get(), part, &text, CURLU_DEFAULT_PORT) == CURLUE_OK;
        const std::unique_ptr<char, Free> owner(text);
        return there ? text : "";
    }
    std::string Scheme() const { return Part(CURLUPART_SCHEME); }
    std::string Host() const { return str::Lower(Part(CURLUPART_HOST)); }
    std::string Port() const { return Part(CURLUPART_PORT); }

private:
    struct Free {
        void operator()(CURLU* url) const { curl_url_cleanup(url); }
        void operator()(char* text) const { curl_free(text); }
    };
    std::unique_ptr<CURLU, Free> url_;
};

/// Where a redirect leads; "" when it leads to somebody else, who must not get what we send.
std::string Target(const std::string& url, const std::string& location) {
    const Address from(url);
    Address to(url);
    if (location.empty() || !to.Move(location) || from.Host() != to.Host()) return "";
    const bool same_door = from.Scheme() == to.Scheme() && from.Port() == to.Port();
    const bool safer = from.Scheme() == "http" && to.Scheme() == "https";
    return same_door || safer ? to.Part(CURLUPART_URL) : "";
}

/// A POST is only repeated where the server asks for the same request again.
bool IsRedirect(const std::string& method, long status) {
    if (status == 307 || status == 308) return true;
    return method == "GET" && (status == 301 || status == 302 || status == 303);
}

std::string WithoutQuery(std::string url) { return str::GetWord(url, '?'); }

// ---- Requests -----------------------------------------------------------------------------------

struct Answer {
    detail::Response response;
    std::string url;  ///< where it came from in the end
};

Answer Exchange(detail::Request request, int flags) {
    request.ca_file = Trust().ca_file;
    request.any_certificate = Trust().any_certificate || (flags & kAnyCertificate) != 0;
    detail::Http http(Address(request.url).Host());
    for (int n = 0;; ++n) {
        detail::Response response = http.Send(request);
        const bool follow = n < kMaxRedirects && IsRedirect(request.method, response.status);
        const std::string next = follow ? Target(request.url, response.Header("location")) : "";
        if (next.empty()) return {std::move(response), request.url};
        request.url = next;
    }
}

[[noreturn]] void RefuseStatus(const Answer& answer) {
    throw vel_err::Error("http", Address(answer.url).Host(),
                         "status " + str::Str(int64_t{answer.response.status}));
}

void Fetch(const std::string& url, const std::string& path, int flags) {
    const vel_file::Tmp tmp(path);
    vel_file::OutStream out(tmp.Path());
    detail::Request request;
    request.url = url;
    request.sink = &out;
    const Answer answer = Exchange(request, flags);
    if (answer.response.status != kOk) RefuseStatus(answer);
    // Not even TLS does: libcurl takes a connection that was cut for one that was closed.
    if (!answer.response.TellsItsEnd())
        throw vel_err::Error("network", Address(answer.url).Host(), "the answer may be cut");
    out.Close();
    vel_file::Sync(tmp.Path());
    vel_file::Move(tmp.Path(), path);
}

/// The line in the log has the address already.
std::string Reason(const std::exception& error) {
    const auto* own = dynamic_cast<const vel_err::Error*>(&error);
    return own && !own->value().empty() ? own->value() : error.what();
}

}  // namespace

void TrustPanels(const PanelTrust& trust) { Trust() = trust; }

void HttpQuery::Get(const std::string& url, std::ostream& out) { Send(url, nullptr, out); }

void HttpQuery::Post(const std::string& url, const std::string& body, std::ostream& out) {
    Send(url, &body, out);
}

void HttpQuery::Send(const std::string& url, const std::string* body, std::ostream& out) {
    detail::Request request;
    request.url = url;
    request.sink = &out;
    request.limit_seconds = timeout_;
    if (max_size_ > 0) request.max_answer = max_size_;
    if (body) {
        request.method = "POST";
        request.headers = {"Content-Type: application/x-www-form-urlencoded"};
        request.body = *body;
    }
    const Answer answer = Exchange(std::move(request), flags_);
    if (!accept_any_ && answer.response.status != kOk) RefuseStatus(answer);
    const std::string& text = answer.response.body;  // of an answer that is not for the sink
    if (max_size_ > 0 && text.size() > max_size_)
        throw vel_err::Error("storage", "refused", "the answer is too long");
    out << text;
}

bool FetchFile(const std::string& url, const std::string& path, int flags) try {
    Fetch(url, path, flags);
    return true;
} catch (const std::exception& error) {
    logger.Write(4, "Cannot fetch '%s': %s", WithoutQuery(url), Reason(error));
    return false;
}

}  // namespace vel_rpc
