#include "velcgi/backup2_download/range.h"

#include <algorithm>
#include <charconv>

#include "vel/str.h"

namespace backup2_download {
namespace {

constexpr char kUnit[] = "bytes=";

/// Digits only; what is too big for a number lies behind every end.
std::optional<uint64_t> Number(const std::string& text) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos)
        return std::nullopt;
    uint64_t value = 0;
    const auto done = std::from_chars(text.data(), text.data() + text.size(), value);
    return done.ec == std::errc() ? value : UINT64_MAX;
}

}  // namespace

std::optional<Span> ChooseSpan(const std::string& range, const std::string& if_range,
                               const std::string& tag, uint64_t size) {
    const Span all{0, size, false};
    if (!str::StartsWith(range, kUnit) || (!if_range.empty() && if_range != tag)) return all;
    std::string first = range.substr(sizeof kUnit - 1);
    const auto dash = first.find('-');
    if (dash == std::string::npos) return all;
    const std::string second = first.substr(dash + 1);
    first.resize(dash);
    const auto from = Number(first), last = Number(second);
    if ((!first.empty() && !from) || (!second.empty() && !last) || (!from && !last)) return all;
    if (!from) {  // so many of the last bytes
        if (*last == 0) return std::nullopt;
        return Span{size - std::min(size, *last), size, true};
    }
    if (last && *last < *from) return all;
    if (*from >= size) return std::nullopt;
    return Span{*from, last ? std::min(size - 1, *last) + 1 : size, true};
}

}  // namespace backup2_download
