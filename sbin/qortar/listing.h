/// The listing of one archive: one line per entry of the saved tree, with the place where each
/// entry's tar header starts, so that one file can be restored without reading the rest.
///
/// On disk: a gzip'ed tar with one member "listing", a text of LF-ended lines, fields by TAB:
///   #qortar-listing 1
///   type mode uid gid size mtime ctime dev inode slice member offset flags name target
///   #end ENTRIES
/// Times are "seconds.nanoseconds" (nine digits), mode is octal, the rest decimal; names and link
/// targets are in EncodeFileName form. A listing without its "#end" line was cut.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <string>

namespace qortar {

struct Entry {
    char type = 'f';  ///< f file, d directory, l symbolic link, h hard link, p FIFO
    mode_t mode = 0;  ///< permission and set-id bits only
    uid_t uid = 0;
    gid_t gid = 0;
    uint64_t size = 0;  ///< of the file's content, 0 for other types
    timespec mtime{}, ctime{};
    uint64_t dev = 0, inode = 0;
    /// Where the entry's tar header (the pax header in front of it, if any) starts: slice number
    /// from 1, byte in that slice at which the gzip member begins, byte in the member's plain text.
    /// slice 0: nothing is stored.
    uint32_t slice = 0;
    uint64_t member = 0;
    uint32_t offset = 0;
    /// Letters, "" when none: b the place is in the base archive; c changed while it was read;
    /// u unreadable, v vanished, n another user's (all three: nothing stored); s sparse; x has
    /// extended attributes or an ACL; D was in the base and is gone now.
    std::string flags;
    std::string name;  ///< relative to the root, no leading "./", no trailing "/"; "." is the root
    std::string target;  ///< of symbolic links the text, of hard links the name of the first one

    bool Has(char flag) const { return flags.find(flag) != std::string::npos; }
    bool Stored() const { return slice != 0; }
};

/// Writes a listing. The file appears in one step, complete, with Finish.
class ListingWriter {
public:
    explicit ListingWriter(const std::string& path);
    ~ListingWriter();  ///< without Finish nothing is left behind
    void Add(const Entry& entry);
    void Finish();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

/// Calls `each` for every entry, in the archive's order, streaming. Throws
/// vel_err::Error("listing", "broken", "<path>: line N: <why>") for what breaks the grammar (also a
/// name that is absolute, empty or holds "..") and for a listing that was cut.
void ReadListing(const std::string& path, const std::function<void(const Entry&)>& each);
/// The same for the entries that `wanted` chooses by their number (from 0); the others are skipped
/// without a look at their grammar.
void ReadListing(const std::string& path, const std::function<bool(uint64_t)>& wanted,
                 const std::function<void(const Entry&)>& each);

}  // namespace qortar
