/// From the words of an administrator to a storage token.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "backup_common/backup2_storage.h"

namespace backup2_admin {

/// What each kind of storage wants to know. Options are called as on the command line, without
/// "--".
struct StorageKind {
    std::vector<std::string> needed, optional;
    std::vector<std::string> secrets;  ///< in the order in which they are asked for
};

/// By the "type" of the token.
const std::map<std::string, StorageKind>& StorageKinds();

using Words = std::map<std::string, std::string>;

/// The token. `ask` gives the secret of a name. Throws vel_tool::UsageError for an option that is
/// missing or that the kind does not know, and for values that a token cannot hold. What values
/// mean is the copy tool's to check.
backup2::BackupToken MakeToken(const std::string& type, const Words& options,
                               const std::function<std::string(const std::string&)>& ask);

/// Where it is, for people: "sftp root@host:2222/srv/backup", "s3 bucket/path". No secret.
std::string Describe(const backup2::BackupToken& token);
/// What of the token says where it is: equal for the same place, whoever logs in, and whatever
/// the password. Accounts of one provider cannot be told apart by it, nor names of one server.
std::string PlaceOf(const backup2::BackupToken& token);
/// All that is no secret: name, value.
std::vector<std::pair<std::string, std::string>> PublicValues(const backup2::BackupToken& token);

}  // namespace backup2_admin
