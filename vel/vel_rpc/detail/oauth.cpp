#include "vel/vel_rpc/detail/oauth.h"

#include <algorithm>
#include <sstream>

#include "vel/str.h"
#include "vel/vel_log.h"
#include "vel/vel_proc.h"

namespace vel_rpc::detail {
namespace {

const vel_log::Module logger("vel_rpc");

constexpr uint64_t kMaxAnswer = uint64_t{4} << 20;
constexpr int kMaxRedirects = 5;
constexpr auto kBeforeTheEnd = std::chrono::seconds(60);  // a request that begins now takes time
constexpr uint64_t kLongestLife = uint64_t{365} * 24 * 3600;
constexpr const char* kFormType = "Content-Type: application/x-www-form-urlencoded";

/// "https://host:port" of an address; whatever else stands before the first "/" stays in it.
std::string Origin(const std::string& url) {
    const std::size_t host = url.find("://");
    if (host == std::string::npos) return "";
    return str::Lower(url.substr(0, url.find_first_of("/?#\\", host + 3)));
}

bool IsRedirect(const Response& response) {
    static const long kStatuses[] = {301, 302, 303, 307, 308};
    return std::count(std::begin(kStatuses), std::end(kStatuses), response.status) > 0;
}

}  // namespace

bool Patience::Wait(const Response& last) {
    if (left_ == 0) return false;
    --left_;
    waited_ = std::min(waited_ + 1, kRepetitions);
    vel_proc::Sleep(static_cast<int>(PauseBefore(waited_, last).count()));
    return true;
}

Trouble JudgeStatus(const Response& response) {
    if (response.status == 507) return Trouble::NoRoom;
    if (response.status == 404) return Trouble::Missing;
    return response.status == 429 || response.status >= 500 ? Trouble::Busy : Trouble::Other;
}

Account::Account(Provider provider, const std::string& credential)
    : provider_(std::move(provider)),
      credential_(ReadCredential(provider_.service, credential)),
      kept_(provider_.service, credential),
      transfer_(provider_.service) {
    TakeKept();
    for (const auto& [name, value] : credential_) {
        // A line end would begin a header of its own.
        if (value.find_first_of(str::badchars::Controls()) == std::string::npos) continue;
        throw vel_err::Error("storage", "bad_credential", provider_.service);
    }
    for (std::string& host : provider_.hosts) host = Origin(Url(host));
}

std::string Account::Member(const std::string& name) const {
    const auto found = credential_.find(name);
    return found == credential_.end() ? "" : found->second;
}

std::string Account::Credential() const {
    std::string members;
    for (const auto& [name, value] : credential_) {
        str::Append(members, Quoted(name) + ":" + Quoted(value), ",");
    }
    return str::base64::Encode("{" + members + "}");
}

void Account::Forget() {
    kept_.Remove();
    for (const char* name : {"access_token", "refresh_token", "client_secret"}) {
        credential_.erase(name);
    }
}

std::string Account::Url(const std::string& url) const {
    std::string api = Member("api");
    if (api.empty()) return url;
    while (!api.empty() && api.back() == '/') api.pop_back();
    return api + url.substr(Origin(url).size());
}

bool Account::MaySeeToken(const std::string& url) const {
    return std::count(provider_.hosts.begin(), provider_.hosts.end(), Origin(url)) > 0;
}

Outcome Account::Perform(Request& request) {
    if (request.sink) {
        transfer_.Prepare(request);
        return transfer_.Perform();
    }
    std::ostringstream text;
    request.sink = &text;
    request.max_answer = kMaxAnswer;
    transfer_.Prepare(request);
    Outcome outcome = transfer_.Perform();
    request.sink = nullptr;
    request.max_answer.reset();
    if (!request.source) outcome.untouched = true;  // half a text that nobody has seen
    if (outcome.response.Ok()) outcome.response.body = text.str();
    return outcome;
}

Outcome Account::PerformAs(Request& request) {
    if (!MaySeeToken(request.url)) return Perform(request);
    request.headers.push_back("Authorization: " + provider_.scheme + " " + Member("access_token"));
    Outcome outcome = Perform(request);
    request.headers.pop_back();
    return outcome;
}

Outcome Account::Try(Request& request) {
    const auto refused = [&](const Outcome& outcome) {
        return outcome.response.status == 401 && !outcome.failure && MaySeeToken(request.url);
    };
    if (RunOut()) Renew();
    Outcome outcome = PerformAs(request);
    if (!refused(outcome)) return outcome;
    const std::string before = Member("access_token");
    if (TakeKept() && Member("access_token") != before) {
        outcome = PerformAs(request);
        if (!refused(outcome)) return outcome;
    }
    Renew();
    return PerformAs(request);
}

Response Account::Call(Request& request) {
    for (Patience patience;;) {
        Outcome outcome = Try(request);
        const bool busy =
            outcome.failure ? outcome.no_answer : Judge(outcome.response) == Trouble::Busy;
        if (busy && outcome.untouched && patience.Wait(outcome.response)) continue;
        if (outcome.failure) std::rethrow_exception(outcome.failure);
        return std::move(outcome.response);
    }
}

Json Account::Ask(const std::string& what, Request request) {
    const Response response = Call(request);
    if (!response.Ok()) Refuse(what, response);
    return {provider_.service + ": " + what, response.body};
}

void Account::Fetch(const std::string& what, Request request, std::ostream& out) {
    request.sink = &out;
    for (int redirects = 0; redirects <= kMaxRedirects; ++redirects) {
        const Response response = Call(request);
        if (response.Ok() && !response.TellsItsEnd()) Refuse(what, "an answer of no length");
        if (response.Ok()) return;
        std::string target = response.Header("location");
        const bool follow = IsRedirect(response) && request.method == "GET" && !target.empty();
        // An address that never saw the token says nothing about it.
        if (response.status == 401 && !MaySeeToken(request.url)) Refuse(what, "401 elsewhere");
        if (!follow) Refuse(what, response);
        if (str::StartsWith(target, "/") && !str::StartsWith(target, "//")) {
            target.insert(0, Origin(request.url));
        }
        CheckTarget(what, request.url, target);
        request.url = target;
    }
    Refuse(what, "too many redirects");
}

Response Account::PostForm(const std::string& url,
                           const std::map<std::string, std::string>& fields) {
    Request request;
    request.method = "POST";
    request.url = Url(url);
    request.headers = {kFormType};
    for (const auto& [name, value] : fields) {
        str::Append(request.body, name + "=" + str::url::Encode(value), "&");
    }
    for (Patience patience;;) {
        Outcome outcome = Perform(request);
        if (outcome.WorthRepeating() && patience.Wait(outcome.response)) continue;
        if (outcome.failure) std::rethrow_exception(outcome.failure);
        return std::move(outcome.response);
    }
}

bool Account::RunOut() const {
    return Member("access_token").empty() || std::chrono::steady_clock::now() >= ends_;
}

/// What another process was given since; true when there is anything.
bool Account::TakeKept() {
    bool found = false;
    for (const auto& [name, value] : kept_.Read()) {
        if ((name != "access_token" && name != "refresh_token") || value.empty()) continue;
        credential_[name] = value;
        found = true;
    }
    return found;
}

/// One process after the other: a refresh token may be good for one use only.
void Account::Renew() {
    const std::string before = Member("refresh_token") + " " + Member("access_token");
    const auto alone = kept_.LockOthersOut();
    TakeKept();
    if (Member("refresh_token") + " " + Member("access_token") != before) {  // just renewed
        ends_ = std::chrono::steady_clock::time_point::max();
        return;
    }
    Refresh();
    kept_.Write(alone.get(), Credential());
}

void Account::Refresh() {
    const std::string& service = provider_.service;
    if (Member("refresh_token").empty()) {
        throw Unauthorized(service, "the access token is refused and cannot be refreshed");
    }
    const Response response =
        PostForm(provider_.token_url, {{"grant_type", "refresh_token"},
                                       {"refresh_token", Member("refresh_token")},
                                       {"client_id", Member("client_id")},
                                       {"client_secret", Member("client_secret")}});
    // 400 invalid_grant or invalid_client, or 401: no later attempt can be answered better.
    if (response.status == 400 || response.status == 401) {
        throw Unauthorized(service, "the access cannot be renewed: " + Words(response));
    }
    if (!response.Ok()) Refuse("refresh the access token", response);
    const Json json(service + ": refresh the access token", response.body);
    credential_["access_token"] = json.Text("access_token");
    if (json.Has("refresh_token")) credential_["refresh_token"] = json.Text("refresh_token");
    ends_ = std::chrono::steady_clock::time_point::max();
    if (json.Has("expires_in")) {
        const auto life = std::chrono::seconds(std::min(json.Number("expires_in"), kLongestLife));
        ends_ = std::chrono::steady_clock::now() + life - std::min(life / 2, kBeforeTheEnd);
    }
    logger.Write(6, "%s: the access token was refreshed", service);
}

Trouble Account::Judge(const Response& response) const {
    return response.Ok() || response.status < 400 ? Trouble::Other : provider_.judge(response);
}

std::string Account::Words(const Response& response) const {
    std::string words = Excerpt(response.body);
    for (const char* name : {"access_token", "refresh_token", "client_secret"}) {
        const std::string secret = Member(name);
        if (!secret.empty()) str::inpl::Replace(words, secret, "***");
    }
    return std::to_string(response.status) + " " + words;
}

void Account::Refuse(const std::string& what, const Response& response) const {
    if (response.status == 401)
        throw Unauthorized(provider_.service, what + ": " + Words(response));
    const std::string text = provider_.service + ": " + what + ": " + Words(response);
    switch (Judge(response)) {
        case Trouble::Missing:
            throw Missing(text);
        case Trouble::NoRoom:
            throw NoRoom(text);
        case Trouble::Busy:
        case Trouble::Other:
            break;
    }
    throw vel_err::Error("storage", "refused", text);
}

void Account::Refuse(const std::string& what, const std::string& why) const {
    throw vel_err::Error("storage", "refused", provider_.service + ": " + what + ": " + why);
}

void Account::CheckTarget(const std::string& what, const std::string& from,
                          const std::string& to) const {
    const std::string origin = Origin(to);
    const bool clean = to.find(' ') == std::string::npos &&
                       to.find_first_of(str::badchars::Controls()) == std::string::npos;
    const bool plain_allowed = str::StartsWith(str::Lower(from), "http://");
    if (clean && str::StartsWith(origin, "https://")) return;
    if (clean && str::StartsWith(origin, "http://") && plain_allowed) return;
    Refuse(what, "the service points to an address that is not taken");
}

}  // namespace vel_rpc::detail
