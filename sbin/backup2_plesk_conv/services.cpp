// Mail, databases and DNS zones.
#include <algorithm>
#include <cctype>
#include <map>

#include "vel/str.h"

#include "sbin/backup2_plesk_conv/objects.h"
#include "sbin/foreign_panel/zone_file.h"

namespace plesk {

using namespace foreign_panel;
using vel_xml::XmlNode;

namespace {

// ---- Mail ---------------------------------------------------------------------------------------

/// Some backups give bytes, others KiB. Nobody gives a mailbox less than 64 KiB or more than 64
/// GiB: what is small must be KiB.
std::string Quota(const std::string& text) {
    constexpr uint64_t kSmallestInBytes = 64 << 20;
    const auto number = Number(text);
    if (!number || *number == 0) return "";
    return str::Str(*number < kSmallestInBytes ? *number << 10 : *number);
}

class Mail {
public:
    Mail(Job& job, const Subscription& of, std::string domain, Contents& contents)
        : job_(job), of_(of), domain_(std::move(domain)), contents_(contents) {}

    void Convert(const XmlNode& system) {
        PanelObject object = job_.document.Add("emaildomain", domain_);
        CatchAll(object, Value(Child(system, "preferences"), "catch-all"));
        for (const XmlNode& user : Children(Child(system, "mailusers"), "mailuser")) User(user);
        contents_.DomainMail(system, of_, domain_);
        job_.Carried("mail domain", domain_);
    }

private:
    std::string Whole(const std::string& name) const {
        return Address(name.find('@') == std::string::npos ? str::Trim(name) + "@" + domain_
                                                           : name);
    }
    void CatchAll(PanelObject& object, const std::string& text) {
        if (text.empty()) return;
        const std::string address = Whole(text);
        if (text == "reject" || str::StartsWith(text, "bounce"))
            object.Param("catchall", "reject");
        else if (text == "discard")
            object.Param("catchall", "discard");
        else if (!address.empty())
            object.Param("catchall", address);
        else
            job_.Lost("mail domain", domain_, "what happens to other addresses: " + Line(text));
    }
    void User(const XmlNode& node) {
        const std::string name = str::Lower(node.GetProp("name")), address = Whole(name);
        if (address.empty() || name.find_first_of("@/") != std::string::npos || name[0] == '.')
            return job_.Lost("mailbox", name + "@" + domain_, "no address");
        const XmlNode preferences = Child(node, "preferences"), box = Child(preferences, "mailbox");
        const bool has_box = box && box.GetProp("enabled") != "false";
        PanelObject object = job_.document.Add(has_box ? "email" : "emailforward", address);
        if (has_box) Box(object, node, box, name, address);
        Others(object, preferences, address, has_box);
        Replies(preferences, address);
        for (const char* filter : {"spamassassin", "virusfilter"})
            if (Child(preferences, filter))
                job_.NotNeeded("mail filter", std::string(filter) + " of " + address);
    }
    void Box(PanelObject& object, const XmlNode& node, const XmlNode& box, const std::string& name,
             const std::string& address) {
        object.Param("name", name).Param("domain", domain_);
        job_.Secret(object, PasswordOf(node), "mailbox", address);
        object.Param("quota", Quota(Value(node, "mailbox-quota")));
        object.Flag("suspended", IsSuspended(node));
        contents_.Mailbox(box, of_, address, object);
        job_.Carried("mailbox", address);
    }
    /// Aliases and forwards.
    void Others(PanelObject& object, const XmlNode& preferences, const std::string& address,
                bool has_box) {
        for (const XmlNode& alias : Children(preferences, "alias")) {
            const std::string other = Whole(str::Trim(alias.Str()));
            if (other.empty())
                job_.Lost("mail alias", Line(alias.Str()), "no address");
            else if (has_box)
                object.Param("alias", other);
            else
                job_.document.Add("emailforward", other).Param("to", address);
        }
        for (const char* kind : {"redirect", "mailgroup-member"}) {
            for (const XmlNode& redirect : Children(preferences, kind)) {
                if (redirect.GetProp("enabled") == "false" || str::Trim(redirect.Str()).empty())
                    continue;
                const std::string to = Whole(str::Trim(redirect.Str()));
                if (to.empty())
                    job_.Lost("mail alias", address,
                              "leads to no address: " + Line(redirect.Str()));
                else
                    object.Param(has_box ? "forward" : "to", to);
            }
        }
        if (!has_box) job_.Carried("mail alias", address);
    }
    void Replies(const XmlNode& preferences, const std::string& address) {
        const XmlNode all = Child(preferences, "autoresponders");
        if (!all || all.GetProp("enabled") == "false") return;
        for (const XmlNode& one : Children(all, "autoresponder")) {
            if (one.GetProp("status") == "off") continue;
            PanelObject object = job_.document.Add("emailreply", address);
            object.Param("subject", Line(Value(one, "subject")))
                .Param("text", Child(one, "text").Str());
            job_.Carried("autoresponder", address);
        }
    }

    Job& job_;
    const Subscription& of_;
    std::string domain_;
    Contents& contents_;
};

// ---- Databases ----------------------------------------------------------------------------------

class Databases {
public:
    Databases(Job& job, const Account& account, const Subscription& of, Contents& contents)
        : job_(job), account_(account), of_(of), contents_(contents) {}

    void Convert(const XmlNode& node) {
        const std::vector<XmlNode> shared = Children(Child(node, "dbusers"), "dbuser");
        for (const XmlNode& database : Children(node, "database")) Database(database, shared);
        for (const auto& [id, user] : users_) User(user);
    }

private:
    struct Found {
        XmlNode node;
        std::string name, type;
        std::vector<std::string> databases;
    };

    void Database(const XmlNode& node, const std::vector<XmlNode>& shared) {
        const std::string name = node.GetProp("name"), type = str::Lower(node.GetProp("type"));
        if (!IsName(name)) return job_.Lost("database", name, "its name cannot be used here");
        if (type != "mysql" && type != "postgresql")
            return job_.Lost("database", name, "of a kind that is not known here: " + Line(type));
        if (!contents_.IsFirst(type, name))
            return job_.Lost("database", name, "is there several times: the first one counts");
        std::string owner;
        for (const std::vector<XmlNode>& group : {Children(node, "dbuser"), shared}) {
            for (const XmlNode& user : group) {
                const std::string of = Value(user, "database");
                if (!of.empty() && of != name) continue;
                const std::string id = Note(user, type, name);
                if (owner.empty()) owner = id;
            }
        }
        PanelObject object = job_.document.Add("db", name + "->" + type + "->" + account_.here);
        object.Param("name", name).Param("type", type).Param("owner", owner);
        object.Param("charset", IsName(Value(node, "charset")) ? Value(node, "charset") : "");
        contents_.Dump(node, of_, type, name, object);
    }
    /// The user's elid, "" when his name cannot be used.
    std::string Note(const XmlNode& node, const std::string& type, const std::string& database) {
        const std::string name = node.GetProp("name");
        if (!IsName(name)) {
            job_.Lost("database user", name, "its name cannot be used here");
            return "";
        }
        Found& found = users_[name + "->" + type];
        if (!found.node) found = {node, name, type, {}};
        found.databases.push_back(database);
        return name + "->" + type;
    }
    void User(const Found& user) {
        PanelObject object = job_.document.Add("db.user", user.name + "->" + user.type);
        object.Param("name", user.name).Param("type", user.type);
        job_.Secret(object, Password(user), "database user", user.name + " (" + user.type + ")");
        for (const XmlNode& host : Children(user.node, "accesshost"))
            object.Param("host", Line(host.Str()));
        for (const std::string& database : user.databases)
            object.Grant(database, "", "ALL PRIVILEGES");
        job_.Carried("database user", user.name);
    }
    /// Plain, or as a server of this type keeps it.
    static foreign_panel::Password Password(const Found& user) {
        const foreign_panel::Password password = PasswordOf(user.node);
        if (password.form == "plain" || password.text.empty()) {
            const std::string text = str::Trim(Child(user.node, "password").Str());
            const foreign_panel::Password native = FromDatabase(text, user.type);
            return native.form.empty() ? password : native;
        }
        return FromDatabase(password.text, user.type);
    }

    Job& job_;
    const Account& account_;
    const Subscription& of_;
    Contents& contents_;
    std::map<std::string, Found> users_;
};

// ---- DNS ----------------------------------------------------------------------------------------

bool LeadsToName(const std::string& type) {
    return type == "NS" || type == "CNAME" || type == "MX" || type == "SRV" || type == "DNAME";
}

/// A TXT record's text in pieces of at most 255 bytes, quoted.
std::string QuotedText(const std::string& text) {
    if (text.size() >= 2 && text[0] == '"' && text.back() == '"') return text;
    std::string out;
    for (std::size_t at = 0; at < text.size(); at += 255) {
        std::string piece = str::Replace(text.substr(at, 255), "\\", "\\\\");
        str::Append(out, "\"" + str::Replace(piece, "\"", "\\\"") + "\"", " ");
    }
    return out;
}

}  // namespace

void ConvertMail(Job& job, const XmlNode& node, const Subscription& of, const std::string& domain,
                 Contents& contents) {
    if (const XmlNode system = Child(node, "mailsystem"))
        Mail(job, of, domain, contents).Convert(system);
}

void ConvertDatabases(Job& job, const XmlNode& node, const Account& account, const Subscription& of,
                      Contents& contents) {
    if (const XmlNode databases = Child(node, "databases"))
        Databases(job, account, of, contents).Convert(databases);
}

void ConvertZone(Job& job, const XmlNode& node, const std::string& domain) {
    const XmlNode zone = Child(node, "properties/dns-zone");
    if (!zone) return;
    PanelObject object = job.document.Add("dns", domain);
    for (const XmlNode& record : Children(zone, "dnsrec")) {
        std::string type = record.GetProp("type"), data = Line(record.GetProp("dst"));
        std::transform(type.begin(), type.end(), type.begin(),
                       [](unsigned char c) { return std::toupper(c); });
        const std::string name = str::Lower(AbsoluteName(record.GetProp("src"), domain + "."));
        const bool word = !type.empty() && type.size() <= 10 && IsName(type);
        if (!word || type == "PTR" || data.empty() || Domain(name).empty()) {
            job.Lost("dns", domain,
                     "no record that can be kept: " + Line(record.GetProp("src") + " " + type));
            continue;
        }
        if (LeadsToName(type)) data = AbsoluteName(data, domain + ".");
        if (type == "TXT" || type == "SPF") data = QuotedText(data);
        const std::string option = Line(record.GetProp("opt"));
        object.Record(name, type, Number(record.GetProp("ttl")) ? record.GetProp("ttl") : "",
                      option.empty() ? data : option + " " + data);
    }
    job.Carried("dns", domain);
}

}  // namespace plesk
