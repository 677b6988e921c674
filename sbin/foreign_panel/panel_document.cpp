#include "sbin/foreign_panel/panel_document.h"

namespace foreign_panel {
namespace {

constexpr char kEdition[] = "3";  // the larger one: the form in which nothing is left out

}  // namespace

PanelObject& PanelObject::Param(const std::string& name, const std::string& value,
                                const std::string& form) {
    if (value.empty()) return *this;
    auto param = node_.AppendChild("param", value).SetProp("name", name);
    if (!form.empty()) param.SetProp("form", form);
    return *this;
}

PanelObject& PanelObject::Flag(const std::string& name, bool set, const std::string& value) {
    return set ? Param(name, value) : *this;
}

PanelObject& PanelObject::Secret(const Password& password) {
    return Param("password", password.text, password.form);
}

PanelObject& PanelObject::Grant(const std::string& database, const std::string& host,
                                const std::string& privileges) {
    auto grant = node_.AppendChild("grant", privileges).SetProp("database", database);
    if (!host.empty()) grant.SetProp("host", host);
    return *this;
}

PanelObject& PanelObject::Record(const std::string& name, const std::string& type,
                                 const std::string& ttl, const std::string& data) {
    auto record = node_.AppendChild("record", data).SetProp("name", name).SetProp("type", type);
    if (!ttl.empty()) record.SetProp("ttl", ttl);
    return *this;
}

PanelDocument::PanelDocument() {
    xml_.GetRoot().AppendChild("info").SetProp("dist", kEdition);
    external_ = xml_.GetRoot().AppendChild("external");
}

void PanelDocument::External(const std::string& name, const std::string& value) {
    if (!value.empty()) external_.SetProp(name, value);
}

PanelObject PanelDocument::Account(const std::string& name) {
    if (!account_) {
        account_ = xml_.GetRoot().AppendChild("elem").SetProp("name", "user.edit");
        account_.SetProp("elid", name);
        PanelObject(account_).Param("name", name);
    }
    return PanelObject(account_);
}

PanelObject PanelDocument::Group(const std::string& group) {
    vel_xml::XmlNode& node = groups_[group];
    if (!node) node = xml_.GetRoot().AppendChild("elem").SetProp("name", group);
    return PanelObject(node);
}

PanelObject PanelDocument::Add(const std::string& group, const std::string& elid) {
    Group(group);
    ++counts_[group];
    return PanelObject(groups_[group].AppendChild("elem").SetProp("elid", elid));
}

std::size_t PanelDocument::Count(const std::string& group) const {
    const auto found = counts_.find(group);
    return found == counts_.end() ? 0 : found->second;
}

std::string PanelDocument::Text() const { return xml_.Str(true); }

}  // namespace foreign_panel
