/// What a storage must be like before it is kept, whoever sets it.
#pragma once

#include "panel/store.h"

namespace panel {

/// Keeps the storage in place of the owner's former one. An empty local_dir is the usual one.
/// Throws vel_tool::UsageError that names the value that cannot be taken.
void KeepStorage(Storage storage);

}  // namespace panel
