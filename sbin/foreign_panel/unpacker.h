/// Puts entries of a foreign archive into the tree, and tells the report what could not be put
/// there or not as it was.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "sbin/foreign_panel/archive_reader.h"
#include "sbin/foreign_panel/out_tree.h"
#include "sbin/foreign_panel/report.h"

namespace foreign_panel {

class Unpacker {
public:
    Unpacker(OutTree& tree, Report& report, Budget& budget, bool dry)
        : tree_(tree), report_(report), budget_(budget), dry_(dry) {}

    /// `there`, an absolute folder of the other machine, is `here` in the tree: absolute links into
    /// it become relative.
    void Map(const std::string& there, const std::string& here);
    /// The place of an absolute path of the other machine, "" when it is in no mapped folder.
    std::string PlaceOf(const std::string& path) const;

    /// Sees the bytes of a file that is put, and where they belong.
    using Tap = std::function<void(std::string_view bytes, uint64_t offset)>;
    /// The current entry of `reader`, as `place` (made by SafePath). `hard_link` is the place of
    /// what a hard link links to, "" when it has none. Absolute links wait for Finish.
    /// What fails for this entry alone is reported as lost and does not throw.
    void Put(ArchiveReader& reader, const Entry& entry, const std::string& place,
             const std::string& hard_link, const Tap& tap = {});
    /// An entry that has no place: its name leaves the tree.
    void Refuse(const std::string& name);
    void Finish();

private:
    struct Waiting {
        std::string place, target;
        timespec mtime;
    };
    void PutFile(ArchiveReader& reader, const Entry& entry, const std::string& place,
                 const Tap& tap);
    void PutLink(const std::string& place, const std::string& target, timespec mtime);
    void PutRelative(const std::string& place, const std::string& target, timespec mtime);
    void Seen(const std::string& place, bool fresh);

    OutTree& tree_;
    Report& report_;
    Budget& budget_;
    bool dry_;
    std::vector<std::pair<std::string, std::string>> folders_;
    std::vector<Waiting> waiting_;
    std::size_t waiting_bytes_ = 0;
    std::unordered_set<uint64_t> seen_;  // digests of names, in a dry run only
};

/// The target as it must be written at `place` so that it stays in the tree below the top folder
/// of `place`: leading ".." parts, then names. "" when it leaves that folder.
std::string InnerTarget(const std::string& place, const std::string& target);
/// The path from the link at `place` to `target`, both relative to the tree.
std::string RelativeTarget(const std::string& place, const std::string& target);

}  // namespace foreign_panel
