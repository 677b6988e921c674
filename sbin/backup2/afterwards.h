/// What follows a finished backup of "backup2 run": its record on the storage, the limits, the
/// user's own copy.
#pragma once

#include <functional>
#include <map>
#include <string>

#include "vel/vel_xml.h"

#include "sbin/backup2/job.h"
#include "sbin/backup2/report.h"

namespace backup2_admin {

/// Nothing here takes the backup away: what fails becomes a warning of the report, and the steps
/// behind it are done all the same.
class Afterwards {
public:
    /// `settings`: the panel's answer about the job; `report`: of the finished backup.
    Afterwards(vel_xml::Xml settings, Report& report);
    void Run();

private:
    void Step(const std::string& what, const std::function<void()>& step);
    void ApplyKeepRules();
    void CopyToOwnStorage();
    /// The user's backups: date -> marked as deleted.
    std::map<std::string, bool> Marks() const;
    void Compare(const std::map<std::string, bool>& before, const std::map<std::string, bool>& now);

    vel_xml::Xml settings_;
    vel_xml::XmlNode storage_;
    Site site_;
    Report& report_;
};

}  // namespace backup2_admin
