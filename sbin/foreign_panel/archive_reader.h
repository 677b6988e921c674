/// Archives of strangers, read as a stream: tar (every dialect) and zip, plain or compressed by
/// gzip, zstd, xz or bzip2, also archives within archives. Nothing is written and nothing is kept:
/// memory does not grow with the archive. What was read to its end has the sums that it says.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <ctime>
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "vel/res_handle.h"

#include "sbin/foreign_panel/budget.h"
#include "sbin/foreign_panel/gunzip.h"
#include "sbin/foreign_panel/read_ahead.h"

struct archive;

namespace foreign_panel {

struct Entry {
    char type = 'f';     ///< f file, d folder, l symbolic link, h hard link, o anything else
    std::string name;    ///< as it is in the archive: any bytes, unchecked
    std::string target;  ///< of a link, unchecked
    std::string kind;    ///< of type o: "device", "FIFO", "socket"
    mode_t mode = 0;     ///< permissions, set-id and sticky bits
    uint64_t size = 0;   ///< of a file; 0 when the archive does not say it beforehand
    timespec mtime{};
};

class ArchiveReader {
public:
    /// Gives the next bytes, valid until the next call; nothing at the end. May throw.
    using Source = std::function<std::string_view()>;

    /// A regular file. Throws vel_err::Error "sys" when it cannot be opened, std::runtime_error
    /// when it is something else.
    ArchiveReader(const std::string& path, Budget& budget);
    /// An archive within another: `name` is for messages.
    ArchiveReader(Source source, std::string name, Budget& budget);
    ~ArchiveReader();
    ArchiveReader(const ArchiveReader&) = delete;
    ArchiveReader& operator=(const ArchiveReader&) = delete;

    /// Skips what is left of the current entry; false at the end. Throws std::runtime_error
    /// "<name>: ..." for what is no archive, is damaged or ends too early, and as Budget and the
    /// source do. After an error nothing more can be read.
    bool Next(Entry& entry);
    /// The next piece of the current file and where it belongs; what no piece covers is a hole.
    /// False at its end. Counts the bytes; throws as Next.
    bool Data(std::string_view& bytes, uint64_t& offset);
    /// The whole current file. Throws EntryError when it is longer than `most`.
    std::string Text(std::size_t most);
    /// The current file's bytes as the source of an archive within. Holes are zeros.
    Source AsSource();

private:
    struct Zeros;
    static ssize_t Feed(archive* handle, void* self, const void** bytes);
    static int64_t Skip(archive* handle, void* self, int64_t request);
    static int64_t Seek(archive* handle, void* self, int64_t offset, int whence);
    void SetUp();
    void Open();
    bool IsGzip();
    std::string_view Take();
    std::string_view TakePlain();
    void ReadToEnd();
    [[noreturn]] void Raise(const std::string& what);
    std::string_view ReadFile();

    Source source_;
    std::unique_ptr<Gunzip> gunzip_;
    std::unique_ptr<ReadAhead> ahead_;  // of an archive that is a file
    std::string_view peeked_;           // taken from the source, and not given on yet
    std::string name_;
    Budget& budget_;
    vel_file::ResHandle file_;
    uint64_t file_size_ = 0;
    std::string buffer_;              // of the file
    std::string plain_;               // of the gunzip, without a thread
    std::atomic<uint64_t> taken_{0};  // bytes of the source
    uint64_t unpacked_ = 0;           // bytes of content
    bool opened_ = false;
    std::exception_ptr failure_;
    archive* handle_ = nullptr;
};

}  // namespace foreign_panel
