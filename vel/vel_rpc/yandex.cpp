#include "vel/vel_rpc/yandex.h"

#include <algorithm>
#include <exception>
#include <optional>
#include <streambuf>
#include <utility>

#include "vel/str.h"
#include "vel/vel_err.h"
#include "vel/vel_hash.h"
#include "vel/vel_log.h"
#include "vel/vel_rpc/detail/cloud_parts.h"
#include "vel/vel_rpc/detail/json.h"
#include "vel/vel_rpc/detail/oauth.h"

namespace vel_rpc {
namespace {

using detail::Json;
using detail::Names;
using detail::Outcome;
using detail::Request;
using detail::Response;
using detail::Shown;
using detail::Trouble;

const vel_log::Module logger("vel_rpc");

constexpr const char* kService = "Yandex Disk";
constexpr const char* kApi = "https://cloud-api.yandex.net";
constexpr const char* kOauth = "https://oauth.yandex.com";
constexpr const char* kResources = "https://cloud-api.yandex.net/v1/disk/resources";
constexpr uint64_t kPage = 500;
constexpr uint64_t kPausesForOperation = 75;  // of 8 s: ten minutes
constexpr uint64_t kPausesForFile = 15;       // of 8 s: two minutes, and as much for each GiB

Trouble Judge(const Response& response) {
    // Somebody else works on the resource, or on one above it.
    if (response.status == 423) return Trouble::Busy;
    return detail::JudgeStatus(response);
}

std::string ErrorName(const Response& response) {
    try {
        return Json(kService, response.body).TextOrNothing("error");
    } catch (const vel_err::Error&) {
        return "";
    }
}

/// A path as the value of a parameter.
std::string Encoded(const Names& path) {
    const std::string text = detail::JoinNames(path);
    return str::url::Encode("disk:" + (text.empty() ? "/" : text));
}

/// The first bytes, which have been read already, and then the rest of a stream; all of it hashed.
class Joined : public std::streambuf {
public:
    Joined(std::string& first, std::istream& rest) : first_(first), rest_(rest) { Show(); }

    uint64_t Size() const { return size_; }
    std::string Md5() { return str::hex::Encode(md5_.Str()); }
    bool AllGiven() const { return ended_; }

private:
    void Show() {
        md5_.Update(first_);
        size_ += first_.size();
        setg(first_.data(), first_.data(), first_.data() + first_.size());
    }
    int_type underflow() override {
        if (ended_) return traits_type::eof();
        detail::ReadChunk(rest_, first_);
        Show();
        ended_ = first_.empty();
        return ended_ ? traits_type::eof() : traits_type::to_int_type(first_.front());
    }

    std::string& first_;
    std::istream& rest_;
    vel_hash::Hash md5_{vel_hash::HashType::Md5};
    uint64_t size_ = 0;
    bool ended_ = false;
};

struct Sent {
    uint64_t size = 0;
    std::string md5;
    std::exception_ptr no_answer;  // all was sent, but nothing came back
};

}  // namespace

class Yandex::Impl {
public:
    explicit Impl(const std::string& credential)
        : account({kService, "OAuth", {kApi}, std::string(kOauth) + "/token", &Judge}, credential) {
    }

    void Get(const std::string& path, std::ostream& out);
    void Put(const std::string& path, std::istream& in);
    void ListFolder(const std::string& what, const Names& path, detail::Listing& listing);
    /// The named fields of what is there; nothing when nothing is.
    std::optional<Json> Find(const std::string& what, const Names& path, const std::string& fields);
    /// Removes it for good when it is of this type ("file", "dir").
    void Remove(const std::string& what, const Names& path, const std::string& type);
    void MkFolder(const std::string& what, const Names& path);

    detail::Account account;

private:
    Request OnResource(const std::string& method, const std::string& action,
                       const std::string& parameters) const;
    void Wait(const std::string& what, const Response& response);
    void RemoveForGood(const std::string& what, const Names& path);
    std::string UploadAddress(const std::string& what, const Names& target);
    Sent Send(const std::string& what, const Names& target, std::istream& in);
    Sent SendSmall(const std::string& what, const Names& target, std::string bytes);
    Sent SendLong(const std::string& what, const Names& target, std::string& first,
                  std::istream& rest);
    bool IsStored(const std::string& what, const Names& path, const Sent& sent);
    void AwaitStored(const std::string& what, const Names& path, const Sent& sent);
    void Move(const std::string& what, const Names& from, const Names& to, const Sent& sent);
};

Request Yandex::Impl::OnResource(const std::string& method, const std::string& action,
                                 const std::string& parameters) const {
    Request request;
    request.method = method;
    request.url = account.Url(kResources) + action + "?" + parameters;
    return request;
}

/// An answer of 202 tells of an operation that goes on.
void Yandex::Impl::Wait(const std::string& what, const Response& response) {
    if (!response.Ok()) account.Refuse(what, response);
    if (response.status != 202) return;
    Request request;
    request.url = Json(std::string(kService) + ": " + what, response.body).Text("href");
    account.CheckTarget(what, account.Url(kApi), request.url);
    for (detail::Patience patience(kPausesForOperation);;) {
        const std::string status = account.Ask(what, request).Text("status");
        if (status == "success") return;
        if (status == "failed") account.Refuse(what, "the service's operation failed");
        if (!patience.Wait()) account.Refuse(what, "the service's operation does not end");
    }
}

std::optional<Json> Yandex::Impl::Find(const std::string& what, const Names& path,
                                       const std::string& fields) {
    try {
        return account.Ask(what,
                           OnResource("GET", "", "path=" + Encoded(path) + "&fields=" + fields));
    } catch (const detail::Missing&) {
        return std::nullopt;
    }
}

void Yandex::Impl::RemoveForGood(const std::string& what, const Names& path) {
    Request request = OnResource("DELETE", "", "path=" + Encoded(path) + "&permanently=true");
    const Response response = account.Call(request);
    // Missing: the answer to an earlier attempt was lost.
    if (account.Judge(response) != Trouble::Missing) Wait(what, response);
}

void Yandex::Impl::Remove(const std::string& what, const Names& path, const std::string& type) {
    const std::optional<Json> found = Find(what, path, "type");
    if (!found) throw detail::Missing(std::string(kService) + ": " + what);
    if (found->Text("type") != type) account.Refuse(what, "it is not a " + type);
    RemoveForGood(what, path);
}

void Yandex::Impl::MkFolder(const std::string& what, const Names& path) {
    if (path.empty()) return;
    Request request = OnResource("PUT", "", "path=" + Encoded(path));
    Response response = account.Call(request);
    if (ErrorName(response) == "DiskPathDoesntExistsError") {
        MkFolder(what, detail::Parent(path));
        response = account.Call(request);
    }
    const bool there = ErrorName(response) == "DiskPathPointsToExistentDirectoryError";
    if (!response.Ok() && !there) account.Refuse(what, response);
}

void Yandex::Impl::Get(const std::string& path, std::ostream& out) {
    const std::string what = "get " + Shown(path);
    const std::string target = Encoded(detail::SplitBelowRoot(kService, path));
    Request request;
    request.url = account.Ask(what, OnResource("GET", "/download", "path=" + target)).Text("href");
    account.CheckTarget(what, account.Url(kApi), request.url);
    account.Fetch(what, request, out);
}

void Yandex::Impl::ListFolder(const std::string& what, const Names& path,
                              detail::Listing& listing) {
    for (uint64_t offset = 0;;) {
        const auto folder = account.Ask(
            what, OnResource("GET", "",
                             "path=" + Encoded(path) + "&sort=name&limit=" + str::Str(kPage) +
                                 "&offset=" + str::Str(offset) +
                                 "&fields=type,_embedded.total,_embedded.items.name"));
        if (folder.Text("type") != "dir") account.Refuse(what, "it is not a folder");
        const Json page = folder.At("_embedded");
        const std::vector<Json> items = page.Items("items");
        for (const Json& item : items) listing.Add(item.Text("name"));
        listing.TurnPage();
        offset += items.size();
        if (offset >= page.Number("total")) return;
        if (items.empty()) account.Refuse(what, "the listing breaks off");
    }
}

// Uploads. The service slows files down whose name looks like an archive's, so a file comes under
// a name without an extension, which also keeps what is there until the new one is complete.

void Yandex::Impl::Put(const std::string& path, std::istream& in) {
    const std::string what = "put " + Shown(path);
    const Names target = detail::SplitBelowRoot(kService, path);
    Names temporary = detail::Parent(target);
    temporary.push_back("upload-" + str::hex::Encode(str::Random(8)));
    try {
        const Sent sent = Send(what, temporary, in);
        AwaitStored(what, temporary, sent);
        Move(what, temporary, target, sent);
    } catch (...) {
        try {
            RemoveForGood(what, temporary);
        } catch (const vel_err::Error& e) {
            logger.Write(4, "%s: %s is left behind: %s", what, Shown(detail::JoinNames(temporary)),
                         e.what());
        }
        throw;
    }
}

std::string Yandex::Impl::UploadAddress(const std::string& what, const Names& target) {
    Request request = OnResource("GET", "/upload", "path=" + Encoded(target) + "&overwrite=true");
    Response response = account.Call(request);
    if (ErrorName(response) == "DiskPathDoesntExistsError") {
        MkFolder(what, detail::Parent(target));
        response = account.Call(request);
    }
    if (!response.Ok()) account.Refuse(what, response);
    std::string address = Json(std::string(kService) + ": " + what, response.body).Text("href");
    account.CheckTarget(what, request.url, address);
    return address;
}

Sent Yandex::Impl::Send(const std::string& what, const Names& target, std::istream& in) {
    std::string first;
    detail::ReadChunk(in, first);
    if (detail::AtEnd(in)) return SendSmall(what, target, std::move(first));
    return SendLong(what, target, first, in);
}

/// What is still in memory can be sent again, to a new address each time.
Sent Yandex::Impl::SendSmall(const std::string& what, const Names& target, std::string bytes) {
    vel_hash::Hash md5(vel_hash::HashType::Md5);
    md5.Update(bytes);
    Sent sent{bytes.size(), str::hex::Encode(md5.Str()), nullptr};
    Request request;
    request.method = "PUT";
    request.headers = {"Content-Type: application/octet-stream"};
    request.body = std::move(bytes);
    for (detail::Patience patience;;) {
        request.url = UploadAddress(what, target);
        const Outcome outcome = account.TryUnnamed(request);
        if (!outcome.failure && outcome.response.Ok()) return sent;
        const Trouble trouble = account.Judge(outcome.response);
        // Missing: the address was used already, for example by libcurl on another connection.
        const bool again = outcome.failure
                               ? outcome.no_answer
                               : trouble == Trouble::Busy || trouble == Trouble::Missing;
        if (again && patience.Wait(outcome.response)) continue;
        if (outcome.failure) std::rethrow_exception(outcome.failure);
        account.Refuse(what, outcome.response);
    }
}

/// The service has no way to go on with an upload that broke off.
Sent Yandex::Impl::SendLong(const std::string& what, const Names& target, std::string& first,
                            std::istream& rest) {
    Joined bytes(first, rest);
    std::istream source(&bytes);
    source.exceptions(std::ios::badbit);  // what the rest throws passes unchanged
    Request request;
    request.method = "PUT";
    request.url = UploadAddress(what, target);
    request.headers = {"Content-Type: application/octet-stream"};
    request.source = &source;
    const Outcome outcome = account.TryUnnamed(request);
    // After the last byte the service works on the file for minutes: an answer that does not come
    // in time says nothing yet.
    const bool lost = outcome.failure && outcome.no_answer && bytes.AllGiven();
    if (outcome.failure && !lost) std::rethrow_exception(outcome.failure);
    if (!lost && !outcome.response.Ok()) account.Refuse(what, outcome.response);
    return {bytes.Size(), bytes.Md5(), outcome.failure};
}

/// False while the service has not finished with the file.
bool Yandex::Impl::IsStored(const std::string& what, const Names& path, const Sent& sent) {
    const std::optional<Json> found = Find(what, path, "size,md5");
    if (!found || !found->Has("md5")) return false;
    if (found->Number("size") == sent.size && found->Text("md5") == sent.md5) return true;
    account.Refuse(what, "the service stored other bytes than were sent");
}

void Yandex::Impl::AwaitStored(const std::string& what, const Names& path, const Sent& sent) {
    detail::Patience patience(kPausesForFile * (1 + (sent.size >> 30)));
    while (!IsStored(what, path, sent)) {
        if (patience.Wait()) continue;
        if (sent.no_answer) std::rethrow_exception(sent.no_answer);
        account.Refuse(what, "the service does not show the sent file");
    }
}

void Yandex::Impl::Move(const std::string& what, const Names& from, const Names& to,
                        const Sent& sent) {
    Request request = OnResource(
        "POST", "/move", "from=" + Encoded(from) + "&path=" + Encoded(to) + "&overwrite=true");
    const Response response = account.Call(request);
    // Missing: the answer to an earlier attempt was lost.
    if (account.Judge(response) == Trouble::Missing && IsStored(what, to, sent)) return;
    Wait(what, response);
}

Yandex::Yandex(const std::string& credential) : impl_(std::make_unique<Impl>(credential)) {}

Yandex::~Yandex() = default;

void Yandex::Get(const std::string& path, std::ostream& out) { impl_->Get(path, out); }

int Yandex::Put(const std::string& path, std::istream& in, const std::string&) {
    return detail::StatusOf([&] { impl_->Put(path, in); });
}

void Yandex::List(const std::string& path, std::vector<std::string>& out) {
    const std::string what = "list " + Shown(path);
    const Names names = detail::SplitNames(kService, path);
    detail::Listing listing(kService, what);
    if (detail::IsFolderPath(path)) {
        try {
            impl_->ListFolder(what, names, listing);
        } catch (const detail::Missing&) {  // not even an empty one
            return;
        }
    } else if (const auto found = impl_->Find(what, names, "type,name")) {
        if (found->Text("type") == "file") listing.Add(found->Text("name"));
    }
    out.insert(out.end(), listing.Found().begin(), listing.Found().end());
}

void Yandex::Delete(const std::string& path) {
    impl_->Remove("delete " + Shown(path), detail::SplitBelowRoot(kService, path), "file");
}

void Yandex::MkPath(const std::string& path) {
    impl_->MkFolder("make the folder " + Shown(path), detail::SplitNames(kService, path));
}

void Yandex::RmDir(const std::string& path) {
    try {
        impl_->Remove("remove the folder " + Shown(path), detail::SplitBelowRoot(kService, path),
                      "dir");
    } catch (const detail::Missing&) {  // it is as it shall be
    }
}

void Yandex::DropToken() {
    detail::Account& account = impl_->account;
    try {
        const Response response =
            account.PostForm(std::string(kOauth) + "/revoke_token",
                             {{"access_token", account.Member("access_token")},
                              {"client_id", account.Member("client_id")},
                              {"client_secret", account.Member("client_secret")}});
        // 400: only tokens that were given to a device can be given back.
        if (!response.Ok() && response.status != 400) account.Refuse("revoke the access", response);
    } catch (const vel_err::Error& e) {
        logger.Write(4, "%s: the access could not be revoked: %s", kService, e.what());
    }
    account.Forget();
}

std::string Yandex::Credential() const { return impl_->account.Credential(); }

}  // namespace vel_rpc
