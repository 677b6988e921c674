#include "sbin/qortar/listing.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <string_view>
#include <vector>

#include <archive.h>
#include <archive_entry.h>
#include <isa-l.h>

#include "vel/vel_err.h"
#include "vel/vel_file.h"

#include "backup_common/backup2_misc.h"

#include "sbin/qortar/gzip_member.h"
#include "sbin/qortar/tar_header.h"

namespace qortar {
namespace {

constexpr std::string_view kFirstLine = "#qortar-listing 1";
constexpr std::string_view kEndMark = "#end ";
constexpr std::string_view kTypes = "fdlhp";
constexpr std::string_view kFlags = "bcuvnsxD";
constexpr std::size_t kTextBlock = 1 << 20;
constexpr uint64_t kMostText = (8ULL << 30) - 1;
// Longer than any line that the writer makes: names and targets are bounded by the tar header's.
constexpr std::size_t kLongestLine = 8 << 20;

// ---- Writing ------------------------------------------------------------------------------------

template <class Number>
void AppendNumber(std::string& text, Number value, int base = 10) {
    std::array<char, 24> digits;
    const auto end = std::to_chars(digits.begin(), digits.end(), value, base).ptr;
    text.append(digits.begin(), end);
    text += '\t';
}

void AppendTime(std::string& text, const timespec& time) {
    AppendNumber(text, static_cast<int64_t>(time.tv_sec));
    text.back() = '.';
    std::array<char, 9> digits;
    long rest = time.tv_nsec;
    for (auto digit = digits.rbegin(); digit != digits.rend(); ++digit, rest /= 10) {
        *digit = static_cast<char>('0' + rest % 10);
    }
    text.append(digits.begin(), digits.end());
    text += '\t';
}

void AppendName(std::string& text, const std::string& name) {
    if (name.find_first_of("\t\n\f\v\r\\") == std::string::npos) {
        text += name;
    } else {
        text += backup2::EncodeFileName(name);
    }
}

void AppendLine(std::string& text, const Entry& entry) {
    text += entry.type;
    text += '\t';
    AppendNumber(text, entry.mode, 8);
    AppendNumber(text, entry.uid);
    AppendNumber(text, entry.gid);
    AppendNumber(text, entry.size);
    AppendTime(text, entry.mtime);
    AppendTime(text, entry.ctime);
    AppendNumber(text, entry.dev);
    AppendNumber(text, entry.inode);
    AppendNumber(text, entry.slice);
    AppendNumber(text, entry.member);
    AppendNumber(text, entry.offset);
    text += entry.flags;
    text += '\t';
    AppendName(text, entry.name);
    text += '\t';
    AppendName(text, entry.target);
    text += '\n';
}

void WriteAll(int fd, const uint8_t* data, std::size_t size, const std::string& path) {
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) vel_err::RaiseErrno("write", path, errno);
        data += n;
        size -= static_cast<std::size_t>(n);
    }
}

// The tar header of the text; its size is known only at the end, so that the header is a gzip
// member of its own, stored, which is written once more then.
std::string TextHeader(uint64_t text_size) {
    TarItem item;
    item.type = TarType::File;
    item.name = "listing";
    item.mode = 0600;
    item.size = text_size;
    return TarHeader(item);
}

}  // namespace

struct ListingWriter::Impl {
    explicit Impl(const std::string& target)
        : path(target), tmp(target), fd(::open(tmp.Path().c_str(), O_WRONLY | O_CLOEXEC)) {
        if (fd < 0) vel_err::RaiseErrno("open", tmp.Path(), errno);
        text.reserve(kTextBlock + 4096);
    }
    void WriteHeader() { WriteStored(TextHeader(text_size)); }
    void WriteStored(const std::string& plain) {
        std::vector<uint8_t> member(MemberBound(plain.size()));
        WriteAll(fd, member.data(), StoreMember(plain, member.data()), path);
    }
    void FlushText() {
        std::vector<uint8_t> member(MemberBound(text.size()));
        WriteAll(fd, member.data(), compressor.Compress(text, member.data()), path);
        text_size += text.size();
        text.clear();
    }

    std::string path;
    vel_file::Tmp tmp;
    vel_file::ResHandle fd;
    MemberCompressor compressor{1};
    std::string text{std::string(kFirstLine) + "\n"};
    uint64_t text_size = 0;
    uint64_t entries = 0;
};

ListingWriter::ListingWriter(const std::string& path) : impl_(std::make_unique<Impl>(path)) {
    impl_->WriteHeader();
}

ListingWriter::~ListingWriter() = default;

void ListingWriter::Add(const Entry& entry) {
    AppendLine(impl_->text, entry);
    ++impl_->entries;
    if (impl_->text.size() >= kTextBlock) impl_->FlushText();
}

void ListingWriter::Finish() {
    Impl& it = *impl_;
    it.text += std::string(kEndMark) + std::to_string(it.entries) + "\n";
    it.FlushText();
    // A longer header would not fit over the first one.
    if (it.text_size > kMostText) throw vel_err::Error("listing", "too_large", it.path);
    it.WriteStored(std::string(TarPadding(it.text_size) + kTarEndSize, '\0'));
    if (::lseek(it.fd, 0, SEEK_SET) != 0) vel_err::RaiseErrno("seek", it.path, errno);
    it.WriteHeader();
    if (::fsync(it.fd) != 0) vel_err::RaiseErrno("fsync", it.path, errno);
    it.fd.Close();
    vel_file::Move(it.tmp.Path(), it.path);
    it.tmp.Release();
}

// ---- Reading ------------------------------------------------------------------------------------

namespace {

// Splits one line into its fields; every complaint is the reason alone, without path and line.
class LineParser {
public:
    explicit LineParser(std::string_view line) : rest_(line) {}

    Entry Parse() {
        Entry entry;
        entry.type = OneOf(kTypes, "type");
        entry.mode = Number<mode_t>("mode", 8);
        entry.uid = Number<uid_t>("uid");
        entry.gid = Number<gid_t>("gid");
        entry.size = Number<uint64_t>("size");
        entry.mtime = Time("mtime");
        entry.ctime = Time("ctime");
        entry.dev = Number<uint64_t>("device");
        entry.inode = Number<uint64_t>("inode");
        entry.slice = Number<uint32_t>("slice");
        entry.member = Number<uint64_t>("member");
        entry.offset = Number<uint32_t>("offset");
        entry.flags = Flags();
        entry.name = Name("name");
        entry.target = Decoded("target", rest_);
        CheckName(entry.name, "name");
        if (entry.type == 'h') CheckName(entry.target, "target");
        return entry;
    }

private:
    [[noreturn]] static void Fail(const std::string& why) { throw std::runtime_error(why); }

    std::string_view Field(const char* what) {
        const std::size_t tab = rest_.find('\t');
        if (tab == std::string_view::npos) Fail(std::string("no field behind the ") + what);
        const std::string_view field = rest_.substr(0, tab);
        rest_.remove_prefix(tab + 1);
        return field;
    }

    char OneOf(std::string_view allowed, const char* what) {
        const std::string_view field = Field(what);
        if (field.size() != 1 || allowed.find(field[0]) == std::string_view::npos) {
            Fail(std::string("unknown ") + what);
        }
        return field[0];
    }

    template <class Value>
    static Value Parse(std::string_view field, const char* what, int base = 10) {
        Value value{};
        const auto end = field.data() + field.size();
        const auto result = std::from_chars(field.data(), end, value, base);
        if (result.ec != std::errc() || result.ptr != end) Fail(std::string("bad ") + what);
        return value;
    }

    template <class Value>
    Value Number(const char* what, int base = 10) {
        return Parse<Value>(Field(what), what, base);
    }

    timespec Time(const char* what) {
        const std::string_view field = Field(what);
        const std::size_t dot = field.find('.');
        if (dot == std::string_view::npos || field.size() - dot != 10)
            Fail(std::string("bad ") + what);
        const auto nanoseconds = Parse<uint32_t>(field.substr(dot + 1), what);
        return {Parse<int64_t>(field.substr(0, dot), what), static_cast<long>(nanoseconds)};
    }

    std::string Flags() {
        const std::string_view field = Field("flags");
        if (field.find_first_not_of(kFlags) != std::string_view::npos) Fail("unknown flag");
        return std::string(field);
    }

    static std::string Decoded(const char* what, std::string_view field) {
        if (field.find('\0') != std::string_view::npos) Fail(std::string("NUL in the ") + what);
        if (field.find('\\') == std::string_view::npos) return std::string(field);
        return backup2::DecodeFileName(std::string(field));
    }

    std::string Name(const char* what) { return Decoded(what, Field(what)); }

    static void CheckName(const std::string& name, const char* what) {
        if (name.empty()) Fail(std::string("empty ") + what);
        if (name[0] == '/') Fail(std::string("absolute ") + what);
        for (std::size_t at = 0; at <= name.size();) {
            const std::size_t end = std::min(name.find('/', at), name.size());
            if (end - at == 2 && name.compare(at, 2, "..") == 0)
                Fail(std::string("\"..\" in the ") + what);
            at = end + 1;
        }
    }

    std::string_view rest_;
};

// Takes the text piece by piece and hands out its entries.
class TextReader {
public:
    TextReader(const std::string& path, const std::function<bool(uint64_t)>& wanted,
               const std::function<void(const Entry&)>& each)
        : path_(path), wanted_(wanted), each_(each) {}

    void Feed(std::string_view piece) {
        while (!piece.empty()) {
            const std::size_t end = piece.find('\n');
            if (end == std::string_view::npos) {
                pending_ += piece;
                if (pending_.size() > kLongestLine) Fail("the line has no end");
                return;
            }
            TakeLine(piece.substr(0, end));
            piece.remove_prefix(end + 1);
        }
    }

    void End() {
        if (!ended_) Fail("the listing was cut");
    }

    [[noreturn]] void Fail(const std::string& why) const {
        throw vel_err::Error("listing", "broken",
                             path_ + ": line " + std::to_string(line_) + ": " + why);
    }

private:
    void TakeLine(std::string_view piece) {
        if (pending_.empty()) return Line(piece);
        pending_ += piece;
        Line(pending_);
        pending_.clear();
    }

    void Line(std::string_view line) {
        ++line_;
        if (line_ == 1) {
            if (line != kFirstLine) Fail("not a listing of this version");
        } else if (ended_) {
            Fail("text behind the end");
        } else if (line.starts_with(kEndMark)) {
            if (line.substr(kEndMark.size()) != std::to_string(entries_))
                Fail("wrong number of entries");
            ended_ = true;
        } else {
            if (!wanted_ || wanted_(entries_)) each_(ParseLine(line));
            ++entries_;
        }
    }

    Entry ParseLine(std::string_view line) const {
        try {
            return LineParser(line).Parse();
        } catch (const std::runtime_error& error) {
            Fail(error.what());
        }
    }

    const std::string& path_;
    const std::function<bool(uint64_t)>& wanted_;
    const std::function<void(const Entry&)>& each_;
    std::string pending_;
    uint64_t line_ = 0, entries_ = 0;
    bool ended_ = false;
};

// The plain bytes of a gzip file of one or more members, for libarchive's callbacks: its own
// decompression takes three times as long.
class GzipSource {
public:
    explicit GzipSource(const std::string& path) : file_(path), in_(kTextBlock), out_(kTextBlock) {
        isal_inflate_init(&state_);
        state_.crc_flag = ISAL_GZIP;
    }

    std::string_view Next() {
        for (;;) {
            if (!full_ && state_.avail_in == 0 && !Refill()) return {};
            state_.next_out = out_.data();
            state_.avail_out = static_cast<uint32_t>(out_.size());
            inside_ = true;
            if (const int status = isal_inflate(&state_); status != ISAL_DECOMP_OK) {
                throw std::runtime_error("damaged gzip data (" + std::to_string(status) + ")");
            }
            full_ = state_.avail_out == 0;  // there may be more without further input
            const std::size_t size = out_.size() - state_.avail_out;
            if (state_.block_state == ISAL_BLOCK_FINISH) StartMember();
            if (size > 0) return {reinterpret_cast<const char*>(out_.data()), size};
        }
    }

private:
    bool Refill() {
        file_.read(reinterpret_cast<char*>(in_.data()), static_cast<std::streamsize>(in_.size()));
        state_.next_in = in_.data();
        state_.avail_in = static_cast<uint32_t>(file_.gcount());
        if (state_.avail_in > 0) return true;
        if (inside_) throw std::runtime_error("the file was cut");
        return false;
    }
    void StartMember() {
        uint8_t* const next = state_.next_in;
        const uint32_t left = state_.avail_in;
        isal_inflate_reset(&state_);
        state_.crc_flag = ISAL_GZIP;
        state_.next_in = next;
        state_.avail_in = left;
        inside_ = full_ = false;
    }

    vel_file::InStream file_;
    std::vector<uint8_t> in_, out_;
    inflate_state state_{};
    bool inside_ = false, full_ = false;
};

// Exceptions must not pass through libarchive, which is C.
la_ssize_t ReadPlain(archive* reader, void* source, const void** bytes) {
    try {
        const std::string_view piece = static_cast<GzipSource*>(source)->Next();
        *bytes = piece.data();
        return static_cast<la_ssize_t>(piece.size());
    } catch (const std::exception& error) {
        archive_set_error(reader, EIO, "%s", error.what());
        return -1;
    }
}

struct FreeArchive {
    void operator()(archive* reader) const { archive_read_free(reader); }
};

std::string WhyNot(archive* reader) {
    const char* text = archive_error_string(reader);
    return text != nullptr ? text : "it cannot be read";
}

}  // namespace

void ReadListing(const std::string& path, const std::function<bool(uint64_t)>& wanted,
                 const std::function<void(const Entry&)>& each) {
    TextReader text(path, wanted, each);
    GzipSource source(path);
    const std::unique_ptr<archive, FreeArchive> reader(archive_read_new());
    archive_read_support_format_tar(reader.get());
    archive_entry* member = nullptr;
    if (archive_read_open(reader.get(), &source, nullptr, ReadPlain, nullptr) != ARCHIVE_OK ||
        archive_read_next_header(reader.get(), &member) != ARCHIVE_OK) {
        text.Fail(WhyNot(reader.get()));
    }
    const void* data = nullptr;
    std::size_t size = 0;
    la_int64_t offset = 0;
    int status = ARCHIVE_OK;
    while ((status = archive_read_data_block(reader.get(), &data, &size, &offset)) == ARCHIVE_OK) {
        text.Feed({static_cast<const char*>(data), size});
    }
    if (status != ARCHIVE_EOF) text.Fail(WhyNot(reader.get()));
    text.End();
}

void ReadListing(const std::string& path, const std::function<void(const Entry&)>& each) {
    ReadListing(path, nullptr, each);
}

}  // namespace qortar
