#include "vel/vel_rpc/detail/cloud_parts.h"

#include <cstring>

#include "vel/str.h"
#include "vel/vel_err.h"
#include "vel/vel_rpc/detail/json.h"

namespace vel_rpc::detail {
namespace {

constexpr std::size_t kMaxShown = 300;
constexpr std::size_t kMaxNames = 1'000'000;
constexpr int kMaxIdlePages = 100;  // in a row, with no name that was not known

[[noreturn]] void Refuse(const std::string& what) {
    throw vel_err::Error("storage", "refused", what);
}

void CheckWhole(const std::istream& in) {
    if (in.bad() || (in.fail() && !in.eof())) {
        throw vel_err::Error("file", "read_failed", "the bytes to upload break off");
    }
}

}  // namespace

Names SplitNames(const std::string& service, const std::string& path) {
    const auto refuse = [&](const char* why) { Refuse(service + ": " + Shown(path) + ": " + why); };
    if (path.find('\0') != std::string::npos) refuse("a name holds a NUL");
    if (!IsUtf8(path)) refuse("a name is not UTF-8, which the service needs");
    Names names;
    str::Split(path, "/", names);
    for (const std::string& name : names) {
        if (name == "." || name == "..") refuse("\".\" and \"..\" are no names");
    }
    return names;
}

Names SplitBelowRoot(const std::string& service, const std::string& path) {
    Names names = SplitNames(service, path);
    if (names.empty()) Refuse(service + ": \"" + Shown(path) + "\" is the root, which stays");
    return names;
}

std::string JoinNames(const Names& names) {
    std::string path;
    for (const std::string& name : names) path += "/" + name;
    return path;
}

Names Parent(Names names) {
    names.pop_back();
    return names;
}

std::string Shown(const std::string& path) {
    return str::badchars::Escape(path.substr(0, kMaxShown), str::badchars::Controls(), '\\');
}

bool IsFolderPath(const std::string& path) { return path.empty() || path.back() == '/'; }

bool Listing::Add(const std::string& name) {
    const bool bare = !name.empty() && name != "." && name != ".." &&
                      name.find_first_of(std::string("/\0", 2)) == std::string::npos;
    if (!bare) Refuse(what_ + ": the service lists a name that is none: \"" + Shown(name) + "\"");
    const bool is_new = names_.insert(name).second;
    if (names_.size() > kMaxNames) Refuse(what_ + ": the listing is too long");
    return is_new;
}

void Listing::TurnPage() {
    idle_pages_ = names_.size() == names_before_ ? idle_pages_ + 1 : 0;
    names_before_ = names_.size();
    if (idle_pages_ > kMaxIdlePages) Refuse(what_ + ": the listing does not end");
}

std::time_t TimeOf(const std::string& service, const std::string& what, const std::string& iso) {
    std::tm parts{};
    const char* rest = ::strptime(iso.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
    if (rest && *rest == '.') rest += 1 + std::strspn(rest + 1, "0123456789");
    if (rest && *rest != '\0') rest = ::strptime(rest, "%z", &parts);
    if (!rest || *rest != '\0')
        Refuse(service + ": " + what + ": not a time: \"" + Shown(iso) + '"');
    const long ahead = parts.tm_gmtoff;
    return ::timegm(&parts) - ahead;
}

std::time_t HoursAgo(int hours) {
    constexpr int kSecondsAnHour = 3600;
    return std::time(nullptr) - std::time_t{hours} * kSecondsAnHour;
}

void ReadChunk(std::istream& in, std::string& chunk) {
    chunk.resize(kChunkSize);
    in.read(chunk.data(), static_cast<std::streamsize>(chunk.size()));
    chunk.resize(static_cast<std::size_t>(in.gcount()));
    CheckWhole(in);
}

bool AtEnd(std::istream& in) {
    const bool end = in.peek() == std::istream::traits_type::eof();
    CheckWhole(in);
    return end;
}

}  // namespace vel_rpc::detail
