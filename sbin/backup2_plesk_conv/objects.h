/// From the elements of a Plesk backup to objects of the panel's document.
#pragma once

#include <string>

#include "sbin/backup2_plesk_conv/backup.h"
#include "sbin/backup2_plesk_conv/contents.h"

namespace plesk {

void ConvertAccount(foreign_panel::Job& job, const Account& account);
/// The subscription with all its sites; notes in `contents` what is to be fetched.
void ConvertSubscription(foreign_panel::Job& job, const Account& account,
                         const Subscription& subscription, Contents& contents);

// Parts of it. `node` describes the site, which may be the subscription itself.
void ConvertMail(foreign_panel::Job& job, const vel_xml::XmlNode& node, const Subscription& of,
                 const std::string& domain, Contents& contents);
void ConvertDatabases(foreign_panel::Job& job, const vel_xml::XmlNode& node, const Account& account,
                      const Subscription& of, Contents& contents);
void ConvertZone(foreign_panel::Job& job, const vel_xml::XmlNode& node, const std::string& domain);

}  // namespace plesk
