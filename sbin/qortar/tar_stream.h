/// The entries of a tar stream, in order, with every byte of their names.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <exception>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

struct archive;

namespace qortar {

struct Xattr {
    std::string name, value;
};

/// One entry as it is to stand in the file system.
struct Item {
    char type = 'f';  ///< f file, d directory, l symbolic link, h hard link, p FIFO, c b devices
    mode_t mode = 0;
    uid_t uid = 0;
    gid_t gid = 0;
    uint64_t size = 0;
    timespec mtime{};
    dev_t device = 0;
    std::string name;    ///< no leading "./", no trailing "/"; "." is the root; unchecked otherwise
    std::string target;  ///< as Entry::target, unchecked
    std::vector<Xattr> xattrs;  ///< POSIX ACLs too, in the kernel's form
    std::string left_out;  ///< an ACL entry of an unknown user or group, which is not in `xattrs`
};

/// `name` without leading "./" and trailing "/", "." for the root itself.
std::string PlainName(std::string name);

class TarStream {
public:
    /// Gives the next plain bytes, valid until the next call; nothing at the end. May throw: the
    /// error comes out of Next or Data.
    using Source = std::function<std::string_view()>;
    explicit TarStream(Source source);
    ~TarStream();
    TarStream(const TarStream&) = delete;
    TarStream& operator=(const TarStream&) = delete;

    /// Skips what is left of the current entry. False at the end of the archive.
    /// Throws what the source threw, or vel_err::Error("archive", "damaged", reason).
    bool Next(Item& item);
    /// The next piece of the current file's content: bytes and where they belong; what no piece
    /// covers is a hole. False at its end. Throws as Next.
    bool Data(std::string_view& bytes, uint64_t& offset);
    /// Where in the source's bytes the current entry's header begins.
    uint64_t HeaderPosition() const;
    bool Broken() const { return broken_; }  ///< after an error nothing more can be read

private:
    static ssize_t Feed(archive* tar, void* self, const void** bytes);
    [[noreturn]] void Raise();
    Source source_;
    std::exception_ptr failure_;
    bool opened_ = false;
    bool broken_ = false;
    archive* tar_;
};

}  // namespace qortar
