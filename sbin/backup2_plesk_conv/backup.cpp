#include "sbin/backup2_plesk_conv/backup.h"

#include <algorithm>
#include <map>
#include <stdexcept>

#include "vel/str.h"
#include "vel/vel_err.h"
#include "vel/vel_file.h"
#include "vel/vel_tool.h"

#include "sbin/foreign_panel/archive_reader.h"

namespace plesk {

using namespace foreign_panel;
using vel_xml::XmlNode;

namespace {

constexpr std::size_t kMostInfo = 128 << 20, kMostInfos = 256 << 20, kMostFiles = 300'000;
constexpr std::size_t kMostNamed = 100;  // accounts in a message

struct Info {
    std::string name, folder;
    vel_xml::Xml xml;
};

std::string FolderOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "" : path.substr(0, slash);
}

bool IsInfo(const std::string& path) {
    const std::string name = vel_file::Name(path);
    return str::EndsWith(name, ".xml") && path.find(".discovered/") == std::string::npos &&
           (name.find("info") != std::string::npos || name == "dump.xml");
}

std::size_t Depth(const std::string& path) {
    return static_cast<std::size_t>(std::count(path.begin(), path.end(), '/'));
}

/// Reads all info files; the others' names are kept.
class Scan {
public:
    explicit Scan(Job& job) : job_(job) {}

    std::vector<Info> Run(std::set<std::string>& files) {
        ArchiveReader reader(job_.options.archive, job_.budget);
        for (Entry entry; reader.Next(entry);) {
            if (entry.type == 'd') continue;
            const std::string path = SafePath(entry.name);
            if (path.empty()) {
                job_.unpacker.Refuse(entry.name);
            } else if (entry.type != 'f') {
                job_.Lost("archive", path, "a link or device in the backup's own tree");
            } else if (IsInfo(path)) {
                Read(path, reader);
            } else if (!files.insert(path).second || files.size() > kMostFiles) {
                if (files.size() > kMostFiles)
                    throw std::runtime_error("no backup of Plesk: too many files in its own tree");
            }
        }
        std::stable_sort(infos_.begin(), infos_.end(), [](const Info& a, const Info& b) {
            return Depth(a.name) < Depth(b.name);
        });
        return std::move(infos_);
    }

private:
    void Read(const std::string& path, ArchiveReader& reader) {
        try {
            const std::string text = reader.Text(kMostInfo);
            bytes_ += text.size();
            if (bytes_ > kMostInfos)
                throw std::runtime_error("the backup describes more than can be read");
            infos_.push_back({path, FolderOf(path), vel_xml::Xml::FromString(text)});
        } catch (const vel_err::Error& e) {
            throw std::runtime_error(path + ": no XML that can be read: " + e.value());
        } catch (const EntryError& e) {
            throw std::runtime_error(path + ": " + e.what());
        }
    }

    Job& job_;
    std::vector<Info> infos_;
    std::size_t bytes_ = 0;
};

// ---- Who owns what ------------------------------------------------------------------------------

struct FoundDomain {
    Subscription subscription;
    std::string owner;
    std::size_t weight = 0;
    std::size_t order = 0;
};

std::size_t Weight(const XmlNode& node) {
    std::size_t count = 0;
    for (XmlNode child = node.FirstChild(); child; child = child.Next()) ++count;
    return count;
}

/// Several info files may describe the same domain: once in full, elsewhere by its name only.
class Owners {
public:
    void Read(const Info& info) { Walk(info.xml.GetRoot(), "", info.folder); }

    std::vector<Account> Accounts() const {
        std::vector<const FoundDomain*> ordered;
        for (const auto& [name, found] : domains_)
            if (found.weight > 0) ordered.push_back(&found);
        std::sort(ordered.begin(), ordered.end(),
                  [](const auto* a, const auto* b) { return a->order < b->order; });
        std::vector<Account> accounts;
        std::map<std::string, std::size_t> places;  // of clients
        for (const FoundDomain* found : ordered) Place(*found, accounts, places);
        return accounts;
    }

private:
    void Walk(const XmlNode& node, const std::string& owner, const std::string& folder) {
        for (XmlNode child = node.FirstChild(); child; child = child.Next()) {
            const std::string kind = child.Name(), name = child.GetProp("name");
            if (kind == "client" || kind == "client-info" || kind == "reseller" ||
                kind == "reseller-info") {
                Client(child, name);
                Walk(child, name, folder);
            } else if ((kind == "domain" || kind == "domain-info") && !name.empty()) {
                Domain(child, name, owner, folder);
            } else if (kind == "admin" || kind == "domains" || kind == "clients" ||
                       kind == "resellers" || kind == "Data" || kind == "migration-dump") {
                Walk(child, owner, folder);
            }
        }
    }
    void Client(const XmlNode& node, const std::string& name) {
        XmlNode& known = clients_[name];
        if (!known || Weight(node) > Weight(known)) known = node;
    }
    void Domain(const XmlNode& node, const std::string& name, const std::string& owner,
                const std::string& folder) {
        FoundDomain& found = domains_[name];
        if (found.order == 0) found.order = domains_.size();
        if (found.owner.empty()) found.owner = owner;
        const std::size_t weight = Weight(node);
        if (weight <= found.weight) return;
        found.weight = weight;
        found.subscription = {name, node, folder};
    }
    void Place(const FoundDomain& found, std::vector<Account>& accounts,
               std::map<std::string, std::size_t>& places) const {
        const auto client = clients_.find(found.owner);
        const XmlNode user = Child(found.subscription.node, "phosting/preferences/sysuser");
        std::string name = found.owner;
        if (name.empty()) name = user ? user.GetProp("name") : found.subscription.name;
        if (client != clients_.end() && !found.owner.empty()) {
            const auto [place, fresh] = places.emplace(name, accounts.size());
            if (!fresh) return accounts[place->second].subscriptions.push_back(found.subscription);
        }
        accounts.push_back({name,
                            name,
                            client == clients_.end() ? XmlNode() : client->second,
                            {found.subscription}});
    }

    std::map<std::string, FoundDomain> domains_;
    std::map<std::string, XmlNode> clients_;
};

}  // namespace

Backup ReadBackup(Job& job) {
    Backup backup;
    const std::vector<Info> infos = Scan(job).Run(backup.files);
    if (infos.empty())
        throw std::runtime_error(job.options.archive + ": no backup of Plesk: no info file in XML");
    backup.base = infos.front().folder;
    Owners owners;
    for (const Info& info : infos) owners.Read(info);
    backup.accounts = owners.Accounts();
    if (backup.accounts.empty())
        throw std::runtime_error(infos.front().name + ": describes no domain");
    XmlNode root = infos.front().xml.GetRoot();
    if (root.Name() != "migration-dump") root = Child(root, "migration-dump");
    job.document.External("version", Line(root.GetProp("dump-version")));
    return backup;
}

Account ChooseAccount(const Job& job, const Backup& backup) {
    const std::string& wanted = job.options.account;
    std::string list;
    std::size_t count = 0;
    for (const Account& account : backup.accounts) {
        bool asked = account.there == wanted;
        for (const Subscription& one : account.subscriptions) asked = asked || one.name == wanted;
        if (asked || (wanted.empty() && backup.accounts.size() == 1)) {
            Account chosen = account;
            chosen.here = job.User(chosen.there);
            if (!IsName(chosen.here))
                throw std::runtime_error("'" + chosen.here +
                                         "' cannot be the name of an account: give --user");
            return chosen;
        }
        if (++count <= kMostNamed) str::Append(list, account.there, ", ");
    }
    if (count > kMostNamed)
        list += " and " + str::Str(static_cast<uint64_t>(count - kMostNamed)) + " more";
    throw vel_tool::UsageError("--account: the archive holds " + list);
}

std::string Value(const XmlNode& node, const std::string& name) {
    const std::string value = node.GetProp(name);
    if (!value.empty()) return value;
    const std::vector<XmlNode> children = Children(node, name);
    return children.empty() ? "" : str::Trim(children.front().Str());
}

XmlNode Child(XmlNode node, const std::string& path) {
    std::string rest = path;
    while (node && !rest.empty()) {
        const std::string name = str::GetWord(rest, '/');
        node = node.FirstChild();
        while (node && node.Name() != name) node = node.Next();
    }
    return node;
}

std::vector<XmlNode> Children(const XmlNode& node, const std::string& name) {
    std::vector<XmlNode> found;
    for (XmlNode child = node.FirstChild(); child; child = child.Next())
        if (child.Name() == name) found.push_back(child);
    return found;
}

std::string DomainOf(const XmlNode& node) {
    const std::string name = foreign_panel::Domain(node.GetProp("ascii-name"));
    return name.empty() ? foreign_panel::Domain(node.GetProp("name")) : name;
}

Password PasswordOf(const XmlNode& node) {
    XmlNode element = Child(node, "password");
    if (!element) element = Child(node, "properties/password");
    std::string text = str::Trim(element.Str());
    if (element.GetProp("encoding") == "base64") text = str::base64::Decode(text);
    const std::string type = str::Lower(element.GetProp("type"));
    Password password;
    if (text.empty()) {
        password.problem = "no password is kept";
    } else if (type == "sym" || str::StartsWith(text, "$AES-")) {
        password.problem = "its password is encrypted with the other panel's key";
    } else if (type != "plain" && !type.empty()) {
        return FromShadow(text);
    } else if (!Line(text).empty()) {
        password = {text, "plain", false, ""};
    } else {
        password.problem = "its password has bytes that cannot be kept";
    }
    return password;
}

bool IsSuspended(const XmlNode& node) {
    for (const char* path : {"properties/status", "status"})
        if (const XmlNode status = Child(node, path); status && Child(status, "disabled-by"))
            return true;
    return false;
}

}  // namespace plesk
