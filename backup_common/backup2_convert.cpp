#include "backup_common/backup2_convert.h"

#include <cstddef>
#include <optional>
#include <utility>
#include <vector>

#include "vel/str.h"
#include "vel/vel_env.h"
#include "vel/vel_log.h"

namespace backup2 {
namespace {

const vel_log::Module logger("backup");

constexpr char kTavo2Merun[] = "tavo2merun";
constexpr char kMerun2Tavo[] = "merun2tavo";
constexpr char kCloudlinux2Merun[] = "cloudlinux2merun";
constexpr char kExternal[] = "external";

constexpr char kMerun[] = "3";
constexpr char kOldMerun[] = "2";
constexpr unsigned kCloudLinux = 0x20104;

constexpr char kUserElement[] = "/doc/elem[@name='user.edit']";
constexpr char kCloudLinuxParam[] = "/doc/elem[@name='user.edit']/param[@name='oscloudlinux']";
constexpr char kArrow[] = "->";

/// The larger edition's word for a type of server in the smaller one's; others as they are.
std::string ServerOfType(const std::string& type) {
    if (type == "mysql") return "MySQL";
    return type == "postgresql" ? "PostgreSQL" : type;
}

}  // namespace

/// What the elements of one conversion share: what each would look for by itself, and changes that
/// would take other elements away. Those wait for the end, as the elements were all selected
/// before.
struct SharedWork {
    explicit SharedWork(const vel_xml::Xml& document) : xml(document) {}

    vel_xml::XmlNode User() {
        if (!user) user = xml.GetNode(kUserElement);
        return *user;
    }
    void Finish() {
        // Backwards: what lies within another one goes before it.
        for (auto change = texts.rbegin(); change != texts.rend(); ++change)
            change->first.SetContent(change->second);
        if (removals != 0) RemoveMarks();
    }
    /// Each element of the user took one away: the first that was left then.
    void RemoveMarks() {
        std::vector<vel_xml::XmlNode> gone;
        for (const vel_xml::XmlNode& node : xml.GetNodes(kCloudLinuxParam))
            if (gone.size() < removals) gone.push_back(node);
        // No such parameter lies in another one: its parent is an element of the top.
        for (vel_xml::XmlNode& node : gone) node.Unlink();
    }

    vel_xml::Xml xml;
    std::optional<vel_xml::XmlNode> user;
    std::size_t removals = 0;
    std::vector<std::pair<vel_xml::XmlNode, std::string>> texts;
};

namespace {

std::shared_ptr<Conv> Pick(const vel_xml::Xml& xml, const vel_xml::XmlNode& node,
                           const std::string& kind, const std::shared_ptr<SharedWork>& work) {
    static const auto kUnchanged = std::make_shared<Conv>();
    if (node.Parent().GetProp("name") == "db")
        return std::make_shared<DBConv>(xml, node, kind, work);
    if (node.GetProp("name") == "user.edit")
        return std::make_shared<UserConv>(xml, node, kind, work);
    return kUnchanged;
}

}  // namespace

// ---- Choice -------------------------------------------------------------------------------------

std::string GetBackupDist(const vel_xml::XmlNode& info) {
    const std::string dist = info.GetProp("dist");
    return dist == kOldMerun ? kMerun : dist;
}

bool IsCloudLinux(const std::string& dist) {
    return dist == kMerun && vel_env::GetOsType() == kCloudLinux;
}

bool FromCloudLinux(const vel_xml::Xml& xml, const std::string& backup_dist) {
    return backup_dist == kMerun && xml.GetNode(kCloudLinuxParam).Str() == "yes";
}

std::string GetConversion(const vel_xml::Xml& xml, const std::string& host_dist) {
    const vel_xml::XmlNode info = xml.GetNode("/doc/info");
    if (!info) return "";
    const std::string backup_dist = GetBackupDist(info);
    const int order = host_dist.compare(backup_dist);
    if (order == 0 && xml.GetNode("/doc/external")) return kExternal;
    if (order != 0) return order > 0 ? kTavo2Merun : kMerun2Tavo;
    if (IsCloudLinux(host_dist)) return "";
    return FromCloudLinux(xml, backup_dist) ? kCloudlinux2Merun : "";
}

void Convert(const vel_xml::Xml& xml, const std::string& host_dist) {
    const std::string kind = GetConversion(xml, host_dist);
    if (!kind.empty()) GetConverter(xml, kind)->Convert();
}

// ---- Documents ----------------------------------------------------------------------------------

vel_xml::Xml DummyConverter::Convert() { return xml_; }
DummyConverter::~DummyConverter() = default;

vel_xml::Xml DummyConverter::ConvertElements(const std::string& kind) {
    const auto work = std::make_shared<SharedWork>(xml_);
    for (const vel_xml::XmlNode& node : xml_.GetNodes("//elem"))
        Pick(xml_, node, kind, work)->ConvertType();
    work->Finish();
    return xml_;
}

vel_xml::Xml Tavo2MerunConverter::Convert() { return ConvertElements(kTavo2Merun); }
vel_xml::Xml Merun2TavoConverter::Convert() { return ConvertElements(kMerun2Tavo); }
vel_xml::Xml Cloudlinux2MerunConverter::Convert() { return ConvertElements(kCloudlinux2Merun); }

std::shared_ptr<DummyConverter> GetConverter(const vel_xml::Xml& xml, const std::string& kind) {
    logger.Write(6, "Convert: %s", kind);
    if (kind == kTavo2Merun) return std::make_shared<Tavo2MerunConverter>(xml);
    if (kind == kMerun2Tavo) return std::make_shared<Merun2TavoConverter>(xml);
    if (kind == kCloudlinux2Merun) return std::make_shared<Cloudlinux2MerunConverter>(xml);
    return std::make_shared<DummyConverter>(xml);
}

// ---- Elements -----------------------------------------------------------------------------------

void Conv::ConvertType() {}
Conv::~Conv() = default;

UserConv::UserConv(const vel_xml::Xml& xml, const vel_xml::XmlNode& node, const std::string& kind,
                   const std::shared_ptr<SharedWork>& work)
    : xml_(xml), node_(node), kind_(kind), work_(work) {}
UserConv::~UserConv() = default;

void UserConv::ConvertType() {
    if (kind_ != kCloudlinux2Merun) return;
    if (work_) {
        ++work_->removals;
    } else {
        xml_.GetNode(kCloudLinuxParam).Unlink();
    }
}

DBConv::DBConv(const vel_xml::Xml& xml, const vel_xml::XmlNode& node, const std::string& kind,
               const std::shared_ptr<SharedWork>& work)
    : xml_(xml), node_(node), kind_(kind), work_(work) {}
DBConv::~DBConv() = default;

void DBConv::ConvertType() {
    const std::string elid = node_.GetProp("elid");
    if (kind_ == kTavo2Merun) node_.SetProp("elid", ToMerun(elid));
    if (kind_ == kMerun2Tavo) node_.SetProp("elid", ToTavo(elid));
    ConvertChildren();
}

std::string DBConv::ToMerun(std::string elid) const {
    const std::string server = str::RGetWord(elid, kArrow);
    elid += kArrow + str::Lower(server);
    const vel_xml::XmlNode user = work_ ? work_->User() : xml_.GetNode(kUserElement);
    if (user) elid += kArrow + user.GetProp("elid");
    return elid;
}

std::string DBConv::ToTavo(std::string elid) {
    str::RGetWord(elid, kArrow);  // the owner, whom the smaller edition does not write
    const std::string type = str::RGetWord(elid, kArrow);
    return elid + kArrow + ServerOfType(type);
}

void DBConv::ConvertChildren() {
    for (vel_xml::XmlNode child = node_.FirstChild(); child; child = child.Next()) {
        const std::string name = child.GetProp("name");
        if (kind_ == kMerun2Tavo && name == "type") {
            child.SetProp("name", "server");
            SetText(child, ServerOfType(child.Str()));
        } else if (kind_ == kTavo2Merun && name == "server") {
            child.SetProp("name", "type");
            SetText(child, str::Lower(child.Str()));
        }
    }
}

/// Elements within the child go with its old content, and may be among those to convert.
void DBConv::SetText(vel_xml::XmlNode child, const std::string& text) const {
    if (work_ && child.FirstChild()) {
        work_->texts.emplace_back(child, text);
    } else {
        child.SetContent(text);
    }
}

std::shared_ptr<Conv> GetElemConv(const vel_xml::Xml& xml, const vel_xml::XmlNode& node,
                                  const std::string& kind) {
    return Pick(xml, node, kind, nullptr);
}

}  // namespace backup2
