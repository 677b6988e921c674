/// DNS master files (RFC 1035, section 5).
#pragma once

#include <string>
#include <vector>

namespace foreign_panel {

struct DnsRecord {
    std::string name;  ///< absolute, in lower case, with the dot at the end
    std::string type;  ///< in upper case
    std::string ttl;   ///< seconds, "" when it is not said
    std::string data;  ///< one line; names in it are absolute
};

/// `zone`: the domain, without a dot at the end. Lines that are no records are added to `bad`;
/// $INCLUDE is never followed and is one of them.
std::vector<DnsRecord> ReadZone(const std::string& text, const std::string& zone,
                                std::vector<std::string>& bad);
/// `name` as it stands in a zone file, made absolute.
std::string AbsoluteName(const std::string& name, const std::string& origin);

}  // namespace foreign_panel
