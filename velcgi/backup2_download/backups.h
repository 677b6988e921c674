/// The finished backups of one user, as the info files of this machine describe them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace backup2_download {

/// One file of an archive on the storage; size and sum are those before encryption.
struct Slice {
    std::string path;  ///< below the storage's base directory
    uint64_t size = 0;
    std::string sha256;
};

struct Archive {
    std::string name;  ///< "F2024-01-31.bob.tgz"
    std::string date;  ///< or "custom"
    std::string base;  ///< of an increment the name of its full backup's archive, else ""
    std::string created, finished, key_hash, info_path;
    bool encrypted = false;
    std::vector<Slice> slices;  ///< all of them, in order

    uint64_t Size() const;
};

struct Newest {
    Archive own;
    std::optional<Archive> base;  ///< when `own` is an increment
};

/// The newest backup (of those of one second the one of the later day) that is complete: finished,
/// not marked as deleted, made for this user and this uid, each of its slices recorded with size
/// and sum, and the same of its base (which may be marked as deleted: it stays as long as an
/// increment needs it). Names are made from `user` and the dates; an info file that says other ones
/// counts as incomplete. Throws Refusal 404 "missed" when there is none.
Newest FindNewest(const std::string& local_dir, const std::string& user, const std::string& uid);

}  // namespace backup2_download
