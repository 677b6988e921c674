/// A scratch install root that is the working directory while the object lives.
#pragma once

#include <unistd.h>

#include <filesystem>
#include <stdexcept>
#include <string>

#include <stdlib.h>

class WorkDir {
public:
    WorkDir() : before_(std::filesystem::current_path()) {
        std::string name = (std::filesystem::temp_directory_path() / "work.XXXXXX").string();
        if (!::mkdtemp(name.data())) throw std::runtime_error("mkdtemp " + name);
        path_ = name;
        std::filesystem::create_directories(path_ / "var/run");
        std::filesystem::current_path(path_);
    }
    WorkDir(const WorkDir&) = delete;
    WorkDir& operator=(const WorkDir&) = delete;
    ~WorkDir() {
        std::error_code ignored;  // a test has already said what went wrong
        std::filesystem::current_path(before_, ignored);
        std::filesystem::remove_all(path_, ignored);
    }
    const std::filesystem::path& Path() const { return path_; }

private:
    std::filesystem::path before_, path_;
};
