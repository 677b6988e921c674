#include "vel/vel_proc.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include "vel/stream.h"
#include "vel/vel_err.h"

#include "tests/support/support.h"

namespace vel_proc {
namespace {

using Words = std::vector<std::string>;

class Proc : public testing::Test {
protected:
    FdCheck descriptors_;
    ChildCheck children_;
    TempDir dir_;
};

TEST_F(Proc, EscapedWordsReachTheProgramThroughARealShell) {
    std::string every_byte;
    for (int c = 1; c < 256; ++c) every_byte += static_cast<char>(c);
    const Words words = {"",   "a b",     "'",  "''",  "$(id)",   "`id`",    "-n",
                         "*",  "~",       "\\", "\n",  "a\n",     "!",       "a;b|c&&d",
                         "22", "a=b,c:d", "#x", "{1}", "\"$HOME", every_byte};
    for (const std::string& word : words) {
        EXPECT_EQ(Execute("printf '%s.' " + Escape(word), 0).Str(), word + ".");
    }
    for (const char* bare : {"22", "user@host.example:/a-b_c", "a=1,b%2+3"}) {
        EXPECT_EQ(Escape(bare), bare);
    }
}

TEST_F(Proc, StatusTellsHowTheChildEnded) {
    const struct {
        Words argv;
        int status;
    } cases[] = {
        {{"true"}, 0},
        {{"sh", "-c", "exit 7"}, 7},
        {{"sh", "-c", "kill -9 $$"}, 128 + 9},
        {{"sh", "-c", "kill -PIPE $$"}, 128 + 13},
        {{"no-such-program"}, 127},
        {{dir_ / "missing"}, 127},
        {{dir_.Path()}, 127},
    };
    for (const auto& c : cases) {
        Execute run(c.argv, kStream);
        EXPECT_EQ(std::string(std::istreambuf_iterator<char>(run.Out()), {}), "") << c.argv[0];
        EXPECT_EQ(run.Result(), c.status) << c.argv.back();
        EXPECT_EQ(run.Result(), c.status) << c.argv.back();
        EXPECT_EQ(run.Pid(), -1);
    }
}

TEST_F(Proc, BigDataGoesBothWaysWithoutADeadlock) {
    const std::string bytes = RandomBytes(9 << 20, 1);
    EXPECT_TRUE(Execute(Words{"cat"}, 0).In(bytes).Str() == bytes);
    Execute late(Words{"cat"}, 0);
    late.In("").Run();
    for (std::size_t at = 0; at < bytes.size(); at += 1 << 20) late.In(bytes.substr(at, 1 << 20));
    EXPECT_EQ(late.Result(), 0);
    EXPECT_TRUE(late.Str() == bytes);
    Execute streamed(Words{"cat"}, kStream);
    std::string got(bytes.size(), '\0');
    streamed.In(bytes).CloseIn();
    std::getline(streamed.Out(), got, bytes[1000]);  // leaves the middle of a buffer
    const std::size_t head = got.size() + 1;
    got = bytes.substr(0, head) + std::string(bytes.size() - head, '\0');
    streamed.Out().read(got.data() + head, static_cast<std::streamsize>(got.size() - head));
    EXPECT_TRUE(got == bytes);
    EXPECT_EQ(streamed.Out().get(), EOF);
}

TEST_F(Proc, ChildThatMisbehavesIsOnlyItsStatus) {
    const std::string big(4 << 20, 'x');
    const struct {
        const char* script;
        int status;
        const char* output;
    } cases[] = {
        {"exit 3", 3, ""},                                 // does not read
        {"exec 0<&-; sleep 0.1; echo late", 0, "late\n"},  // closes its input
        {"exec 1>&-; cat >/dev/null; exit 4", 4, ""},      // closes its output, then reads
        {"head -c 10000000 /dev/zero >&2; cat | wc -c", 0, "4194304\n"},  // babbles on errors
        {"head -c 70000 /dev/zero | tr '\\0' e >&2; kill -9 $$", 137, ""},
    };
    for (const auto& c : cases) {
        Execute run(c.script, 0);
        EXPECT_EQ(run.In(big).Str(), c.output) << c.script;
        EXPECT_EQ(run.Result(), c.status) << c.script;
    }
}

TEST_F(Proc, FailureIsLoggedWithTheEndOfItsErrorsButNoArgument) {
    LogCapture log;
    Execute failed(Words{"sh", "-c", "seq 5000 >&2; exit 2", "s3cret"}, 0);
    failed.SetEnv("TOKEN", "t0ken").Result();
    Execute("seq 5000 >&2", 0).Result();
    Execute(Words{"no-such-program", "s3cret"}, 0).Result();
    ASSERT_EQ(log.Events().size(), 2u);
    EXPECT_EQ(log.Events()[0].level, 6);
    EXPECT_TRUE(log.Mentions("'sh' ended with status 2: "));
    EXPECT_TRUE(log.Mentions("|4999|5000"));
    EXPECT_LT(log.Events()[0].text.size(), 4200u);
    EXPECT_TRUE(log.Mentions("Cannot start 'no-such-program': No such file or directory"));
    EXPECT_FALSE(log.Mentions("s3cret") || log.Mentions("t0ken"));
}

TEST_F(Proc, EnvironmentAndPathAreThoseOfTheCall) {
    const EnvGuard kept("KEPT", "1"), dropped("DROPPED", "1");
    EXPECT_EQ(Execute("echo $KEPT $DROPPED $NEW", 0).SetEnv("NEW", "a b").UnsetEnv("DROPPED").Str(),
              "1 a b\n");
    FakePrograms programs;
    programs.Add("true", "exit 5");
    EXPECT_EQ(Execute(Words{"true"}, 0).Result(), 5);
    EXPECT_THROW(Execute(Words{"true", std::string("a\0b", 3)}, 0).Run(), vel_err::Error);
}

TEST_F(Proc, RedirectedPipelineEndsWhenAMemberDies) {
    const std::string bytes = RandomBytes(3 << 20, 2);
    WriteFile(dir_ / "in", bytes);
    Pipe pipe;
    Execute from(Words{"cat", dir_ / "in"}, 0), to(Words{"sha256sum"}, 0);
    from.RedirectOutTo(pipe.Out());
    to.RedirectInTo(pipe.In());
    pipe.Out().Close();  // before the start: the copies are the children's
    pipe.In().Close();
    to.Run();
    EXPECT_EQ(from.Result(), 0);
    EXPECT_EQ(to.Str(), Execute(Words{"sha256sum"}, 0).In(bytes).Str());

    Pipe unread;
    Execute dead(Words{"no-such-program"}, 0);
    dead.RedirectInTo(unread.In()).Run();
    unread.In().Close();
    vel_file::OutStream feed(unread.Out());
    EXPECT_THROW(feed.write(bytes.data(), 3 << 20), vel_err::Error);  // EPIPE, and no signal
}

TEST_F(Proc, ChildWithAShortInputAndARedirectedOutputWorksByItself) {
    Pipe pipe;
    Execute talks("cat; seq 300000 >&2", 0);  // more messages than a pipe holds
    talks.In("password").CloseIn().RedirectOutTo(pipe.Out()).Run();
    pipe.Out().Close();
    EXPECT_EQ(Execute(Words{"cat"}, 0).RedirectInTo(pipe.In()).Str(), "password");
}

TEST_F(Proc, ChildGetsThreeDescriptorsAndCleanSignals) {
    const vel_file::ResHandle leaky(::open("/dev/null", O_RDONLY));  // not close-on-exec
    sigset_t blocked, old;
    ::sigfillset(&blocked);
    ::pthread_sigmask(SIG_SETMASK, &blocked, &old);
    const auto before = ::signal(SIGPIPE, SIG_IGN);
    const std::string fds = Execute("echo /proc/self/fd/*", 0).Str();
    const std::string masks =
        Execute(Words{"grep", "-E", "Sig(Blk|Ign)", "/proc/self/status"}, 0).Str();
    sigset_t now;
    ::pthread_sigmask(SIG_SETMASK, &old, &now);
    EXPECT_EQ(::signal(SIGPIPE, before), SIG_IGN);
    EXPECT_EQ(::sigismember(&now, SIGTERM), 1);
    // The shell's own listing is the fourth.
    EXPECT_EQ(fds, "/proc/self/fd/0 /proc/self/fd/1 /proc/self/fd/2 /proc/self/fd/3\n");
    EXPECT_EQ(masks, "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n");
}

TEST_F(Proc, SomebodyLeftWithTheOutputDoesNotHoldItsEndUp) {
    Execute run("sleep 300 & echo $! >&2; echo $!", kJoinErrors);
    const std::string output = run.Str();
    const pid_t left = std::stoi(output);
    EXPECT_EQ(output, std::to_string(left) + "\n" + std::to_string(left) + "\n");
    EXPECT_EQ(::kill(left, SIGKILL), 0) << "it was there all the time";
}

TEST_F(Proc, DroppedChildIsEndedEvenWhenItIgnoresTheRequest) {
    for (const char* script :
         {"echo ready; exec sleep 100", "trap '' TERM; echo ready; while :; do sleep 0.05; done"}) {
        pid_t pid;
        {
            Execute run(script, kStream);
            std::string line;
            std::getline(run.Out(), line);
            pid = run.Pid();
            EXPECT_EQ(::kill(pid, 0), 0);
        }
        EXPECT_EQ(::kill(pid, 0), -1) << script;
    }
}

TEST_F(Proc, ChildThatDoesNotGoOnIsEnded) {
    const std::string
        deaf = "trap '' TERM; ",
        slow =
            "exec perl -e 'for (;;) { syswrite STDOUT, \"x\"; select undef, undef, undef, 0.1 }'";
    const struct {
        std::string script;
        int time, stall, status;
    } cases[] = {
        {"exec sleep 1000", 1, 0, 128 + SIGTERM},
        {"exec sleep 1000", 0, 1, 128 + SIGTERM},
        {slow, 0, 1, 128 + SIGTERM},
        {slow, 1, 1000, 128 + SIGTERM},
        {deaf + slow, 3, 0, 128 + SIGKILL},
        {"for i in $(seq 40); do sleep 0.1; printf %0100d 0; done", 100, 3, 0},
    };
    std::vector<std::thread> waiting;
    for (const auto& c : cases) {
        waiting.emplace_back([&c] {
            Execute run(c.script, 0);
            run.EndAfter(c.time).EndWhenStalled(c.stall);
            EXPECT_EQ(run.Result(), c.status) << c.script;
            EXPECT_EQ(run.WasEnded(), c.status != 0) << c.script;
        });
    }
    for (std::thread& one : waiting) one.join();
}

TEST_F(Proc, ThreadsRunTheirOwnChildrenAtTheSameTime) {
    // A write end that leaked into the other thread's child would keep `cat` waiting for its end.
    const auto work = [](uint32_t seed) {
        for (uint32_t i = 0; i < 30; ++i) {
            const std::string bytes = RandomBytes(100000, seed * 100 + i);
            EXPECT_TRUE(Execute(Words{"cat"}, 0).In(bytes).Str() == bytes);
        }
    };
    std::thread first(work, 1), second(work, 2);
    first.join();
    second.join();
}

}  // namespace
}  // namespace vel_proc
