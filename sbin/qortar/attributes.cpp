#include "sbin/qortar/attributes.h"

#include <sys/acl.h>
#include <sys/xattr.h>

#include <array>
#include <cerrno>
#include <memory>
#include <string_view>

#include <acl/libacl.h>

#include "vel/vel_err.h"

#include "sbin/qortar/tar_header.h"

namespace qortar {
namespace {

constexpr std::string_view kAccessList = "system.posix_acl_access";
constexpr std::string_view kDefaultList = "system.posix_acl_default";
// Room for the name, the owner and what else stands in the same header.
constexpr std::size_t kMostBytes = kLongestPax - 300000;

class Source {
public:
    Source(int fd, FdKind kind)
        : fd_(fd),
          readable_(kind == FdKind::Readable),
          proc_("/proc/self/fd/" + std::to_string(fd)) {}

    // The names, NUL-ended; none where the file system has no attributes.
    std::string_view Names() {
        const ssize_t size = readable_ ? ::flistxattr(fd_, names_.data(), names_.size())
                                       : ::listxattr(proc_.c_str(), names_.data(), names_.size());
        if (size < 0 && (errno == ENOTSUP || errno == EPERM)) return {};
        if (size < 0) vel_err::RaiseErrno("listxattr", proc_, errno);
        return {names_.data(), static_cast<std::size_t>(size)};
    }

    // The value, or "" and false when the attribute is gone by now.
    bool Value(const char* name, std::string& value) {
        value.resize(64 << 10);  // the kernel's limit
        const ssize_t size = readable_
                                 ? ::fgetxattr(fd_, name, value.data(), value.size())
                                 : ::getxattr(proc_.c_str(), name, value.data(), value.size());
        if (size < 0 && errno == ENODATA) return false;
        if (size < 0) vel_err::RaiseErrno("getxattr", name, errno);
        value.resize(static_cast<std::size_t>(size));
        return true;
    }

    std::string List(acl_type_t type) const {
        const std::unique_ptr<void, int (*)(void*)> list(acl_get_file(proc_.c_str(), type),
                                                         acl_free);
        if (!list) vel_err::RaiseErrno("acl_get_file", proc_, errno);
        const std::unique_ptr<void, int (*)(void*)> text(
            acl_to_any_text(static_cast<acl_t>(list.get()), nullptr, ',', TEXT_NUMERIC_IDS),
            acl_free);
        if (!text) vel_err::RaiseErrno("acl_to_any_text", proc_, errno);
        return static_cast<const char*>(text.get());
    }

private:
    int fd_;
    bool readable_;
    std::string proc_;
    std::array<char, 64 << 10> names_;  // the kernel's limit
};

std::string EncodeKey(std::string_view name) {
    std::string key = "SCHILY.xattr.";
    for (const char c : name) {
        if (c == '%') {
            key += "%25";
        } else if (c == '=') {
            key += "%3D";
        } else {
            key += c;
        }
    }
    return key;
}

}  // namespace

Records ReadAttributes(int fd, FdKind kind) {
    // The usual object has none, or a whole list of names would be put on the stack for nothing.
    if (kind == FdKind::Readable && ::flistxattr(fd, nullptr, 0) == 0) return {};
    Source source(fd, kind);
    Records records;
    std::size_t bytes = 0;
    std::string value;
    for (std::string_view names = source.Names(); !names.empty();) {
        const std::string_view name = names.substr(0, names.find('\0'));
        names.remove_prefix(name.size() + 1);
        if (name == kAccessList) {
            records.emplace_back("SCHILY.acl.access", source.List(ACL_TYPE_ACCESS));
        } else if (name == kDefaultList) {
            records.emplace_back("SCHILY.acl.default", source.List(ACL_TYPE_DEFAULT));
        } else if (source.Value(name.data(), value)) {
            records.emplace_back(EncodeKey(name), value);
        }
        if (!records.empty())
            bytes += records.back().first.size() + records.back().second.size() + 32;
        if (bytes > kMostBytes) throw vel_err::Error("xattr", "too_large", std::to_string(bytes));
    }
    return records;
}

}  // namespace qortar
