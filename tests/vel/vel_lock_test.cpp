#include <signal.h>
#include <unistd.h>

#include <thread>

#include <gtest/gtest.h>

#include "vel/vel_err.h"
#include "vel/vel_file.h"
#include "vel/vel_proc.h"

#include "tests/support/support.h"
#include "tests/vel/fixtures.h"

namespace vel_file {
namespace {

class Locks : public testing::Test {
protected:
    bool IsHeld() const {
        return WaitForChild(StartChild([this] {
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
    const pid_t holder = StartChild([&] {
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
    EXPECT_EQ(WaitForChild(holder), 128 + SIGKILL);
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

}  // namespace
}  // namespace vel_file
