/// Passwords of the panel's users.
#pragma once

#include <string>

namespace panel {

/// A yescrypt hash with a fresh salt; "" for "" (nobody can log in with it).
/// Throws vel_err::Error "sys" when the system's library refuses.
std::string HashPassword(const std::string& password);
/// False for an empty hash. Takes the same time whether or not there is a hash to compare with.
bool CheckPassword(const std::string& password, const std::string& hash);

}  // namespace panel
