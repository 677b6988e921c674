#include "vel/stream.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <vector>

#include "vel/vel_err.h"

namespace vel_file {

namespace {

constexpr std::size_t kBufferSize = 256 * 1024;
// For longer writes the page cache wants runs of free pages, and where memory is fragmented it
// works longer on finding them than on the copy.
constexpr std::size_t kWriteSize = 64 * 1024;

/// Keeps SIGPIPE away from this thread, and takes the one that a write inside raised.
class PipeSignalGuard {
public:
    PipeSignalGuard() noexcept {
        sigset_t pending;
        ::sigemptyset(&pipe_);
        ::sigaddset(&pipe_, SIGPIPE);
        ::sigpending(&pending);
        was_pending_ = ::sigismember(&pending, SIGPIPE) == 1;
        ::pthread_sigmask(SIG_BLOCK, &pipe_, &old_);
    }
    ~PipeSignalGuard() { ::pthread_sigmask(SIG_SETMASK, &old_, nullptr); }
    PipeSignalGuard(const PipeSignalGuard&) = delete;
    PipeSignalGuard& operator=(const PipeSignalGuard&) = delete;
    void TakeSignal() const noexcept {
        const timespec now{};
        while (!was_pending_ && ::sigtimedwait(&pipe_, nullptr, &now) < 0 && errno == EINTR) {
        }
    }

private:
    sigset_t pipe_, old_;
    bool was_pending_;
};

void WaitFor(int fd, short events) {
    pollfd waited{fd, events, 0};
    ::poll(&waited, 1, -1);
}

/// Opened without waiting; only what has bytes to give or take at once is let through.
ResHandle OpenPlain(const std::string& path, int flags) {
    ResHandle fd(::open(path.c_str(), flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0600));
    if (!fd) vel_err::RaiseErrno("open", path, errno);
    struct stat st;
    if (::fstat(fd, &st) != 0) vel_err::RaiseErrno("stat", path, errno);
    if (S_ISDIR(st.st_mode)) vel_err::RaiseErrno("open", path, EISDIR);
    if (!S_ISREG(st.st_mode) && !S_ISCHR(st.st_mode)) {
        throw vel_err::Error("sys", "open", path + ": Not a regular file");
    }
    if (::fcntl(fd, F_SETFL, flags & O_ACCMODE) != 0) vel_err::RaiseErrno("open", path, errno);
    return fd;
}

ResHandle OpenForWriting(const std::string& path) {
    ResHandle fd = OpenPlain(path, O_WRONLY | O_CREAT | O_NOFOLLOW);
    struct stat st;
    if (::fstat(fd, &st) != 0) vel_err::RaiseErrno("stat", path, errno);
    // An empty file is not cut: ext4 would write all of it out before it lets go of a file that
    // was.
    if (st.st_size > 0 && ::ftruncate(fd, 0) != 0) vel_err::RaiseErrno("truncate", path, errno);
    return fd;
}

[[noreturn]] void Fail(const char* what, const std::string& name, int err) {
    throw vel_err::Error("file", what, name + ": " + ::strerror(err));
}

std::string NameOf(int fd) { return "descriptor " + std::to_string(fd); }

}  // namespace

ssize_t WriteQuietly(int fd, const void* bytes, std::size_t size) noexcept {
    const PipeSignalGuard guard;
    ssize_t done;
    do {
        done = ::write(fd, bytes, size);
    } while (done < 0 && errno == EINTR);
    // A write that had room for a part raises the signal too when the reader goes away.
    if (done < 0 ? errno == EPIPE : static_cast<std::size_t>(done) < size) {
        const int err = errno;
        guard.TakeSignal();
        errno = err;
    }
    return done;
}

namespace {

/// 0 or the errno of the write that failed.
int WriteWhole(int fd, const char* bytes, std::size_t size) noexcept {
    while (size > 0) {
        const ssize_t done = WriteQuietly(fd, bytes, std::min(size, kWriteSize));
        if (done < 0 && errno != EAGAIN) return errno;
        if (done < 0) {
            WaitFor(fd, POLLOUT);
            continue;
        }
        bytes += done;
        size -= static_cast<std::size_t>(done);
    }
    return 0;
}

}  // namespace

void WriteAll(int fd, const std::string& bytes, const std::string& name) {
    if (const int err = WriteWhole(fd, bytes.data(), bytes.size())) {
        vel_err::RaiseErrno("write", name, err);
    }
}

// ---- InStream -----------------------------------------------------------------------------------

class InStream::Buffer : public std::streambuf {
public:
    Buffer(ResHandle fd, std::string name)
        : fd_(std::move(fd)), name_(std::move(name)), bytes_(kBufferSize) {}

protected:
    int_type underflow() override {
        const std::size_t got = ReadSome(bytes_.data(), bytes_.size());
        setg(bytes_.data(), bytes_.data(), bytes_.data() + got);
        return got == 0 ? traits_type::eof() : traits_type::to_int_type(*gptr());
    }

    /// What is not buffered goes straight into a large destination.
    std::streamsize xsgetn(char* to, std::streamsize wanted) override {
        std::streamsize got = 0;
        while (got < wanted) {
            const std::streamsize missing = wanted - got;
            if (gptr() == egptr() && missing >= static_cast<std::streamsize>(kBufferSize)) {
                const auto direct = ReadSome(to + got, static_cast<std::size_t>(missing));
                if (direct == 0) break;
                got += static_cast<std::streamsize>(direct);
                continue;
            }
            if (gptr() == egptr() && underflow() == traits_type::eof()) break;
            const std::streamsize part = std::min<std::streamsize>(missing, egptr() - gptr());
            std::memcpy(to + got, gptr(), static_cast<std::size_t>(part));
            setg(eback(), gptr() + part, egptr());
            got += part;
        }
        return got;
    }

    pos_type seekoff(off_type offset, std::ios_base::seekdir from,
                     std::ios_base::openmode) override {
        // The descriptor stands behind what is buffered.
        if (from == std::ios_base::cur) offset -= egptr() - gptr();
        const int whence = from == std::ios_base::beg   ? SEEK_SET
                           : from == std::ios_base::cur ? SEEK_CUR
                                                        : SEEK_END;
        const off_t now = ::lseek(fd_, offset, whence);
        if (now >= 0) setg(nullptr, nullptr, nullptr);
        return pos_type(now);
    }
    pos_type seekpos(pos_type position, std::ios_base::openmode which) override {
        return seekoff(off_type(position), std::ios_base::beg, which);
    }

private:
    std::size_t ReadSome(char* to, std::size_t size) {
        for (;;) {
            const ssize_t got = ::read(fd_, to, size);
            if (got >= 0) return static_cast<std::size_t>(got);
            if (errno == EAGAIN) {
                WaitFor(fd_, POLLIN);
            } else if (errno != EINTR) {
                Fail("read_failed", name_, errno);
            }
        }
    }

    ResHandle fd_;
    std::string name_;
    std::vector<char> bytes_;
};

InStream::InStream(const std::string& path)
    : std::istream(nullptr), buffer_(std::make_unique<Buffer>(OpenPlain(path, O_RDONLY), path)) {
    rdbuf(buffer_.get());
    exceptions(std::ios_base::badbit);
}

InStream::InStream(ResHandle fd)
    : std::istream(nullptr), buffer_(std::make_unique<Buffer>(fd, NameOf(fd))) {
    rdbuf(buffer_.get());
    exceptions(std::ios_base::badbit);
}

InStream::~InStream() = default;

// ---- OutStream ----------------------------------------------------------------------------------

class OutStream::Buffer : public std::streambuf {
public:
    Buffer(ResHandle fd, std::string name)
        : fd_(std::move(fd)), name_(std::move(name)), bytes_(kBufferSize) {
        Reset();
    }

    void Flush() {
        const auto waiting = static_cast<std::size_t>(pptr() - pbase());
        Reset();
        Send(bytes_.data(), waiting);
    }
    void Close() {
        // A stream that failed before must not pass for whole now.
        if (error_ != 0) Fail("write_failed", name_, error_);
        Flush();
        fd_.Close();
    }
    void Abandon() noexcept { fd_.Close(); }

protected:
    int_type overflow(int_type next) override {
        Flush();
        if (!traits_type::eq_int_type(next, traits_type::eof())) {
            sputc(traits_type::to_char_type(next));
        }
        return traits_type::not_eof(next);
    }
    int sync() override {
        Flush();
        return 0;
    }
    std::streamsize xsputn(const char* from, std::streamsize size) override {
        if (size > epptr() - pptr()) Flush();
        if (size >= static_cast<std::streamsize>(kBufferSize)) {
            Send(from, static_cast<std::size_t>(size));
        } else {
            std::memcpy(pptr(), from, static_cast<std::size_t>(size));
            pbump(static_cast<int>(size));
        }
        return size;
    }

private:
    void Reset() { setp(bytes_.data(), bytes_.data() + bytes_.size()); }
    void Send(const char* from, std::size_t size) {
        if (size > 0 && error_ == 0) error_ = WriteWhole(fd_, from, size);
        if (size > 0 && error_ != 0) Fail("write_failed", name_, error_);
    }

    ResHandle fd_;
    std::string name_;
    std::vector<char> bytes_;
    int error_ = 0;
};

OutStream::OutStream(const std::string& path)
    : std::ostream(nullptr), buffer_(std::make_unique<Buffer>(OpenForWriting(path), path)) {
    rdbuf(buffer_.get());
    exceptions(std::ios_base::badbit);
}

OutStream::OutStream(ResHandle fd)
    : std::ostream(nullptr), buffer_(std::make_unique<Buffer>(fd, NameOf(fd))) {
    rdbuf(buffer_.get());
    exceptions(std::ios_base::badbit);
}

OutStream::~OutStream() {
    try {
        buffer_->Flush();
    } catch (const std::exception&) {  // promised in the header: who wants to know calls Close
    }
}

void OutStream::Close() {
    try {
        buffer_->Close();
    } catch (...) {
        buffer_->Abandon();
        throw;
    }
}

}  // namespace vel_file
