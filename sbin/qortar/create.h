/// Creating an archive.
#pragma once

#include "sbin/qortar/options.h"

namespace qortar {

/// Saves the tree below `options.root` as slices and a listing. Files that cannot be saved do not
/// fail the run: each is one line "EncodeFileName(name) TAB reason" on standard error and flagged
/// in the listing. Returns the program's status. Throws when the archive or the listing cannot be
/// written, a slice's command fails, or nothing at all could be read; no half slice and no listing
/// is left then.
int RunCreate(const Options& options);

}  // namespace qortar
