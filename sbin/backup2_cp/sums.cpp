#include "sbin/backup2_cp/sums.h"

#include <algorithm>
#include <stdexcept>
#include <vector>

#include "vel/str.h"
#include "vel/vel_file.h"
#include "vel/vel_hash.h"

#include "sbin/backup2_cp/errors.h"
#include "sbin/backup2_cp/names.h"

namespace backup2_cp {

namespace {

constexpr std::size_t kBlock = 1 << 20;

bool IsSha256(const std::string& text) {
    return text.size() == 64 && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

}  // namespace

// ---- The info file's form -----------------------------------------------------------------------

std::string SliceSums::Str() const {
    return str::Str(plain.size) + " " + str::Str(stored.size) + " " + plain.sha256 + " " +
           stored.sha256;
}

SliceSums SliceSums::Parse(const std::string& text) {
    std::string rest = text;
    const auto plain = ParseNumber(str::GetWord(rest)), stored = ParseNumber(str::GetWord(rest));
    SliceSums sums;
    sums.plain.sha256 = str::GetWord(rest);
    sums.stored.sha256 = rest;
    if (!plain || !stored || !IsSha256(sums.plain.sha256) || !IsSha256(sums.stored.sha256)) {
        throw std::runtime_error("not the sums of a slice");
    }
    sums.plain.size = *plain;
    sums.stored.size = *stored;
    return sums;
}

// ---- The stream ---------------------------------------------------------------------------------

class SumStream::Buffer : public std::streambuf {
public:
    Buffer(uint64_t limit, Next next) : limit_(limit), next_(std::move(next)) {}

    Sums Result() { return {size_, str::hex::Encode(hash_.Str())}; }

protected:
    std::streamsize xsputn(const char* data, std::streamsize count) override {
        const auto size = static_cast<std::size_t>(count);
        if (size > limit_ - size_) {
            throw Permanent("more than " + str::Str(limit_) + " bytes");
        }
        hash_.Update(data, size);
        size_ += size;
        if (next_) next_(data, size);
        return count;
    }
    int_type overflow(int_type c) override {
        const char byte = traits_type::to_char_type(c);
        return xsputn(&byte, 1) == 1 ? c : traits_type::eof();
    }

private:
    uint64_t size_ = 0, limit_;
    vel_hash::Hash hash_{vel_hash::HashType::Sha256};
    Next next_;
};

SumStream::SumStream(uint64_t limit, Next next)
    : std::ostream(nullptr), buffer_(std::make_unique<Buffer>(limit, std::move(next))) {
    rdbuf(buffer_.get());
    exceptions(std::ios::badbit | std::ios::failbit);
}

SumStream::~SumStream() = default;

Sums SumStream::Result() { return buffer_->Result(); }

// ---- Reading ------------------------------------------------------------------------------------

void Pump(std::istream& in, std::ostream& out) {
    std::vector<char> block(kBlock);
    while (in) {
        in.read(block.data(), static_cast<std::streamsize>(block.size()));
        out.write(block.data(), in.gcount());
    }
}

Sums SumFile(const std::string& path, const std::atomic<bool>* stop) {
    vel_file::InStream in(path);
    SumStream sums;
    std::vector<char> block(kBlock);
    while (in && !(stop && *stop)) {
        in.read(block.data(), static_cast<std::streamsize>(block.size()));
        sums.write(block.data(), in.gcount());
    }
    return sums.Result();
}

}  // namespace backup2_cp
