/// A scratch install root that is the working directory while the object lives.
#pragma once

#include <filesystem>
#include <string>

#include "tests/support/support.h"

class WorkDir {
public:
    WorkDir() : before_(std::filesystem::current_path()) {
        std::filesystem::create_directories(dir_ / "var/run");
        std::filesystem::current_path(dir_.Path());
    }
    WorkDir(const WorkDir&) = delete;
    WorkDir& operator=(const WorkDir&) = delete;
    ~WorkDir() {
        std::error_code ignored;  // a test has already said what went wrong
        std::filesystem::current_path(before_, ignored);
    }
    const std::string& Path() const { return dir_.Path(); }

private:
    const TempDir dir_;
    const std::filesystem::path before_;
};
