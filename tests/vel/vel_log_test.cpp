#include "vel/vel_log.h"

#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <limits>
#include <regex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/work_dir.h"

namespace {

const vel_log::Module logger("unit");

std::vector<std::string> Lines(const std::string& path) {
    std::vector<std::string> lines;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

TEST(LogFormat, ValuesOfEveryKindMeetEveryConversion) {
    struct Case {
        std::string format, want;
        std::initializer_list<vel_log::Arg> args;
    };
    const uint64_t big = std::numeric_limits<uint64_t>::max();
    const std::string nul("a\0b", 3);
    const Case cases[] = {
        {"%s:%d", "name:7", {"name", 7}},
        {"%d %ld %lld %zu %hhd", "1 -2 3 4 5", {1, -2L, 3LL, std::size_t{4}, 5}},
        {"%u %s", "18446744073709551615 18446744073709551615", {big, big}},
        {"%x %X %o", "ffff FF 10", {short{-1}, 255, 8}},
        {"[%5d|%-5d|%05d|%+d]", "[   42|42   |00042|+42]", {42, 42, 42, 42}},
        {"[%5s|%-5s|%.2s|%*s]", "[   ab|ab   |ab|   ab]", {"ab", "ab", "abc", 5, "ab"}},
        {"%.2f%c%%", "3.14o%", {3.14159, 'o'}},
        {"%d %x %f", "0 0 0.000000", {"text", "text", "text"}},
        {"%s|%d|", "||", {}},
        {"%d", "1", {1, 2, 3}},
        {"%s", "(null)", {static_cast<const char*>(nullptr)}},
        {"%s", nul, {nul}},
        {"50%; %q and %", "50%; %q and %", {}},
        {"%n%p", "%n%p", {1, 2}},
    };
    for (const Case& c : cases) EXPECT_EQ(vel_log::Format(c.format, c.args), c.want) << c.format;
    EXPECT_LE(vel_log::Format("%999999999d%.999999999f", {1, 1.5}).size(), 4096U);
}

TEST(Log, OneEventIsOneLineOfAPrivateFile) {
    const WorkDir work;
    logger.Write(3, "first '%s'", "a\nb\x1b[0m\r\\");
    logger.Write(6, "above the limit");
    const auto lines = Lines("var/qorvel.log");
    ASSERT_EQ(lines.size(), 1U);
    const std::regex form(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d 3 unit\[\d+\]: first .*)");
    EXPECT_TRUE(std::regex_match(lines[0], form)) << lines[0];
    EXPECT_TRUE(lines[0].ends_with("'a\\nb\\033[0m\\r\\\\'")) << lines[0];
    struct stat st {};
    ASSERT_EQ(::stat("var/qorvel.log", &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600U);
}

TEST(Log, TheFileFollowsRotationAndTheInstallRoot) {
    const WorkDir first;
    logger.Write(1, "one");
    std::filesystem::rename("var/qorvel.log", "var/qorvel.log.1");
    logger.Write(1, "two");
    EXPECT_EQ(Lines("var/qorvel.log").size(), 1U);
    const WorkDir second;
    vel_log::Module("unit", "other").Write(1, "three");
    EXPECT_EQ(Lines("var/other.log").size(), 1U);
}

TEST(Log, WhatStandsInTheWayIsLeftAloneAndStopsNobody) {
    const FdCheck fds;
    const WorkDir work;
    std::ofstream("victim") << "precious";
    std::filesystem::create_symlink("../victim", "var/link.log");
    ASSERT_EQ(::mkfifo("var/fifo.log", 0600), 0);
    for (const char* log : {"link", "fifo", "no/folder"}) {
        errno = EDOM;
        vel_log::Module("unit", log).Write(1, "text");
        EXPECT_EQ(errno, EDOM) << log;
    }
    EXPECT_EQ(Lines("victim"), std::vector<std::string>{"precious"});
}

TEST(Log, LinesOfSeveralThreadsStayWhole) {
    const WorkDir work;
    const std::string text(3000, 'x');
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&text] {
            for (int i = 0; i < 50; ++i) logger.Write(1, "%s", text);
        });
    }
    for (std::thread& thread : threads) thread.join();
    const auto lines = Lines("var/qorvel.log");
    ASSERT_EQ(lines.size(), 200U);
    for (const std::string& line : lines) ASSERT_TRUE(line.ends_with(": " + text));
}

}  // namespace
