/// Scratch space of one process.
#pragma once

#include <string>

#include "vel/vel_file.h"

namespace backup2_cp {

/// A directory of mode 0700 below var/backup2_cp.tmp of the install root, removed with the object.
/// Making one also removes what processes left there that are no longer alive.
class Workspace {
public:
    Workspace();
    const std::string& Path() const { return dir_.Path(); }

private:
    vel_file::TmpDir dir_;
};

}  // namespace backup2_cp
