/// The panel's command line: what an administrator sets up, and the server itself.
#pragma once

#include <string>
#include <vector>

namespace panel {

/// Runs one command; throws vel_tool::UsageError for wrong arguments and vel_err::Error for the
/// rest. Secrets are read from standard input and never printed.
int RunCommand(std::vector<std::string> arguments);

}  // namespace panel
