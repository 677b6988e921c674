/// Predicates over texts that come from outside.
#pragma once

#include <string>
#include <string_view>

namespace test {

bool Ip6(const std::string& s);  ///< an IPv6 address, without brackets and zone
bool Date(std::string_view s);   ///< exactly "YYYY-MM-DD", a day of the calendar

}  // namespace test
