/// The command line.
#pragma once

#include <string>
#include <vector>

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
    bool json = false;
};

/// Throws vel_tool::UsageError.
Options ParseOptions(std::vector<std::string> arguments);

}  // namespace backup2_cp
