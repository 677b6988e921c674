#include "sbin/backup2_system/user_data.h"

#include <map>
#include <set>
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

/// An account that the document names for a database: "bob" or "bob->mysql".
std::string OwnerOf(const vel_xml::XmlNode& database) {
    std::string text = ParamOf(database, "owner");
    return str::GetWord(text, "->");
}

class Inspection {
public:
    Inspection(const vel_xml::Xml& document, const PanelAnswers& panel)
        : document_(document), panel_(panel) {
        for (const auto& elem : panel.own.GetNodes(kDatabases)) {
            databases_.insert(ParamOf(elem, "dbserver") + "." + ParamOf(elem, "name"));
            accounts_.insert(TypeOf(elem) + " " + OwnerOf(elem));
        }
        for (const auto& elem : panel.own.GetNodes(kAccounts))
            accounts_.insert(ParamOf(elem, "type") + " " + ParamOf(elem, "name"));
    }

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
            if (!IsStrangersAccount(ParamOf(elem, "type"), name)) continue;
            found_.push_back("account " + name + ": " + ProblemOfAccount(name));
            elem.Unlink();
        }
        return std::move(found_);
    }

private:
    static constexpr char kStrange[] = "it is there already and not the user's";
    static constexpr char kServices[] = "restores use such names themselves";

    static std::string ProblemOfAccount(const std::string& name) {
        return IsServiceName(name) ? kServices : kStrange;
    }

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
        if (IsServiceName(name)) return kServices;
        if (databases_.count(server + "." + name) != 0) return "";
        Access access = *known;
        access.database = name;
        const bool there =
            access.type == "mysql" ? mysql::HasDatabase(access) : postgresql::HasDatabase(access);
        if (there) return kStrange;
        DropStrangeOwner(elem, access.type);
        return "";
    }

    void DropStrangeOwner(const vel_xml::XmlNode& elem, const std::string& type) {
        const std::string owner = OwnerOf(elem);
        if (owner.empty() || !IsStrangersAccount(type, owner)) return;
        found_.push_back("account " + owner + ": " + ProblemOfAccount(owner));
        for (auto node = elem.FirstChild(); node; node = node.Next())
            if (node.GetProp("name") == "owner") node.SetContent("");
    }

    bool IsStrangersAccount(const std::string& type, const std::string& name) {
        if (IsServiceName(name)) return true;
        if (accounts_.count(type + " " + name) != 0) return false;
        for (const auto& [server, access] : servers_) {
            if (access.type != type) continue;
            if (type == "mysql" ? mysql::HasAccount(access, name)
                                : postgresql::HasAccount(access, name))
                return true;
        }
        return false;
    }

    const vel_xml::Xml& document_;
    const PanelAnswers& panel_;
    std::set<std::string> databases_, accounts_;  // the user's own
    std::map<std::string, Access> servers_;
    std::vector<std::string> found_;
};

}  // namespace

std::vector<std::string> TakeOutStrangers(const vel_xml::Xml& document, const PanelAnswers& panel) {
    return Inspection(document, panel).Run();
}

}  // namespace backup2_system
