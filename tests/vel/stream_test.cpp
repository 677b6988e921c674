#include "vel/stream.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "vel/vel_err.h"
#include "vel/vel_proc.h"

#include "tests/support/support.h"
#include "tests/vel/fixtures.h"

namespace vel_file {
namespace {

class Streams : public testing::Test {
protected:
    FdCheck descriptors_;
    TempDir dir_;
    const std::string file_ = dir_ / "file";
};

TEST_F(Streams, BytesComeBackWhateverTheSizesOfTheCalls) {
    const std::string bytes = RandomBytes(3 << 20, 3);
    WriteFile(file_, std::string(4 << 20, 'x'));  // longer: nothing of it may stay
    for (const std::size_t step : {1000u, 262143u, 262144u, 300000u, 3u << 20}) {
        OutStream out(file_);
        for (std::size_t at = 0; at < bytes.size(); at += step) {
            out.put(bytes[at]);
            out << bytes.substr(at + 1, step - 1);
        }
        out.Close();
        InStream in(file_);
        std::string got;
        for (std::string part(step, '\0');
             in.read(part.data(), static_cast<std::streamsize>(step)) || in.gcount();) {
            got.append(part, 0, static_cast<std::size_t>(in.gcount()));
        }
        EXPECT_TRUE(got == bytes) << step;
        in.clear();
        in.seekg(70000);
        EXPECT_EQ(in.get(), static_cast<unsigned char>(bytes[70000]));
        in.seekg(9, std::ios::cur);
        EXPECT_EQ(in.tellg(), std::streampos(70010));
    }
}

TEST_F(Streams, FailedWriteThrowsAndTheStreamStaysFailed) {
    OutStream full(std::string("/dev/full"));
    full << "fits the buffer";
    EXPECT_THROW(full.flush(), vel_err::Error);
    EXPECT_THROW(full.Close(), vel_err::Error);
    vel_proc::Pipe pipe;
    OutStream dead(pipe.Out());
    pipe.In().Close();
    EXPECT_THROW(dead << std::string(1 << 20, 'x'), vel_err::Error);  // and no SIGPIPE
}

TEST_F(Streams, FailedReadThrowsInsteadOfAnEarlyEnd) {
    InStream in(ResHandle(::open(dir_.Path().c_str(), O_RDONLY | O_CLOEXEC)));
    EXPECT_TRUE(Failure([&] { in.get(); }).starts_with("file|read_failed|"));
    EXPECT_TRUE(in.bad());
}

TEST_F(Streams, WhatStrangersPlantIsRefusedWithoutWaiting) {
    WriteFile(dir_ / "victim", "old");
    ASSERT_EQ(::symlink("victim", (dir_ / "link").c_str()), 0);
    ASSERT_EQ(::mkfifo((dir_ / "fifo").c_str(), 0600), 0);
    for (const char* name : {"link", "fifo", "."})
        EXPECT_THROW(OutStream(dir_ / name), vel_err::Error) << name;
    for (const char* name : {"fifo", ".", "missing"})
        EXPECT_THROW(InStream(dir_ / name), vel_err::Error) << name;
    EXPECT_EQ(ReadFile(dir_ / "victim"), "old");
}

}  // namespace
}  // namespace vel_file
