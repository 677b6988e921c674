#include "vel/vel_tool.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <iostream>
#include <thread>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "vel/vel_err.h"
#include "vel/vel_proc.h"

#include "tests/support/work_dir.h"

namespace {

using Body = std::function<int(std::vector<std::string>)>;

/// Runs `body` as a program's in this (child) process, standard output joined to standard error.
[[noreturn]] void RunAsProgram(const Body& body, std::vector<std::string> arguments = {}) {
    ::dup2(2, 1);
    arguments.insert(arguments.begin(), "program");
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    std::exit(vel_tool::Main(static_cast<int>(argv.size()), argv.data(), body));
}

class Tool : public testing::Test {
protected:
    const FdCheck fds_;
    const WorkDir work_;
    const EnvGuard root_{"VEL_ROOT", work_.Path()};
};

TEST_F(Tool, FailuresBecomeOneLineOnBothOutputsAndAStatus) {
    struct Case {
        Body body;
        int status;
        std::string line;
    };
    const Case cases[] = {
        {[](auto) -> int { throw vel_err::Error("nospace"); }, 1, "nospace"},
        {[](auto) -> int { throw vel_err::Error("t", "o", "v\nw\xc3\xa4\\"); }, 1,
         "Type: 't' Object: 'o' Value: 'v.nw\xc3\xa4..'"},
        {[](auto) -> int { throw vel_tool::UsageError("what is --x?"); }, 2, "what is --x."},
        {[](auto) -> int { throw std::runtime_error("plain"); }, 1, "plain"},
        {[](auto) -> int { throw std::bad_alloc(); }, 1, "out of memory"},
    };
    for (const Case& c : cases) {
        const std::string line = "vel_tests: " + c.line + "\n";
        EXPECT_EXIT(RunAsProgram(c.body), testing::ExitedWithCode(c.status), line + line);
    }
    EXPECT_EXIT(RunAsProgram([](auto) { return vel_tool::kWarnings; }), testing::ExitedWithCode(3),
                "");
    EXPECT_EXIT(RunAsProgram([](auto) { return 0; }, {"--version"}), testing::ExitedWithCode(0),
                "vel_tests [0-9]+\\.[0-9]+");
}

TEST_F(Tool, SignalsThatTheCallerIgnoresWorkAgain) {
    const Body runs_a_child = [](auto) {
        vel_proc::Execute child({"sh", "-c", "exit 7"}, 0);
        const bool dies = ::signal(SIGPIPE, SIG_DFL) == SIG_DFL;
        return child.Result() == 7 && dies ? 0 : 9;
    };
    const auto run = [&] {
        for (const int number : {SIGCHLD, SIGPIPE}) ::signal(number, SIG_IGN);
        RunAsProgram(runs_a_child);
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

TEST_F(Tool, ABodyRunsPrivatelyInTheInstallRoot) {
    std::filesystem::create_directory("below");
    std::filesystem::current_path("below");
    const Body check = [this](std::vector<std::string> arguments) {
        rlimit core{};
        ::getrlimit(RLIMIT_CORE, &core);
        const bool good = std::filesystem::current_path() == work_.Path() && ::umask(0) == 077 &&
                          core.rlim_max == 0 &&
                          arguments == std::vector<std::string>{"a", "--version"} &&
                          vel_tool::Absolute("x/../y") == work_.Path() + "/below/x/../y" &&
                          vel_tool::Absolute("/z") == "/z";
        return good ? 0 : 9;
    };
    EXPECT_EXIT(RunAsProgram(check, {"a", "--version"}), testing::ExitedWithCode(0), "");
    const EnvGuard elsewhere("VEL_ROOT", "/no/such/root");
    EXPECT_EXIT(RunAsProgram(check), testing::ExitedWithCode(1), "/no/such/root: No such file");
}

TEST_F(Tool, OutputThatCannotBeWrittenIsAFailure) {
    const Body body = [](auto) {
        const int full = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
        ::dup2(full, 1);
        std::cout << "result";
        return 0;
    };
    EXPECT_EXIT(RunAsProgram(body), testing::ExitedWithCode(1), "cannot be written");
}

TEST_F(Tool, AMissingStandardDescriptorIsNotTakenByAFile) {
    const Body body = [](auto) {
        const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        return fd > 2 ? 0 : 9;
    };
    EXPECT_EXIT(
        {
            ::close(0);
            RunAsProgram(body);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(Tool, ProgressEndsWithTheSumsOfAllThreads) {
    {
        const EnvGuard file("BACKUP2_PROGRESS", work_.Path() + "/progress");
        vel_tool::Progress progress("pack \xff\"");
        progress.Total(4000, 40);
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&progress] {
                for (int i = 0; i < 10; ++i) progress.Add(100, 1);
            });
        }
        for (std::thread& thread : threads) thread.join();
    }
    std::ifstream in("progress");
    nlohmann::json last;
    int lines = 0;
    for (std::string line; std::getline(in, line); ++lines) last = nlohmann::json::parse(line);
    EXPECT_GE(lines, 2);
    EXPECT_LT(lines, 42);  // fewer than there were calls
    EXPECT_EQ(last["bytes"], 4000);
    EXPECT_EQ(last["files"], 40);
    vel_tool::Progress("nobody looks").Add(1, 1);
}

}  // namespace
