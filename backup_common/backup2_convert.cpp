#include "backup_common/backup2_convert.h"

#include <cstddef>
#include <optional>

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
constexpr char kServer[] = "server", kType[] = "type";
const std::string kArrow = "->", kElid = "elid", kName = "name";

/// The larger edition's word for a type of server in the smaller one's; others as they are.
std::string ServerOfType(std::string type) {
    if (type == "mysql") return "MySQL";
    return type == "postgresql" ? "PostgreSQL" : type;
}

}  // namespace

/// What the elements of one conversion share: what each would look for by itself, and how many of
/// them take a mark away. Those wait for the end, as elements may stand in a mark.
struct SharedWork {
    explicit SharedWork(const vel_xml::Xml& document) : xml(document) {}

    vel_xml::XmlNode User() {
        if (!user) user = xml.GetNode(kUserElement);
        return *user;
    }
    /// Each element of the user took one away: the first that was left then.
    void RemoveMarks() const {
        if (removals == 0) return;
        std::size_t gone = 0;
        // No such parameter lies in another one: its parent is an element of the top.
        for (vel_xml::XmlNode mark : xml.GetNodes(kCloudLinuxParam)) {
            if (gone++ == removals) break;
            mark.Unlink();
        }
    }

    vel_xml::Xml xml;
    std::optional<vel_xml::XmlNode> user;
    std::size_t removals = 0;
};

namespace {

std::shared_ptr<Conv> Pick(const vel_xml::Xml& xml, const vel_xml::XmlNode& node,
                           const std::string& kind, const std::shared_ptr<SharedWork>& work) {
    static const auto kUnchanged = std::make_shared<Conv>();
    if (node.Parent().IsProp("name", "db")) return std::make_shared<DBConv>(xml, node, kind, work);
    if (node.IsProp("name", "user.edit")) return std::make_shared<UserConv>(xml, node, kind, work);
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
    xml_.ForEach(
        "elem", [&](const vel_xml::XmlNode& node) { Pick(xml_, node, kind, work)->ConvertType(); });
    work->RemoveMarks();
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
    if (kind_ == kTavo2Merun) {
        node_.SetProp(kElid, ToMerun(node_.GetProp(kElid)));
        ConvertChildren(kServer, kType, str::Lower);
    } else if (kind_ == kMerun2Tavo) {
        node_.SetProp(kElid, ToTavo(node_.GetProp(kElid)));
        ConvertChildren(kType, kServer, ServerOfType);
    }
}

std::string DBConv::ToMerun(std::string elid) const {
    const std::string server = str::Lower(str::RGetWord(elid, kArrow));
    elid.append(kArrow).append(server);
    const vel_xml::XmlNode user = work_ ? work_->User() : xml_.GetNode(kUserElement);
    if (user) elid.append(kArrow).append(user.GetProp(kElid));
    return elid;
}

std::string DBConv::ToTavo(std::string elid) {
    str::RGetWord(elid, kArrow);  // the owner, whom the smaller edition does not write
    const std::string type = str::RGetWord(elid, kArrow);
    return elid + kArrow + ServerOfType(type);
}

void DBConv::ConvertChildren(const char* from, const char* to,
                             std::string (*convert)(std::string)) {
    for (vel_xml::XmlNode child = node_.FirstChild(); child; child = child.Next()) {
        if (!child.IsProp("name", from)) continue;
        child.SetProp(kName, to);
        child.SetContent(convert(child.Str()));
    }
}

std::shared_ptr<Conv> GetElemConv(const vel_xml::Xml& xml, const vel_xml::XmlNode& node,
                                  const std::string& kind) {
    return Pick(xml, node, kind, nullptr);
}

}  // namespace backup2
