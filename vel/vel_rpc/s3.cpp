#include "vel/vel_rpc/s3.h"

#include "vel/str.h"
#include "vel/vel_err.h"
#include "vel/vel_rpc/detail/cloud_parts.h"
#include "vel/vel_rpc/detail/s3_bucket.h"
#include "vel/vel_rpc/detail/s3_upload.h"

namespace vel_rpc {
namespace {

using detail::KeyOf;
using detail::S3Bucket;

constexpr int kPage = 1000;
constexpr std::size_t kMaxNames = 2'000'000;
constexpr int kMaxIdlePages = 100;  // in a row, with nothing on them

[[noreturn]] void Refuse(const std::string& what, const std::string& why) {
    throw vel_err::Error("storage", "refused", "S3: " + what + ": " + why);
}

/// The bare name in `prefix`. A name that would lead elsewhere must not reach anybody who makes a
/// path of it.
std::string NameIn(const std::string& prefix, const std::string& key) {
    std::string name = str::StartsWith(key, prefix) ? key.substr(prefix.size()) : "";
    const std::string refused = str::badchars::Controls() + "/";
    if (name.empty() || name == "." || name == ".." ||
        name.find_first_of(refused) != std::string::npos) {
        const std::string shown = str::badchars::Escape(key, str::badchars::Controls(), '\\');
        Refuse("list '" + prefix + "'", "not a name: '" + shown + "'");
    }
    return name;
}

/// Ends a listing that its server does not end.
class Pages {
public:
    explicit Pages(std::string what) : what_(std::move(what)) {}
    void Count(std::size_t names) {
        names_ += names;
        idle_ = names == 0 ? idle_ + 1 : 0;
        if (names_ > kMaxNames || idle_ > kMaxIdlePages) Refuse(what_, "it does not end");
    }

private:
    const std::string what_;
    std::size_t names_ = 0;
    int idle_ = 0;
};

/// A server that does not know "prefix" would have us remove all that it holds.
void RequireBelow(const std::string& prefix, const std::string& key) {
    if (!str::StartsWith(key, prefix))
        Refuse("list '" + prefix + "'", "the server lists what lies elsewhere");
}

/// Calls `use` with every page of the listing.
template <class Use>
void ForPages(S3Bucket& bucket, const std::string& prefix, const std::string& delimiter,
              const Use& use) {
    Pages pages("list '" + prefix + "'");
    std::string from;
    do {
        const S3Bucket::Page page = bucket.List(prefix, delimiter, kPage, from);
        pages.Count(page.keys.size() + page.folders.size());
        use(page);
        from = page.next;
    } while (!from.empty());
}

class S3Cloud final : public Cloud {
public:
    explicit S3Cloud(const std::string& credential) : bucket_(credential) {}

    void Get(const std::string& path, std::ostream& out) override;
    int Put(const std::string& path, std::istream& in, const std::string& type) override;
    void List(const std::string& path, std::vector<std::string>& out) override;
    void Delete(const std::string& path) override;
    void MkPath(const std::string& path) override;
    void RmDir(const std::string& path) override;
    void DropToken() override;
    int AbortStale(const std::string& path, int hours) override;

private:
    S3Bucket bucket_;
};

void S3Cloud::Get(const std::string& path, std::ostream& out) { bucket_.Get(KeyOf(path), out); }

int S3Cloud::Put(const std::string& path, std::istream& in, const std::string&) {
    try {
        detail::S3Upload(bucket_, KeyOf(path), in).Run();
        return 201;
    } catch (const vel_err::Error& e) {
        if (e.type() == "unauthorized") return 401;
        if (e.type() == "storage" && e.object() == "no_room") return 507;
        throw;
    }
}

void S3Cloud::List(const std::string& path, std::vector<std::string>& out) {
    const std::string key = KeyOf(path);
    if (!key.empty() && key.back() != '/') {
        // The key itself is the first of all that begin with it.
        const S3Bucket::Page page = bucket_.List(key, "", 1, "");
        if (!page.keys.empty() && page.keys.front() == key)
            out.push_back(key.substr(key.rfind('/') + 1));
        return;
    }
    std::vector<std::string> names;
    ForPages(bucket_, key, "/", [&](const S3Bucket::Page& page) {
        for (const std::string& found : page.keys) {
            if (found != key) names.push_back(NameIn(key, found));  // a mark of the folder itself
        }
        for (std::string folder : page.folders) {
            if (!folder.empty()) folder.pop_back();
            names.push_back(NameIn(key, folder));
        }
    });
    out.insert(out.end(), names.begin(), names.end());
}

void S3Cloud::Delete(const std::string& path) { bucket_.Delete(KeyOf(path)); }

void S3Cloud::MkPath(const std::string&) {}  // keys need no folders

void S3Cloud::RmDir(const std::string& path) {
    const std::string prefix = KeyOf(path + "/");
    if (prefix.empty()) Refuse("remove '/'", "this is all that the bucket holds");
    ForPages(bucket_, prefix, "", [&](const S3Bucket::Page& page) {
        for (const std::string& key : page.keys) RequireBelow(prefix, key);
        if (!page.keys.empty()) bucket_.DeleteMany(page.keys);
    });
}

void S3Cloud::DropToken() { bucket_.Forget(); }

int S3Cloud::AbortStale(const std::string& path, int hours) {
    const std::time_t limit = detail::HoursAgo(hours);
    const std::string prefix = KeyOf(path);
    int aborted = 0;
    Pages pages("list uploads below '" + prefix + "'");
    S3Bucket::UploadsPage page;
    do {
        page = bucket_.ListUploads(prefix, page);
        pages.Count(page.uploads.size());
        for (const S3Bucket::Unfinished& upload : page.uploads) {
            RequireBelow(prefix, upload.key);
            if (detail::TimeOf("S3", "list uploads", upload.began) > limit) continue;
            if (hours >= 0 && bucket_.NewestPart(upload.key, upload.id) > limit) continue;
            aborted += bucket_.AbortUpload(upload.key, upload.id) ? 1 : 0;
        }
    } while (!page.next_key.empty());
    return aborted;
}

}  // namespace

S3::S3(const std::string& credential) : CloudClient(std::make_unique<S3Cloud>(credential)) {}

}  // namespace vel_rpc
