/// Tar headers in the pax interchange format: a ustar header, and in front of it a pax header with
/// the records that do not fit into one.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

namespace qortar {

constexpr std::size_t kTarBlock = 512;
constexpr std::size_t kTarEndSize = 2 * kTarBlock;  ///< zero bytes that end a stream
/// The most bytes of records that common readers take in front of one entry.
constexpr std::size_t kLongestPax = 1000 * 1000;

enum class TarType : char {
    File = '0',
    HardLink = '1',
    Symlink = '2',
    Directory = '5',
    Fifo = '6'
};

/// Bytes of one run of data in a sparse file.
struct Extent {
    uint64_t offset = 0, size = 0;
};

struct TarItem {
    TarType type = TarType::File;
    std::string name;    ///< directories without a trailing "/"
    std::string target;  ///< of links
    mode_t mode = 0;
    uid_t uid = 0;
    gid_t gid = 0;
    uint64_t size = 0;  ///< of the content, holes included
    timespec mtime{};
    /// Further records: "SCHILY.xattr.user.x" and the like, values are bytes.
    std::vector<std::pair<std::string, std::string>> records;
    bool sparse = false;
    std::vector<Extent> extents;  ///< of a sparse file, ascending
};

/// The header, for sparse files with the map that begins the entry's data; a multiple of kTarBlock.
/// The data follow (`TarDataSize` bytes), then `TarPadding` zeros. Throws
/// vel_err::Error("tar", "too_long", name) when the records are longer than kLongestPax.
std::string TarHeader(const TarItem& item);
/// Bytes of file content behind the header: the extents' of a sparse file, none but for files.
uint64_t TarDataSize(const TarItem& item);
/// Zeros that fill the last block of `size` bytes.
constexpr std::size_t TarPadding(uint64_t size) {
    return static_cast<std::size_t>((kTarBlock - size % kTarBlock) % kTarBlock);
}

}  // namespace qortar
