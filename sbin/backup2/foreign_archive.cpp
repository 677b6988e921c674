#include "sbin/backup2/foreign_archive.h"

#include <fcntl.h>

#include <cerrno>
#include <memory>
#include <regex>
#include <stdexcept>

#include <archive.h>
#include <archive_entry.h>

#include "vel/res_handle.h"
#include "vel/vel_err.h"

namespace backup2_admin {
namespace {

constexpr int kMostNames = 20000;  // what tells a panel stands near the beginning
constexpr std::size_t kBlock = 256 * 1024;

/// Entries that only one of the panels writes, below the one top folder that an archive may have.
std::string PanelOf(const std::string& name) {
    static const std::regex kCpanel(
        R"(^(\./)?[^/]+/(cp/[^/]+|homedir\.tar|homedir/.*|userdata/main|homedir_paths|va/.*|mysql\.sql)$)");
    static const std::regex kPlesk(
        R"(^(\./)?([^/]+/)?(\.discovered/.*|[^/]*info_[0-9]{10}\.xml|dump\.xml|clients/.*|resellers/.*|domains/[^/]+/.*)$)");
    if (std::regex_match(name, kCpanel)) return "cPanel";
    return std::regex_match(name, kPlesk) ? "Plesk" : "";
}

using Archive = std::unique_ptr<archive, int (*)(archive*)>;

Archive Open(const std::string& path, const vel_file::ResHandle& fd) {
    Archive reader(archive_read_new(), archive_read_free);
    archive_read_support_filter_all(reader.get());
    archive_read_support_format_tar(reader.get());
    archive_read_support_format_zip(reader.get());
    if (archive_read_open_fd(reader.get(), fd, kBlock) != ARCHIVE_OK)
        throw std::runtime_error(path + ": no archive: " + archive_error_string(reader.get()));
    return reader;
}

}  // namespace

std::string DetectPanel(const std::string& path) {
    const vel_file::ResHandle fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (fd < 0) vel_err::RaiseErrno("open", path, errno);
    const Archive reader = Open(path, fd);
    archive_entry* entry = nullptr;
    for (int left = kMostNames; left > 0; --left) {
        const int status = archive_read_next_header(reader.get(), &entry);
        if (status == ARCHIVE_EOF) return "";
        if (status < ARCHIVE_WARN) {
            const char* why = archive_error_string(reader.get());
            throw std::runtime_error(path + ": no archive: " + (why ? why : "it cannot be read"));
        }
        const char* name = archive_entry_pathname(entry);
        const std::string panel = name ? PanelOf(std::string(name).substr(0, 4096)) : "";
        if (!panel.empty()) return panel;
    }
    return "";
}

}  // namespace backup2_admin
