/// One block of bytes as one gzip member (RFC 1952): members may be concatenated, and each can be
/// read without those before it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace qortar {

/// The most bytes that a member of `plain_size` bytes can take.
std::size_t MemberBound(std::size_t plain_size);

/// Writes `plain` as a member without compression. `out` has room for MemberBound(plain.size()).
/// Returns the member's size, which depends on the size of `plain` alone.
std::size_t StoreMember(std::string_view plain, uint8_t* out);

/// Keeps the tables that compression needs; one object for each thread.
class MemberCompressor {
public:
    explicit MemberCompressor(int level);  ///< 0 (fastest) to 3
    /// As StoreMember, compressed when that makes it smaller.
    std::size_t Compress(std::string_view plain, uint8_t* out);

private:
    std::size_t Deflate(std::string_view plain, uint8_t* out, std::size_t room);
    bool LooksIncompressible(std::string_view plain);

    int level_;
    std::vector<uint8_t> tables_, trial_;
};

/// The level that QORTAR_LEVEL names (1 when it is not set). Throws vel_tool::UsageError for
/// anything else than 0..3.
int LevelFromEnvironment();

}  // namespace qortar
