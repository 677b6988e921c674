// Real children and pipes; in place of `ssh` a program that fails as told.
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <functional>

#include <gtest/gtest.h>

#include "vel/stream.h"

#include "backup_common/backup2_proc.h"

#include "tests/backup_common/fixtures.h"

namespace backup2 {
namespace {

class SshRun : public testing::Test {
protected:
    /// Fails to connect so many times, then does what the script says.
    void FailFirst(int times, const std::string& script) {
        programs_.Add("ssh", "echo run >> '" + runs_ + "'; [ $(wc -l < '" + runs_ + "') -gt " +
                                 std::to_string(times) + " ] || exit 255\n" + script);
    }
    std::size_t Runs() const { return ReadFile(runs_).size() / 4; }

    FdCheck descriptors_;
    ChildCheck children_;
    TempDir dir_;
    const std::string runs_ = dir_ / "runs";
    FakePrograms programs_;
    LogCapture log_;
};

TEST_F(SshRun, ConnectionIsTriedThreeTimesAndOnceMoreWithTheSameInput) {
    FailFirst(3, "cat");
    Ssh ssh("host", "22", "key");
    EXPECT_EQ(ssh.Execute(0).In("").In("commands").Str(), "commands");
    EXPECT_EQ(Runs(), 4u);
    EXPECT_TRUE(log_.Has(4, "SSH connection failed. Attempt: 3 of 3"));
    EXPECT_TRUE(log_.Has(6, "Wait 2 seconds before next attempt"));
}

TEST_F(SshRun, RetryGetsTheSameRedirections) {
    FailFirst(1, "cat");
    for (const bool taken : {false, true}) {
        const vel_proc::Pipe in, out;
        Ssh ssh("host", "22", "key");
        ssh.Execute("cat", 0).RedirectInTo(in.In()).RedirectOutTo(out.Out());
        in.In().Close();
        out.Out().Close();
        vel_file::OutStream(in.Out()) << "bytes" << std::flush;
        in.Out().Close();
        if (taken) {
            ssh.GetExecute().Run();
        } else {
            EXPECT_EQ(ssh.Result(), 0);
        }
        vel_file::InStream read(out.In());  // ends while the object lives
        EXPECT_EQ(std::string(std::istreambuf_iterator<char>(read), {}), "bytes");
    }
}

TEST_F(SshRun, OtherFailuresAreTheCommandsOwn) {
    programs_.Add("ssh", "printf '%s|' \"$@\"; readlink /proc/self/fd/0; exit 1");
    Ssh ssh("::1", "", "/a key");
    EXPECT_EQ(ssh.Execute("ls 'a b'", 0).Str(),
              "-q|-o|StrictHostKeyChecking=no|-p|22|-i|/a key|::1|cd /usr/local/vel5; ls 'a b'|"
              "/dev/null\n");
    EXPECT_EQ(ssh.Result(), 1);
    EXPECT_FALSE(log_.Mentions("Attempt"));
    for (const char* host : {"", "-oProxyCommand=reboot"}) {
        EXPECT_EQ(Failure([&] { Ssh(host, "22", "key"); }), "ssh bad_host") << host;
    }
}

class Worker final : public Expect::BaseWorker {
public:
    using Handler = std::function<int64_t(vel_file::ResHandle)>;
    Worker(const vel_file::ResHandle& fd, Handler handler)
        : BaseWorker(fd, POLLIN), handler_(std::move(handler)) {}
    int64_t Handle(vel_file::ResHandle fd) override { return handler_(fd); }

private:
    Handler handler_;
};

class Dialogue : public testing::Test {
protected:
    Dialogue() {
        for (const auto& pipe : {a_, b_}) {
            EXPECT_EQ(::write(pipe.Out(), "x", 1), 1);  // ready, and stays so
        }
    }
    void Add(const vel_proc::Pipe& pipe, const std::string& name, Worker::Handler handler) {
        expect_.Add(std::make_shared<Worker>(pipe.In(), [=, this](vel_file::ResHandle fd) {
            calls_ += name;
            return handler(fd);
        }));
    }
    void Add(const vel_proc::Pipe& pipe, const std::string& name, int64_t result) {
        Add(pipe, name, [result](vel_file::ResHandle) { return result; });
    }

    FdCheck descriptors_;
    LogCapture log_;
    const vel_proc::Pipe a_, b_;
    Expect expect_;
    std::string calls_;
};

TEST_F(Dialogue, FinishServesTheRestOfThePassAndCloseRemoves) {
    Add(a_, "a", Expect::erFinish);
    Add(b_, "b", Expect::erClose);
    expect_.Run(-1);
    EXPECT_EQ(calls_, "ab");
    expect_.Run(-1);
    EXPECT_EQ(calls_, "aba");
    const std::string fd = std::to_string(int(b_.In()));
    EXPECT_TRUE(log_.Has(9, "backup2_proc.cpp:110 Fd " + fd + ", got close result"));
}

TEST_F(Dialogue, SuspendedWorkersWaitUntilTheirEventsAreSet) {
    Add(a_, "a", Expect::erSuspend);
    Add(b_, "b", 7);  // as good as erOk
    expect_.Run(0);
    expect_.Run(0);
    EXPECT_EQ(calls_, "abb");
    expect_.SetEvents(b_.In(), 0);
    expect_.SetEvents(999, -1);
    EXPECT_TRUE(log_.Has(8, "SetEvents fd = 999, events = ffff"));
    expect_.Run(-1);  // nobody is watched
    EXPECT_EQ(calls_, "abb");
    expect_.SetEvents(a_.In(), POLLIN);
    expect_.Run(-1);
    EXPECT_EQ(calls_, "abba");
}

TEST_F(Dialogue, HandlerMayCloseItselfAndOthersAndThrow) {
    vel_proc::Pipe unused;
    Add(a_, "a", [&](vel_file::ResHandle fd) {
        const int number = b_.In();
        b_.In().Close();
        EXPECT_EQ(::fcntl(unused.In(), F_DUPFD_CLOEXEC, number), number);  // the number again
        vel_file::ResHandle reused(number);
        Add(unused, "c", Expect::erFinish);
        fd.Close();
        return Expect::erOk;
    });
    Add(b_, "b", Expect::erFinish);
    unused.Out().Close();  // ready
    expect_.Run(-1);
    EXPECT_EQ(calls_, "ac");
    Add(vel_proc::Pipe(a_), "d", Expect::erOk);  // closed: not watched
    Add(unused, "e", [](vel_file::ResHandle) -> int64_t { throw vel_err::Error("stop"); });
    EXPECT_EQ(Failure([&] { expect_.Run(-1); }), "stop");
}

}  // namespace
}  // namespace backup2
