#pragma once

#include <filesystem>
#include <string>

#include "tests/support/support.h"

/// Writes the file, with the folders above it.
inline void MakeFile(const std::string& path, const std::string& bytes) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    WriteFile(path, bytes);
}
