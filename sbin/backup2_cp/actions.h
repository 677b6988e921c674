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
/// Uploads a backup file; removes it unless it is kept or is itself the stored file. Into a user's
/// own storage: slices are recorded, the info file is rewritten as the record says.
void PutFile(const Target& target, const Options& options);

// ---- get.cpp ------------------------------------------------------------------------------------

/// Downloads `name`. Nothing stands at the local path, or what stood there, on failure.
void GetFile(const Target& target, const Options& options);
/// Downloads the slice that belongs to the file's name, when its sizes and digests are those of
/// the info file.
void GetSlice(const Target& target, const Options& options);

// ---- remove.cpp ---------------------------------------------------------------------------------

/// Removes a backup from the storage and from this machine; prints a line for each. A pinned one
/// is refused unless it is forced.
void Delete(const Target& target, const Options& options);
/// Writes or takes out the key "pinned" of an info file: such a backup stays whatever the limits.
void Pin(const Options& options);
void Unpin(const Options& options);

// ---- limit.cpp ----------------------------------------------------------------------------------

/// Removes what the limits and keep rules do not leave. What cannot be removed is said on standard
/// error, the others go on. The program's exit status: 3 when a limit cannot be reached.
int Limit(const Options& options);

// ---- cleanup.cpp --------------------------------------------------------------------------------

/// Removes every backup that the journal names and takes its line out. Lines that fail stay; the
/// error at the end names each. Throws when somebody is copying there.
void CleanUp(const Options& options);
/// Removes what killed uploads left that began long enough ago; prints how much.
void Sweep(const Target& target, const Options& options);

// ---- list.cpp -----------------------------------------------------------------------------------

void List(const Target& target, const Options& options);

// ---- check.cpp ----------------------------------------------------------------------------------

/// Throws std::runtime_error that names the step that failed.
void Check(const Target& target, const Options& options);

}  // namespace backup2_cp
