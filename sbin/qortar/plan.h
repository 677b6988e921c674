/// What a restore with a listing has to do, compact: 150 bytes and the name for each entry.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "sbin/qortar/gunzip.h"
#include "sbin/qortar/listing.h"
#include "sbin/qortar/tar_stream.h"

namespace qortar {

/// The names that were asked for; a name stands for itself and all below it.
class Selection {
public:
    explicit Selection(const std::vector<std::string>& paths);
    bool Everything() const { return wanted_.empty(); }
    bool Holds(const std::string& name);          ///< and remembers that the path was found
    bool LeadsTo(const std::string& name) const;  ///< a folder above a selected name
    std::vector<std::string> NotFound() const;

private:
    std::map<std::string, bool, std::less<>> wanted_;  // found?
};

/// One entry of the listing. The texts live as long as the plan.
struct Record {
    std::string_view name, target;
    uint64_t size = 0, member = 0;
    timespec mtime{};
    uint32_t slice = 0, offset = 0;
    uid_t uid = 0;
    gid_t gid = 0;
    uint16_t mode = 0;
    char type = 'f';
    bool in_base = false;
    bool xattrs = false;
    bool passage = false;  ///< a folder above what was selected: made when missing, else left alone

    Place Where() const { return {slice, member}; }
    Item AsItem() const;  ///< without extended attributes
};

/// Consecutive records of Plan::stored or Plan::stored_in_base that one worker reads at one go.
struct Unit {
    std::size_t first = 0, end = 0;
    bool in_base = false;
};

class Plan {
public:
    /// Reads the listing. `has_base` says that entries of the base archive can be read; without it
    /// such an entry is an error ("archive", "base_missing", ...), unless nothing is to be read.
    Plan(const std::string& listing, Selection& selection, bool has_base);
    /// Every entry that is stored in the archive itself, of all types, in `stored` only.
    explicit Plan(const std::string& listing);

    /// Stored entries, by place: files, and what else has attributes in its header.
    std::deque<Record> stored, stored_in_base;
    std::deque<Record> folders;  ///< in the listing's order: a parent comes first
    std::deque<Record> links, hard_links, specials;
    std::vector<std::string_view> deleted;                            ///< as listed
    std::vector<std::pair<std::string_view, std::string>> not_saved;  ///< name, why
    uint64_t bytes = 0, files = 0;

    /// Under which name the record's content is to stand: a hard link whose first name was not
    /// selected gets the content itself.
    std::string_view NameFor(const Record& record) const;
    /// Cuts what is stored into units of some `unit_size` bytes, starting afresh behind gaps.
    std::vector<Unit> Units(uint64_t unit_size) const;
    /// Numbers of the slices that will certainly be read.
    std::vector<uint32_t> SliceNumbers(bool in_base) const;

private:
    std::string_view Keep(const std::string& text);
    Record MakeRecord(const Entry& entry);
    void Add(const Entry& entry, bool has_base);
    void ResolveHardLinks(const std::string& listing, bool has_base);
    std::deque<std::string> arena_;
    std::map<std::string_view, std::string_view> instead_;
};

}  // namespace qortar
