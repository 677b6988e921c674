/// Dumps of one database and their way back.
#pragma once

#include <string>

#include "vel/res_handle.h"

namespace backup2_system {

/// One database as the panel describes it.
struct Access {
    std::string type;                   ///< mysql | postgresql
    std::string socket, host, port;     ///< one of socket and host
    std::string login, password;        ///< may dump it and make databases
    std::string owner, owner_password;  ///< the account that uses it; may be ""
    std::string database;
};

/// All of these throw vel_err::Error("database", step, reason); the reason holds no secret.
namespace mysql {
/// Writes a complete dump, checked by the program's status and its end mark.
void Dump(const Access& access, vel_file::ResHandle out);
/// Replaces the database by the dump. A dump that is cut or cannot be loaded leaves the old
/// database as it was. The dump is a stranger's: it is loaded by a program and an account that can
/// do nothing but change this one database.
void Restore(const Access& access, vel_file::ResHandle dump);
}  // namespace mysql

namespace postgresql {
void Dump(const Access& access, vel_file::ResHandle out);
void Restore(const Access& access, vel_file::ResHandle dump);
}  // namespace postgresql

}  // namespace backup2_system
