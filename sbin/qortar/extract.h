/// The reading half: restores, lists and verifies archives.
#pragma once

#include "sbin/qortar/options.h"

namespace qortar {

/// Restores beneath options.root. With a listing: what it names, in parallel, reading only the
/// slices that hold it. Without: the tar stream from its begin to its end; of equal names the last
/// one counts. An entry that cannot be restored is printed ("name TAB reason") and the rest goes
/// on; status 1 then, 3 when all that is missing was not in the archive from the start. A full disk
/// ends the run. With options.dry_run lines "create|replace|remove TAB name" and no change.
int RunExtract(const Options& options);

/// Prints the entries, of the listing when there is one (without looking at the archive).
int RunList(const Options& options);

/// Reads every member of every slice, compares the checksums and, with a listing, what stands
/// where it says. Errors name slice and member.
int RunVerify(const Options& options);

}  // namespace qortar
