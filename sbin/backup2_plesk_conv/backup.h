/// The descriptions in a Plesk backup: one info file for all, or one for each account and domain.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "vel/vel_xml.h"

#include "sbin/foreign_panel/converter.h"
#include "sbin/foreign_panel/values.h"

namespace plesk {

/// A domain with its own web space.
struct Subscription {
    std::string name;
    vel_xml::XmlNode node;
    std::string folder;  ///< of the info file that describes it, in the archive
};

struct Account {
    std::string there, here;
    vel_xml::XmlNode client;  ///< null for a subscription of the server's administrator
    std::vector<Subscription> subscriptions;
};

struct Backup {
    std::vector<Account> accounts;
    std::set<std::string> files;  ///< of the archive, by SafePath
    std::string base;             ///< folder of the outermost info file, "" for the archive's top
};

/// One pass over the archive. Throws std::runtime_error when it holds no readable info file.
Backup ReadBackup(foreign_panel::Job& job);
/// Throws vel_tool::UsageError when there are several and none, or another one, was asked for.
Account ChooseAccount(const foreign_panel::Job& job, const Backup& backup);

// ---- Reading the elements -----------------------------------------------------------------------

/// What the element says of `name`, as an attribute or an element of its own; "" when nothing.
std::string Value(const vel_xml::XmlNode& node, const std::string& name);
/// The first element at a path like "properties/dns-zone", perhaps null.
vel_xml::XmlNode Child(vel_xml::XmlNode node, const std::string& path);
std::vector<vel_xml::XmlNode> Children(const vel_xml::XmlNode& node, const std::string& name);
/// The domain that the element names, "" when that is no host name. Names in other letters stand
/// beside their form for the DNS, which counts.
std::string DomainOf(const vel_xml::XmlNode& node);
/// The "password" element of `node`, or of its "properties".
foreign_panel::Password PasswordOf(const vel_xml::XmlNode& node);
bool IsSuspended(const vel_xml::XmlNode& node);

}  // namespace plesk
