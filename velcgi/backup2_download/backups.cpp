#include "velcgi/backup2_download/backups.h"

#include <algorithm>
#include <charconv>
#include <list>
#include <map>
#include <tuple>

#include "vel/str.h"
#include "vel/test.h"
#include "vel/vel_file.h"
#include "vel/vel_log.h"

#include "backup_common/backup2_misc.h"

#include "velcgi/backup2_download/request.h"

namespace backup2_download {
namespace {

const vel_log::Module logger("backup2_download");

using InfoMap = std::map<std::string, std::string>;

constexpr uint64_t kMaxParts = 1000000;
const std::string kCustom = "custom", kAes = ".aes", kPart = ".part", kSlice = "slice.";

std::string Value(const InfoMap& info, const std::string& key) {
    const auto found = info.find(key);
    return found == info.end() ? "" : found->second;
}

std::optional<uint64_t> Number(const std::string& text) {
    uint64_t value = 0;
    const char* end = text.data() + text.size();
    const auto done = std::from_chars(text.data(), end, value);
    if (done.ec != std::errc() || done.ptr != end) return std::nullopt;
    return value;
}

bool CutEnd(std::string& text, const std::string& end) {
    if (!str::EndsWith(text, end)) return false;
    text.resize(text.size() - end.size());
    return true;
}

/// What the name of the last slice says: 0 parts for a single piece.
struct LastSlice {
    std::string archive;
    bool encrypted = false;
    uint64_t parts = 0;
};

std::optional<LastSlice> ParseLastSlice(const std::string& path) {
    LastSlice last;
    last.archive = vel_file::Name(path);
    if (const auto at = last.archive.rfind(kPart); at != std::string::npos) {
        const auto number = Number(last.archive.substr(at + kPart.size()));
        if (!number || *number == 0 || *number > kMaxParts) return std::nullopt;
        last.parts = *number;
        last.archive.resize(at);
    }
    last.encrypted = CutEnd(last.archive, kAes);
    return last;
}

/// The archive's name follows from user and date; of a custom one the day is known by its name
/// only.
std::string ArchiveName(const std::string& type, const std::string& date, const std::string& user,
                        const std::string& found) {
    if (type == "full" && date != kCustom) return "F" + date + "." + user + ".tgz";
    if (type == "incremental" && date != kCustom) return "I" + date + "." + user + ".tgz";
    const std::string day = found.substr(std::min<std::size_t>(1, found.size()), 10);
    if (type != kCustom || date != kCustom || !test::Date(day)) return "";
    return "C" + day + "." + user + ".tgz";
}

bool IsSum(const std::string& text) {
    return text.size() == 64 && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

/// "<plain size> <stored size> <plain sum> <stored sum>"
std::optional<Slice> ParseSlice(std::string text) {
    Slice slice;
    const auto size = Number(str::GetWord(text));
    str::GetWord(text);
    slice.sha256 = str::GetWord(text);
    if (!size || *size == 0 || !IsSum(slice.sha256)) return std::nullopt;
    slice.size = *size;
    return slice;
}

/// False when one is missing or there are others.
bool ReadSlices(const InfoMap& info, const LastSlice& last, Archive& archive) {
    const uint64_t count = std::max<uint64_t>(last.parts, 1);
    const auto recorded = std::count_if(info.begin(), info.end(), [](const auto& pair) {
        return str::StartsWith(pair.first, kSlice);
    });
    if (Value(info, "parts") != str::Str(count) || static_cast<uint64_t>(recorded) != count)
        return false;
    const std::string first = backup2::GetPath(archive.name + (last.encrypted ? kAes : ""));
    for (uint64_t k = 1; k <= count; ++k) {
        auto slice = ParseSlice(Value(info, kSlice + str::Str(k)));
        if (!slice) return false;
        slice->path = last.parts == 0 ? first : first + kPart + str::Str(k);
        archive.slices.push_back(std::move(*slice));
    }
    return true;
}

/// Nothing for what is not complete.
std::optional<Archive> ReadArchive(const std::string& info_path, const std::string& user,
                                   const std::string& uid) {
    const InfoMap info = backup2::GetInfo(info_path);
    Archive archive;
    archive.info_path = info_path;
    archive.date = vel_file::Name(info_path);
    archive.date = str::GetWord(archive.date, '.');
    const auto last = ParseLastSlice(Value(info, "last-slice"));
    if (!last || (archive.date != kCustom && !test::Date(archive.date))) return std::nullopt;
    archive.name = ArchiveName(Value(info, "type"), archive.date, user, last->archive);
    archive.encrypted = last->encrypted;
    archive.created = Value(info, "created");
    archive.finished = Value(info, "finished");
    archive.key_hash = Value(info, "key_hash");
    // Users without an account on this machine have no uid in their backups.
    const std::string recorded_uid = Value(info, "uid");
    const bool his = vel_file::Name(info_path) == archive.date + "." + user + ".info" &&
                     Value(info, "user") == user && (recorded_uid.empty() || recorded_uid == uid);
    const bool finished = !archive.finished.empty() && !archive.created.empty();
    if (!his || !finished || archive.name.empty() || archive.name != last->archive ||
        !ReadSlices(info, *last, archive))
        return std::nullopt;
    archive.base = vel_file::Name(Value(info, "base"));
    CutEnd(archive.base, kAes);
    if ((Value(info, "type") == "incremental") == archive.base.empty()) return std::nullopt;
    return archive;
}

std::optional<Archive> FindBase(const Archive& increment, const std::string& local_dir,
                                const std::string& user, const std::string& uid) {
    const std::string day =
        increment.base.substr(std::min<std::size_t>(1, increment.base.size()), 10);
    if (!test::Date(day) || increment.base != "F" + day + "." + user + ".tgz") return std::nullopt;
    const std::string info_path = backup2::GetInfoFile(local_dir, user, day);
    if (!vel_file::Exists(info_path)) return std::nullopt;
    auto base = ReadArchive(info_path, user, uid);
    if (!base || base->name != increment.base) return std::nullopt;
    return base;
}

/// A file that cannot be read is no backup, and no reason to refuse the others.
std::optional<Newest> ReadComplete(const std::string& info_path, const std::string& local_dir,
                                   const std::string& user, const std::string& uid) try {
    if (backup2::GetInfo(info_path).count("deleted") != 0) return std::nullopt;
    auto own = ReadArchive(info_path, user, uid);
    if (!own) return std::nullopt;
    Newest found;
    found.own = std::move(*own);
    if (found.own.base.empty()) return found;
    found.base = FindBase(found.own, local_dir, user, uid);
    if (!found.base) return std::nullopt;
    return found;
} catch (const std::exception& e) {
    logger.Write(4, "%s: %s", info_path, e.what());
    return std::nullopt;
}

bool IsNewer(const Archive& a, const Archive& b) {
    return std::tie(a.created, a.finished, a.date) > std::tie(b.created, b.finished, b.date);
}

}  // namespace

uint64_t Archive::Size() const {
    uint64_t size = 0;
    for (const Slice& slice : slices) size += slice.size;
    return size;
}

Newest FindNewest(const std::string& local_dir, const std::string& user, const std::string& uid) {
    std::list<std::string> paths;
    if (vel_file::Exists(local_dir)) backup2::GetInfoFiles(paths, local_dir, false, user, "");
    std::optional<Newest> newest;
    for (const std::string& path : paths) {
        auto found = ReadComplete(path, local_dir, user, uid);
        if (found && (!newest || IsNewer(found->own, newest->own))) newest = std::move(found);
    }
    if (!newest) throw Refusal(404, "missed");
    return std::move(*newest);
}

}  // namespace backup2_download
