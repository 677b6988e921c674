/// Putting one file on a storage, and being sure that it is there.
#pragma once

#include <string>

#include "sbin/backup2_cp/sums.h"
#include "sbin/backup2_cp/target.h"

namespace backup2_cp {

/// Uploads the file `local` as `stored` and proves it: the file did not change while it was read,
/// the stored object has exactly the size that follows from it, and, where nothing is encrypted,
/// the same digest. Tries again as Retry does. On failure the partial object is removed and
/// std::runtime_error (NoRoom) says which file, which storage and why; `local` is untouched.
/// With `keep` the local file and the stored one never share an inode.
SliceSums Upload(const Target& target, const std::string& local, const std::string& stored,
                 bool keep);

/// Throws std::runtime_error "<name> would be stored in plain text" for a name that looks encrypted
/// but would not pass through the cipher of a storage with a password.
void CheckWillEncrypt(const Target& target, const std::string& stored);

/// Encrypts and decrypts 1 KiB with the storage's password, as a backup would be. Throws when the
/// bytes do not come back. Does nothing without a password.
void ProbeCipher(const Target& target);

/// Size of the encrypted form: 8 bytes of mark, 8 of salt, whole blocks with at least one byte of
/// padding.
constexpr uint64_t EncryptedSize(uint64_t plain) { return 16 + 16 * (plain / 16 + 1); }

}  // namespace backup2_cp
