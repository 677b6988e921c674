/// What lies on the administrator's storage, as a stream: no kind needs a copy on this machine.
#pragma once

#include <istream>
#include <ostream>
#include <set>
#include <streambuf>
#include <string>

#include "backup_common/backup2_storage.h"

#include "velcgi/backup2_download/backups.h"
#include "velcgi/backup2_download/decoder.h"

namespace backup2_download {

/// All that a stream holds, in pieces.
void Pump(std::istream& in, const OnBytes& next);

/// Hands on what is written to it, in the same pieces. What `next` throws comes out of the write.
class CallStream : public std::ostream {
public:
    explicit CallStream(OnBytes next);

private:
    class Buffer : public std::streambuf {
    public:
        explicit Buffer(OnBytes next) : next_(std::move(next)) {}

    protected:
        std::streamsize xsputn(const char* data, std::streamsize size) override;
        int_type overflow(int_type c) override;

    private:
        OnBytes next_;
    };
    Buffer buffer_;
};

/// Servers behind ssh are asked by ssh itself, with the key in memory: the library's way would put
/// it into a file, which stays when this process is ended.
class Stored {
public:
    explicit Stored(const backup2::BackupToken& token);

    /// Throws std::runtime_error that names a slice which is not there, and the storage's errors.
    void Require(const Archive& archive) const;
    /// The stored bytes of `path`, as they are. Throws when they cannot be read to their end.
    void Read(const std::string& path, const OnBytes& next) const;
    /// As Read, decrypted with the storage's password.
    void ReadDecrypted(const std::string& path, const OnBytes& next) const;

private:
    bool ByShell() const { return token_.Type() == "sftp" || token_.Type() == "node"; }
    void RunThere(const std::string& program, const std::string& path, const OnBytes& next) const;
    std::set<std::string> Names(const std::string& dir) const;

    backup2::BackupToken token_;
};

}  // namespace backup2_download
