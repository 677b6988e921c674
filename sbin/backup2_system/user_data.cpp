#include "sbin/backup2_system/user_data.h"

#include <map>
#include <utility>

#include "vel/str.h"
#include "vel/vel_err.h"

namespace backup2_system {
namespace {

constexpr char kDatabases[] = "/doc/elem[@name='db']/elem";
constexpr char kAccounts[] = "/doc/elem[@name='db.user']/elem";

std::string ParamOf(const vel_xml::XmlNode& elem, const std::string& name) {
    for (auto node = elem.FirstChild(); node; node = node.Next())
        if (node.Name() == "param" && node.GetProp("name") == name) return node.Str();
    return "";
}

/// mysql or postgresql, in the form of either edition.
std::string TypeOf(const vel_xml::XmlNode& database) {
    const std::string type = ParamOf(database, "type");
    return type.empty() ? str::Lower(ParamOf(database, "server")) : type;
}

class Inspection {
public:
    Inspection(const vel_xml::Xml& document, const PanelAnswers& panel)
        : document_(document), panel_(panel) {}

    std::vector<std::string> Run() {
        for (vel_xml::XmlNode elem : document_.GetNodes(kDatabases)) {
            const std::string why = ProblemOf(elem);
            if (why.empty()) continue;
            found_.push_back("database " + ParamOf(elem, "dbserver") + "." + ParamOf(elem, "name") +
                             ": " + why);
            elem.Unlink();
        }
        for (vel_xml::XmlNode elem : document_.GetNodes(kAccounts)) {
            const std::string name = ParamOf(elem, "name");
            const std::string why = ProblemOf(ParamOf(elem, "type"), name);
            if (why.empty()) continue;
            found_.push_back("account " + name + ": " + why);
            elem.Unlink();
        }
        return std::move(found_);
    }

private:
    /// The servers that the document's databases lie on; null when the panel does not know it.
    const Access* Server(const std::string& name) {
        const auto known = servers_.find(name);
        if (known != servers_.end()) return &known->second;
        try {
            return &servers_.emplace(name, panel_.server(name)).first->second;
        } catch (const vel_err::Error& error) {
            if (error.type() != "missed") throw;
            return nullptr;
        }
    }

    std::string ProblemOf(vel_xml::XmlNode elem) {
        const std::string server = ParamOf(elem, "dbserver"), name = ParamOf(elem, "name");
        const Access* known = Server(server);
        if (known == nullptr) return "the panel knows no server " + server;
        if (known->type != TypeOf(elem)) return "the server is of another type";
        if (IsServiceName(name)) return kServicesName;
        if (panel_.own.databases.count(server + "." + name) != 0) return "";
        Access access = *known;
        access.database = name;
        return ServerOf(access.type).has_database(access) ? kStrangers : "";
    }

    /// An account that is the user's on one server stays: where it is another's, a restore will
    /// leave it out.
    std::string ProblemOf(const std::string& type, const std::string& name) {
        if (IsServiceName(name)) return kServicesName;
        std::string problem;
        for (const auto& [server, access] : servers_) {
            if (access.type != type) continue;
            if (panel_.own.HasAccount(server, name)) return "";
            if (problem.empty()) problem = ProblemOfAccount(access, name, panel_.own);
        }
        return problem;
    }

    const vel_xml::Xml& document_;
    const PanelAnswers& panel_;
    std::map<std::string, Access> servers_;
    std::vector<std::string> found_;
};

}  // namespace

std::vector<std::string> TakeOutStrangers(const vel_xml::Xml& document, const PanelAnswers& panel) {
    return Inspection(document, panel).Run();
}

}  // namespace backup2_system
