#include "sbin/backup2/edition.h"

#include "vel/vel_tool.h"

#include "backup_common/backup2_convert.h"

#include "sbin/backup2/job.h"

namespace backup2_admin {

std::string AskHostDist() {
    const std::string dist = Panel().Query("func=backup2.settings").value("dist");
    return dist.empty() ? "3" : dist;
}

std::string CheckDist(const std::string& dist) {
    if (dist.empty() || dist.size() > 9 ||
        dist.find_first_not_of("0123456789") != std::string::npos) {
        throw vel_tool::UsageError("'" + dist + "' is no code of an edition (a number)");
    }
    return dist;
}

std::string ConvertFor(const vel_xml::Xml& xml, const std::string& host_dist) {
    const std::string kind = backup2::GetConversion(xml, host_dist);
    if (kind.empty() || kind == "external") return "";
    backup2::Convert(xml, host_dist);
    xml.GetNode("/doc/info").SetProp("dist", host_dist);
    return kind;
}

}  // namespace backup2_admin
