#include "sbin/backup2/foreign_archive.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <regex>
#include <stdexcept>
#include <vector>

#include <archive.h>
#include <archive_entry.h>

#include "vel/res_handle.h"
#include "vel/vel_err.h"
#include "vel/vel_file.h"

namespace backup2_admin {
namespace {

constexpr int kMostNames = 20000;  // what tells a panel stands near the beginning
constexpr std::size_t kBlock = 64 * 1024;
constexpr int64_t kFreeGrowth = int64_t{1} << 30, kMostGrowth = 200;  // as the converters have it

/// Entries that only one of the panels writes, below the one top folder that an archive may have.
std::string PanelOf(const std::string& name) {
    static const std::regex kCpanel(
        R"(^(\./)?[^/]+/(cp/[^/]+|homedir\.tar|homedir/.*|userdata/main|homedir_paths|va/.*|mysql\.sql)$)");
    static const std::regex kPlesk(
        R"(^(\./)?([^/]+/)?(\.discovered/.*|[^/]*info_[0-9]{10}\.xml|dump\.xml|clients/.*|resellers/.*|domains/[^/]+/.*)$)");
    if (std::regex_match(name, kCpanel)) return "cPanel";
    return std::regex_match(name, kPlesk) ? "Plesk" : "";
}

/// The file as the library reads it. What grows without end ends here: entries that are passed over
/// have to be unpacked, too.
struct Input {
    vel_file::ResHandle fd;
    off_t size = 0;
    int64_t taken = 0;
    bool grows = false;
    std::vector<char> buffer = std::vector<char>(kBlock);

    static ssize_t Read(archive* reader, void* self, const void** bytes) {
        auto& input = *static_cast<Input*>(self);
        const int64_t unpacked = archive_filter_bytes(reader, 0);
        if (unpacked > kFreeGrowth && unpacked / kMostGrowth > input.taken) {
            input.grows = true;
            return ARCHIVE_FATAL;
        }
        ssize_t got = 0;
        do {
            got = ::read(input.fd, input.buffer.data(), input.buffer.size());
        } while (got < 0 && errno == EINTR);
        if (got < 0) archive_set_error(reader, errno, "it cannot be read");
        *bytes = input.buffer.data();
        input.taken += std::max<ssize_t>(got, 0);
        return got;
    }
    static int64_t Skip(archive*, void* self, int64_t request) {
        auto& input = *static_cast<Input*>(self);
        const off_t at = ::lseek(input.fd, 0, SEEK_CUR);
        const int64_t step = std::min<int64_t>(request, input.size - at);
        if (at < 0 || step <= 0 || ::lseek(input.fd, step, SEEK_CUR) < 0) return 0;
        input.taken += step;
        return step;
    }
    static int64_t Seek(archive* reader, void* self, int64_t offset, int whence) {
        const off_t at = ::lseek(static_cast<Input*>(self)->fd, offset, whence);
        if (at >= 0) return at;
        archive_set_error(reader, errno, "it cannot be read");
        return ARCHIVE_FATAL;
    }
};

using Archive = std::unique_ptr<archive, int (*)(archive*)>;

[[noreturn]] void Raise(const std::string& path, const Archive& reader, const Input& input) {
    const char* why = input.grows ? "it grows too much" : archive_error_string(reader.get());
    throw std::runtime_error(path + ": no archive: " + (why ? why : "it cannot be read"));
}

/// Compressed once at most, in the ways that the converters know. Never by a program of this
/// machine, which the library would start for some.
Archive Open(const std::string& path, Input& input) {
    Archive reader(archive_read_new(), archive_read_free);
    archive_read_support_filter_gzip(reader.get());
    archive_read_support_filter_zstd(reader.get());
    archive_read_support_filter_xz(reader.get());
    archive_read_support_filter_bzip2(reader.get());
    archive_read_support_format_tar(reader.get());
    archive_read_support_format_zip(reader.get());
    archive_read_set_seek_callback(reader.get(), &Input::Seek);
    archive_read_set_skip_callback(reader.get(), &Input::Skip);
    archive_read_set_read_callback(reader.get(), &Input::Read);
    archive_read_set_callback_data(reader.get(), &input);
    if (archive_read_open1(reader.get()) != ARCHIVE_OK) Raise(path, reader, input);
    if (archive_filter_count(reader.get()) > 2)
        throw std::runtime_error(path + ": no archive: compressed more than once");
    return reader;
}

}  // namespace

std::string DetectPanel(const std::string& path) {
    Input input{vel_file::ResHandle(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC))};
    if (input.fd < 0) vel_err::RaiseErrno("open", path, errno);
    input.size = static_cast<off_t>(vel_file::Info(path).Size());
    const Archive reader = Open(path, input);
    archive_entry* entry = nullptr;
    for (int left = kMostNames; left > 0; --left) {
        const int status = archive_read_next_header(reader.get(), &entry);
        if (status == ARCHIVE_EOF) return "";
        if (status < ARCHIVE_WARN) Raise(path, reader, input);
        const char* name = archive_entry_pathname(entry);
        const std::string panel = name ? PanelOf(std::string(name).substr(0, 4096)) : "";
        if (!panel.empty()) return panel;
    }
    return "";
}

}  // namespace backup2_admin
