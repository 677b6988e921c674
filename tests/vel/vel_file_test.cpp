#include "vel/vel_file.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

#include <gtest/gtest.h>

#include "vel/vel_err.h"
#include "vel/vel_proc.h"

#include "tests/support/support.h"
#include "tests/vel/fixtures.h"

namespace vel_file {
namespace {

constexpr uid_t kStranger = 65534;

class Files : public testing::Test {
protected:
    void SetUp() override { WriteFile(victim_, "canary"); }
    void TearDown() override { EXPECT_EQ(ReadFile(victim_), "canary"); }
    /// What a shell prints about the folder, which must work.
    std::string Sh(const std::string& script, const std::string& folder) const {
        vel_proc::Execute run("cd \"$D\" && " + script, 0);
        const std::string output = run.SetEnv("D", folder).SetEnv("OUT", outside_.Path()).Str();
        EXPECT_EQ(run.Result(), 0) << script;
        return output;
    }

    FdCheck descriptors_;
    ChildCheck children_;
    TempDir outside_, dir_;
    const std::string victim_ = outside_ / "victim";
};

struct stat StatOf(const std::string& path) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) ADD_FAILURE() << path;
    return st;
}

/// The value alone: the object and the reason.
std::string Reason(const std::function<void()>& call) {
    const std::string failure = Failure(call);
    return failure.substr(failure.rfind('|') + 1);
}

TEST(Paths, AreJoinedAndNormalised) {
    const struct {
        const char *a, *b, *c, *want;
    } joins[] = {{"a//", "//b", "", "a/b"}, {"", "b", "", "b"},      {"a", "", "", "a"},
                 {"/", "b", "", "/b"},      {"a", "b", "/", "a/b/"}, {"a", "", "c", "a/c"},
                 {"/", "/", "", "/"},       {"", "", "", ""}};
    for (const auto& c : joins) EXPECT_EQ(ConcatPath(c.a, c.b, c.c), c.want) << c.a << "," << c.b;
    const struct {
        const char *path, *want;
    } goods[] = {{"/a//b/./c/..", "/a/b"}, {"//..//", "/"}, {"/../a", "/a"},
                 {"a/../b", "b"},          {"", ""},        {"..", ""},
                 {"a/../..", ""},          {"a/", "a"},     {"..a/.b", "..a/.b"},
                 {"/...", "/..."}};
    for (const auto& c : goods) EXPECT_EQ(GoodPath(c.path), c.want) << c.path;
}

TEST_F(Files, WriteReplacesInOneStepAndKeepsModeAndOwner) {
    const std::string file = dir_ / "file";
    Write(file, "first");
    EXPECT_EQ(StatOf(file).st_mode & 07777, 0600u);
    ASSERT_EQ(::chown(file.c_str(), kStranger, 7), 0);
    ASSERT_EQ(::chmod(file.c_str(), 0440), 0);
    ASSERT_EQ(::link(file.c_str(), (dir_ / "other").c_str()), 0);
    Write(file, "second");
    const struct stat st = StatOf(file);
    EXPECT_EQ(st.st_mode & 07777, 0440u);
    EXPECT_EQ(std::pair(st.st_uid, st.st_gid), std::pair(kStranger, gid_t(7)));
    EXPECT_EQ(Read(file), "second");
    EXPECT_EQ(ReadE(dir_ / "other"), "first");
    EXPECT_EQ(Read(dir_ / "missing"), "");
    EXPECT_NE(ReadE("/proc/self/maps").find("[stack]"), std::string::npos) << "says its size is 0";
    EXPECT_EQ(Reason([&] { ReadE(dir_ / "missing"); }),
              dir_ / "missing: No such file or directory");
    EXPECT_EQ(dir_.Names(), std::vector<std::string>({"file", "other"}));
}

TEST_F(Files, NothingButARegularFileIsOpenedAnywhere) {
    MkDir(dir_ / "folder");
    ASSERT_EQ(::symlink(victim_.c_str(), (dir_ / "link").c_str()), 0);
    ASSERT_EQ(::mkfifo((dir_ / "fifo").c_str(), 0600), 0);
    const std::pair<std::string, std::string> kinds[] = {
        {"folder", "Is a directory"},
        {"link", "Too many levels of symbolic links"},
        {"fifo", "Not a regular file"}};
    for (const auto& [name, reason] : kinds) {
        const std::string path = dir_ / name, want = path + ": " + reason;
        EXPECT_EQ(Reason([&path = path] { Write(path, "x"); }), want);
        EXPECT_EQ(Reason([&path = path] { ReadE(path); }), want);
        EXPECT_EQ(Reason([&path = path] { CopyFile(path, path + ".copy"); }), want);
        EXPECT_EQ(Reason([&path = path] { Lock().DoLock(path, true); }), want);
    }
    EXPECT_EQ(Reason([&] { Attrs(0777, kStranger).Set(dir_ / "link"); }),
              dir_ / "link: Too many levels of symbolic links");
    EXPECT_EQ(dir_.Names().size(), 3u);
}

TEST_F(Files, LinkThatAStrangerMadeIsNotPassedThrough) {
    MkDir(dir_ / "tree");
    ASSERT_EQ(::symlink(outside_.Path().c_str(), (dir_ / "tree/way").c_str()), 0);
    const std::string through = dir_ / "tree/way/victim";
    EXPECT_EQ(ReadE(through), "canary") << "root's own link in root's own folder";
    const auto all_refuse = [&] {
        EXPECT_THROW(ReadE(through), vel_err::Error);
        EXPECT_THROW(Write(through, "x"), vel_err::Error);
        EXPECT_THROW(Remove(through), vel_err::Error);
        EXPECT_THROW(Attrs(0777).Set(through), vel_err::Error);
        EXPECT_THROW(MkDir(dir_ / "tree/way/new"), vel_err::Error);
        EXPECT_THROW(Move(through, dir_ / "stolen"), vel_err::Error);
        EXPECT_THROW(TmpDir::At(through), vel_err::Error);
    };
    ASSERT_EQ(::chown((dir_ / "tree").c_str(), kStranger, 0), 0);
    all_refuse();
    ASSERT_EQ(::chown((dir_ / "tree").c_str(), 0, 0), 0);
    ASSERT_EQ(::lchown((dir_ / "tree/way").c_str(), kStranger, 0), 0);
    all_refuse();
    EXPECT_EQ(StatOf(victim_).st_mode & 0777, 0644u);
}

TEST_F(Files, RemoveTakesEverythingButFollowsNothing) {
    const TmpDir tree = TmpDir::At(dir_ / "tree");
    Sh("mkdir -p a/b c && mkfifo a/f && touch a/b/x && ln -s $OUT a/out && chmod 0 c && "
       "ln $OUT/victim a/hard",
       tree);
    Remove(tree);
    Remove(tree);
    EXPECT_EQ(dir_.Names(), std::vector<std::string>());
    ASSERT_EQ(::symlink(outside_.Path().c_str(), (dir_ / "link").c_str()), 0);
    Remove(dir_ / "link");
    for (const char* path : {"", "/", "//", ".", "..", "a/..", "/tmp/."}) {
        EXPECT_THROW(Remove(path), vel_err::Error) << path;
    }
    EXPECT_THROW(RemoveFile(dir_ / "missing"), vel_err::Error);
}

TEST_F(Files, VeryDeepTreesAreCopiedChangedAndRemoved) {
    constexpr int kLevels = 1200;  // a path of 13,200 bytes
    const std::string top = dir_ / "deep";
    MkDir(top);
    ResHandle fd(::open(top.c_str(), O_PATH | O_CLOEXEC));
    for (int i = 0; i < kLevels; ++i) {
        ASSERT_EQ(::mkdirat(fd, "0123456789", 0755), 0);
        fd = ResHandle(::openat(fd, "0123456789", O_PATH | O_CLOEXEC));
    }
    ASSERT_TRUE(ResHandle(::openat(fd, "leaf", O_CREAT | O_WRONLY | O_CLOEXEC, 0600)));
    struct rlimit old {};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &old), 0);
    const struct rlimit few = {64, old.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
    Attrs(0750, kStranger).Set(top, true);
    Copy(top, dir_ / "copy");
    Remove(top);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &old), 0);
    EXPECT_EQ(Sh("find . -user 65534 -perm 750 | wc -l", dir_ / "copy"),
              std::to_string(kLevels + 2) + "\n");
    Remove(dir_ / "copy");
    EXPECT_EQ(dir_.Names(), std::vector<std::string>());
}

TEST_F(Files, RemoveLeavesWhatIsMountedInTheTree) {
    MkDir(dir_ / "tree/mount");
    WriteFile(dir_ / "tree/file", "");
    if (::mount(outside_.Path().c_str(), (dir_ / "tree/mount").c_str(), nullptr, MS_BIND,
                nullptr) != 0) {
        GTEST_SKIP() << "no right to mount";
    }
    EXPECT_EQ(Reason([&] { Remove(dir_ / "tree"); }), dir_ / "tree: Invalid cross-device link");
    EXPECT_FALSE(Exists(dir_ / "tree/file"));
    ASSERT_EQ(::umount((dir_ / "tree/mount").c_str()), 0);
}

using Pairs = std::vector<std::pair<std::string, std::string>>;

/// A process that exchanges the names of each pair as fast as it can until the object goes.
class Racer {
public:
    explicit Racer(const Pairs& pairs) : pid_(::fork()) {
        while (pid_ == 0) {
            for (const auto& [a, b] : pairs) {
                ::renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_EXCHANGE);
            }
        }
    }
    Racer(const Racer&) = delete;
    Racer& operator=(const Racer&) = delete;
    ~Racer() {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }

private:
    const pid_t pid_;
};

TEST_F(Files, RacerWhoSwapsFoldersForLinksLosesNobodysFiles) {
    const std::string home = dir_ / "home", tree = home + "/tree";
    WriteFile(outside_ / "precious", "canary");
    int removed = 0;
    for (int rounds = 1; rounds <= 4 || (removed == 0 && rounds <= 1000); ++rounds) {
        Pairs inner, parent = {{tree, home + "/link"}};
        for (int i = 0; i < 200; ++i) {
            inner.emplace_back(tree + "/" + std::to_string(i), home + "/" + std::to_string(i));
            MkDir(inner.back().first);
        }
        MkDir(tree + "/precious");
        for (const Pairs& pairs : {inner, parent}) {
            for (const auto& [folder, link] : pairs) {
                Remove(link);  // the last round may have left a folder here
                ASSERT_EQ(::symlink(outside_.Path().c_str(), link.c_str()), 0);
                ASSERT_EQ(::lchown(link.c_str(), kStranger, 0), 0);
            }
        }
        ASSERT_EQ(::chown(home.c_str(), kStranger, 0), 0);
        const Racer racer(rounds % 2 == 0 ? parent : inner);
        for (int i = 0; rounds % 2 == 0 && i < 100; ++i)
            Reason([&] { Remove(tree + "/precious"); });
        removed += Reason([&] { Remove(tree); }) == "none";
    }
    EXPECT_EQ(ReadFile(outside_ / "precious"), "canary");
    EXPECT_GT(removed, 0) << "nothing was tried";
}

TEST_F(Files, RecursiveAttrsSpareFilesThatWereLinkedIn) {
    MkDir(dir_ / "tree/sub");
    ASSERT_EQ(::chown((dir_ / "tree").c_str(), kStranger, 0), 0);
    ASSERT_EQ(::link(victim_.c_str(), (dir_ / "tree/sub/hard").c_str()), 0);
    ASSERT_EQ(::symlink(victim_.c_str(), (dir_ / "tree/sub/soft").c_str()), 0);
    WriteFile(dir_ / "tree/sub/own", "");
    Attrs(04711, kStranger, 8).Set(dir_ / "tree", true);
    EXPECT_EQ(StatOf(victim_).st_uid, 0u);
    EXPECT_EQ(StatOf(victim_).st_mode & 07777, 0644u);
    EXPECT_EQ(StatOf(dir_ / "tree/sub/soft").st_uid, kStranger);
    EXPECT_EQ(StatOf(dir_ / "tree/sub/own").st_gid, 8u);
    EXPECT_EQ(StatOf(dir_ / "tree/sub/own").st_mode & 07777, 04711u);
}

TEST_F(Files, CopiedTreeIsTheSameOrNotThereAtAll) {
    const std::string from = dir_ / "from", to = dir_ / "new/to";
    MkDir(from);
    Sh("mkdir -p a/b && echo 1 >a/1 && ln -s nowhere a/l && mkfifo -m 640 a/f && "
       "mknod a/dev c 1 3 && chown -h 7:8 a/1 a/l a/b a/f && touch -h -d @1 a/l a/b a/f a . && "
       "chmod 4711 a/1",
       from);
    Copy(from, to);
    const std::string list = "find . -printf '%p %y %m %U %G %T@ %l\n' | sort && cat a/1";
    EXPECT_EQ(Sh(list, to), Sh(list, from));
    EXPECT_THROW(Copy(from, to), vel_err::Error) << "an existing tree is not merged";
    Copy(from, from + "/a/self");
    EXPECT_FALSE(Exists(from + "/a/self/a/self"));
    WriteFile(from + "/a/z", std::string(100, 'z'));
    struct rlimit old {
    }, small{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &old), 0);
    small = {10, old.rlim_max};
    const auto handler = ::signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    const std::string failure = Reason([&] { Copy(from, dir_ / "cut"); });
    const std::string lost = Reason([&] { Write(from + "/a/1", "longer than ten bytes"); });
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &old), 0);
    ::signal(SIGXFSZ, handler);
    EXPECT_EQ(failure, from + "/a/z: File too large");
    EXPECT_EQ(lost, from + "/a/1: File too large");
    EXPECT_EQ(ReadFile(from + "/a/1"), "1\n");
    EXPECT_EQ(dir_.Names(), std::vector<std::string>({"from", "new"}));
}

TEST_F(Files, FolderIsEnteredWhereItLiesAndNeverThroughALink) {
    MkDir(dir_ / "a/folder");
    WriteFile(dir_ / "a/folder/file", "");
    ASSERT_EQ(::symlink(outside_.Path().c_str(), (dir_ / "a/link").c_str()), 0);
    Dir dir(dir_ / "a");
    ASSERT_EQ(::rename((dir_ / "a").c_str(), (dir_ / "moved").c_str()), 0);
    std::map<std::string, std::string> below;
    while (dir.Next()) {
        try {
            Dir inner = dir.Enter();
            EXPECT_TRUE(dir.IsDir() && inner.Next() && inner.IsFile() && !inner.IsDir());
            below[dir.Name()] = inner.Path();
            EXPECT_FALSE(inner.Next());
        } catch (const vel_err::Error&) {
            EXPECT_FALSE(dir.IsDir() || dir.IsFile());
            below[dir.Name()] = "refused";
        }
    }
    EXPECT_EQ(below, (std::map<std::string, std::string>{{"folder", dir_ / "a/folder/file"},
                                                         {"link", "refused"}}));
}

TEST_F(Files, TemporariesGoUnlessTheyWereMoved) {
    std::string file, kept, under;
    {
        const Tmp dropped(dir_ / "new/x"), moved(dir_ / "x");
        file = dropped;
        EXPECT_EQ(SplitPath(file).dir, dir_ / "new");
        EXPECT_EQ(StatOf(file).st_mode & 07777, 0600u);
        EXPECT_EQ(StatOf(dir_ / "new").st_mode & 07777, 0700u);
        Move(moved, dir_ / "x");
        TmpDir first = TmpDir::Under(dir_ / "base");
        const TmpDir second = std::move(first);
        under = second;
        WriteFile(ConcatPath(under, "f"), "");
    }
    EXPECT_FALSE(Exists(file) || Exists(under));
    ASSERT_EQ(::symlink(outside_.Path().c_str(), (dir_ / "at").c_str()), 0);
    TmpDir::At(dir_ / "at");
    EXPECT_EQ(dir_.Names(), std::vector<std::string>({"base", "new", "x"}));
}

}  // namespace
}  // namespace vel_file
