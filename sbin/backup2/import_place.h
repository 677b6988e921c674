/// Where imports put what they bring, and what they work with.
#pragma once

#include <string>

#include "vel/vel_file.h"

namespace backup2_admin {

/// The root of a user who can be given files: the panel names one, and he has an account on this
/// machine. Throws std::runtime_error for others.
std::string NeedImportRoot(const std::string& user);
/// An empty folder beside the local tree, root's alone; programs that a killed import left there
/// are ended. Only for the holder of WorkLock "restore" of the user.
vel_file::TmpDir MakeImportDir(const std::string& user);
/// Removes such folders of users for whom no import is going on.
void DropImportDirs(const std::string& local_dir);

}  // namespace backup2_admin
