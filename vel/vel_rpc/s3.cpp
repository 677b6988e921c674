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
constexpr int kSecondsAnHour = 3600;

/// The bare name in `prefix`. A name that would lead elsewhere must not reach anybody who makes a
/// path of it.
std::string NameIn(const std::string& prefix, const std::string& key) {
    std::string name = str::StartsWith(key, prefix) ? key.substr(prefix.size()) : "";
    const std::string refused = str::badchars::Controls() + "/";
    if (name.empty() || name == "." || name == ".." ||
        name.find_first_of(refused) != std::string::npos) {
        const std::string shown = str::badchars::Escape(key, str::badchars::Controls(), '\\');
        throw vel_err::Error("storage", "refused",
                             "S3: list '" + prefix + "': not a name: '" + shown + "'");
    }
    return name;
}

/// Calls `use` with every page of the listing.
template <class Use>
void ForPages(S3Bucket& bucket, const std::string& prefix, const std::string& delimiter,
              const Use& use) {
    std::string from;
    do {
        const S3Bucket::Page page = bucket.List(prefix, delimiter, kPage, from);
        use(page);
        from = page.next;
    } while (!from.empty());
}

std::time_t TimeOf(const std::string& iso) {
    std::tm parts{};
    if (!::strptime(iso.c_str(), "%Y-%m-%dT%H:%M:%S", &parts))
        throw vel_err::Error("storage", "refused", "S3: list uploads: not a time: '" + iso + "'");
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
        if (names.size() > kMaxNames)
            throw vel_err::Error("storage", "refused", "S3: list '" + key + "': it does not end");
    });
    out.insert(out.end(), names.begin(), names.end());
}

void S3::Delete(const std::string& path) { impl_->bucket.Delete(KeyOf(path)); }

void S3::MkPath(const std::string&) {}  // keys need no folders

void S3::RmDir(const std::string& path) {
    const std::string prefix = KeyOf(path + "/");
    ForPages(impl_->bucket, prefix, "", [this](const S3Bucket::Page& page) {
        if (!page.keys.empty()) impl_->bucket.DeleteMany(page.keys);
    });
}

void S3::DropToken() { impl_->bucket.Forget(); }

int S3::AbortStale(const std::string& path, int hours) {
    const std::time_t limit = std::time(nullptr) - std::time_t{hours} * kSecondsAnHour;
    int aborted = 0;
    S3Bucket::UploadsPage page;
    do {
        page = impl_->bucket.ListUploads(KeyOf(path), page);
        for (const S3Bucket::Unfinished& upload : page.uploads) {
            if (TimeOf(upload.began) > limit) continue;
            aborted += impl_->bucket.AbortUpload(upload.key, upload.id) ? 1 : 0;
        }
    } while (!page.next_key.empty());
    return aborted;
}

}  // namespace vel_rpc
