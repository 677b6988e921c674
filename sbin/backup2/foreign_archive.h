/// Which other panel made an archive.
#pragma once

#include <string>

namespace backup2_admin {

/// The panel's name as GetExternalConvertors has it ("cPanel", "Plesk"), told from the names of the
/// first entries; "" when they tell none. Nothing is written. Throws std::runtime_error
/// "<path>: ..." for what is no archive, is compressed twice or grows more than 200 times.
std::string DetectPanel(const std::string& path);

}  // namespace backup2_admin
