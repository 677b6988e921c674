/// Byte streams over descriptors and files, with buffers of 256 KiB and no text translation.
#pragma once

#include <istream>
#include <memory>
#include <ostream>
#include <string>

#include "vel/res_handle.h"

namespace vel_file {

/// A read error (not the end of the file) sets badbit AND makes the read throw
/// vel_err::Error("file", "read_failed", ...): a cut source never looks like a short one.
class InStream : public std::istream {
public:
    explicit InStream(
        const std::string& path);  ///< throws vel_err::Error "sys" when it cannot open
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
    explicit OutStream(
        const std::string& path);  ///< creates (0600) or truncates; never follows a link
    explicit OutStream(ResHandle fd);
    ~OutStream() override;  ///< flushes; errors are lost here, so call Close
    /// Flushes and closes the descriptor.
    void Close();

private:
    class Buffer;
    std::unique_ptr<Buffer> buffer_;
};

}  // namespace vel_file
