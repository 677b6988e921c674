/// The command line.
#pragma once

#include <string>
#include <vector>

#include "sbin/backup2_cp/retention.h"

namespace backup2_cp {

struct Options {
    enum class Action {
        kHelp,
        kPut,
        kPutSlice,
        kPutFinal,
        kGet,
        kGetSlice,
        kDelete,
        kPin,
        kUnpin,
        kLimit,
        kCleanUp,
        kSweep,
        kList,
        kCheck
    };
    Action action = Action::kHelp;
    std::string help;        ///< text of --help
    std::string info_file;   ///< absolute
    std::string file;        ///< what is uploaded, or made by --get; absolute
    std::string name;        ///< on the storage
    bool last = false;       ///< the slice is the last one
    bool no_delete = false;  ///< keep the uploaded file
    bool force = false;
    std::string path;  ///< of a local tree; absolute
    std::string user;  ///< whose backups alone are looked at
    Policy policy;
    bool dry_run = false;
    bool json = false;
    int hours = 24;                ///< no upload of one slice takes a day
    bool accept_host_key = false;  ///< the server's key may be another one than before
    bool accept_disk = false;      ///< a local storage may lie on another mount point

    /// One of the many calls of a backup or a restore.
    bool IsTransfer() const {
        return action == Action::kPut || action == Action::kPutSlice ||
               action == Action::kPutFinal || action == Action::kGet || action == Action::kGetSlice;
    }
};

/// Throws vel_tool::UsageError.
Options ParseOptions(std::vector<std::string> arguments);

}  // namespace backup2_cp
