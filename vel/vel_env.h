/// The process environment, and which system this is.
#pragma once

#include <string>

namespace vel_env {

std::string GetEnv(const std::string& name);  ///< "" when unset
/// Both throw vel_err::Error "sys" for a name that is empty or holds "=".
void SetEnv(const std::string& name, const std::string& value);
void UnsetEnv(const std::string& name);

/// Code of the running system, from /etc/os-release: Debian 0x20201, Ubuntu 0x20202, RHEL family
/// 0x20101, Alma 0x20102, Rocky 0x20103, CloudLinux 0x20104 (all 0x201xx hold the bits 0x20100),
/// anything else 0x20000. Read once.
unsigned GetOsType();
std::string GetOsVersion();  ///< its VERSION_ID, "" when unknown
/// Replaces both answers for the rest of the process.
void SetOsForTests(unsigned type, const std::string& version);

}  // namespace vel_env
