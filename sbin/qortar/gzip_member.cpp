#include "sbin/qortar/gzip_member.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string>

#include <isa-l.h>

#include "vel/vel_env.h"
#include "vel/vel_err.h"
#include "vel/vel_tool.h"

namespace qortar {
namespace {

constexpr std::size_t kStoredBlock = 65535;
constexpr std::size_t kBlockHead = 5;
constexpr std::size_t kMemberHead = 10;
constexpr std::size_t kMemberTail = 8;

// Pieces of a block that are tried before the whole of it is compressed.
constexpr std::size_t kSamplePieces = 4;
constexpr std::size_t kSamplePiece = 8192;

uint8_t* PutLittleEndian(uint8_t* at, uint32_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) *at++ = static_cast<uint8_t>(value >> (8 * i));
    return at;
}

// Whether the bytes are spread so evenly that only a trial can tell if they repeat. Media and
// archives stay below the limit, text is far above it.
bool SpreadEvenly(const std::string& sample) {
    std::array<uint32_t, 256> counts{};
    for (const char c : sample) ++counts[static_cast<uint8_t>(c)];
    double squares = 0;
    for (const uint32_t count : counts) squares += static_cast<double>(count) * count;
    const double even =
        static_cast<double>(sample.size()) * static_cast<double>(sample.size()) / 256;
    return squares < 1.3 * even;
}

std::size_t TableSize(int level) {
    constexpr std::array<std::size_t, 4> kSizes = {ISAL_DEF_LVL0_DEFAULT, ISAL_DEF_LVL1_DEFAULT,
                                                   ISAL_DEF_LVL2_DEFAULT, ISAL_DEF_LVL3_DEFAULT};
    return kSizes.at(static_cast<std::size_t>(level));
}

}  // namespace

std::size_t MemberBound(std::size_t plain_size) {
    const std::size_t blocks =
        std::max<std::size_t>(1, (plain_size + kStoredBlock - 1) / kStoredBlock);
    return kMemberHead + blocks * kBlockHead + plain_size + kMemberTail;
}

std::size_t StoreMember(std::string_view plain, uint8_t* out) {
    constexpr uint8_t kHead[kMemberHead] = {0x1f, 0x8b, 8, 0, 0, 0, 0, 0, 0, 255};
    uint8_t* at = std::copy(std::begin(kHead), std::end(kHead), out);
    std::size_t done = 0;
    do {
        const std::size_t length = std::min(kStoredBlock, plain.size() - done);
        *at++ = done + length == plain.size() ? 1 : 0;
        at = PutLittleEndian(at, static_cast<uint32_t>(length), 2);
        at = PutLittleEndian(at, static_cast<uint32_t>(~length & 0xffff), 2);
        std::memcpy(at, plain.data() + done, length);
        at += length;
        done += length;
    } while (done < plain.size());
    const auto* bytes = reinterpret_cast<const unsigned char*>(plain.data());
    at = PutLittleEndian(at, crc32_gzip_refl(0, bytes, plain.size()), 4);
    at = PutLittleEndian(at, static_cast<uint32_t>(plain.size()), 4);
    return static_cast<std::size_t>(at - out);
}

MemberCompressor::MemberCompressor(int level)
    : level_(level), tables_(TableSize(level)), trial_(MemberBound(kSamplePieces * kSamplePiece)) {}

// Returns 0 when the result does not fit into `room`.
std::size_t MemberCompressor::Deflate(std::string_view plain, uint8_t* out, std::size_t room) {
    isal_zstream stream;
    isal_deflate_stateless_init(&stream);
    stream.level = static_cast<uint32_t>(level_);
    stream.level_buf = tables_.data();
    stream.level_buf_size = static_cast<uint32_t>(tables_.size());
    stream.gzip_flag = IGZIP_GZIP;
    stream.end_of_stream = 1;
    stream.flush = NO_FLUSH;
    // ISA-L's interface is not const; it only reads its input.
    stream.next_in = reinterpret_cast<uint8_t*>(const_cast<char*>(plain.data()));
    stream.avail_in = static_cast<uint32_t>(plain.size());
    stream.next_out = out;
    stream.avail_out = static_cast<uint32_t>(room);
    const int status = isal_deflate_stateless(&stream);
    if (status == STATELESS_OVERFLOW) return 0;
    if (status != COMP_OK) throw vel_err::Error("compress", "failed", std::to_string(status));
    return stream.total_out;
}

bool MemberCompressor::LooksIncompressible(std::string_view plain) {
    if (plain.size() < 2 * kSamplePieces * kSamplePiece) return false;
    std::string sample;
    for (std::size_t i = 0; i < kSamplePieces; ++i) {
        sample += plain.substr(plain.size() / kSamplePieces * i, kSamplePiece);
    }
    if (!SpreadEvenly(sample)) return false;
    const std::size_t size = Deflate(sample, trial_.data(), trial_.size());
    return size == 0 || size > sample.size() - sample.size() / 50;
}

std::size_t MemberCompressor::Compress(std::string_view plain, uint8_t* out) {
    const std::size_t bound = MemberBound(plain.size());
    if (LooksIncompressible(plain)) return StoreMember(plain, out);
    const std::size_t size = Deflate(plain, out, bound - 1);
    return size == 0 ? StoreMember(plain, out) : size;
}

int LevelFromEnvironment() {
    const std::string text = vel_env::GetEnv("QORTAR_LEVEL");
    if (text.empty()) return 1;
    if (text.size() != 1 || text[0] < '0' || text[0] > '3') {
        throw vel_tool::UsageError("QORTAR_LEVEL must be 0, 1, 2 or 3, not '" + text + "'");
    }
    return text[0] - '0';
}

}  // namespace qortar
