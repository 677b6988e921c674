/// Secrets from standard input: lines of a file or pipe, or typed at a terminal.
#pragma once

#include <string>

namespace backup2_admin {

/// The next line, without its line end. At a terminal `what` is asked for and the answer is not
/// shown; a signal leaves the terminal as it was. Throws vel_tool::UsageError "<what> is missing on
/// standard input" at its end.
std::string AskSecret(const std::string& what);
/// As AskSecret, but typed twice at a terminal; throws when the two differ.
std::string AskNewSecret(const std::string& what);

}  // namespace backup2_admin
