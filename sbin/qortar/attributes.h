/// Extended attributes and POSIX access lists as pax records.
#pragma once

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

namespace qortar {

using Records = std::vector<std::pair<std::string, std::string>>;

/// How the descriptor was opened: with O_PATH it is only good as a name below /proc.
enum class FdKind { Readable, PathOnly };

/// "SCHILY.xattr.<name>" with the value's bytes ("%" and "=" in a name stand as %25 and %3D), and
/// "SCHILY.acl.access" / "SCHILY.acl.default" as text with numeric ids.
/// Throws vel_err::Error("xattr", "too_large", "<bytes>") when they do not fit into one header and
/// "sys" when the system refuses to give one. An object without any gives an empty list.
Records ReadAttributes(int fd, FdKind kind);

}  // namespace qortar
