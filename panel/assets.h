/// The files of panel/web, as the build has put them into the program.
#pragma once

#include <cstddef>

namespace panel {

struct Asset {
    const char* path;  ///< in the address: "/" or "/assets/NAME"
    const char* type;  ///< of its content
    const char* tag;   ///< changes with the content; with its quotes
    const unsigned char* bytes;
    std::size_t size;
};

extern const Asset kAssets[];
extern const std::size_t kAssetCount;

}  // namespace panel
