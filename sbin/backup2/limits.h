/// How many backups stay: what the panel says, and the copy tool's command that sees to it.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "vel/vel_xml.h"

#include "sbin/backup2/job.h"

namespace backup2_admin {

/// Rules of a plan: so many of the last, so many days, ... as words of options and of the panel.
inline constexpr const char* kKeepRules[] = {"last", "daily", "weekly", "monthly", "yearly"};

struct Limits {
    std::string size, count;                  ///< "" is none
    std::map<std::string, std::string> keep;  ///< rule of kKeepRules -> how many
};

/// The rules that the panel gives for a user's job.
std::map<std::string, std::string> KeepRules(const vel_xml::Xml& settings);
/// Applies the limits of the element `storage` to the backups of `user` there. Throws
/// std::runtime_error when that fails or they cannot be met. Leaves its token in BACKUP_TOKEN.
void HoldLimits(vel_xml::XmlNode storage, const std::string& user, const std::string& date);
/// For RunTool, which needs the site's token in the environment. The backup of `date` ("" none)
/// counts as present and stays.
std::vector<std::string> LimitCommand(const Site& site, const std::string& user,
                                      const std::string& date, const Limits& limits);

}  // namespace backup2_admin
