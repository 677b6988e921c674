/// Byte streams over descriptors and files, with buffers of 256 KiB and no text translation.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <istream>
#include <memory>
#include <ostream>
#include <string>

#include "vel/res_handle.h"

namespace vel_file {

/// write() of the bytes that fit, without ever raising SIGPIPE: a dead reader is -1 with EPIPE.
/// Retried after EINTR; the signal mask and handlers of the caller stay as they are.
ssize_t WriteQuietly(int fd, const void* bytes, std::size_t size) noexcept;

/// All bytes, waiting where the descriptor would block. Throws vel_err::Error("sys", "write",
/// "<name>: <reason>"); `name` is only for that text.
void WriteAll(int fd, const std::string& bytes, const std::string& name);

/// A read error (not the end of the file) sets badbit AND makes the read throw
/// vel_err::Error("file", "read_failed", ...): a cut source never looks like a short one.
/// seekg works where the descriptor can seek.
class InStream : public std::istream {
public:
    /// Regular files and character devices; anything else, or a failing open, throws
    /// vel_err::Error "sys" at once: a FIFO in the place never makes it wait.
    explicit InStream(const std::string& path);
    explicit InStream(ResHandle fd);
    ~InStream() override;

private:
    class Buffer;
    std::unique_ptr<Buffer> buffer_;
};

/// Write errors (a full disk, a dead reader: EPIPE, never a signal) throw
/// vel_err::Error("file", "write_failed", ...) from the write, flush or Close that meets them.
class OutStream : public std::ostream {
public:
    /// Creates (0600) or truncates; never follows a link, never waits for a FIFO: anything but a
    /// regular file or a character device is refused with vel_err::Error "sys".
    explicit OutStream(const std::string& path);
    explicit OutStream(ResHandle fd);
    ~OutStream() override;  ///< flushes; errors are lost here, so call Close
    /// Flushes and closes the descriptor; throws the first failure of this stream again.
    void Close();

private:
    class Buffer;
    std::unique_ptr<Buffer> buffer_;
};

}  // namespace vel_file
