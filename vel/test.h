/// Predicates over texts that come from outside.
#pragma once

#include <string>

namespace test {

bool Ip6(const std::string& s);   ///< an IPv6 address, without brackets and zone
bool Date(const std::string& s);  ///< exactly "YYYY-MM-DD", a day of the calendar

}  // namespace test
