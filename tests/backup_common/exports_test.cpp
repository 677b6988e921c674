#include <regex>
#include <sstream>

#include <gtest/gtest.h>

#include "vel/vel_proc.h"

namespace {

/// Public names of the library: what its headers promise, and what templates of the standard
/// library force into every program.
TEST(Library, ShowsItsInterfaceOnly) {
    vel_proc::Execute nm({"nm", "-DC", "--defined-only", "lib/libbackup2.so"}, 0);
    std::istringstream symbols(nm.Str());
    ASSERT_EQ(nm.Result(), 0);
    int interface = 0;
    const std::regex forced("\\w+ ([WVu] .*|. (.* for )?(std::|__).*)");
    const std::regex promised("\\w+ . ((vtable|typeinfo|typeinfo name) for )?backup2::.*");
    const std::regex hidden(".*(anonymous|SystemMarkers|LocalStorage).*");
    for (std::string line; std::getline(symbols, line);) {
        if (std::regex_match(line, forced)) continue;
        EXPECT_TRUE(std::regex_match(line, promised)) << line;
        EXPECT_FALSE(std::regex_match(line, hidden)) << line;
        ++interface;
    }
    EXPECT_GT(interface, 60);
}

}  // namespace
