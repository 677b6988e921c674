/// The commands that an administrator gives for slices and files.
#pragma once

#include <string>

namespace qortar {

/// `command` with %c replaced by `word`, %p by `dir` and %f by `name`, the last two quoted for the
/// shell, and %% by a percent sign. Other uses of "%" stay as they are.
std::string ExpandCommand(const std::string& command, const std::string& word,
                          const std::string& dir, const std::string& name);

enum class Token { Keep, Hide };  ///< whether the child sees BACKUP_TOKEN

/// Runs `text` by /bin/sh to its end. Throws vel_err::Error("command", "failed",
/// "<object>: status N: <last line of its output>") for every other status than 0.
void RunCommand(const std::string& text, const std::string& object, Token token);

}  // namespace qortar
