/// The system's user database. "" never exists.
#pragma once

#include <sys/types.h>

#include <string>

namespace vel_user {

bool Exists(const std::string& name);
/// All three throw vel_err::Error("user", "missed", name) for a user that does not exist.
uid_t Uid(const std::string& name);
gid_t Gid(const std::string& name);
std::string Home(const std::string& name);

}  // namespace vel_user
