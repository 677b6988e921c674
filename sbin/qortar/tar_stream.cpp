#include "sbin/qortar/tar_stream.h"

#include <grp.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <tuple>
#include <utility>

#include <archive.h>
#include <archive_entry.h>

#include "vel/vel_err.h"
#include "vel/vel_user.h"

namespace qortar {
namespace {

std::string Text(const char* bytes) { return bytes ? bytes : ""; }

char TypeOf(archive_entry* entry) {
    if (archive_entry_hardlink(entry)) return 'h';
    switch (archive_entry_filetype(entry)) {
        case AE_IFDIR:
            return 'd';
        case AE_IFLNK:
            return 'l';
        case AE_IFIFO:
            return 'p';
        case AE_IFCHR:
            return 'c';
        case AE_IFBLK:
            return 'b';
        default:
            return 'f';
    }
}

// ---- POSIX ACLs in the form of the kernel's xattr -----------------------------------------------

struct AclEntry {
    uint16_t tag, rights;
    uint32_t id;
};

uint16_t KernelTag(int tag) {
    switch (tag) {
        case ARCHIVE_ENTRY_ACL_USER_OBJ:
            return 0x01;
        case ARCHIVE_ENTRY_ACL_USER:
            return 0x02;
        case ARCHIVE_ENTRY_ACL_GROUP_OBJ:
            return 0x04;
        case ARCHIVE_ENTRY_ACL_GROUP:
            return 0x08;
        case ARCHIVE_ENTRY_ACL_MASK:
            return 0x10;
        default:
            return 0x20;
    }
}

template <class T>
void PutLittleEndian(std::string& out, T value) {
    for (std::size_t i = 0; i < sizeof(T); ++i) out += static_cast<char>(value >> (8 * i) & 0xff);
}

/// The number of a user or group that a foreign archive gives by name; -1 when there is none here.
int IdOf(int tag, const std::string& name) {
    if (tag == ARCHIVE_ENTRY_ACL_USER)
        return vel_user::Exists(name) ? static_cast<int>(vel_user::Uid(name)) : -1;
    group found{}, *result = nullptr;
    std::vector<char> texts(64 << 10);
    ::getgrnam_r(name.c_str(), &found, texts.data(), texts.size(), &result);
    return result ? static_cast<int>(found.gr_gid) : -1;
}

/// "" when the entry has no list of that kind beyond its mode.
std::string KernelAcl(archive_entry* entry, int kind, std::string& left_out) {
    if (archive_entry_acl_reset(entry, kind) == 0) return "";
    std::vector<AclEntry> list;
    int type = 0, rights = 0, tag = 0, id = 0;
    const char* name = nullptr;
    while (archive_entry_acl_next(entry, kind, &type, &rights, &tag, &id, &name) == ARCHIVE_OK) {
        const bool named = tag == ARCHIVE_ENTRY_ACL_USER || tag == ARCHIVE_ENTRY_ACL_GROUP;
        if (named && id < 0) id = IdOf(tag, Text(name));
        if (named && id < 0) {
            left_out = Text(name);
            continue;
        }
        list.push_back({KernelTag(tag), static_cast<uint16_t>(rights & 7),
                        named ? static_cast<uint32_t>(id) : 0xffffffffU});
    }
    std::sort(list.begin(), list.end(), [](const AclEntry& a, const AclEntry& b) {
        return std::tie(a.tag, a.id) < std::tie(b.tag, b.id);
    });
    std::string out;
    PutLittleEndian(out, uint32_t{2});
    for (const AclEntry& one : list) {
        PutLittleEndian(out, one.tag);
        PutLittleEndian(out, one.rights);
        PutLittleEndian(out, one.id);
    }
    return out;
}

/// The bytes that a record's key cannot hold are written as "%25" and "%3D".
std::string XattrName(std::string name) {
    for (std::size_t at = name.find('%'); at != std::string::npos; at = name.find('%', at + 1)) {
        if (name.compare(at, 3, "%25") == 0) {
            name.replace(at, 3, "%");
        } else if (name.compare(at, 3, "%3D") == 0) {
            name.replace(at, 3, "=");
        }
    }
    return name;
}

void ReadXattrs(archive_entry* entry, Item& item) {
    std::vector<Xattr>& out = item.xattrs;
    out.clear();
    item.left_out.clear();
    const char* name = nullptr;
    const void* value = nullptr;
    std::size_t size = 0;
    archive_entry_xattr_reset(entry);
    while (archive_entry_xattr_next(entry, &name, &value, &size) == ARCHIVE_OK)
        out.push_back({XattrName(Text(name)), std::string(static_cast<const char*>(value), size)});
    const std::pair<int, const char*> lists[] = {
        {ARCHIVE_ENTRY_ACL_TYPE_ACCESS, "system.posix_acl_access"},
        {ARCHIVE_ENTRY_ACL_TYPE_DEFAULT, "system.posix_acl_default"}};
    for (const auto& [kind, key] : lists) {
        std::string acl = KernelAcl(entry, kind, item.left_out);
        if (!acl.empty()) out.push_back({key, std::move(acl)});
    }
}

/// The library gives the fraction of a time before 1970 without its sign: -1.25 as {-1, 0.25 s}.
/// (Between -1 and 0 the sign is lost altogether; a listing has the right time.)
timespec TimeOf(archive_entry* entry) {
    timespec time{archive_entry_mtime(entry), archive_entry_mtime_nsec(entry)};
    if (time.tv_sec < 0 && time.tv_nsec > 0) time = {time.tv_sec - 1, 1000000000 - time.tv_nsec};
    return time;
}

void ReadItem(archive_entry* entry, Item& item) {
    item.type = TypeOf(entry);
    item.mode = archive_entry_perm(entry) & 07777;
    item.uid = static_cast<uid_t>(archive_entry_uid(entry));
    item.gid = static_cast<gid_t>(archive_entry_gid(entry));
    item.size = item.type == 'f' ? static_cast<uint64_t>(archive_entry_size(entry)) : 0;
    item.mtime = TimeOf(entry);
    item.device = archive_entry_rdev(entry);
    item.name = PlainName(Text(archive_entry_pathname(entry)));
    item.target = item.type == 'h' ? PlainName(Text(archive_entry_hardlink(entry)))
                                   : Text(archive_entry_symlink(entry));
    ReadXattrs(entry, item);
}

}  // namespace

std::string PlainName(std::string name) {
    std::size_t begin = 0;
    while (name.compare(begin, 2, "./") == 0) {
        begin = name.find_first_not_of('/', begin + 1);
        if (begin == std::string::npos) return ".";
    }
    name.erase(0, begin);
    while (name.size() > 1 && name.back() == '/') name.pop_back();
    return name;
}

TarStream::TarStream(Source source) : source_(std::move(source)), tar_(archive_read_new()) {
    if (!tar_) throw std::bad_alloc();
    archive_read_support_format_tar(tar_);
    archive_read_support_format_empty(tar_);
}

TarStream::~TarStream() { archive_read_free(tar_); }

ssize_t TarStream::Feed(archive* tar, void* self, const void** bytes) {
    auto* stream = static_cast<TarStream*>(self);
    try {
        const std::string_view block = stream->source_();
        *bytes = block.data();
        return static_cast<ssize_t>(block.size());
    } catch (...) {  // must not cross the library's C frames
        stream->failure_ = std::current_exception();
        archive_set_error(tar, EIO, "the source failed");
        return ARCHIVE_FATAL;
    }
}

void TarStream::Raise() {
    broken_ = true;
    if (!failure_)
        failure_ = std::make_exception_ptr(vel_err::Error(
            "archive", "damaged", "tar stream: " + Text(archive_error_string(tar_))));
    std::rethrow_exception(failure_);
}

bool TarStream::Next(Item& item) {
    if (broken_) std::rethrow_exception(failure_);
    if (!opened_ && archive_read_open(tar_, this, nullptr, &Feed, nullptr) != ARCHIVE_OK) Raise();
    opened_ = true;
    archive_entry* entry = nullptr;
    const int code = archive_read_next_header(tar_, &entry);
    if (code == ARCHIVE_EOF) return false;
    // The library warns of names that the C locale cannot show; their bytes are right nonetheless.
    if (code != ARCHIVE_OK && code != ARCHIVE_WARN) Raise();
    ReadItem(entry, item);
    return true;
}

bool TarStream::Data(std::string_view& bytes, uint64_t& offset) {
    const void* data = nullptr;
    std::size_t size = 0;
    la_int64_t at = 0;
    const int code = archive_read_data_block(tar_, &data, &size, &at);
    if (code == ARCHIVE_EOF) return false;
    if (code != ARCHIVE_OK) Raise();
    bytes = {static_cast<const char*>(data), size};
    offset = static_cast<uint64_t>(at);
    return true;
}

uint64_t TarStream::HeaderPosition() const {
    return static_cast<uint64_t>(archive_read_header_position(tar_));
}

}  // namespace qortar
