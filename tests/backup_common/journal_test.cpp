#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "vel/str.h"

#include "tests/backup_common/fixtures.h"

namespace backup2 {
namespace {

class Journal : public testing::Test {
protected:
    std::string Text() const { return ReadFile(path_); }
    int AddAndRemove(const std::string& name, int times) const {
        for (int i = 0; i < times; ++i) {
            Cleanup(dir_, "type=local", name, "2024-01-31", false).RemoveItem();
        }
        return 0;
    }
    pid_t Start(const std::string& name, int times) const {
        return StartChild([&] { return AddAndRemove(name, times); });
    }

    FdCheck descriptors_;
    ChildCheck children_;
    const TempDir tmp_;
    const std::string dir_ = tmp_ / "a/b", path_ = dir_ + "/.cleanup";
};

TEST_F(Journal, LinesComeBackWhateverTheTokenHolds) {
    const struct {
        std::string token, name;
        bool marked;
        std::string line;
    } cases[] = {
        {"path=/a b;type=local", "bob", false, "path=/a b;type=local\t2024-01-31.bob\n"},
        {"\tb\nc\\d\\t\\011", "j.d#m", true, "\\tb\\nc\\\\d\\\\t\\\\011\t2024-01-31.j.d#m#\n"},
        {"", "a\tb", false, "\t2024-01-31.a\tb\n"},
    };
    std::string text;
    for (const auto& c : cases) {
        Cleanup(dir_, c.token, c.name, "2024-01-31", c.marked);
        EXPECT_EQ(Text(), text += c.line) << "an object that just goes leaves its line";
        const PendingCleanup last = ReadCleanups(dir_).back();
        EXPECT_EQ(last.token + "|" + last.date + "|" + last.name + "|" + last.line,
                  c.token + "|2024-01-31|" + c.name + "|" + c.line);
        EXPECT_EQ(last.marked, c.marked);
    }
    EXPECT_EQ(vel_file::Info(path_).Stat().st_mode & 07777, 0600u);
    EXPECT_EQ(vel_file::Info(dir_).Stat().st_mode & 07777, 0700u);
    EXPECT_NE(Failure([&] { Cleanup(dir_, "t", "a\nt\tx.y", "custom", false); }), "none");
    EXPECT_EQ(Text(), text);
}

TEST_F(Journal, RemovalTakesEqualLinesAndNoOthers) {
    const std::string line = "t\t2024-01-31.bob\n";
    const struct {
        std::string before, after;
    } cases[] = {
        {"", ""},
        {line + line + line, ""},
        {"x" + line + line + "t\t2024-01-31.bobby\n" + line + "t\t2024-01-31.bob#\n",
         "x" + line + "t\t2024-01-31.bobby\n" + "t\t2024-01-31.bob#\n"},
        {"cut of", "cut of\n"},
    };
    for (const auto& c : cases) {
        MakeFile(path_, c.before);
        Cleanup own(dir_, "t", "bob", "2024-01-31", false), other(dir_, "t", "al", "custom", false);
        own.RemoveItem();
        EXPECT_EQ(Text(), c.after + "t\tcustom.al\n") << c.before;
        other.RemoveItem();
        EXPECT_EQ(Text(), c.after) << c.before;
        other.RemoveItem();
        EXPECT_EQ(Text(), c.after) << "a line that is gone changes nothing";
    }
}

TEST_F(Journal, NothingButAFileIsUsedInItsPlace) {
    MakeFile(dir_ + "/precious", "kept");
    const auto refused = [&](const std::string& what) {
        EXPECT_THROW(Cleanup(dir_, "t", "bob", "custom", false), vel_err::Error) << what;
        EXPECT_THROW(ReadCleanups(dir_), vel_err::Error) << what;
        fs::remove(path_);
    };
    ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
    refused("FIFO");
    fs::create_directory(path_);
    refused("folder");
    fs::create_symlink("precious", path_);
    refused("link");
    EXPECT_EQ(ReadFile(dir_ + "/precious"), "kept");
}

TEST_F(Journal, ManyProcessesKeepEachOthersLinesAndKilledOnesTheirOwn) {
    std::string before;
    for (int i = 0; i < 3000; ++i) before += "t\t2024-01-31.user" + std::to_string(i) + "\n";
    MakeFile(path_, before);
    std::vector<pid_t> writers;
    for (int i = 0; i < 5; ++i) writers.push_back(Start("many" + std::to_string(i), 30));
    int found = 0;
    for (int round = 0; round < 30 || (found == 0 && round < 300); ++round) {
        const pid_t victim = Start("bob", 1000000);
        ::usleep(static_cast<useconds_t>(1000 + round * 531));
        ::kill(victim, SIGKILL);
        WaitForChild(victim);
        found += Text().find(".bob\n") != std::string::npos;
    }
    for (const pid_t writer : writers) EXPECT_EQ(WaitForChild(writer), 0);
    EXPECT_TRUE(str::Replace(Text(), "type=local\t2024-01-31.bob\n", "") == before);
    EXPECT_GT(found, 0) << "none was killed at work";
    AddAndRemove("bob", 1);
    EXPECT_TRUE(Text() == before) << "the next one takes left lines along";
    const fs::directory_iterator all(dir_);
    EXPECT_EQ(std::distance(begin(all), end(all)), 1) << "left-overs of killed writers";
}

TEST(CheckDate, NormalisesDatesOnly) {
    Check(
        [](std::string date) {
            const bool good = CheckDate(date);
            return date + (good ? " yes" : " no");
        },
        {"custom -> custom yes", "2024-01-31 -> 2024-01-31 yes", "2024-1-3 -> 2024-01-03 yes",
         "2024-02-30 -> 2024-02-30 no", " ->  no", "Custom -> Custom no",
         "../2024-01-31 -> ../2024-01-31 no", "2024-01-31 x -> 2024-01-31 x no"});
}

}  // namespace
}  // namespace backup2
