#include "vel/vel_rpc/yandex.h"

#include <ctime>
#include <exception>
#include <functional>
#include <optional>
#include <streambuf>
#include <utility>

#include "vel/str.h"
#include "vel/vel_err.h"
#include "vel/vel_hash.h"
#include "vel/vel_log.h"
#include "vel/vel_rpc/detail/account_cloud.h"
#include "vel/vel_rpc/detail/cloud_parts.h"
#include "vel/vel_rpc/detail/json.h"

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
constexpr char kTemporary[] = "backup2-upload-";  // and hex digits: a file on its way up
constexpr std::size_t kTemporaryBytes = 8;
constexpr int kMaxDepth = 100;                // of folders in folders
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

bool IsTemporary(const std::string& name) {
    const std::size_t begin = sizeof kTemporary - 1;
    return str::StartsWith(name, kTemporary) && name.size() == begin + 2 * kTemporaryBytes &&
           name.find_first_not_of("0123456789abcdef", begin) == std::string::npos;
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

class YandexCloud final : public detail::AccountCloud {
public:
    explicit YandexCloud(const std::string& credential)
        : AccountCloud({kService, "OAuth", {kApi}, std::string(kOauth) + "/token", &Judge},
                       credential) {}

    void Get(const std::string& path, std::ostream& out) override;
    void List(const std::string& path, std::vector<std::string>& out) override;
    void Delete(const std::string& path) override;
    void MkPath(const std::string& path) override;
    void RmDir(const std::string& path) override;
    int AbortStale(const std::string& path, int hours) override;

private:
    void Store(const std::string& path, std::istream& in) override;
    void Revoke() override;
    void ForItems(const std::string& what, const Names& path, const std::string& fields,
                  const std::function<void(const Json&)>& use);
    int Sweep(const Names& path, std::time_t limit, int depth);
    /// The named fields of what is there; nothing when nothing is.
    std::optional<Json> Find(const std::string& what, const Names& path, const std::string& fields);
    /// Removes it for good when it is of this type ("file", "dir").
    void Remove(const std::string& what, const Names& path, const std::string& type);
    void MkFolder(const std::string& what, const Names& path);

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

Request YandexCloud::OnResource(const std::string& method, const std::string& action,
                                const std::string& parameters) const {
    Request request;
    request.method = method;
    request.url = account_.Url(kResources) + action + "?" + parameters;
    return request;
}

/// An answer of 202 tells of an operation that goes on.
void YandexCloud::Wait(const std::string& what, const Response& response) {
    if (!response.Ok()) account_.Refuse(what, response);
    if (response.status != 202) return;
    Request request;
    request.url = Json(std::string(kService) + ": " + what, response.body).Text("href");
    account_.CheckTarget(what, account_.Url(kApi), request.url);
    for (detail::Patience patience(kPausesForOperation);;) {
        const std::string status = account_.Ask(what, request).Text("status");
        if (status == "success") return;
        if (status == "failed") account_.Refuse(what, "the service's operation failed");
        if (!patience.Wait()) account_.Refuse(what, "the service's operation does not end");
    }
}

std::optional<Json> YandexCloud::Find(const std::string& what, const Names& path,
                                      const std::string& fields) {
    try {
        return account_.Ask(what,
                            OnResource("GET", "", "path=" + Encoded(path) + "&fields=" + fields));
    } catch (const detail::Missing&) {
        return std::nullopt;
    }
}

void YandexCloud::RemoveForGood(const std::string& what, const Names& path) {
    Request request = OnResource("DELETE", "", "path=" + Encoded(path) + "&permanently=true");
    const Response response = account_.Call(request);
    // Missing: the answer to an earlier attempt was lost.
    if (account_.Judge(response) != Trouble::Missing) Wait(what, response);
}

void YandexCloud::Remove(const std::string& what, const Names& path, const std::string& type) {
    const std::optional<Json> found = Find(what, path, "type");
    if (!found) throw detail::Missing(std::string(kService) + ": " + what);
    if (found->Text("type") != type) account_.Refuse(what, "it is not a " + type);
    RemoveForGood(what, path);
}

void YandexCloud::MkFolder(const std::string& what, const Names& path) {
    if (path.empty()) return;
    Request request = OnResource("PUT", "", "path=" + Encoded(path));
    Response response = account_.Call(request);
    if (ErrorName(response) == "DiskPathDoesntExistsError") {
        MkFolder(what, detail::Parent(path));
        response = account_.Call(request);
    }
    const bool there = ErrorName(response) == "DiskPathPointsToExistentDirectoryError";
    if (!response.Ok() && !there) account_.Refuse(what, response);
}

void YandexCloud::Get(const std::string& path, std::ostream& out) {
    const std::string what = "get " + Shown(path);
    const std::string target = Encoded(detail::SplitBelowRoot(kService, path));
    Request request;
    request.url = account_.Ask(what, OnResource("GET", "/download", "path=" + target)).Text("href");
    account_.CheckTarget(what, account_.Url(kApi), request.url);
    account_.Fetch(what, request, out);
}

/// Calls `use` with each item in the folder, whose name is good and comes once; throws Missing when
/// there is no such folder.
void YandexCloud::ForItems(const std::string& what, const Names& path, const std::string& fields,
                           const std::function<void(const Json&)>& use) {
    detail::Listing listing(kService, what);
    for (uint64_t offset = 0;;) {
        const auto folder = account_.Ask(
            what, OnResource("GET", "",
                             "path=" + Encoded(path) + "&sort=name&limit=" + str::Str(kPage) +
                                 "&offset=" + str::Str(offset) + "&fields=type,_embedded.total" +
                                 str::Replace("," + fields, ",", ",_embedded.items.")));
        if (folder.Text("type") != "dir") account_.Refuse(what, "it is not a folder");
        const Json page = folder.At("_embedded");
        const std::vector<Json> items = page.Items("items");
        for (const Json& item : items) {
            if (listing.Add(item.Text("name"))) use(item);
        }
        listing.TurnPage();
        offset += items.size();
        if (offset >= page.Number("total")) return;
        if (items.empty()) account_.Refuse(what, "the listing breaks off");
    }
}

// Uploads. The service slows files down whose name looks like an archive's, so a file comes under
// a name without an extension, which also keeps what is there until the new one is complete.

void YandexCloud::Store(const std::string& path, std::istream& in) {
    const std::string what = "put " + Shown(path);
    const Names target = detail::SplitBelowRoot(kService, path);
    Names temporary = detail::Parent(target);
    temporary.push_back(kTemporary + str::hex::Encode(str::Random(kTemporaryBytes)));
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

std::string YandexCloud::UploadAddress(const std::string& what, const Names& target) {
    Request request = OnResource("GET", "/upload", "path=" + Encoded(target) + "&overwrite=true");
    Response response = account_.Call(request);
    if (ErrorName(response) == "DiskPathDoesntExistsError") {
        MkFolder(what, detail::Parent(target));
        response = account_.Call(request);
    }
    if (!response.Ok()) account_.Refuse(what, response);
    std::string address = Json(std::string(kService) + ": " + what, response.body).Text("href");
    account_.CheckTarget(what, request.url, address);
    return address;
}

Sent YandexCloud::Send(const std::string& what, const Names& target, std::istream& in) {
    std::string first;
    detail::ReadChunk(in, first);
    if (detail::AtEnd(in)) return SendSmall(what, target, std::move(first));
    return SendLong(what, target, first, in);
}

/// What is still in memory can be sent again, to a new address each time.
Sent YandexCloud::SendSmall(const std::string& what, const Names& target, std::string bytes) {
    const std::string md5 = vel_hash::Digest(vel_hash::HashType::Md5, bytes);
    Sent sent{bytes.size(), str::hex::Encode(md5), nullptr};
    Request request;
    request.method = "PUT";
    request.headers = {"Content-Type: application/octet-stream"};
    request.body = std::move(bytes);
    for (detail::Patience patience;;) {
        request.url = UploadAddress(what, target);
        const Outcome outcome = account_.TryUnnamed(request);
        if (!outcome.failure && outcome.response.Ok()) return sent;
        const Trouble trouble = account_.Judge(outcome.response);
        // Missing: the address was used already, for example by libcurl on another connection.
        const bool again = outcome.failure
                               ? outcome.no_answer
                               : trouble == Trouble::Busy || trouble == Trouble::Missing;
        if (again && patience.Wait(outcome.response)) continue;
        if (outcome.failure) std::rethrow_exception(outcome.failure);
        account_.Refuse(what, outcome.response);
    }
}

/// The service has no way to go on with an upload that broke off.
Sent YandexCloud::SendLong(const std::string& what, const Names& target, std::string& first,
                           std::istream& rest) {
    Joined bytes(first, rest);
    std::istream source(&bytes);
    source.exceptions(std::ios::badbit);  // what the rest throws passes unchanged
    Request request;
    request.method = "PUT";
    request.url = UploadAddress(what, target);
    request.headers = {"Content-Type: application/octet-stream"};
    request.source = &source;
    const Outcome outcome = account_.TryUnnamed(request);
    // After the last byte the service works on the file for minutes: an answer that does not come
    // in time says nothing yet.
    const bool lost = outcome.failure && outcome.no_answer && bytes.AllGiven();
    if (outcome.failure && !lost) std::rethrow_exception(outcome.failure);
    if (!lost && !outcome.response.Ok()) account_.Refuse(what, outcome.response);
    return {bytes.Size(), bytes.Md5(), outcome.failure};
}

/// False while the service has not finished with the file.
bool YandexCloud::IsStored(const std::string& what, const Names& path, const Sent& sent) {
    const std::optional<Json> found = Find(what, path, "size,md5");
    if (!found || !found->Has("md5")) return false;
    if (found->Number("size") == sent.size && found->Text("md5") == sent.md5) return true;
    account_.Refuse(what, "the service stored other bytes than were sent");
}

void YandexCloud::AwaitStored(const std::string& what, const Names& path, const Sent& sent) {
    detail::Patience patience(kPausesForFile * (1 + (sent.size >> 30)));
    while (!IsStored(what, path, sent)) {
        if (patience.Wait()) continue;
        if (sent.no_answer) std::rethrow_exception(sent.no_answer);
        account_.Refuse(what, "the service does not show the sent file");
    }
}

void YandexCloud::Move(const std::string& what, const Names& from, const Names& to,
                       const Sent& sent) {
    Request request = OnResource(
        "POST", "/move", "from=" + Encoded(from) + "&path=" + Encoded(to) + "&overwrite=true");
    const Response response = account_.Call(request);
    // Missing: the answer to an earlier attempt was lost.
    if (account_.Judge(response) == Trouble::Missing && IsStored(what, to, sent)) return;
    Wait(what, response);
}

void YandexCloud::List(const std::string& path, std::vector<std::string>& out) {
    const std::string what = "list " + Shown(path);
    const Names folder = detail::SplitNames(kService, path);
    std::vector<std::string> names;
    if (detail::IsFolderPath(path)) {
        try {
            ForItems(what, folder, "name",
                     [&](const Json& item) { names.push_back(item.Text("name")); });
        } catch (const detail::Missing&) {  // not even an empty one
            return;
        }
    } else if (const auto found = Find(what, folder, "type")) {
        if (found->Text("type") == "file") names.push_back(folder.back());
    }
    out.insert(out.end(), names.begin(), names.end());
}

void YandexCloud::Delete(const std::string& path) {
    Remove("delete " + Shown(path), detail::SplitBelowRoot(kService, path), "file");
}

void YandexCloud::MkPath(const std::string& path) {
    MkFolder("make the folder " + Shown(path), detail::SplitNames(kService, path));
}

void YandexCloud::RmDir(const std::string& path) {
    try {
        Remove("remove the folder " + Shown(path), detail::SplitBelowRoot(kService, path), "dir");
    } catch (const detail::Missing&) {  // it is as it shall be
    }
}

/// What killed uploads left in the folder and in those below it.
int YandexCloud::Sweep(const Names& path, std::time_t limit, int depth) {
    const std::string what = "sweep " + Shown(detail::JoinNames(path));
    if (depth > kMaxDepth) account_.Refuse(what, "the folders do not end");
    std::vector<Names> stale, folders;
    const auto sort = [&](const Json& item) {
        Names below = path;
        below.push_back(item.Text("name"));
        if (item.Text("type") == "dir") {
            folders.push_back(std::move(below));
        } else if (IsTemporary(below.back()) &&
                   detail::TimeOf(kService, what, item.Text("modified")) <= limit) {
            stale.push_back(std::move(below));
        }
    };
    try {
        ForItems(what, path, "type,name,modified", sort);
    } catch (const detail::Missing&) {  // nothing was stored yet, or it was just removed
        return 0;
    }
    for (const Names& file : stale) RemoveForGood(what, file);
    int swept = static_cast<int>(stale.size());
    for (const Names& folder : folders) swept += Sweep(folder, limit, depth + 1);
    return swept;
}

int YandexCloud::AbortStale(const std::string& path, int hours) {
    return Sweep(detail::SplitNames(kService, path), detail::HoursAgo(hours), 0);
}

void YandexCloud::Revoke() {
    const Response response =
        account_.PostForm(std::string(kOauth) + "/revoke_token",
                          {{"access_token", account_.Member("access_token")},
                           {"client_id", account_.Member("client_id")},
                           {"client_secret", account_.Member("client_secret")}});
    // 400: only tokens that were given to a device can be given back.
    if (!response.Ok() && response.status != 400) account_.Refuse("revoke the access", response);
}

}  // namespace

Yandex::Yandex(const std::string& credential)
    : CloudClient(std::make_unique<YandexCloud>(credential)) {}

}  // namespace vel_rpc
