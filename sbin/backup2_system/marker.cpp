#include "sbin/backup2_system/marker.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>

#include "vel/str.h"
#include "vel/vel_err.h"
#include "vel/vel_file.h"
#include "vel/vel_tool.h"

namespace backup2_system {
namespace {

bool GoodName(const std::string& name) {
    const auto plain = [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) || c == '_';
    };
    return !name.empty() && plain(name[0]) && std::all_of(name.begin(), name.end(), [&](char c) {
        return plain(c) || c == '.' || c == '@' || c == '-';
    });
}

[[noreturn]] void Refuse(const std::string& path, const std::string& why) {
    throw vel_err::Error("marker", "refused", path + ": " + why);
}

struct stat Status(int fd, const std::string& path) {
    struct stat st {};
    if (::fstat(fd, &st) != 0) vel_err::RaiseErrno("fstat", path, errno);
    return st;
}

/// O_NOFOLLOW looks at the last component only: the components above the folder of markers are
/// the administrator's, the folder itself and the file are opened one by one.
vel_file::ResHandle OpenFolder(const std::string& folder) {
    const vel_file::ResHandle fd(
        ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (fd < 0) Refuse(folder, ::strerror(errno));
    const struct stat st = Status(fd, folder);
    if (st.st_uid != 0 || (st.st_mode & (S_IWGRP | S_IWOTH)) != 0)
        Refuse(folder, "others than root can write there");
    return fd;
}

void Truncate(int fd, const std::string& path) {
    if (::ftruncate(fd, 0) != 0) vel_err::RaiseErrno("ftruncate", path, errno);
}

}  // namespace

Object ParseMarkerName(const std::string& file_name) {
    std::string name = file_name;
    const std::string type = str::GetWord(name, '.');
    std::string database = name;
    const bool parts = type != "db" || (!str::GetWord(database, '.').empty() && !database.empty());
    if ((type != "db" && type != "user") || !GoodName(name) || !parts)
        throw vel_tool::UsageError("the marker's name is not db.SERVER.DATABASE or user.NAME");
    return {type, name};
}

vel_file::ResHandle OpenMarker(const std::string& path, MarkerUse use) {
    const vel_file::Split place = vel_file::SplitPath(path);
    const vel_file::ResHandle folder = OpenFolder(place.dir);
    const int access = use == MarkerUse::Write ? O_RDWR : O_RDONLY;
    const vel_file::ResHandle fd(::openat(folder, vel_file::Name(path).c_str(),
                                          access | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
    if (fd < 0) Refuse(path, ::strerror(errno));
    const struct stat st = Status(fd, path);
    if (!S_ISREG(st.st_mode)) Refuse(path, "not a regular file");
    if (st.st_uid != 0) Refuse(path, "not root's");
    if (st.st_nlink != 1) Refuse(path, "has another name");
    return fd;
}

DumpTarget::DumpTarget(const std::string& path)
    : path_(path), fd_(OpenMarker(path, MarkerUse::Write)) {
    Truncate(fd_, path_);
    if (::fchmod(fd_, 0600) != 0) vel_err::RaiseErrno("fchmod", path_, errno);
}

DumpTarget::~DumpTarget() {
    // Half a dump must not be saved as if it were one. A failure here only leaves what the thrown
    // error, which brought us here, speaks of.
    if (!kept_ && ::ftruncate(fd_, 0) != 0) return;
}

void DumpTarget::Keep() {
    if (::fsync(fd_) != 0) vel_err::RaiseErrno("fsync", path_, errno);
    kept_ = true;
}

void EmptyMarker(const std::string& path) { Truncate(OpenMarker(path, MarkerUse::Write), path); }

std::string ReadTail(int fd, std::size_t size) {
    struct stat st {};
    if (::fstat(fd, &st) != 0) vel_err::RaiseErrno("fstat", "dump", errno);
    const off_t from = std::max<off_t>(0, st.st_size - static_cast<off_t>(size));
    std::string tail(size, '\0');
    const ssize_t got = ::pread(fd, tail.data(), size, from);
    if (got < 0) vel_err::RaiseErrno("pread", "dump", errno);
    tail.resize(static_cast<std::size_t>(got));
    return tail;
}

}  // namespace backup2_system
