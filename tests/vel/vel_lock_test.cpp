#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <thread>

#include <gtest/gtest.h>

#include "vel/vel_err.h"
#include "vel/vel_file.h"
#include "vel/vel_proc.h"

#include "tests/support/support.h"
#include "tests/vel/fixtures.h"

namespace vel_file {
namespace {

/// Another process: what it does is its exit status.
pid_t Start(const std::function<int()>& work) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        int status = 99;
        try {
            status = work();
        } catch (const std::exception&) {
        }
        ::_exit(status);
    }
    return pid;
}

int Wait(pid_t pid) {
    int status = 0;
    EXPECT_EQ(::waitpid(pid, &status, 0), pid);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

class Locks : public testing::Test {
protected:
    bool IsHeld() const {
        return Wait(Start([this] {
                   return Failure([&] { Lock().DoLock(path_, true); }) == "lock|busy|" + path_;
               })) == 1;
    }

    FdCheck descriptors_;
    ChildCheck children_;
    TempDir dir_;
    const std::string path_ = dir_ / "journal";
};

TEST_F(Locks, ObjectsOfOneProcessShareOneLockUntilTheLastGoes) {
    Lock first, second;
    first.DoLock(path_, false);
    second.DoLock(path_, false);  // would wait for ever for an independent lock
    EXPECT_TRUE(IsHeld());
    first.Write("one");
    EXPECT_EQ(second.Read(), "one");
    second.Write("two");
    EXPECT_EQ(first.Read() + ReadE(path_), "twotwo");  // and closes a descriptor of the file
    Lock third;
    std::thread([&] { third.DoLock(path_, true); }).join();
    for (Lock* lock : {&first, &second}) {
        lock->Release();
        EXPECT_TRUE(IsHeld());
    }
    third.Release();
    EXPECT_FALSE(IsHeld());
}

TEST_F(Locks, AreGivenUpByRelockReleaseAndDeath) {
    Lock lock;
    lock.DoLock(path_, true);
    const ResHandle copy = lock.GetResHandle();
    lock.DoLock(dir_ / "other", true);
    EXPECT_FALSE(IsHeld()) << "a copy of the descriptor is not the lock";
    vel_proc::Pipe ready;
    const pid_t holder = Start([&] {
        Lock own;
        own.DoLock(path_, false);
        if (::write(ready.Out(), "x", 1) != 1) ::_exit(1);
        ::pause();
        return 0;
    });
    char byte;
    ASSERT_EQ(::read(ready.In(), &byte, 1), 1);
    EXPECT_TRUE(IsHeld());
    ::kill(holder, SIGKILL);
    lock.DoLock(path_, false);
    EXPECT_EQ(Wait(holder), 128 + SIGKILL);
    EXPECT_TRUE(lock.Owns());
    vel_proc::Execute child({"sleep", "100"}, 0);
    child.Run();
    lock.Release();
    EXPECT_FALSE(IsHeld()) << "a child took the lock along";
}

TEST_F(Locks, ReplacedOrRemovedFileIsNoticed) {
    Lock lock;
    lock.DoLock(path_, true);
    Write(path_, "somebody else's");
    EXPECT_FALSE(lock.Owns());
    EXPECT_THROW(lock.Write("mine"), vel_err::Error);
    EXPECT_EQ(ReadFile(path_), "somebody else's");
    lock.DoLock(path_, true);
    EXPECT_EQ(lock.Read(), "somebody else's");
    RemoveFile(path_);
    EXPECT_FALSE(lock.Owns());
}

TEST_F(Locks, NoLineOfManyWritersIsLost) {
    constexpr int kWriters = 6, kLines = 40;
    std::vector<pid_t> writers;
    for (int i = 0; i < kWriters; ++i) {
        writers.push_back(Start([this] {
            for (int line = 0; line < kLines; ++line) {
                Lock lock;
                lock.DoLock(path_, false);
                lock.Write(lock.Read() + "line\n");
            }
            return 0;
        }));
    }
    for (const pid_t writer : writers) EXPECT_EQ(Wait(writer), 0);
    EXPECT_EQ(ReadFile(path_).size(), static_cast<std::size_t>(kWriters * kLines * 5));
    EXPECT_EQ(dir_.Names(), std::vector<std::string>({"journal"}));
}

TEST_F(Locks, KilledWriterLeavesTheOldOrTheNewText) {
    const std::string texts[] = {std::string(300000, 'a'), std::string(200000, 'b')};
    Write(path_, texts[0]);
    ASSERT_EQ(::chmod(path_.c_str(), 0640), 0);
    int seen_b = 0;
    for (int round = 0; round < 40; ++round) {
        const pid_t writer = Start([&] {
            Lock lock;
            for (lock.DoLock(path_, false);;) {
                for (const std::string& text : {texts[1], texts[0]}) lock.Write(text);
            }
            return 0;
        });
        ::usleep(static_cast<useconds_t>(1000 + round * 377));
        ::kill(writer, SIGKILL);
        EXPECT_EQ(Wait(writer), 128 + SIGKILL);
        const std::string left = ReadFile(path_);
        ASSERT_TRUE(left == texts[0] || left == texts[1]) << left.size();
        seen_b += left == texts[1];
    }
    EXPECT_GT(seen_b, 0) << "no writer got anywhere";
    Lock lock;
    lock.DoLock(path_, true);
    lock.Write("after");
    EXPECT_EQ(ReadFile(path_), "after");
    EXPECT_EQ(dir_.Names(), std::vector<std::string>({"journal"}))
        << "left-overs of killed writers";
    EXPECT_EQ(Info(path_).Stat().st_mode & 07777, 0640u);
}

}  // namespace
}  // namespace vel_file
