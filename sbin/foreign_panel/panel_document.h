/// The panel's document of an account, in the shape of docs/foreign-panels.md.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "vel/vel_xml.h"

#include "sbin/foreign_panel/values.h"

namespace foreign_panel {

/// One "elem". Parameters that are empty are left out.
class PanelObject {
public:
    explicit PanelObject(vel_xml::XmlNode node) : node_(std::move(node)) {}
    PanelObject& Param(const std::string& name, const std::string& value,
                       const std::string& form = "");
    PanelObject& Flag(const std::string& name, bool set, const std::string& value = "yes");
    PanelObject& Secret(const Password& password);  ///< "password", when there is one
    PanelObject& Grant(const std::string& database, const std::string& host,
                       const std::string& privileges);
    PanelObject& Record(const std::string& name, const std::string& type, const std::string& ttl,
                        const std::string& data);

private:
    vel_xml::XmlNode node_;
};

class PanelDocument {
public:
    PanelDocument();
    void External(const std::string& name, const std::string& value);  ///< what "external" says
    /// The account itself; the first call makes it.
    PanelObject Account(const std::string& name);
    PanelObject Add(const std::string& group, const std::string& elid);
    PanelObject Group(const std::string& group);        ///< for parameters of the group itself
    std::size_t Count(const std::string& group) const;  ///< objects in it
    std::string Text() const;

private:
    vel_xml::Xml xml_;
    vel_xml::XmlNode external_, account_;
    std::map<std::string, vel_xml::XmlNode> groups_;
    std::map<std::string, std::size_t> counts_;
};

}  // namespace foreign_panel
