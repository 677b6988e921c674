/// What the program does: one function for each action, each in the source file of its name.
/// All throw std::exception for failures, with one line that says what, which object and why.
#pragma once

#include <string>

#include "sbin/backup2_cp/options.h"
#include "sbin/backup2_cp/target.h"

namespace backup2_cp {

// ---- put.cpp ------------------------------------------------------------------------------------

/// Uploads a slice, records it in the info file, then removes it. A slice that is gone but recorded
/// and stored is done already. On failure the file is still there.
void PutSlice(const Target& target, const Options& options);
/// Uploads the listing, writes the completed info file beside it and uploads that last. On failure
/// there is no info file beside the listing.
void PutFinal(const Target& target, const Options& options);
/// Uploads a backup file; removes it unless it is kept or is itself the stored file.
void PutFile(const Target& target, const Options& options);

// ---- get.cpp ------------------------------------------------------------------------------------

/// Downloads `name`. Nothing stands at the local path, or what stood there, on failure.
void GetFile(const Target& target, const Options& options);
/// Downloads the slice that belongs to the file's name, when its sizes and digests are those of
/// the info file.
void GetSlice(const Target& target, const Options& options);

// ---- remove.cpp ---------------------------------------------------------------------------------

/// Removes a backup from the storage and from this machine; prints a line for each.
void Delete(const Target& target, const Options& options);

// ---- list.cpp -----------------------------------------------------------------------------------

void List(const Target& target, const Options& options);

// ---- check.cpp ----------------------------------------------------------------------------------

/// Throws std::runtime_error that names the step that failed.
void Check(const Target& target, const Options& options);

}  // namespace backup2_cp
