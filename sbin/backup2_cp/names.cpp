#include "sbin/backup2_cp/names.h"

#include <algorithm>
#include <charconv>
#include <stdexcept>

#include "vel/str.h"
#include "vel/test.h"
#include "vel/vel_file.h"

#include "backup_common/backup2_misc.h"

namespace backup2_cp {

namespace {

const std::string kTgz = ".tgz", kAes = ".aes", kInfo = ".info", kDar = ".dar", kPart = ".part";
const std::string kCustom = "custom";
constexpr std::size_t kDateSize = 10, kMaxName = 255;

bool CutEnd(std::string& text, const std::string& end) {
    if (text.size() <= end.size() || !str::EndsWith(text, end)) return false;
    text.resize(text.size() - end.size());
    return true;
}

/// Cuts `before` and a slice number off the end.
bool CutNumber(std::string& text, const std::string& before, uint32_t& number) {
    const auto at = text.rfind(before);
    if (at == std::string::npos) return false;
    const auto value = ParseNumber(text.substr(at + before.size()), kMaxParts);
    if (!value || *value == 0) return false;
    number = static_cast<uint32_t>(*value);
    text.resize(at);
    return true;
}

/// NAME: nothing that hides, climbs, starts an option, or would shift the other parts.
bool IsBackupName(const std::string& name) {
    const std::string user = name.substr(0, name.find('#'));
    if (user.empty() || user[0] == '.' || user[0] == '-') return false;
    if (std::any_of(name.begin(), name.end(), [](char c) { return c == '/' || IsControl(c); })) {
        return false;
    }
    return name.find(kTgz) == std::string::npos && name.find(kInfo) == std::string::npos;
}

/// Takes "<mark?><date>.<NAME>" apart.
bool ReadBase(BackupName& out) {
    std::string rest = out.base;
    const bool marked = !rest.empty() && (rest[0] == 'F' || rest[0] == 'I' || rest[0] == 'C');
    if (marked != (out.kind == BackupName::Kind::kArchive)) return false;
    const char mark = marked ? rest[0] : '\0';
    if (marked) rest.erase(0, 1);
    std::string date = rest.substr(0, rest.find('.'));
    if (rest.size() <= date.size() + 1) return false;
    if (!test::Date(date) && (marked || date != kCustom)) return false;
    out.name = rest.substr(date.size() + 1);
    out.user = out.name.substr(0, out.name.find('#'));
    out.date = mark == 'C' ? kCustom : date;
    return IsBackupName(out.name);
}

/// Cuts the endings off `rest` and says what kind of file they make.
bool ReadEnding(std::string& rest, BackupName& out) {
    out.kind = BackupName::Kind::kArchive;
    if (CutEnd(rest, kInfo)) {
        out.kind = BackupName::Kind::kInfo;
        return true;
    }
    if (CutEnd(rest, kDar)) return out.legacy = CutNumber(rest, ".", out.part);
    if (!CutNumber(rest, kPart, out.part)) out.legacy = CutNumber(rest, ".", out.part);
    CutEnd(rest, kAes);
    if (!CutEnd(rest, kTgz)) return false;
    const bool marked = rest[0] == 'F' || rest[0] == 'I' || rest[0] == 'C';
    if (!marked) out.kind = BackupName::Kind::kIndex;
    return marked || out.part == 0;
}

}  // namespace

bool IsControl(char c) { return static_cast<unsigned char>(c) < 32 || c == 127; }

std::optional<uint64_t> ParseNumber(const std::string& text, uint64_t max) {
    uint64_t value = 0;
    const char* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, value);
    const bool whole = result.ec == std::errc() && result.ptr == end;
    if (!whole || value > max || (text.size() > 1 && text[0] == '0')) return std::nullopt;
    return value;
}

std::optional<BackupName> ParseName(const std::string& bare) {
    if (bare.size() < kDateSize || bare.size() > kMaxName) return std::nullopt;
    BackupName out;
    out.base = bare;
    if (!ReadEnding(out.base, out) || !ReadBase(out)) return std::nullopt;
    // The library takes names apart by its own rules: both must agree where the file belongs.
    if (!out.legacy && backup2::GetPath(bare) != out.Folder() + "/" + bare) return std::nullopt;
    return out;
}

BackupName NameOf(const std::string& path) {
    auto name = ParseName(vel_file::Name(path));
    if (!name) throw std::runtime_error(path + ": not the name of a backup file");
    return *name;
}

BackupName InfoNameOf(const std::string& path) {
    BackupName name = NameOf(path);
    if (name.kind != BackupName::Kind::kInfo) {
        throw std::runtime_error(path + ": not the name of an info file");
    }
    return name;
}

bool IsUserName(const std::string& text) {
    const auto name = ParseName("2000-01-01." + text + ".info");
    return name && name->user == text;
}

void CheckStorageName(const std::string& name) {
    const auto refuse = [&](const std::string& why) {
        throw std::runtime_error("'" + backup2::EncodeFileName(name) + "': " + why);
    };
    if (name.empty() || name[0] == '/') refuse("not a name below the storage's path");
    if (std::any_of(name.begin(), name.end(), IsControl)) refuse("holds control bytes");
    std::string rest = name;
    while (!rest.empty()) {
        const std::string part = str::GetWord(rest, '/');
        if (part == "." || part == "..") refuse("climbs");
        if (!part.empty() && part[0] == '-') refuse("a part begins with \"-\"");
    }
}

}  // namespace backup2_cp
