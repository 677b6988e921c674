#include "vel/vel_rpc/s3.h"

#include <ctime>

#include "vel/str.h"
#include "vel/vel_err.h"
#include "vel/vel_rpc/detail/s3_bucket.h"
#include "vel/vel_rpc/detail/s3_upload.h"

namespace vel_rpc {
namespace {

using detail::KeyOf;
using detail::S3Bucket;

constexpr int kPage = 1000;
constexpr std::size_t kMaxNames = 2'000'000;
constexpr int kMaxIdlePages = 100;  // in a row, with nothing on them
constexpr int kSecondsAnHour = 3600;

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

std::time_t TimeOf(const std::string& iso) {
    std::tm parts{};
    if (!::strptime(iso.c_str(), "%Y-%m-%dT%H:%M:%S", &parts))
        Refuse("list uploads", "not a time: '" + iso + "'");
    return ::timegm(&parts);
}

}  // namespace

class S3::Impl {
public:
    explicit Impl(const std::string& credential) : bucket(credential) {}
    S3Bucket bucket;
};

S3::S3(const std::string& credential) : impl_(std::make_unique<Impl>(credential)) {}

S3::~S3() = default;

void S3::Get(const std::string& path, std::ostream& out) { impl_->bucket.Get(KeyOf(path), out); }

int S3::Put(const std::string& path, std::istream& in, const std::string&) {
    try {
        detail::S3Upload(impl_->bucket, KeyOf(path), in).Run();
        return 201;
    } catch (const vel_err::Error& e) {
        if (e.type() == "unauthorized") return 401;
        if (e.type() == "storage" && e.object() == "no_room") return 507;
        throw;
    }
}

void S3::List(const std::string& path, std::vector<std::string>& out) {
    const std::string key = KeyOf(path);
    if (!key.empty() && key.back() != '/') {
        // The key itself is the first of all that begin with it.
        const S3Bucket::Page page = impl_->bucket.List(key, "", 1, "");
        if (!page.keys.empty() && page.keys.front() == key)
            out.push_back(key.substr(key.rfind('/') + 1));
        return;
    }
    std::vector<std::string> names;
    ForPages(impl_->bucket, key, "/", [&](const S3Bucket::Page& page) {
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

void S3::Delete(const std::string& path) { impl_->bucket.Delete(KeyOf(path)); }

void S3::MkPath(const std::string&) {}  // keys need no folders

void S3::RmDir(const std::string& path) {
    const std::string prefix = KeyOf(path + "/");
    if (prefix.empty()) Refuse("remove '/'", "this is all that the bucket holds");
    ForPages(impl_->bucket, prefix, "", [&](const S3Bucket::Page& page) {
        for (const std::string& key : page.keys) RequireBelow(prefix, key);
        if (!page.keys.empty()) impl_->bucket.DeleteMany(page.keys);
    });
}

void S3::DropToken() { impl_->bucket.Forget(); }

int S3::AbortStale(const std::string& path, int hours) {
    const std::time_t limit = std::time(nullptr) - std::time_t{hours} * kSecondsAnHour;
    const std::string prefix = KeyOf(path);
    int aborted = 0;
    Pages pages("list uploads below '" + prefix + "'");
    S3Bucket::UploadsPage page;
    do {
        page = impl_->bucket.ListUploads(prefix, page);
        pages.Count(page.uploads.size());
        for (const S3Bucket::Unfinished& upload : page.uploads) {
            RequireBelow(prefix, upload.key);
            if (TimeOf(upload.began) > limit) continue;
            aborted += impl_->bucket.AbortUpload(upload.key, upload.id) ? 1 : 0;
        }
    } while (!page.next_key.empty());
    return aborted;
}

}  // namespace vel_rpc
