#include "vel/vel_rpc/dropbox.h"

#include <algorithm>
#include <exception>
#include <optional>
#include <string_view>
#include <utility>

#include "vel/str.h"
#include "vel/vel_err.h"
#include "vel/vel_hash.h"
#include "vel/vel_rpc/detail/account_cloud.h"
#include "vel/vel_rpc/detail/cloud_parts.h"
#include "vel/vel_rpc/detail/json.h"

namespace vel_rpc {
namespace {

using detail::Json;
using detail::Object;
using detail::Outcome;
using detail::Quoted;
using detail::Request;
using detail::Response;
using detail::Shown;
using detail::Trouble;

constexpr const char* kService = "Dropbox";
constexpr const char* kApi = "https://api.dropboxapi.com";
constexpr const char* kContent = "https://content.dropboxapi.com";
constexpr std::size_t kHashBlock = std::size_t{4} << 20;
constexpr int kMaxResets = 3;
constexpr int kMaxCorrections = 16;

std::string Sha256(std::string_view bytes) {
    return vel_hash::Digest(vel_hash::HashType::Sha256, bytes);
}

/// The provider's hash of contents is the SHA-256 of these: the SHA-256s of blocks of 4 MiB.
std::string BlockDigests(const std::string& bytes) {
    std::string digests;
    for (std::size_t at = 0; at < bytes.size(); at += kHashBlock) {
        digests += Sha256(std::string_view(bytes).substr(at, kHashBlock));
    }
    return digests;
}

/// The error of an answer: the tags of its nested unions, "path/conflict/folder", and the place
/// where the server wants the upload to go on.
struct Failure {
    std::string tags;
    std::optional<uint64_t> correct_offset;
};

Failure ReadFailure(const Response& response) {
    Failure failure;
    if (response.status != 409) return failure;
    try {
        Json node = Json(kService, response.body).At("error");
        for (;;) {
            const std::string tag = node.Text(".tag");
            str::Append(failure.tags, tag, "/");
            if (node.Has("correct_offset")) failure.correct_offset = node.Number("correct_offset");
            // Some errors hold what went wrong under their own name, others under "reason".
            if (!node.Has(tag) && !node.Has("reason")) return failure;
            node = node.At(node.Has(tag) ? tag : "reason");
        }
    } catch (const vel_err::Error&) {
        return failure;  // the tags up to here decide
    }
}

Trouble Judge(const Response& response) {
    if (response.status != 409) return detail::JudgeStatus(response);
    const std::string tags = ReadFailure(response).tags;
    if (tags.find("too_many_write_operations") != std::string::npos) return Trouble::Busy;
    if (tags.find("insufficient_space") != std::string::npos) return Trouble::NoRoom;
    const bool missing = tags == "path/not_found" || tags == "path_lookup/not_found";
    return missing ? Trouble::Missing : Trouble::Other;
}

Request Rpc(const detail::Account& account, const std::string& function,
            const std::string& argument) {
    Request request;
    request.method = "POST";
    request.url = account.Url(std::string(kApi) + "/2/" + function);
    request.headers = {"Content-Type: application/json"};
    request.body = argument;
    return request;
}

Request Content(const detail::Account& account, const std::string& function,
                const std::string& argument) {
    Request request;
    request.method = "POST";
    request.url = account.Url(std::string(kContent) + "/2/" + function);
    request.headers = {"Content-Type: application/octet-stream", "Dropbox-API-Arg: " + argument};
    return request;
}

std::string Target(const std::string& path) {
    return detail::JoinNames(detail::SplitBelowRoot(kService, path));
}

std::string PathArgument(const std::string& target) { return Object({{"path", Quoted(target)}}); }

/// One file on its way up, a chunk at a time. The commit replaces what is there in one step, and
/// every request carries the hash of its bytes, so that the provider refuses a damaged one before
/// anything is replaced.
class Upload {
public:
    Upload(detail::Account& account, std::string what, std::string target, std::istream& in)
        : account_(account), what_(std::move(what)), target_(std::move(target)), in_(in) {}

    /// What the provider says about the stored file.
    Json Run();
    bool Matches(const Json& stored) const {
        return stored.Number("size") == offset_ + chunk_.size() &&
               stored.Text("content_hash") == whole_hash_;
    }

private:
    using MakeArgument = std::string (Upload::*)() const;

    void ReadNext();
    void GoOnAt(uint64_t offset);
    std::string Commit() const;
    std::string Cursor() const;
    std::string ChunkHash() const;
    std::string WholeArgument() const;
    std::string StartArgument() const;
    std::string AppendArgument() const;
    std::string FinishArgument() const;
    Response Send(const std::string& function, MakeArgument argument);
    Json Expect(const Response& response) const;
    std::optional<Json> FindStored();
    Json Finish();

    detail::Account& account_;
    const std::string what_, target_;
    std::istream& in_;
    std::string chunk_, session_, whole_hash_;
    uint64_t offset_ = 0;  // of the chunk's first byte
    std::string digests_;  // of the chunk's blocks
    bool last_ = false;
    vel_hash::Hash whole_{vel_hash::HashType::Sha256};
};

void Upload::ReadNext() {
    offset_ += chunk_.size();
    detail::ReadChunk(in_, chunk_);
    digests_ = BlockDigests(chunk_);
    whole_.Update(digests_);
    last_ = detail::AtEnd(in_);
    if (last_) whole_hash_ = str::hex::Encode(whole_.Str());
}

void Upload::GoOnAt(uint64_t offset) {
    if (offset < offset_ || offset > offset_ + chunk_.size()) {
        account_.Refuse(what_, "the service lost bytes that it had taken");
    }
    chunk_.erase(0, offset - offset_);
    offset_ = offset;
    digests_ = BlockDigests(chunk_);
}

std::string Upload::Commit() const {
    return "\"path\":" + Quoted(target_) + R"(,"mode":"overwrite","mute":true)";
}

std::string Upload::Cursor() const {
    return Object({{"session_id", Quoted(session_)}, {"offset", str::Str(offset_)}});
}

std::string Upload::ChunkHash() const { return Quoted(str::hex::Encode(Sha256(digests_))); }

std::string Upload::WholeArgument() const {
    return "{" + Commit() + ",\"content_hash\":" + ChunkHash() + "}";
}

std::string Upload::StartArgument() const {
    return Object({{"close", "false"}, {"content_hash", ChunkHash()}});
}

std::string Upload::AppendArgument() const {
    return Object({{"cursor", Cursor()}, {"close", "false"}, {"content_hash", ChunkHash()}});
}

std::string Upload::FinishArgument() const {
    return Object(
        {{"cursor", Cursor()}, {"commit", "{" + Commit() + "}"}, {"content_hash", ChunkHash()}});
}

/// Sends the chunk as often as is needed. After an attempt whose outcome is not known the provider
/// says, by its error, where it wants to go on.
Response Upload::Send(const std::string& function, MakeArgument argument) {
    detail::Patience patience;
    for (int corrections = 0;;) {
        Request request = Content(account_, "files/" + function, (this->*argument)());
        request.body.swap(chunk_);
        Outcome outcome = account_.Try(request);
        chunk_.swap(request.body);
        if (outcome.failure && !outcome.no_answer) std::rethrow_exception(outcome.failure);
        if (outcome.response.Ok() && !outcome.failure) return std::move(outcome.response);
        const Failure failure = outcome.failure ? Failure{} : ReadFailure(outcome.response);
        if (failure.correct_offset && ++corrections <= kMaxCorrections) {
            GoOnAt(*failure.correct_offset);
            if (!chunk_.empty() || last_) continue;
            outcome.response.status = 200;  // an earlier attempt has arrived
            return std::move(outcome.response);
        }
        const bool busy = outcome.failure || account_.Judge(outcome.response) == Trouble::Busy;
        if (busy && patience.Wait(outcome.response)) continue;
        if (outcome.failure) std::rethrow_exception(outcome.failure);
        return std::move(outcome.response);
    }
}

Json Upload::Expect(const Response& response) const {
    if (!response.Ok()) account_.Refuse(what_, response);
    return {std::string(kService) + ": " + what_, response.body};
}

Json Upload::Run() {
    ReadNext();
    if (last_) return Expect(Send("upload", &Upload::WholeArgument));
    session_ = Expect(Send("upload_session/start", &Upload::StartArgument)).Text("session_id");
    for (ReadNext(); !last_; ReadNext()) {
        const Response response = Send("upload_session/append_v2", &Upload::AppendArgument);
        if (!response.Ok()) account_.Refuse(what_, response);
    }
    return Finish();
}

/// The stored file, when it is the one that was sent.
std::optional<Json> Upload::FindStored() {
    Request request = Rpc(account_, "files/get_metadata", PathArgument(target_));
    const Response response = account_.Call(request);
    if (!response.Ok() && account_.Judge(response) == Trouble::Missing) return std::nullopt;
    Json there = Expect(response);
    const bool ours = there.Text(".tag") == "file" && Matches(there);
    return ours ? std::optional<Json>(std::move(there)) : std::nullopt;
}

Json Upload::Finish() {
    const Response response = Send("upload_session/finish", &Upload::FinishArgument);
    if (!str::StartsWith(ReadFailure(response).tags, "lookup_failed/")) return Expect(response);
    // The session is gone: the answer to an earlier attempt was lost, and its work may go on.
    detail::Patience patience;
    do {
        if (std::optional<Json> stored = FindStored()) return std::move(*stored);
    } while (patience.Wait());
    account_.Refuse(what_, response);
}

class DropboxCloud final : public detail::AccountCloud {
public:
    explicit DropboxCloud(const std::string& credential)
        : AccountCloud(
              {kService, "Bearer", {kApi, kContent}, std::string(kApi) + "/oauth2/token", &Judge},
              credential) {}

    void Get(const std::string& path, std::ostream& out) override;
    void List(const std::string& path, std::vector<std::string>& out) override;
    void Delete(const std::string& path) override;
    void MkPath(const std::string& path) override;
    void RmDir(const std::string& path) override;

private:
    void Store(const std::string& path, std::istream& in) override;
    void Revoke() override;
    void ListFolder(const std::string& path, std::vector<std::string>& out);
    /// ".tag" ("file", "folder") and "name"; nothing when there is neither.
    std::optional<Json> Find(const std::string& what, const std::string& target);
    /// Removes what is there when it is of this kind; the provider would take a folder for a file.
    void Remove(const std::string& what, const std::string& target, const std::string& kind);

    bool AddPages(const std::string& what, const std::string& target, detail::Listing& listing);
};

std::optional<Json> DropboxCloud::Find(const std::string& what, const std::string& target) {
    try {
        return account_.Ask(what, Rpc(account_, "files/get_metadata", PathArgument(target)));
    } catch (const detail::Missing&) {
        return std::nullopt;
    }
}

void DropboxCloud::Remove(const std::string& what, const std::string& target,
                          const std::string& kind) {
    const std::optional<Json> found = Find(what, target);
    if (!found) throw detail::Missing(std::string(kService) + ": " + what);
    if (found->Text(".tag") != kind) account_.Refuse(what, "it is not a " + kind);
    Request request = Rpc(account_, "files/delete_v2", PathArgument(target));
    const Response response = account_.Call(request);
    // Missing: the answer to an earlier attempt was lost.
    if (response.Ok() || account_.Judge(response) == Trouble::Missing) return;
    account_.Refuse(what, response);
}

void DropboxCloud::Store(const std::string& path, std::istream& in) {
    const std::string what = "put " + Shown(path), target = Target(path);
    Upload upload(account_, what, target, in);
    if (upload.Matches(upload.Run())) return;
    Remove(what, target, "file");
    account_.Refuse(what, "the service stored other bytes than were sent");
}

/// False when the provider wants the listing to begin again.
bool DropboxCloud::AddPages(const std::string& what, const std::string& target,
                            detail::Listing& listing) {
    Request request =
        Rpc(account_, "files/list_folder", Object({{"path", Quoted(target)}, {"limit", "1000"}}));
    for (;;) {
        const Response response = account_.Call(request);
        if (str::StartsWith(ReadFailure(response).tags, "reset")) return false;
        if (!response.Ok()) account_.Refuse(what, response);
        const Json page(std::string(kService) + ": " + what, response.body);
        for (const Json& entry : page.Items("entries")) {
            if (entry.Text(".tag") != "deleted") listing.Add(entry.Text("name"));
        }
        listing.TurnPage();
        if (!page.Flag("has_more")) return true;
        request = Rpc(account_, "files/list_folder/continue",
                      Object({{"cursor", Quoted(page.Text("cursor"))}}));
    }
}

void DropboxCloud::ListFolder(const std::string& path, std::vector<std::string>& out) {
    const std::string what = "list " + Shown(path);
    const std::string target = detail::JoinNames(detail::SplitNames(kService, path));
    detail::Listing listing(kService, what);
    int resets = 0;
    try {
        while (!AddPages(what, target, listing)) {
            if (++resets > kMaxResets) account_.Refuse(what, "the listing begins again and again");
            listing.Clear();
        }
    } catch (const detail::Missing&) {
        return;
    }
    out.insert(out.end(), listing.Found().begin(), listing.Found().end());
}

void DropboxCloud::Get(const std::string& path, std::ostream& out) {
    account_.Fetch("get " + Shown(path),
                   Content(account_, "files/download", PathArgument(Target(path))), out);
}

void DropboxCloud::List(const std::string& path, std::vector<std::string>& out) {
    if (detail::IsFolderPath(path)) return ListFolder(path, out);
    const auto found = Find("list " + Shown(path), Target(path));
    if (!found || found->Text(".tag") != "file") return;
    detail::Listing listing(kService, "list " + Shown(path));
    listing.Add(found->Text("name"));
    out.insert(out.end(), listing.Found().begin(), listing.Found().end());
}

void DropboxCloud::Delete(const std::string& path) {
    Remove("delete " + Shown(path), Target(path), "file");
}

void DropboxCloud::MkPath(const std::string& path) {
    const std::string target = detail::JoinNames(detail::SplitNames(kService, path));
    if (target.empty()) return;
    Request request = Rpc(account_, "files/create_folder_v2", PathArgument(target));
    const Response response = account_.Call(request);
    if (response.Ok() || ReadFailure(response).tags == "path/conflict/folder") return;
    account_.Refuse("make the folder " + Shown(path), response);
}

void DropboxCloud::RmDir(const std::string& path) {
    try {
        Remove("remove the folder " + Shown(path), Target(path), "folder");
    } catch (const detail::Missing&) {  // it is as it shall be
    }
}

void DropboxCloud::Revoke() {
    Request request = Rpc(account_, "auth/token/revoke", "null");
    const Response response = account_.Call(request);
    if (!response.Ok()) account_.Refuse("revoke the access", response);
}

}  // namespace

Dropbox::Dropbox(const std::string& credential)
    : CloudClient(std::make_unique<DropboxCloud>(credential)) {}

}  // namespace vel_rpc
