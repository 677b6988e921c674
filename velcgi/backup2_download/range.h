/// Which bytes of a file a client asks for.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace backup2_download {

struct Span {
    uint64_t from = 0, to = 0;  ///< behind the last byte
    bool partial = false;
    bool operator==(const Span&) const = default;
};

/// For the headers Range and If-Range ("" without) and a file with this tag and size, which is not
/// empty. Several ranges, other units, and what is no range at all, ask for everything; so does a
/// range for another file than the one with the tag. Nothing: the range lies behind the end.
std::optional<Span> ChooseSpan(const std::string& range, const std::string& if_range,
                               const std::string& tag, uint64_t size);

}  // namespace backup2_download
