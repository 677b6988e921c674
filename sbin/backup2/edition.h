/// The edition of the panel on this machine, and panel data in its form.
#pragma once

#include <string>

#include "vel/vel_xml.h"

namespace backup2_admin {

/// The panel's code of its edition ("3" when it names none).
std::string AskHostDist();
/// The code as an administrator types it: a number. Throws vel_tool::UsageError.
std::string CheckDist(const std::string& dist);
/// Converts the document and writes the code of its new form into it, so that a second conversion
/// finds nothing to do. What was done, as the library names it; "" when nothing was changed.
std::string ConvertFor(const vel_xml::Xml& xml, const std::string& host_dist);

}  // namespace backup2_admin
