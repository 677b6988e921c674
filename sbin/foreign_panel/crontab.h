/// A user's crontab.
#pragma once

#include <string>

#include "sbin/foreign_panel/converter.h"

namespace foreign_panel {

/// Adds the lines of `text` to the document: settings and jobs. Comments are left out; a line that
/// is neither is reported as lost.
void AddCrontab(Job& job, const std::string& text);

}  // namespace foreign_panel
