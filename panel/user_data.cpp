#include "panel/user_data.h"

#include <algorithm>
#include <functional>
#include <set>

#include "vel/str.h"
#include "vel/vel_env.h"
#include "vel/vel_err.h"
#include "vel/vel_tool.h"

#include "panel/checks.h"

namespace panel {
namespace {

constexpr unsigned kCloudLinux = 0x20104;
constexpr std::size_t kMostKeptBytes = std::size_t{32} << 20;  // half of the longest answer
constexpr char kUserEdit[] = "user.edit";
constexpr char kDatabases[] = "db";

/// What this panel says about a user itself; other parameters of his element are kept.
const std::set<std::string> kOwnParams = {"name",   "uid",     "root",        "plan",
                                          "folder", "exclude", "oscloudlinux"};

void Param(vel_xml::XmlNode node, const char* name, const std::string& value) {
    node.AppendChild("param", value).SetProp("name", name);
}

/// The texts of the element's parameters of this name.
std::vector<std::string> Params(const vel_xml::XmlNode& elem, const std::string& name) {
    std::vector<std::string> texts;
    for (auto node = elem.FirstChild(); node; node = node.Next())
        if (node.Name() == "param" && node.GetProp("name") == name) texts.push_back(node.Str());
    return texts;
}

std::string ParamOf(const vel_xml::XmlNode& elem, const std::string& name) {
    const auto texts = Params(elem, name);
    return texts.empty() ? "" : texts.front();
}

template <class Each>
void EachChild(const vel_xml::XmlNode& node, Each each) {
    for (auto child = node.FirstChild(); child; child = child.Next()) each(child);
}

bool IsElem(const vel_xml::XmlNode& node, const char* name) {
    return node.Name() == "elem" && node.GetProp("name") == name;
}

// ---- Making it ----------------------------------------------------------------------------------

void AppendSettings(const User& user, vel_xml::XmlNode edit) {
    Param(edit, "name", user.name);
    Param(edit, "uid", std::to_string(user.uid));
    Param(edit, "root", user.root);
    Param(edit, "plan", user.plan);
    for (const std::string& folder : user.folders) Param(edit, "folder", folder);
    for (const std::string& pattern : user.excludes) Param(edit, "exclude", pattern);
    if (vel_env::GetOsType() == kCloudLinux) Param(edit, "oscloudlinux", "yes");
}

/// The two editions write a database's type, and whose it is, in different ways.
void AppendDatabase(const Database& database, const std::string& type, bool larger,
                    vel_xml::XmlNode databases) {
    const std::string server = type == "mysql" ? "MySQL" : "PostgreSQL";
    const std::string elid = database.name + "->" + (larger ? type + "->" + database.user : server);
    auto elem = databases.AppendChild("elem").SetProp("elid", elid);
    Param(elem, "name", database.name);
    larger ? Param(elem, "type", type) : Param(elem, "server", server);
    Param(elem, "dbserver", database.server);
    Param(elem, "owner", database.owner);
}

void AppendKept(const std::string& text, vel_xml::XmlNode doc, vel_xml::XmlNode edit) {
    if (text.empty()) return;
    const vel_xml::Xml kept = vel_xml::Xml::FromString(text);
    EachChild(kept.GetRoot(), [&](const vel_xml::XmlNode& node) {
        if (!IsElem(node, kUserEdit)) {
            doc.AppendChild(node);
        } else {
            EachChild(node, [&edit](const vel_xml::XmlNode& param) { edit.AppendChild(param); });
        }
    });
}

// ---- Taking it over -----------------------------------------------------------------------------

/// One document on its way into the store.
class Restore {
public:
    Restore(Store& store, const User& user, const vel_xml::Xml& data, vel_xml::XmlNode answer)
        : store_(store),
          user_(user),
          foreign_(data.GetNode("/doc/external")),
          doc_(data.GetRoot()),
          answer_(answer) {}

    void Run() {
        const std::string kept = Kept();
        if (kept.size() > kMostKeptBytes)
            throw vel_err::Error("value", "the document of a user is over 32 MiB");
        EachChild(doc_, [this](const vel_xml::XmlNode& node) {
            if (IsElem(node, kUserEdit) && !foreign_) TakeSettings(node);
            if (IsElem(node, kDatabases)) TakeDatabases(node);
        });
        store_.ChangeUser(user_, kept);
    }

private:
    void Warn(const std::string& text) { answer_.AppendChild("warning", text); }

    /// The texts that pass the check; the others are told.
    std::vector<std::string> Good(const std::vector<std::string>& texts,
                                  const std::function<void(const std::string&)>& check) {
        std::vector<std::string> good;
        for (const std::string& text : texts) {
            try {
                check(text);
                good.push_back(text);
            } catch (const vel_tool::UsageError& error) {
                Warn(std::string(error.what()) + " (" + text + ")");
            }
        }
        return good;
    }

    void TakeSettings(const vel_xml::XmlNode& edit) {
        const auto folders = Good(Params(edit, "folder"), CheckFolder);
        if (!folders.empty()) user_.folders = folders;
        user_.excludes = Good(Params(edit, "exclude"),
                              [](const std::string& text) { CheckText("exclude", text); });
        const std::string plan = ParamOf(edit, "plan");
        if (plan.empty() || store_.FindPlan(plan)) {
            user_.plan = plan;
        } else {
            Warn("there is no plan " + plan +
                 " here: " + (user_.plan.empty() ? "none" : user_.plan) + " stays");
        }
    }

    void TakeDatabases(const vel_xml::XmlNode& group) {
        const auto own = store_.Databases(user_.name);
        EachChild(group, [&](const vel_xml::XmlNode& elem) {
            const Database database{
                user_.name, ParamOf(elem, "dbserver"), ParamOf(elem, "name"), OwnerOf(elem), "",
                true};
            const bool known =
                std::any_of(own.begin(), own.end(), [&database](const Database& other) {
                    return !other.wanted && other.server == database.server &&
                           other.name == database.name;
                });
            if (elem.Name() == "elem" && !known) TakeDatabase(database);
        });
    }

    /// Other panels write "name->type".
    std::string OwnerOf(const vel_xml::XmlNode& database) {
        std::string text = ParamOf(database, "owner");
        const std::string owner = str::GetWord(text, "->");
        if (owner.empty()) return "";
        const auto check = [](const std::string& name) { CheckName("owner", name); };
        return Good({owner}, check).empty() ? "" : owner;
    }

    void TakeDatabase(const Database& database) {
        const std::string title = "database " + database.server + "." + database.name + ": ";
        try {
            CheckDatabaseName(database.name);
            store_.WantDatabase(database);
        } catch (const vel_tool::UsageError& error) {
            Warn(title + error.what());
        } catch (const vel_err::Error& error) {
            if (error.type() == "store") throw;
            Warn(title + (error.type() == "exists" ? "another user has it"
                                                   : "there is no server of this name"));
        }
    }

    /// All that this panel does not know of itself, as a document; "" when there is nothing.
    std::string Kept() {
        vel_xml::Xml xml;
        bool any = false;
        EachChild(doc_, [&](const vel_xml::XmlNode& node) {
            if (node.Name() != "elem" || IsElem(node, kDatabases)) return;
            if (!IsElem(node, kUserEdit)) {
                xml.GetRoot().AppendChild(node);
                any = true;
                return;
            }
            auto edit = xml.GetRoot().AppendChild("elem").SetProp("name", kUserEdit);
            EachChild(node, [&](const vel_xml::XmlNode& param) {
                if (kOwnParams.count(param.GetProp("name")) != 0) return;
                edit.AppendChild(param);
                any = true;
            });
        });
        return any ? xml.Str() : "";
    }

    Store& store_;
    User user_;
    bool foreign_;
    vel_xml::XmlNode doc_, answer_;
};

}  // namespace

void AppendUserData(Store& store, const User& user, vel_xml::XmlNode doc) {
    const std::string dist = store.Dist();
    doc.AppendChild("info").SetProp("dist", dist);
    auto edit = doc.AppendChild("elem").SetProp("name", kUserEdit).SetProp("elid", user.name);
    AppendSettings(user, edit);
    auto databases = doc.AppendChild("elem").SetProp("name", kDatabases);
    for (const Database& database : store.Databases(user.name))
        AppendDatabase(database, store.GetServer(database.server).type, dist >= kLargerEdition,
                       databases);
    AppendKept(store.KeptData(user.name), doc, edit);
}

void RestoreUserData(Store& store, const User& user, const vel_xml::Xml& data,
                     vel_xml::XmlNode answer) {
    Restore(store, user, data, answer).Run();
}

void AppendAccounts(Store& store, const Database& database, const std::string& type,
                    vel_xml::XmlNode doc) {
    const std::string text = store.KeptData(database.user);
    if (text.empty()) return;
    const vel_xml::Xml kept = vel_xml::Xml::FromString(text);
    for (const vel_xml::XmlNode& elem : kept.GetNodes("/doc/elem[@name='db.user']/elem")) {
        vel_xml::XmlNode account;
        EachChild(elem, [&](const vel_xml::XmlNode& grant) {
            if (grant.Name() != "grant" || grant.GetProp("database") != database.name) return;
            if (ParamOf(elem, "type") != type) return;
            if (!account) account = doc.AppendChild("account");
            account.AppendChild(grant);
        });
        if (!account) continue;
        EachChild(elem, [&account](const vel_xml::XmlNode& param) {
            if (param.Name() == "param") account.AppendChild(param);
        });
    }
}

}  // namespace panel
