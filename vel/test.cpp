#include "vel/test.h"

#include <arpa/inet.h>

#include <chrono>

namespace test {

bool Ip6(const std::string& s) {
    in6_addr address;
    // inet_pton stops at a NUL byte, so a text that holds one must not get that far.
    return s.find('\0') == std::string::npos && ::inet_pton(AF_INET6, s.c_str(), &address) == 1;
}

bool Date(std::string_view s) {
    if (s.size() != 10) return false;
    for (std::size_t i = 0; i < s.size(); ++i) {
        const bool dash = i == 4 || i == 7;
        if (dash ? s[i] != '-' : s[i] < '0' || s[i] > '9') return false;
    }
    const auto number = [s](std::size_t at, std::size_t n) {
        int value = 0;
        for (const char digit : s.substr(at, n)) value = value * 10 + (digit - '0');
        return value;
    };
    return std::chrono::year_month_day(std::chrono::year(number(0, 4)),
                                       std::chrono::month(static_cast<unsigned>(number(5, 2))),
                                       std::chrono::day(static_cast<unsigned>(number(8, 2))))
        .ok();
}

}  // namespace test
