#include <sstream>

#include <gtest/gtest.h>

#include "vel/str.h"
#include "vel/vel_proc.h"

namespace {

/// Public names of the library: what its headers promise, and what templates of the standard
/// library force into every program.
TEST(Library, ShowsItsInterfaceOnly) {
    vel_proc::Execute nm({"nm", "-DC", "--defined-only", "lib/libbackup2.so"}, 0);
    std::istringstream symbols(nm.Str());
    ASSERT_EQ(nm.Result(), 0);
    int interface = 0;
    for (std::string line; std::getline(symbols, line);) {
        std::string kind = line, name;
        str::GetWord(kind);
        name = kind.substr(2);
        kind.resize(1);
        for (const char* word : {"vtable for ", "typeinfo for ", "typeinfo name for "}) {
            if (str::StartsWith(name, word)) name.erase(0, std::string(word).size());
        }
        const bool forced = str::StartsWith(name, "std::") || str::StartsWith(name, "__") ||
                            kind == "W" || kind == "V" || kind == "u";
        if (forced) continue;
        EXPECT_TRUE(str::StartsWith(name, "backup2::")) << line;
        for (const char* hidden : {"anonymous", "SystemMarkers", "LocalStorage"}) {
            EXPECT_EQ(name.find(hidden), std::string::npos) << line;
        }
        ++interface;
    }
    EXPECT_GT(interface, 60);
}

}  // namespace
