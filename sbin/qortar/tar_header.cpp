#include "sbin/qortar/tar_header.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "vel/vel_err.h"

namespace qortar {
namespace {

// The ustar header as it lies on disk (POSIX.1-1988).
struct Ustar {
    char name[100], mode[8], uid[8], gid[8], size[12], mtime[12], checksum[8], type, link[100];
    char magic[6], version[2], uname[32], gname[32], dev_major[8], dev_minor[8], prefix[155],
        pad[12];
};
static_assert(sizeof(Ustar) == kTarBlock);

constexpr uint64_t kLargestId = 07777777;
constexpr uint64_t kLargestNumber = 077777777777;

template <std::size_t N>
void PutOctal(char (&field)[N], uint64_t value) {
    field[N - 1] = '\0';
    for (std::size_t i = N - 1; i-- > 0; value >>= 3)
        field[i] = static_cast<char>('0' + (value & 7));
}

template <std::size_t N>
void PutText(char (&field)[N], std::string_view text) {
    std::memcpy(field, text.data(), std::min(N, text.size()));
}

void PutChecksum(Ustar& header) {
    std::memset(header.checksum, ' ', sizeof header.checksum);
    unsigned sum = 0;
    const auto* bytes = reinterpret_cast<const unsigned char*>(&header);
    for (std::size_t i = 0; i < sizeof header; ++i) sum += bytes[i];
    std::snprintf(header.checksum, sizeof header.checksum, "%06o", sum & 0777777);
}

std::string_view Bytes(const Ustar& header) {
    return {reinterpret_cast<const char*>(&header), sizeof header};
}

// Puts the name, in two parts when it is long. Returns false when it does not fit; the name's
// beginning stands there then.
bool PutName(Ustar& header, std::string_view name) {
    PutText(header.name, name);
    if (name.size() <= sizeof header.name) return true;
    // The earliest cut that leaves at most 100 bytes behind the "/" (a trailing one is no cut).
    const std::size_t cut = name.find('/', name.size() - sizeof header.name - 1);
    if (cut == std::string_view::npos || cut == 0 || cut > sizeof header.prefix ||
        cut + 1 == name.size()) {
        return false;
    }
    std::memset(header.name, 0, sizeof header.name);
    PutText(header.name, name.substr(cut + 1));
    PutText(header.prefix, name.substr(0, cut));
    return true;
}

bool IsUtf8(std::string_view text) {
    for (std::size_t i = 0; i < text.size();) {
        const auto lead = static_cast<unsigned char>(text[i]);
        const std::size_t more = lead < 0x80 ? 0 : lead < 0xe0 ? 1 : lead < 0xf0 ? 2 : 3;
        if ((lead >= 0x80 && lead < 0xc2) || lead > 0xf4 || i + more >= text.size()) return false;
        uint32_t code = lead & (0x7fU >> (more == 0 ? 0 : more + 1));
        for (std::size_t k = 1; k <= more; ++k) {
            const auto byte = static_cast<unsigned char>(text[i + k]);
            if ((byte & 0xc0) != 0x80) return false;
            code = code << 6 | (byte & 0x3fU);
        }
        constexpr std::array<uint32_t, 4> kLeast = {0, 0x80, 0x800, 0x10000};
        if (code < kLeast[more] || code > 0x10ffff || (code >= 0xd800 && code < 0xe000))
            return false;
        i += more + 1;
    }
    return true;
}

// "LENGTH key=value\n", where LENGTH counts itself too.
void AddRecord(std::string& pax, const std::string& key, std::string_view value) {
    const std::size_t body = key.size() + value.size() + 3;  // blank, "=", LF
    std::size_t length = body + 1;
    while (body + std::to_string(length).size() != length) {
        length = body + std::to_string(length).size();
    }
    pax += std::to_string(length) + " " + key + "=";
    pax += value;
    pax += '\n';
}

// Seconds as a decimal fraction; times before 1970 count down from zero.
std::string DecimalTime(const timespec& time) {
    int64_t seconds = time.tv_sec;
    long nanoseconds = time.tv_nsec;
    const bool negative = seconds < 0;
    if (negative) {
        seconds = -seconds - (nanoseconds > 0 ? 1 : 0);
        nanoseconds = nanoseconds > 0 ? 1000000000 - nanoseconds : 0;
    }
    std::array<char, 48> text;
    std::snprintf(text.data(), text.size(), "%s%lld.%09ld", negative ? "-" : "",
                  static_cast<long long>(seconds), nanoseconds);
    std::string result(text.data());
    while (result.back() == '0') result.pop_back();
    if (result.back() == '.') result.pop_back();
    return result;
}

void PadBlock(std::string& bytes) { bytes.append(TarPadding(bytes.size()), '\0'); }

std::string SparseMap(const TarItem& item) {
    std::string map = std::to_string(item.extents.size()) + "\n";
    for (const Extent& extent : item.extents) {
        map += std::to_string(extent.offset) + "\n" + std::to_string(extent.size) + "\n";
    }
    PadBlock(map);
    return map;
}

std::string PlainName(const TarItem& item) {
    if (item.type == TarType::Directory) return item.name + "/";
    if (!item.sparse) return item.name;
    // What a reader that knows no sparse files would make: map and data under another name.
    return "GNUSparseFile.0/" + item.name.substr(item.name.rfind('/') + 1);
}

// Puts what fits into the header and returns the records for what does not.
std::string FillHeader(Ustar& header, const TarItem& item, uint64_t stored_size) {
    std::string pax;
    const std::string name = PlainName(item);
    const std::string whole = item.sparse ? item.name : name;
    const bool name_fits = PutName(header, name);
    const bool link_fits = item.target.size() <= sizeof header.link;
    PutText(header.link, item.target);
    const bool raw =
        ((item.sparse || !name_fits) && !IsUtf8(whole)) || (!link_fits && !IsUtf8(item.target));
    if (raw) AddRecord(pax, "hdrcharset", "BINARY");
    if (item.sparse) {
        AddRecord(pax, "GNU.sparse.major", "1");
        AddRecord(pax, "GNU.sparse.minor", "0");
        AddRecord(pax, "GNU.sparse.name", item.name);
        AddRecord(pax, "GNU.sparse.realsize", std::to_string(item.size));
    } else if (!name_fits) {
        AddRecord(pax, "path", name);
    }
    if (!link_fits) AddRecord(pax, "linkpath", item.target);
    const auto number = [&pax](auto& field, uint64_t value, uint64_t largest, const char* key) {
        PutOctal(field, value <= largest ? value : 0);
        if (value > largest) AddRecord(pax, key, std::to_string(value));
    };
    number(header.uid, item.uid, kLargestId, "uid");
    number(header.gid, item.gid, kLargestId, "gid");
    number(header.size, stored_size, kLargestNumber, "size");
    const int64_t seconds = item.mtime.tv_sec;
    const bool time_fits = seconds >= 0 && seconds <= static_cast<int64_t>(kLargestNumber);
    PutOctal(header.mtime, time_fits ? static_cast<uint64_t>(seconds) : 0);
    if (!time_fits || item.mtime.tv_nsec != 0) AddRecord(pax, "mtime", DecimalTime(item.mtime));
    for (const auto& record : item.records) AddRecord(pax, record.first, record.second);
    return pax;
}

void FillFixedFields(Ustar& header, char type, mode_t mode) {
    header.type = type;
    PutOctal(header.mode, mode & 07777);
    PutOctal(header.dev_major, 0);
    PutOctal(header.dev_minor, 0);
    std::memcpy(header.magic, "ustar", 6);
    std::memcpy(header.version, "00", 2);
}

std::string PaxHeader(const std::string& pax, const std::string& name) {
    Ustar header{};
    FillFixedFields(header, 'x', 0600);
    PutText(header.name, "PaxHeaders/" + name.substr(name.rfind('/') + 1));
    PutOctal(header.uid, 0);
    PutOctal(header.gid, 0);
    PutOctal(header.size, pax.size());
    PutOctal(header.mtime, 0);
    PutChecksum(header);
    std::string result(Bytes(header));
    result += pax;
    PadBlock(result);
    return result;
}

}  // namespace

uint64_t TarDataSize(const TarItem& item) {
    if (item.type != TarType::File) return 0;
    if (!item.sparse) return item.size;
    uint64_t sum = 0;
    for (const Extent& extent : item.extents) sum += extent.size;
    return sum;
}

std::string TarHeader(const TarItem& item) {
    const std::string map = item.sparse ? SparseMap(item) : std::string();
    Ustar header{};
    FillFixedFields(header, static_cast<char>(item.type), item.mode);
    const std::string pax = FillHeader(header, item, TarDataSize(item) + map.size());
    if (pax.size() > kLongestPax) throw vel_err::Error("tar", "too_long", item.name);
    PutChecksum(header);
    std::string result = pax.empty() ? std::string() : PaxHeader(pax, item.name);
    result += Bytes(header);
    result += map;
    return result;
}

}  // namespace qortar
