/// The grammar of backup file names. Names that come from info files, storages and command lines
/// pass here before they become paths.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace backup2_cp {

constexpr uint32_t kMaxParts = 1000000;

/// A backup file's bare name, taken apart:
///   archive  ("F"|"I"|"C") DATE "." NAME ".tgz" [".aes"] [".part" K]     also ".tgz.K", ".K.dar"
///   index    (DATE|"custom") "." NAME ".tgz" [".aes"]
///   info     (DATE|"custom") "." NAME ".info"
/// NAME is a user, or a user, "#" and a role; K is 1 .. kMaxParts without leading zeros.
struct BackupName {
    enum class Kind { kArchive, kIndex, kInfo } kind = Kind::kArchive;
    std::string date;     ///< of its folder: "YYYY-MM-DD", or "custom"
    std::string name;     ///< NAME
    std::string user;     ///< NAME up to "#"
    std::string base;     ///< everything before ".tgz" or ".info", with the mark
    bool legacy = false;  ///< a form that is only read, never written
    uint32_t part = 0;    ///< K, 0 for a single piece

    std::string Folder() const { return user + "/" + date; }
    /// True for a file of the same backup.
    bool SameBackup(const BackupName& other) const {
        return name == other.name && date == other.date;
    }
    /// The number under which a slice stands in the info file.
    uint32_t Slice() const { return part == 0 ? 1 : part; }
};

/// Nothing for a name outside the grammar.
std::optional<BackupName> ParseName(const std::string& bare);
/// Throws std::runtime_error "<path>: not the name of a backup file".
BackupName NameOf(const std::string& path);
/// As NameOf, for an info file.
BackupName InfoNameOf(const std::string& path);

/// True for what may stand as NAME and names a user alone.
bool IsUserName(const std::string& text);

/// A number of decimal digits without sign and leading zeros, at most `max`.
std::optional<uint64_t> ParseNumber(const std::string& text, uint64_t max = UINT64_MAX);

bool IsControl(char c);  ///< a byte below 32, or 127

/// A relative path below a storage's base: no empty, "." or ".." part, no control bytes, no part
/// that begins with "-". Throws std::runtime_error that quotes it.
void CheckStorageName(const std::string& name);

}  // namespace backup2_cp
