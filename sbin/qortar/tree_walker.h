/// Walks a tree that somebody else may change at any moment.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>

#include "vel/res_handle.h"

namespace qortar {

/// Opens `name` below the directory `dir` with openat2: no link in any component is followed, and
/// neither "..", nor a mount point, nor an absolute name leads out. O_CLOEXEC, O_NOFOLLOW and
/// O_NONBLOCK are added, O_NOATIME where the system allows it. On failure the handle is empty and
/// errno says why (ELOOP a link, EXDEV out of the tree or another file system).
vel_file::ResHandle OpenBeneath(int dir, const std::string& name, int flags);

/// One name in a directory.
struct Found {
    int dir;                  ///< the directory
    const std::string& name;  ///< in it
    const std::string& path;  ///< of the name, relative to the root of the walk
    unsigned char type;       ///< DT_* as the directory says; DT_UNKNOWN is possible
};

class TreeVisitor {
public:
    /// Returns an open directory when the walk shall go into it, else nothing.
    virtual vel_file::ResHandle Visit(const Found& found) = 0;
    /// The rest of the directory `path` cannot be listed: an errno, ESTALE when it was moved away.
    virtual void Lost(const std::string& path, int error) = 0;

protected:
    ~TreeVisitor() = default;
};

/// Visits everything below the directory `top`, whose path is `path` ("" for the root itself), in
/// the order of inodes, a directory before what it holds. Descriptors and memory are bounded
/// however deep or wide the tree is.
void WalkTree(vel_file::ResHandle top, const std::string& path, TreeVisitor& visitor);

}  // namespace qortar
