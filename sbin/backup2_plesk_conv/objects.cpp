#include "sbin/backup2_plesk_conv/objects.h"

#include <map>
#include <set>
#include <utility>

#include "vel/str.h"

#include "sbin/foreign_panel/certificate.h"
#include "sbin/foreign_panel/crontab.h"

namespace plesk {
namespace {

using namespace foreign_panel;
using vel_xml::XmlNode;

void Limits(PanelObject& user, const XmlNode& node) {
    static const std::map<std::string, std::string> kLimits = {
        {"max_db", "databases"},     {"max_box", "mailboxes"},     {"max_site", "domains"},
        {"max_dom", "domains"},      {"max_subdom", "subdomains"}, {"max_dom_aliases", "aliases"},
        {"max_subftp_users", "ftp"}, {"max_maillists", "lists"},   {"max_traffic", "traffic"}};
    for (const char* path : {"limits-and-permissions", "limits"}) {
        for (const char* element : {"host-limit", "limit"}) {
            for (const XmlNode& limit : Children(Child(node, path), element)) {
                const std::string name = limit.GetProp("name");
                const auto number = Number(limit.Str());
                const auto word = kLimits.find(name);
                if (number && word != kLimits.end())
                    user.Param("limit", word->second + "=" + str::Str(*number));
                else if (number && name == "disk_space" && *number > 0)
                    user.Param("quota", str::Str(*number));
            }
        }
    }
}

/// What is read, or need not be, by the element in which it stands.
const std::map<std::string, std::set<std::string>>& KnownWithin() {
    static const std::set<std::string> kDomain = {"properties",   "limits-and-permissions",
                                                  "limits",       "permissions",
                                                  "preferences",  "mailsystem",
                                                  "databases",    "phosting",
                                                  "shosting",     "fhosting",
                                                  "certificates", "traffic",
                                                  "content",      "domainuser",
                                                  "ip",           "status"};
    static const std::map<std::string, std::set<std::string>> kKnown = {
        {"domain", kDomain},
        {"site", kDomain},
        {"sites", {"site"}},
        {"subdomains", {"subdomain"}},
        {"domain/preferences", {"domain-alias"}},
        {"site/preferences", {"domain-alias"}},
        {"phosting",
         {"properties", "limits-and-permissions", "preferences", "content", "sites", "subdomains",
          "ftpusers", "webusers", "www-root", "certificate", "status"}},
        {"phosting/preferences",
         {"sysuser", "pdir", "ftpusers", "webusers", "logrotation", "webalizer"}},
        {"sysuser", {"password", "properties", "cron", "scheduled-tasks", "home", "quota"}},
        {"mailsystem", {"properties", "preferences", "mailusers", "content"}},
        {"mailsystem/preferences", {"catch-all"}},
        {"mailusers", {"mailuser"}},
        {"mailuser", {"properties", "preferences", "mailbox-quota", "password", "status"}},
        {"mailuser/preferences",
         {"alias", "redirect", "mailgroup-member", "mailbox", "autoresponders", "spamassassin",
          "virusfilter"}},
        {"databases", {"database", "dbusers"}},
        {"database", {"content", "dbuser", "charset"}},
        {"dbusers", {"dbuser"}}};
    return kKnown;
}

void UnknownOfClient(Job& job, const XmlNode& client) {
    static const std::set<std::string> kKnown = {
        "properties", "preferences", "limits-and-permissions",
        "limits",     "permissions", "domains",
        "status",     "password",    "ip_pool",
        "clients",    "traffic"};
    for (XmlNode child = client.FirstChild(); child; child = child.Next())
        if (!child.Name().empty() && kKnown.count(child.Name()) == 0)
            job.Lost("element", child.Name(), "of the account: is not known here");
}

/// One subscription: its web space and all sites in it.
class Space {
public:
    Space(Job& job, const Account& account, const Subscription& of, Contents& contents)
        : job_(job),
          account_(account),
          of_(of),
          contents_(contents),
          domain_(DomainOf(of.node)),
          place_("data/vhosts/" + domain_) {}

    void Convert() {
        if (domain_.empty()) return job_.Lost("domain", of_.name, "no name of a domain");
        const std::string there = "/var/www/vhosts/" + domain_;
        job_.unpacker.Map(there, place_);
        job_.unpacker.Map("/var/www/vhosts/" + of_.name, place_);
        job_.document.Add("path", there).Param("to", place_);
        const bool first = &account_.subscriptions.front().name == &of_.name;
        Site(of_.node, domain_, first ? "main" : "addon", "");
        const XmlNode hosting = Child(of_.node, "phosting");
        for (const XmlNode& site : Children(Child(hosting, "sites"), "site")) SubSite(site);
        for (const XmlNode& one : Children(Child(hosting, "subdomains"), "subdomain"))
            Subdomain(one);
        Log(Child(hosting, "preferences/sysuser"), place_);
        for (const char* group : {"ftpusers", "webusers"})
            for (const XmlNode& user : AllOf(hosting, group)) FtpUser(user);
        Certificates(of_.node);
        Unknown(of_.node, "domain");
    }

private:
    // ---- Sites ----

    void Site(const XmlNode& node, const std::string& name, const std::string& kind,
              const std::string& parent) {
        const XmlNode hosting = Child(node, "phosting");
        PanelObject object = AddDomain(name, kind, parent);
        object.Flag("suspended", IsSuspended(node));
        const std::string address = Line(Value(Child(node, "properties/ip"), "ip-address"));
        object.Param("ip", address).Param("certificate", CertificateOf(hosting));
        for (const char* forward : {"shosting", "fhosting"})
            if (const XmlNode element = Child(node, forward))
                object.Param("redirect", Line(element.Str()));
        const std::string root =
            hosting ? Root(name, Value(hosting, "www-root"), kind == "sub" ? "" : "httpdocs") : "";
        object.Param("docroot", root);
        if (hosting) contents_.Files(hosting, of_, place_, root);
        for (const XmlNode& alias : Children(Child(node, "preferences"), "domain-alias"))
            Alias(alias, name);
        Protected(hosting, root);
        ConvertMail(job_, node, of_, name, contents_);
        ConvertDatabases(job_, node, account_, of_, contents_);
        ConvertZone(job_, node, name);
    }
    void SubSite(const XmlNode& node) {
        const std::string name = DomainOf(node);
        if (name.empty()) return job_.Lost("domain", node.GetProp("name"), "no name of a domain");
        const bool below = str::EndsWith(name, "." + domain_);
        Site(node, name, below ? "sub" : "addon", below ? domain_ : "");
        Certificates(node);
    }
    /// The older form: only its first part is named, and it has a folder of its own.
    void Subdomain(const XmlNode& node) {
        std::string name = str::Lower(node.GetProp("name"));
        const std::string part = name;
        if (!str::EndsWith(name, "." + domain_)) name += "." + domain_;
        if (Domain(name).empty()) return job_.Lost("domain", name, "no name of a domain");
        PanelObject object = AddDomain(name, "sub", domain_);
        const std::string root =
            Root(name, Value(node, "www-root"), "subdomains/" + part + "/httpdocs");
        object.Param("docroot", root);
        contents_.Files(node, of_, place_ + "/subdomains/" + part, root);
        if (const XmlNode user = Child(node, "sysuser")) Log(user, root);
    }
    PanelObject AddDomain(const std::string& name, const std::string& kind,
                          const std::string& parent) {
        job_.Carried("domain", name);
        PanelObject object = job_.document.Add("webdomain", name);
        return object.Param("name", name).Param("kind", kind).Param("parent", parent);
    }
    /// Where a site's documents are: a folder of the web space.
    std::string Root(const std::string& domain, const std::string& said, const std::string& usual) {
        const std::string mapped = job_.unpacker.PlaceOf(said);
        const std::string inner = DocumentPath(said.empty() ? usual : said);
        const std::string place = !mapped.empty() ? mapped
                                  : inner.empty() ? ""
                                                  : place_ + "/" + inner;
        if (place.empty())
            job_.Lost("domain", domain,
                      "its document root is not known or outside the account: " + Line(said));
        return place;
    }
    void Alias(const XmlNode& node, const std::string& of) {
        const std::string name = DomainOf(node);
        if (name.empty()) return job_.Lost("domain", node.GetProp("name"), "no name of a domain");
        AddDomain(name, "alias", of);
        if (node.GetProp("mail") == "true")
            job_.document.Add("emaildomain", name).Param("forward", of);
        if (Child(node, "properties/dns-zone"))
            ConvertZone(job_, node, name);
        else if (node.GetProp("dns") == "true")
            job_.Lost("dns", name, "its zone followed that of " + of);
    }
    static std::string CertificateOf(const XmlNode& hosting) {
        const std::string name = Line(Value(hosting, "certificate"));
        return IsName(name) ? name : "";
    }
    void Certificates(const XmlNode& node) {
        for (const XmlNode& one : Children(Child(node, "certificates"), "certificate")) {
            const std::string name = Line(one.GetProp("name"));
            std::string pem;
            for (const char* part : {"private-key", "certificate-data", "ca-certificate"}) {
                const std::string text = Child(one, part).Str();
                pem +=
                    (text.find("%0A") == std::string::npos ? text : str::url::Decode(text)) + "\n";
            }
            AddCertificate(job_, name.empty() ? domain_ : name, {DomainOf(node)}, pem);
        }
    }
    void Protected(const XmlNode& hosting, const std::string& root) {
        for (const XmlNode& folder : Children(Child(hosting, "preferences"), "pdir")) {
            const std::string name = folder.GetProp("name"),
                              inner = DocumentPath(str::Replace("./" + name, "//", "/"));
            if (root.empty() || (inner.empty() && !name.empty() && name != "/")) {
                job_.Lost("protected folder", name, "is outside the document root");
                continue;
            }
            const std::string place = inner.empty() ? root : root + "/" + inner;
            PanelObject object = job_.document.Add("protected", place);
            object.Param("title", Line(Value(folder, "title")));
            for (const XmlNode& user : Children(folder, "pduser")) {
                const std::string login = user.GetProp("name");
                const Password password = PasswordOf(user);
                if (IsName(login) && password.form == "crypt")
                    object.Param("user", login + ":" + password.text);
                else
                    job_.Lost("protected folder", place,
                              "the log-in " + Line(login) + " needs a new password");
            }
            job_.Carried("protected folder", place);
        }
    }

    // ---- Log-ins ----

    static std::vector<XmlNode> AllOf(const XmlNode& hosting, const std::string& group) {
        const std::string one = group.substr(0, group.size() - 1);
        std::vector<XmlNode> all = Children(Child(hosting, group), one);
        for (const XmlNode& node : Children(Child(hosting, "preferences/" + group), one))
            all.push_back(node);
        return all;
    }
    /// The system's user of the web space, who is an FTP log-in too.
    void Log(const XmlNode& user, const std::string& home) {
        if (!user) return;
        PanelObject owner = job_.document.Account(account_.here);
        owner.Flag("shell", str::EndsWith(user.GetProp("shell"), "/bash"));
        AddFtp(user.GetProp("name"), user, home);
        const XmlNode cron = Child(user, "cron");
        AddCrontab(job_, cron.GetProp("encoding") == "base64" ? str::base64::Decode(cron.Str())
                                                              : cron.Str());
        if (Child(user, "scheduled-tasks"))
            job_.Lost("cron", user.GetProp("name"), "scheduled tasks of the panel");
    }
    void FtpUser(const XmlNode& node) {
        const XmlNode user = Child(node, "sysuser");
        std::string name = node.GetProp("name");
        if (name.empty()) name = user.GetProp("name");
        std::string home = Value(user ? user : node, "home");
        if (home.empty()) home = Value(node, "home");
        const std::string inner = DocumentPath(home), mapped = job_.unpacker.PlaceOf(home);
        if (!mapped.empty()) return AddFtp(name, user ? user : node, mapped);
        if (!home.empty() && inner.empty())
            return job_.Lost("ftp", name, "its folder is outside the account: " + Line(home));
        AddFtp(name, user ? user : node, inner.empty() ? place_ : place_ + "/" + inner);
    }
    void AddFtp(const std::string& name, const XmlNode& user, const std::string& home) {
        if (!IsName(name)) return job_.Lost("ftp", name, "its name cannot be used here");
        PanelObject object = job_.document.Add("ftp", name);
        object.Param("name", name).Param("home", home);
        job_.Secret(object, PasswordOf(user), "ftp", name);
        if (const auto quota = Number(Value(user, "quota")); quota && *quota > 0)
            object.Param("quota", str::Str(*quota));
        job_.Carried("ftp", name);
    }

    // ---- What nobody asked for ----

    /// Only where all that can stand is known: what lies in an unknown element went with it.
    void Unknown(const XmlNode& node, const std::string& place) {
        const auto known = KnownWithin().find(place);
        if (known == KnownWithin().end()) return;
        for (XmlNode child = node.FirstChild(); child; child = child.Next()) {
            const std::string name = child.Name();
            if (name.empty()) continue;  // text
            if (known->second.count(name) == 0)
                job_.Lost("element", name,
                          "of " + domain_ + ": " +
                              (name == "maillists" ? "mailing lists" : "is not known here"));
            else
                Unknown(child, name == "preferences" ? place + "/" + name : name);
        }
    }

    Job& job_;
    const Account& account_;
    const Subscription& of_;
    Contents& contents_;
    std::string domain_, place_;
};

}  // namespace

void ConvertAccount(Job& job, const Account& account) {
    job.report.Set("account", account.there);
    job.document.External("account", Line(account.there));
    job.document.External("layout", "plesk");
    PanelObject user = job.document.Account(account.here);
    if (account.client) {
        const Password password = PasswordOf(account.client);
        job.Secret(user, password, "account", account.there);
        user.Param("fullname", Line(account.client.GetProp("contact")));
        user.Flag("suspended", IsSuspended(account.client));
        for (const XmlNode& info : Children(Child(account.client, "preferences"), "pinfo"))
            if (info.GetProp("name") == "email") user.Param("email", Address(info.Str()));
        Limits(user, account.client);
        user.Param("created", Line(account.client.GetProp("cr-date")));
        UnknownOfClient(job, account.client);
    }
    user.Param("domain", DomainOf(account.subscriptions.front().node));
    job.Carried("account", account.there);
    if (account.here != account.there)
        job.Changed("account", account.there, "is " + account.here + " here");
}

void ConvertSubscription(Job& job, const Account& account, const Subscription& subscription,
                         Contents& contents) {
    Space(job, account, subscription, contents).Convert();
}

}  // namespace plesk
