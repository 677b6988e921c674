#include "vel/vel_client.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <memory>
#include <sstream>

#include <curl/curl.h>

#include "vel/str.h"
#include "vel/vel_env.h"
#include "vel/vel_err.h"
#include "vel/vel_log.h"
#include "vel/vel_proc.h"
#include "vel/vel_rpc/fetch_file.h"

namespace vel_client {
namespace {

const vel_log::Module logger("vel_client");

constexpr std::size_t kMaxAnswer = std::size_t{64} << 20;
constexpr long kConnectTimeoutMs = 10'000;
constexpr long kAnswerTimeoutMs = 600'000;  // a panel that collects a big user's data is slow
constexpr int kLockWaitSeconds = 600;
constexpr long kRemoteSeconds = kAnswerTimeoutMs / 1000;

struct CurlFree {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

struct Answer {
    long status = 0;
    std::string body;
};

std::size_t Collect(const char* data, std::size_t size, std::size_t count, void* to) {
    auto& body = *static_cast<std::string*>(to);
    if (body.size() + size * count > kMaxAnswer) return 0;  // curl ends with a write error
    body.append(data, size * count);
    return size * count;
}

/// Nobody took the request.
struct Away : vel_err::Error {
    Away(const std::string& panel, const std::string& reason)
        : vel_err::Error("panel", "unreachable", panel + ": " + reason) {}
};

[[noreturn]] void Unreachable(const std::string& panel, const std::string& reason) {
    throw vel_err::Error("panel", "unreachable", panel + ": " + reason);
}

[[noreturn]] void BadAnswer(const std::string& panel, const std::string& reason) {
    throw vel_err::Error("panel", "bad_answer", panel + ": " + reason);
}

/// curl's own text for a missing socket does not say which one.
std::string FindSocket(const std::string& panel) {
    const std::string path = "var/run/" + panel + ".sock";
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0 && errno == ENOENT)
        throw Away(panel, "no socket " + std::filesystem::absolute(path).string());
    return path;
}

CURL* NewHandle() {
    static const CURLcode ready = curl_global_init(CURL_GLOBAL_DEFAULT);
    CURL* handle = ready == CURLE_OK ? curl_easy_init() : nullptr;
    if (!handle) throw vel_err::Error("panel", "unreachable", "libcurl cannot be set up");
    return handle;
}

Answer Post(const std::string& panel, const std::string& caller, const std::string& form) {
    const std::string socket = FindSocket(panel);
    const std::unique_ptr<CURL, CurlFree> curl(NewHandle());
    // No "Expect: 100-continue": a small server need not know it.
    const std::unique_ptr<curl_slist, CurlFree> headers(curl_slist_append(nullptr, "Expect:"));
    Answer answer;
    const auto set = [&curl](CURLoption option, auto value) {
        const CURLcode code = curl_easy_setopt(curl.get(), option, value);
        if (code != CURLE_OK)
            throw vel_err::Error("panel", "unreachable", curl_easy_strerror(code));
    };
    set(CURLOPT_UNIX_SOCKET_PATH, socket.c_str());
    set(CURLOPT_URL, "http://localhost/");
    set(CURLOPT_PROXY, "");
    set(CURLOPT_NOSIGNAL, 1L);
    set(CURLOPT_USERAGENT, caller.c_str());
    set(CURLOPT_HTTPHEADER, headers.get());
    set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(form.size()));
    set(CURLOPT_POSTFIELDS, form.c_str());
    set(CURLOPT_CONNECTTIMEOUT_MS, kConnectTimeoutMs);
    set(CURLOPT_TIMEOUT_MS, kAnswerTimeoutMs);
    set(CURLOPT_WRITEFUNCTION, &Collect);
    set(CURLOPT_WRITEDATA, &answer.body);
    const CURLcode code = curl_easy_perform(curl.get());
    if (code == CURLE_WRITE_ERROR) BadAnswer(panel, "over 64 MiB");
    if (code == CURLE_COULDNT_CONNECT) throw Away(panel, curl_easy_strerror(code));
    if (code != CURLE_OK) Unreachable(panel, curl_easy_strerror(code));
    curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &answer.status);
    return answer;
}

vel_err::Error ErrorOf(const vel_xml::Xml& xml, const vel_xml::XmlNode& error) {
    const std::string type = error.GetProp("type");
    const std::string object = error.GetProp("object");
    std::string value = xml.GetNode("/doc/error/value").Str();
    if (value.empty()) value = xml.GetNode("/doc/error/msg").Str();
    if (!value.empty()) return {type, object, value};
    return object.empty() ? vel_err::Error(type) : vel_err::Error(type, object);
}

/// The answer's document. What a parser says about it is left out of the error on purpose: an
/// answer may carry secrets.
Result Read(const std::string& panel, const Answer& answer) {
    vel_xml::Xml xml;
    try {
        xml = vel_xml::Xml::FromString(answer.body);
    } catch (const vel_err::Error&) {
        BadAnswer(panel, "status " + std::to_string(answer.status) + ", not an XML document");
    }
    if (const vel_xml::XmlNode error = xml.GetNode("/doc/error")) throw ErrorOf(xml, error);
    if (answer.status != 200) BadAnswer(panel, "status " + std::to_string(answer.status));
    return Result(xml);
}

std::string FillIn(const std::string& request, const std::vector<std::string>& values) {
    std::string out, rest = request;
    for (const std::string& value : values) {
        if (rest.find('?') == std::string::npos) {
            vel_err::AssertError::Raise("vel_client.cpp", __LINE__, "Query",
                                        "more values than places in '" + request + "'");
        }
        out += str::GetWord(rest, '?') + str::url::Encode(value);
    }
    return out + rest;
}

/// So many seconds from now as the variable says.
std::chrono::steady_clock::time_point Deadline(const char* variable, int otherwise) {
    const std::string text = vel_env::GetEnv(variable);
    return std::chrono::steady_clock::now() +
           std::chrono::seconds(text.empty() ? otherwise : str::Int(text));
}

}  // namespace

std::string Result::value(const std::string& name) const {
    return xml_.GetNode("/doc/" + name).Str();
}

Local::Local(std::string panel, std::string name)
    : panel_(std::move(panel)), name_(std::move(name)) {}

Local& Local::WaitLocked(bool wait) {
    wait_locked_ = wait;
    return *this;
}

Result Local::Query(const std::string& request) { return Ask(request, {}); }

Result Local::Query(const std::string& request, const std::string& a) { return Ask(request, {a}); }

Result Local::Query(const std::string& request, const std::string& a, const std::string& b) {
    return Ask(request, {a, b});
}

Result Local::Query(const std::string& request, const std::string& a, const std::string& b,
                    const std::string& c) {
    return Ask(request, {a, b, c});
}

Result Local::Ask(std::string request, const std::vector<std::string>& values) {
    const std::string form = FillIn(request, values);
    const auto locked_until = Deadline("VEL_LOCK_WAIT", kLockWaitSeconds);
    const auto away_until = Deadline("VEL_PANEL_WAIT", 0);
    for (;;) {
        try {
            return Read(panel_, Post(panel_, name_, form));
        } catch (const Away&) {
            if (std::chrono::steady_clock::now() >= away_until) throw;
        } catch (const vel_err::Error& e) {
            const bool again = wait_locked_ && e.type() == "locked";
            if (!again || std::chrono::steady_clock::now() >= locked_until) throw;
        }
        logger.Write(6, "Panel '%s' is locked or away, asking again", panel_);
        vel_proc::Sleep(1000);
    }
}

void Remote::AddParam(const std::string& name, const std::string& value) {
    const auto same = [&name](const auto& param) { return param.first == name; };
    params_.erase(std::remove_if(params_.begin(), params_.end(), same), params_.end());
    params_.emplace_back(name, value);
}

vel_xml::Xml Remote::Query(const std::string& request) {
    std::string form = request;
    for (const auto& [name, value] : params_)
        str::Append(form, str::url::Encode(name) + "=" + str::url::Encode(value), "&");
    vel_rpc::HttpQuery http;
    http.AcceptAnyResponse();
    http.SetMaxSize(vel_xml::kStrangersLimit);
    http.SetTimeout(kRemoteSeconds);
    std::ostringstream answer;
    http.Post(url_, form, answer);
    try {
        return vel_xml::Xml::FromStranger(answer.str());
    } catch (const vel_err::Error&) {
        std::string host = url_;
        str::GetWord(host, "://");
        BadAnswer(str::GetWord(host, '/'), "not an XML document");
    }
}

}  // namespace vel_client
