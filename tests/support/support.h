/// What most suites need: scratch folders, files, bytes from a seed, stand-in programs, and checks
/// that a test left no descriptor and no child behind.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <stdlib.h>

#include "tests/support/log_capture.h"

/// An empty folder of its own, removed at the end.
class TempDir {
public:
    TempDir() : path_((std::filesystem::temp_directory_path() / "test.XXXXXX").string()) {
        if (!::mkdtemp(path_.data())) throw std::runtime_error("mkdtemp " + path_);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    ~TempDir() {
        std::error_code ignored;  // a test has already said what went wrong
        std::filesystem::remove_all(path_, ignored);
    }
    const std::string& Path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }
    /// What lies in it, sorted.
    std::vector<std::string> Names() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(path_)) {
            names.push_back(entry.path().filename().string());
        }
        std::sort(names.begin(), names.end());
        return names;
    }

private:
    std::string path_;
};

inline void WriteFile(const std::string& path, const std::string& bytes) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << bytes << std::flush;
    if (!file) throw std::runtime_error("cannot write " + path);
}

inline std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw std::runtime_error("cannot read " + path);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

/// The same bytes for the same seed; they do not compress.
inline std::string RandomBytes(std::size_t size, uint32_t seed) {
    std::mt19937 generator(seed);
    std::string bytes(size, '\0');
    for (char& byte : bytes) byte = static_cast<char>(generator() & 0xff);
    return bytes;
}

/// Sets (or, without a value, unsets) a variable and brings the old state back.
class EnvGuard {
public:
    explicit EnvGuard(std::string name) : name_(std::move(name)), old_(Current()) {
        ::unsetenv(name_.c_str());
    }
    EnvGuard(std::string name, const std::string& value) : name_(std::move(name)), old_(Current()) {
        ::setenv(name_.c_str(), value.c_str(), 1);
    }
    EnvGuard(const EnvGuard&) = delete;
    EnvGuard& operator=(const EnvGuard&) = delete;
    ~EnvGuard() {
        if (old_) {
            ::setenv(name_.c_str(), old_->c_str(), 1);
        } else {
            ::unsetenv(name_.c_str());
        }
    }
    const std::optional<std::string>& Old() const { return old_; }

private:
    std::optional<std::string> Current() const {
        const char* value = ::getenv(name_.c_str());
        return value ? std::optional<std::string>(value) : std::nullopt;
    }
    std::string name_;
    std::optional<std::string> old_;
};

/// Fails the test when other descriptors are open at its end than at its beginning.
class FdCheck {
public:
    FdCheck() : before_(Open()) {}
    FdCheck(const FdCheck&) = delete;
    FdCheck& operator=(const FdCheck&) = delete;
    ~FdCheck() { EXPECT_EQ(Open(), before_); }

    /// Number -> what it stands for.
    static std::map<int, std::string> Open() {
        std::map<int, std::string> open;
        std::error_code gone;  // the listing's own descriptor
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            const auto target = std::filesystem::read_symlink(entry.path(), gone).string();
            if (target.find("/fd") != std::string::npos && target.find("/proc/") == 0) continue;
            open[std::stoi(entry.path().filename().string())] = target;
        }
        return open;
    }

private:
    const std::map<int, std::string> before_;
};

/// Starts a child whose exit status is what `work` returns, 99 when that throws.
inline pid_t StartChild(const std::function<int()>& work) {
    const pid_t pid = ::fork();
    if (pid != 0) return pid;
    int status = 99;
    try {
        status = work();
    } catch (const std::exception&) {
    }
    ::_exit(status);
}

/// The child's exit status, 128 and the signal for one that was killed.
inline int WaitForChild(pid_t pid) {
    int status = 0;
    EXPECT_EQ(::waitpid(pid, &status, 0), pid);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

/// Fails the test when this process has a child at its end, running or not reaped.
class ChildCheck {
public:
    ChildCheck() = default;
    ChildCheck(const ChildCheck&) = delete;
    ChildCheck& operator=(const ChildCheck&) = delete;
    ~ChildCheck() {
        siginfo_t info{};
        const int found = ::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT);
        EXPECT_TRUE(found == -1 && errno == ECHILD) << "a child is left: " << info.si_pid;
    }
};

/// A folder first in PATH while the object lives, for programs that misbehave on purpose.
class FakePrograms {
public:
    FakePrograms() : path_("PATH", dir_.Path() + ":" + RealPath()) {}

    /// `script` is what /bin/sh does instead of the program.
    void Add(const std::string& name, const std::string& script) {
        // Written elsewhere first: a program must not be open for writing when it is started.
        const std::string path = dir_ / name;
        WriteFile(path + ".new", "#!/bin/sh\n" + script + "\n");
        ::chmod((path + ".new").c_str(), 0755);
        std::filesystem::rename(path + ".new", path);
    }
    /// Runs the real program, after its arguments were added to `file`, each on a line.
    void Record(const std::string& name, const std::string& file) {
        Add(name, "printf '%s\\n' " + name + " \"$@\" >> '" + file + "'\n" + "PATH='" +
                      path_.Old().value_or(kDefault) + "'; exec " + name + " \"$@\"");
    }

private:
    static constexpr const char* kDefault = "/usr/sbin:/usr/bin:/sbin:/bin";
    static std::string RealPath() {
        const char* path = ::getenv("PATH");
        return path ? path : kDefault;
    }
    TempDir dir_;
    EnvGuard path_;
};
