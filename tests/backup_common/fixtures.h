/// What several suites of the library need.
#pragma once

#include <filesystem>
#include <initializer_list>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "vel/vel_err.h"

#include "backup_common/backup2_qortar.h"

#include "tests/support/fake_panel.h"
#include "tests/support/work_dir.h"

namespace backup2 {

namespace fs = std::filesystem;

/// Writes the file, with the folders above it.
inline void MakeFile(const std::string& path, const std::string& bytes) {
    fs::create_directories(fs::path(path).parent_path());
    WriteFile(path, bytes);
}

/// A stand-in for a program of the install root, a shell script.
inline void MakeTool(const std::string& name, const std::string& script) {
    MakeFile("./sbin/" + name, "#!/bin/sh\n" + script + "\n");
    fs::permissions("sbin/" + name, fs::perms::owner_all);
}

/// Checks a function of one text by cases of the form "argument -> result".
template <class Call>
void Check(const Call& call, std::initializer_list<std::string> cases) {
    for (const std::string& line : cases) {
        const std::size_t arrow = line.find(" -> ");
        EXPECT_EQ(call(line.substr(0, arrow)), line.substr(arrow + 4)) << line;
    }
}

/// What the call threw, "none" for nothing: an assertion's message, type and object of a platform
/// error, the text of any other.
template <class Call>
std::string Failure(const Call& call) {
    try {
        call();
    } catch (const vel_err::AssertError& e) {
        return e.message();
    } catch (const vel_err::Error& e) {
        return e.type() + (e.object().empty() ? "" : " " + e.object());
    } catch (const std::exception& e) {
        return e.what();
    }
    return "none";
}

/// The job's settings when the panel answers with these elements.
inline std::unique_ptr<Settings> MakeSettings(const std::string& user, const std::string& local_dir,
                                              const std::string& elements) {
    const FakePanel panel(
        {HttpAnswer("<doc><local_dir>" + local_dir + "</local_dir>" + elements + "</doc>")});
    return std::make_unique<Settings>("panel", user, "");
}

}  // namespace backup2
