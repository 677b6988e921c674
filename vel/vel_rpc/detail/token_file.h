/// The file in which one credential's tokens are kept.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "vel/vel_file.h"

namespace vel_rpc::detail {

using Tokens = std::map<std::string, std::string>;  ///< "access_token", "refresh_token"

/// Does nothing, and knows nothing, unless KeepTokensIn named a folder.
class TokenFile {
public:
    TokenFile(std::string service, const std::string& credential);

    Tokens Read() const;  ///< empty when nothing is kept; what cannot be read counts as nothing
    /// Other processes wait before they renew the same tokens while the result lives.
    std::unique_ptr<vel_file::Lock> LockOthersOut() const;
    void Write(vel_file::Lock* lock, const std::string& credential) const;
    void Remove() const;

private:
    std::string service_, path_;
};

}  // namespace vel_rpc::detail
