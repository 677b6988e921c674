#include "vel/vel_rpc/google_drive.h"

#include <algorithm>
#include <exception>
#include <map>
#include <optional>
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
using detail::Quoted;
using detail::Request;
using detail::Response;
using detail::Shown;
using detail::Trouble;

const vel_log::Module logger("vel_rpc");

constexpr const char* kService = "Google Drive";
constexpr const char* kApi = "https://www.googleapis.com";
constexpr const char* kOauth = "https://oauth2.googleapis.com";
constexpr const char* kFiles = "https://www.googleapis.com/drive/v3/files";
constexpr const char* kUpload = "https://www.googleapis.com/upload/drive/v3/files";
constexpr const char* kFolderType = "application/vnd.google-apps.folder";
constexpr const char* kJsonType = "Content-Type: application/json; charset=UTF-8";
constexpr const char* kStoredFields = "&fields=id,size,md5Checksum";
constexpr long kResumeIncomplete = 308;
static_assert(detail::kChunkSize % (256 << 10) == 0, "the service takes no other chunks");

/// 403 stands for a full storage, for too many requests and for a missing right.
Trouble Judge(const Response& response) {
    if (response.status != 403) return detail::JudgeStatus(response);
    try {
        const auto errors = Json(kService, response.body).At("error").Items("errors");
        const std::string reason = errors.empty() ? "" : errors.front().TextOrNothing("reason");
        if (reason == "storageQuotaExceeded") return Trouble::NoRoom;
        const bool rate = reason == "userRateLimitExceeded" || reason == "rateLimitExceeded";
        return rate ? Trouble::Busy : Trouble::Other;
    } catch (const vel_err::Error&) {
        return Trouble::Other;
    }
}

/// A text in a search, within its single quotes.
std::string InQuery(const std::string& text) {
    return "'" + str::Replace(str::Replace(text, "\\", "\\\\"), "'", "\\'") + "'";
}

std::string Metadata(const std::string& name, const std::string& folder,
                     const std::string& more = "") {
    return "{\"name\":" + Quoted(name) + ",\"parents\":[" + Quoted(folder) + "]" + more + "}";
}

struct Item {
    std::string id, name, created;
    bool folder = false;
};

Request ById(const detail::Account& account, const std::string& method, const std::string& id) {
    Request request;
    request.method = method;
    request.url = account.Url(std::string(kFiles) + "/" + str::url::Encode(id));
    return request;
}

/// Also when it is gone already.
void Erase(detail::Account& account, const std::string& what, const std::string& id) {
    Request request = ById(account, "DELETE", id);
    const Response response = account.Call(request);
    if (response.Ok() || account.Judge(response) == Trouble::Missing) return;
    account.Refuse(what, response);
}

/// One new file on its way up, a chunk at a time.
class Upload {
public:
    /// Reads the first chunk.
    Upload(detail::Account& account, std::string what, std::istream& in)
        : account_(account), what_(std::move(what)), in_(in) {
        ReadNext();
    }

    /// Throws Missing when there is no such folder; can be called again then.
    void Start(const std::string& folder, const std::string& name);
    /// A file whose bytes are not those sent is removed again.
    void Finish();

private:
    void StartSession(const std::string& folder, const std::string& name);
    void CreateEmpty(const std::string& folder, const std::string& name);
    void ReadNext();
    void SendChunk();
    Request Part(bool only_ask) const;
    bool GoOnAfter(const Response& response);
    void Check() const;

    detail::Account& account_;
    const std::string what_;
    std::istream& in_;
    std::string session_, chunk_;
    std::string stored_;   // the provider's words about the finished file
    uint64_t offset_ = 0;  // of the chunk's first byte
    bool last_ = false;
    vel_hash::Hash hash_{vel_hash::HashType::Md5};
    std::string md5_;
};

void Upload::ReadNext() {
    offset_ += chunk_.size();
    detail::ReadChunk(in_, chunk_);
    hash_.Update(chunk_);
    last_ = detail::AtEnd(in_);
    if (last_) md5_ = str::hex::Encode(hash_.Str());
}

void Upload::Start(const std::string& folder, const std::string& name) {
    if (last_ && chunk_.empty()) return CreateEmpty(folder, name);
    StartSession(folder, name);
}

void Upload::StartSession(const std::string& folder, const std::string& name) {
    const std::string url =
        account_.Url(std::string(kUpload) + "?uploadType=resumable" + kStoredFields);
    Request request;
    request.method = "POST";
    request.url = url;
    request.headers = {kJsonType, "X-Upload-Content-Type: application/octet-stream"};
    request.body = Metadata(name, folder);
    const Response response = account_.Call(request);
    if (!response.Ok()) account_.Refuse(what_, response);
    session_ = response.Header("location");
    account_.CheckTarget(what_, url, session_);
}

/// A session cannot take a file without bytes: no range describes it.
void Upload::CreateEmpty(const std::string& folder, const std::string& name) {
    static const std::string kBorder = "backup2-empty-file";
    Request request;
    request.method = "POST";
    request.url = account_.Url(std::string(kUpload) + "?uploadType=multipart" + kStoredFields);
    request.headers = {"Content-Type: multipart/related; boundary=" + kBorder};
    request.body = "--" + kBorder + "\r\n" + kJsonType + "\r\n\r\n" + Metadata(name, folder) +
                   "\r\n--" + kBorder + "\r\nContent-Type: application/octet-stream\r\n\r\n\r\n--" +
                   kBorder + "--\r\n";
    const Response response = account_.Call(request);
    if (!response.Ok()) account_.Refuse(what_, response);
    stored_ = response.body;
}

void Upload::Finish() {
    while (stored_.empty()) {
        SendChunk();
        if (stored_.empty()) ReadNext();
    }
    Check();
}

Request Upload::Part(bool only_ask) const {
    const std::string total = last_ ? str::Str(offset_ + chunk_.size()) : "*";
    const std::string range =
        only_ask ? "*" : str::Str(offset_) + "-" + str::Str(offset_ + chunk_.size() - 1);
    Request request;
    request.method = "PUT";
    request.url = session_;
    request.headers = {"Content-Range: bytes " + range + "/" + total};
    return request;
}

/// Until the provider has the whole chunk; after an attempt whose outcome is not known it is asked
/// how much it has.
void Upload::SendChunk() {
    detail::Patience patience;
    for (bool ask = false;;) {
        Request request = Part(ask || chunk_.empty());
        if (!ask) request.body.swap(chunk_);
        Outcome outcome = account_.Try(request);
        if (!ask) chunk_.swap(request.body);
        if (outcome.failure && !outcome.no_answer) std::rethrow_exception(outcome.failure);
        const Response& response = outcome.response;
        if (!outcome.failure && response.Ok() && last_) {
            stored_ = response.body;
            return;
        }
        if (!outcome.failure && response.status == kResumeIncomplete) {
            const bool moved = GoOnAfter(response);
            if (chunk_.empty() && !last_) return;
            // A server that takes nothing, or all but never ends, must not keep us for ever.
            if (!moved && !ask && !patience.Wait()) account_.Refuse(what_, "nothing is taken");
            ask = false;
            continue;
        }
        // 400: the bytes were sent twice, for example by libcurl on a new connection.
        ask = outcome.failure || account_.Judge(response) == Trouble::Busy ||
              (!ask && response.status == 400);
        if (ask && patience.Wait(response)) continue;
        if (outcome.failure) std::rethrow_exception(outcome.failure);
        account_.Refuse(what_, response);
    }
}

/// Drops what has arrived from the chunk; false when that is nothing.
bool Upload::GoOnAfter(const Response& response) {
    const std::string range = response.Header("range");  // "bytes=0-N", absent for nothing
    const std::size_t dash = range.rfind('-');
    const uint64_t arrived =
        dash == std::string::npos
            ? 0
            : static_cast<uint64_t>(std::max<int64_t>(0, str::Int64(range.substr(dash + 1)))) + 1;
    if (arrived < offset_ || arrived > offset_ + chunk_.size()) {
        account_.Refuse(what_, "the service lost bytes that it had taken");
    }
    const bool moved = arrived > offset_;
    chunk_.erase(0, arrived - offset_);
    offset_ = arrived;
    return moved;
}

void Upload::Check() const {
    const Json stored(std::string(kService) + ": " + what_, stored_);
    const uint64_t size = offset_ + chunk_.size();
    if (stored.Number("size") == size && stored.Text("md5Checksum") == md5_) return;
    Erase(account_, what_, stored.Text("id"));
    account_.Refuse(what_, "the service stored other bytes than were sent");
}

class GoogleDriveCloud final : public detail::AccountCloud {
public:
    explicit GoogleDriveCloud(const std::string& credential)
        : AccountCloud({kService, "Bearer", {kApi}, std::string(kOauth) + "/token", &Judge},
                       credential) {}

    void Get(const std::string& path, std::ostream& out) override;
    void List(const std::string& path, std::vector<std::string>& out) override;
    void Delete(const std::string& path) override;
    void MkPath(const std::string& path) override;
    void RmDir(const std::string& path) override;

private:
    void Store(const std::string& path, std::istream& in) override;
    void Revoke() override;
    /// All files of this path, the newest first.
    std::vector<Item> Files(const std::string& what, const Names& path);
    /// What is in the folders of this path.
    std::vector<Item> Children(const std::string& what, const Names& path);
    std::vector<Item> Search(const std::string& what, const std::string& query);
    std::vector<Item> Named(const std::string& what, const Names& path);
    const std::vector<std::string>& Folders(const std::string& what, const Names& path);
    std::string FolderForNew(const std::string& what, const Names& path);
    template <class Find>
    auto WithFreshIds(const Find& find);

    std::map<Names, std::vector<std::string>> folders_;  // ids, the oldest first
};

std::vector<Item> GoogleDriveCloud::Search(const std::string& what, const std::string& query) {
    const std::string first =
        account_.Url(kFiles) + "?q=" + str::url::Encode(query + " and trashed=false") +
        "&pageSize=1000&fields=nextPageToken,files(id,name,mimeType,createdTime)";
    std::vector<Item> items;
    detail::Listing ids(kService, what);
    for (std::string token;;) {
        Request request;
        request.url = first + (token.empty() ? "" : "&pageToken=" + str::url::Encode(token));
        const Json page = account_.Ask(what, request);
        for (const Json& file : page.Items("files")) {
            ids.Add(file.Text("id"));
            items.push_back({file.Text("id"), file.Text("name"), file.TextOrNothing("createdTime"),
                             file.Text("mimeType") == kFolderType});
        }
        ids.TurnPage();
        token = page.TextOrNothing("nextPageToken");
        if (token.empty()) return items;
    }
}

/// A folder may exist twice, made by two machines at the same time: its files may be in either.
const std::vector<std::string>& GoogleDriveCloud::Folders(const std::string& what,
                                                          const Names& path) {
    static const std::vector<std::string> kRoot = {"root"}, kNone;
    if (path.empty()) return kRoot;
    const auto cached = folders_.find(path);
    if (cached != folders_.end()) return cached->second;
    std::vector<Item> items = Named(what, path);
    std::stable_sort(items.begin(), items.end(),
                     [](const Item& a, const Item& b) { return a.created < b.created; });
    std::vector<std::string> ids;
    for (const Item& item : items) {
        if (item.folder) ids.push_back(item.id);
    }
    if (ids.empty()) return kNone;
    return folders_[path] = ids;
}

std::vector<Item> GoogleDriveCloud::Named(const std::string& what, const Names& path) {
    std::vector<Item> items;
    for (const std::string& parent : Folders(what, detail::Parent(path))) {
        for (Item& item :
             Search(what, InQuery(parent) + " in parents and name=" + InQuery(path.back()))) {
            // The service compares names without case.
            if (item.name == path.back()) items.push_back(std::move(item));
        }
    }
    return items;
}

/// Ids that were found before may be gone: somebody else has removed the folders and made others.
template <class Find>
auto GoogleDriveCloud::WithFreshIds(const Find& find) {
    if (!folders_.empty()) {
        try {
            auto found = find();
            if (!found.empty()) return found;
        } catch (const detail::Missing&) {  // looked for again below
        }
        folders_.clear();
    }
    return find();
}

std::vector<Item> GoogleDriveCloud::Files(const std::string& what, const Names& path) {
    return WithFreshIds([&] {
        std::vector<Item> items = Named(what, path);
        items.erase(std::remove_if(items.begin(), items.end(),
                                   [](const Item& item) { return item.folder; }),
                    items.end());
        std::stable_sort(items.begin(), items.end(),
                         [](const Item& a, const Item& b) { return a.created > b.created; });
        return items;
    });
}

std::vector<Item> GoogleDriveCloud::Children(const std::string& what, const Names& path) {
    return WithFreshIds([&] {
        std::vector<Item> items;
        for (const std::string& folder : Folders(what, path)) {
            const auto more = Search(what, InQuery(folder) + " in parents");
            items.insert(items.end(), more.begin(), more.end());
        }
        return items;
    });
}

/// The folder where new files of this path go, made with its parents when it is not there.
std::string GoogleDriveCloud::FolderForNew(const std::string& what, const Names& path) {
    const auto& there = Folders(what, path);
    if (!there.empty()) return there.front();
    Request request;
    request.method = "POST";
    request.url = account_.Url(std::string(kFiles) + "?fields=id");
    request.headers = {kJsonType};
    request.body = Metadata(path.back(), FolderForNew(what, detail::Parent(path)),
                            ",\"mimeType\":" + Quoted(kFolderType));
    std::string id = account_.Ask(what, request).Text("id");
    folders_[path] = {id};
    return id;
}

/// The new file is complete before the old ones of the same name go.
void GoogleDriveCloud::Store(const std::string& path, std::istream& in) {
    const std::string what = "put " + Shown(path);
    const Names names = detail::SplitBelowRoot(kService, path);
    Upload upload(account_, what, in);
    const std::vector<Item> old = Files(what, names);
    WithFreshIds([&] {
        std::string folder = FolderForNew(what, detail::Parent(names));
        upload.Start(folder, names.back());
        return folder;
    });
    upload.Finish();
    for (const Item& item : old) {
        try {
            Erase(account_, what, item.id);
        } catch (const vel_err::Error& e) {
            // The newest counts; the next Put or Delete of this name takes the old one along.
            logger.Write(4, "%s: the replaced file stays: %s", what, e.what());
        }
    }
}

void GoogleDriveCloud::Get(const std::string& path, std::ostream& out) {
    const std::string what = "get " + Shown(path);
    const std::vector<Item> files = Files(what, detail::SplitBelowRoot(kService, path));
    if (files.empty()) throw detail::Missing(std::string(kService) + ": " + what);
    Request request = ById(account_, "GET", files.front().id);
    request.url += "?alt=media";
    account_.Fetch(what, request, out);
}

void GoogleDriveCloud::List(const std::string& path, std::vector<std::string>& out) {
    const std::string what = "list " + Shown(path);
    const Names names = detail::SplitNames(kService, path);
    detail::Listing listing(kService, what);
    for (const Item& item :
         detail::IsFolderPath(path) ? Children(what, names) : Files(what, names)) {
        listing.Add(item.name);
    }
    out.insert(out.end(), listing.Found().begin(), listing.Found().end());
}

void GoogleDriveCloud::Delete(const std::string& path) {
    const std::string what = "delete " + Shown(path);
    const std::vector<Item> files = Files(what, detail::SplitBelowRoot(kService, path));
    if (files.empty()) throw detail::Missing(std::string(kService) + ": " + what);
    for (const Item& file : files) Erase(account_, what, file.id);
}

void GoogleDriveCloud::MkPath(const std::string& path) {
    FolderForNew("make the folder " + Shown(path), detail::SplitNames(kService, path));
}

void GoogleDriveCloud::RmDir(const std::string& path) {
    const std::string what = "remove the folder " + Shown(path);
    const Names names = detail::SplitBelowRoot(kService, path);
    const std::vector<std::string> ids = WithFreshIds([&] { return Folders(what, names); });
    for (const std::string& id : ids) Erase(account_, what, id);
    folders_.clear();
}

void GoogleDriveCloud::Revoke() {
    const std::string refresh = account_.Member("refresh_token");
    const std::string token = refresh.empty() ? account_.Member("access_token") : refresh;
    const Response response =
        account_.PostForm(std::string(kOauth) + "/revoke", {{"token", token}});
    // 400: revoked already.
    if (!response.Ok() && response.status != 400) account_.Refuse("revoke the access", response);
}

}  // namespace

GoogleDrive::GoogleDrive(const std::string& credential)
    : CloudClient(std::make_unique<GoogleDriveCloud>(credential)) {}

}  // namespace vel_rpc
