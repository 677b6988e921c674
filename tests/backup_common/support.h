/// Scratch files, programs that misbehave, and checks that nothing is left behind.
#pragma once

#include <sys/wait.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "vel/vel_env.h"
#include "vel/vel_proc.h"

#include "tests/support/log_capture.h"

inline std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

inline void WriteFile(const std::string& path, const std::string& bytes) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << bytes;
}

inline std::string RandomBytes(std::size_t size, unsigned seed) {
    std::mt19937_64 random(seed);
    std::string bytes(size, '\0');
    for (char& c : bytes) c = static_cast<char>(random());
    return bytes;
}

class TempDir {
public:
    TempDir() {
        std::string path = (std::filesystem::temp_directory_path() / "backup2.XXXXXX").string();
        if (!::mkdtemp(path.data())) throw std::runtime_error("mkdtemp");
        path_ = path;
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    ~TempDir() { std::filesystem::remove_all(path_); }
    const std::string& Path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }
    std::vector<std::string> Names() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(path_)) {
            names.push_back(entry.path().filename());
        }
        std::sort(names.begin(), names.end());
        return names;
    }

private:
    std::string path_;
};

class EnvGuard {
public:
    EnvGuard(const std::string& name, const std::string& value)
        : name_(name), before_(vel_env::GetEnv(name)) {
        vel_env::SetEnv(name, value);
    }
    EnvGuard(const EnvGuard&) = delete;
    EnvGuard& operator=(const EnvGuard&) = delete;
    ~EnvGuard() {
        if (before_.empty()) {
            vel_env::UnsetEnv(name_);
        } else {
            vel_env::SetEnv(name_, before_);
        }
    }

private:
    std::string name_, before_;
};

/// A directory in front of PATH with programs of known names.
class FakePrograms {
public:
    FakePrograms() : path_("PATH", dir_.Path() + ":" + vel_env::GetEnv("PATH")) {}
    void Add(const std::string& name, const std::string& script) {
        WriteFile(dir_ / name, "#!/bin/sh\n" + script + "\n");
        std::filesystem::permissions(dir_ / name, std::filesystem::perms::owner_all);
    }
    /// The real program, whose arguments go to the end of `log`, one a line.
    void Record(const std::string& name, const std::string& log) {
        Add(name, "printf '%s\\n' \"$@\" >>" + vel_proc::Escape(log) + "\nPATH=${PATH#*:}\nexec " +
                      name + " \"$@\"");
    }

private:
    TempDir dir_;
    EnvGuard path_;
};

/// Nothing may be open at the end that was not open at the start.
class FdCheck {
public:
    FdCheck() : before_(Count()) {}
    ~FdCheck() { EXPECT_EQ(Count(), before_) << "descriptors were left open"; }

private:
    static std::ptrdiff_t Count() {
        const std::filesystem::directory_iterator open("/proc/self/fd");
        return std::distance(begin(open), end(open));
    }
    std::ptrdiff_t before_;
};

class ChildCheck {
public:
    ~ChildCheck() { EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a child was left"; }
};
