/// What a storage token must look like before anything is opened with it.
#pragma once

#include <string>

#include "backup_common/backup2_storage.h"

namespace backup2_cp {

/// Throws std::runtime_error "storage token: <what is wrong>" that never quotes a secret: a missing
/// type, a host, port or path that could mean something else to a remote shell or program.
void CheckToken(const backup2::BackupToken& token);

/// Throws std::runtime_error for an archive password with which a backup could be written but
/// never read again: the encrypting side reads one line, the decrypting side the whole value.
void CheckPassword(const backup2::BackupToken& token);

/// `text` without the token's secrets, however an error came to hold them.
std::string Redact(std::string text, const backup2::BackupToken& token);

}  // namespace backup2_cp
