#include "sbin/foreign_panel/archive_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>
#include <utility>

#include <archive.h>
#include <archive_entry.h>

#include "vel/str.h"
#include "vel/vel_err.h"

namespace foreign_panel {
namespace {

// Small, because growth is looked at between two blocks only.
constexpr std::size_t kBlock = 64 << 10;

std::string Bytes(const char* text) { return text ? text : ""; }

std::string NameOf(archive_entry* entry) {
    const char* bytes = archive_entry_pathname(entry);
    // Some zip and pax names have no form in the C locale.
    return bytes ? bytes : Bytes(archive_entry_pathname_utf8(entry));
}

void ReadType(archive_entry* handle, Entry& entry) {
    entry.kind.clear();
    entry.target.clear();
    if (const char* target = archive_entry_hardlink(handle)) {
        entry.type = 'h';
        entry.target = target;
        return;
    }
    switch (archive_entry_filetype(handle)) {
        case AE_IFREG:
        case 0:  // zip without attributes
            entry.type = 'f';
            break;
        case AE_IFDIR:
            entry.type = 'd';
            break;
        case AE_IFLNK:
            entry.type = 'l';
            entry.target = Bytes(archive_entry_symlink(handle));
            break;
        default:
            entry.type = 'o';
            entry.kind = archive_entry_filetype(handle) == AE_IFIFO    ? "FIFO"
                         : archive_entry_filetype(handle) == AE_IFSOCK ? "socket"
                                                                       : "device";
    }
}

void Read(archive_entry* handle, Entry& entry) {
    entry.name = NameOf(handle);
    ReadType(handle, entry);
    entry.mode = archive_entry_perm(handle) & 07777;
    const bool sized = entry.type == 'f' && archive_entry_size_is_set(handle);
    entry.size =
        sized ? static_cast<uint64_t>(std::max<la_int64_t>(0, archive_entry_size(handle))) : 0;
    const long nsec = archive_entry_mtime_nsec(handle);
    entry.mtime = {archive_entry_mtime(handle), nsec >= 0 && nsec < 1000000000 ? nsec : 0};
}

}  // namespace

ArchiveReader::ArchiveReader(const std::string& path, Budget& budget)
    : name_(path),
      budget_(budget),
      file_(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)) {
    if (!file_) vel_err::RaiseErrno("open", path, errno);
    struct stat st {};
    if (::fstat(file_, &st) != 0) vel_err::RaiseErrno("fstat", path, errno);
    if (!S_ISREG(st.st_mode)) throw std::runtime_error(path + ": not a regular file");
    file_size_ = static_cast<uint64_t>(st.st_size);
    buffer_.resize(kBlock);
    source_ = [this] { return ReadFile(); };
}

ArchiveReader::ArchiveReader(Source source, std::string name, Budget& budget)
    : source_(std::move(source)), name_(std::move(name)), budget_(budget) {}

ArchiveReader::~ArchiveReader() {
    ahead_.reset();
    if (handle_) archive_read_free(handle_);
}

/// One compression at most: each further one would multiply the growth of a bomb.
void ArchiveReader::SetUp() {
    handle_ = archive_read_new();
    if (!handle_) throw std::bad_alloc();
    archive_read_support_format_tar(handle_);
    if (!gunzip_) {
        archive_read_support_filter_zstd(handle_);
        archive_read_support_filter_xz(handle_);
        archive_read_support_filter_bzip2(handle_);
        file_ ? archive_read_support_format_zip(handle_)
              : archive_read_support_format_zip_streamable(handle_);
    }
    archive_read_set_callback_data(handle_, this);
    archive_read_set_read_callback(handle_, &Feed);
    if (!file_ || gunzip_) return;
    archive_read_set_skip_callback(handle_, &Skip);
    archive_read_set_seek_callback(handle_, &Seek);
}

std::string_view ArchiveReader::ReadFile() {
    ssize_t got = 0;
    do {
        got = ::read(file_, buffer_.data(), buffer_.size());
    } while (got < 0 && errno == EINTR);
    if (got < 0) vel_err::RaiseErrno("read", name_, errno);
    return {buffer_.data(), static_cast<std::size_t>(got)};
}

// ---- Called by the library: no exception may pass it --------------------------------------------

ssize_t ArchiveReader::Feed(archive* handle, void* self, const void** bytes) {
    auto& reader = *static_cast<ArchiveReader*>(self);
    try {
        const int64_t unpacked = archive_filter_bytes(handle, 0);
        if (unpacked > 0)
            reader.budget_.CheckGrowth(reader.taken_, static_cast<uint64_t>(unpacked));
        const std::string_view block = reader.gunzip_ ? reader.TakePlain() : reader.Take();
        *bytes = block.data();
        return static_cast<ssize_t>(block.size());
    } catch (...) {
        reader.failure_ = std::current_exception();
        archive_set_error(handle, EIO, "the source failed");
        return ARCHIVE_FATAL;
    }
}

int64_t ArchiveReader::Skip(archive*, void* self, int64_t request) {
    auto& reader = *static_cast<ArchiveReader*>(self);
    const off_t at = ::lseek(reader.file_, 0, SEEK_CUR);
    if (at < 0 || request <= 0) return 0;
    // Never behind the end: reading there would look like a whole archive.
    const auto left = static_cast<int64_t>(reader.file_size_) - at;
    const int64_t step = std::min(request, std::max<int64_t>(left, 0));
    if (::lseek(reader.file_, step, SEEK_CUR) < 0) return 0;
    reader.taken_ += static_cast<uint64_t>(step);
    return step;
}

int64_t ArchiveReader::Seek(archive* handle, void* self, int64_t offset, int whence) {
    auto& reader = *static_cast<ArchiveReader*>(self);
    const off_t at = ::lseek(reader.file_, offset, whence);
    if (at >= 0) return at;
    archive_set_error(handle, errno, "cannot seek");
    return ARCHIVE_FATAL;
}

// ---- Entries ------------------------------------------------------------------------------------

void ArchiveReader::Raise(const std::string& what) {
    if (!failure_) {
        const std::string why = Bytes(archive_error_string(handle_));
        failure_ = std::make_exception_ptr(
            std::runtime_error(name_ + ": " + what + (why.empty() ? "" : ": " + why)));
    }
    std::rethrow_exception(failure_);
}

std::string_view ArchiveReader::Take() {
    if (!peeked_.empty()) return std::exchange(peeked_, {});
    const std::string_view block = source_();
    taken_ += block.size();
    return block;
}

/// A file is inflated in a thread of its own; an archive within another comes from this thread.
std::string_view ArchiveReader::TakePlain() {
    if (file_) {
        if (!ahead_)
            ahead_ = std::make_unique<ReadAhead>(
                [this](char* to, std::size_t room) { return gunzip_->Read(to, room); });
        return ahead_->Next();
    }
    plain_.resize(2 * kBlock);
    return {plain_.data(), gunzip_->Read(plain_.data(), plain_.size())};
}

bool ArchiveReader::IsGzip() {
    if (file_) {
        std::array<char, 2> magic{};
        return ::pread(file_, magic.data(), magic.size(), 0) == 2 && magic[0] == '\x1f' &&
               magic[1] == '\x8b';
    }
    peeked_ = Take();
    return peeked_.substr(0, 2) == "\x1f\x8b";
}

void ArchiveReader::Open() {
    opened_ = true;
    if (IsGzip()) gunzip_ = std::make_unique<Gunzip>([this] { return Take(); }, name_);
    SetUp();
    if (archive_read_open1(handle_) != ARCHIVE_OK) Raise("no archive that can be read");
    if (archive_filter_count(handle_) > 2) Raise("compressed more than once");
}

/// A tar file that was cut between two entries differs from a whole one by its end mark only, and
/// the sums of a compressed one stand behind it.
void ArchiveReader::ReadToEnd() {
    const bool tar = (archive_format(handle_) & ARCHIVE_FORMAT_BASE_MASK) == ARCHIVE_FORMAT_TAR;
    if (tar && archive_filter_bytes(handle_, 0) <= archive_read_header_position(handle_))
        Raise("cut: it has no end mark");
    if (!gunzip_) return;
    auto unpacked = static_cast<uint64_t>(archive_filter_bytes(handle_, 0));
    for (std::size_t size = 1; size > 0; unpacked += size) {
        size = TakePlain().size();
        budget_.CheckGrowth(taken_, unpacked);
    }
}

bool ArchiveReader::Next(Entry& entry) {
    if (failure_) std::rethrow_exception(failure_);
    const bool first = !opened_;
    if (first) Open();
    archive_entry* handle = nullptr;
    const int code = archive_read_next_header(handle_, &handle);
    if (code == ARCHIVE_EOF) {
        if (failure_) std::rethrow_exception(failure_);
        ReadToEnd();
        return false;
    }
    // A warning tells of names that the C locale cannot show; their bytes are right nonetheless.
    if (code != ARCHIVE_OK && code != ARCHIVE_WARN)
        Raise(first ? "no archive that can be read" : "damaged");
    if (archive_entry_is_encrypted(handle)) Raise("encrypted");
    budget_.CountEntry();
    Read(handle, entry);
    return true;
}

bool ArchiveReader::Data(std::string_view& bytes, uint64_t& offset) {
    if (failure_) std::rethrow_exception(failure_);
    const void* data = nullptr;
    std::size_t size = 0;
    la_int64_t at = 0;
    const int code = archive_read_data_block(handle_, &data, &size, &at);
    if (code == ARCHIVE_EOF) return false;
    if (code != ARCHIVE_OK) Raise("damaged");
    bytes = {static_cast<const char*>(data), size};
    offset = static_cast<uint64_t>(at);
    budget_.CountBytes(size);
    unpacked_ += size;
    budget_.CheckGrowth(taken_, unpacked_);  // zip compresses by itself
    return true;
}

std::string ArchiveReader::Text(std::size_t most) {
    std::string text;
    std::string_view bytes;
    for (uint64_t offset = 0; Data(bytes, offset);) {
        if (offset > most || bytes.size() > most - offset)
            throw EntryError("longer than " + str::Str(static_cast<uint64_t>(most)) + " bytes");
        if (text.size() < offset) text.resize(static_cast<std::size_t>(offset));
        text.replace(static_cast<std::size_t>(offset), std::string::npos, bytes);
    }
    return text;
}

struct ArchiveReader::Zeros {
    uint64_t position = 0, pending_offset = 0;
    std::string_view pending;
    std::string hole;
};

ArchiveReader::Source ArchiveReader::AsSource() {
    return [this, state = std::make_shared<Zeros>()]() -> std::string_view {
        while (state->pending.empty())
            if (!Data(state->pending, state->pending_offset)) return {};
        if (state->position < state->pending_offset) {
            const uint64_t missing = state->pending_offset - state->position;
            state->hole.resize(kBlock);
            const auto size = static_cast<std::size_t>(std::min<uint64_t>(missing, kBlock));
            budget_.CountBytes(size);
            state->position += size;
            return {state->hole.data(), size};
        }
        const std::string_view piece = std::exchange(state->pending, {});
        state->position += piece.size();
        return piece;
    };
}

}  // namespace foreign_panel
