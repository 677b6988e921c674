#include <algorithm>

#include "vel/str.h"

#include "sbin/backup2_cpanel_conv/collected.h"
#include "sbin/foreign_panel/values.h"

namespace cpanel {
namespace {

using namespace foreign_panel;

/// "name:rest" lines of a file, by name.
std::map<std::string, std::string> Fields(const std::string& text) {
    std::map<std::string, std::string> fields;
    for (std::string line : Lines(text)) {
        const std::string name = str::GetWord(line, ':');
        fields[name] = line;
    }
    return fields;
}

/// Destinations of an alias: cut at commas outside of quotes, without the quotes.
std::vector<std::string> Destinations(const std::string& text) {
    std::vector<std::string> out(1);
    bool quoted = false;
    for (const char c : text) {
        if (c == '"')
            quoted = !quoted;
        else if (c == ',' && !quoted)
            out.emplace_back();
        else
            out.back() += c;
    }
    for (std::string& one : out) one = str::Trim(one);
    std::erase(out, "");
    return out;
}

/// What an alias does, sorted.
struct Alias {
    std::vector<std::string> to;
    std::string action, message;
    std::vector<std::string> programs;
    bool replies = false;
};

class Mail {
public:
    Mail(Job& job, const Collected& from, const Account& account)
        : job_(job), from_(from), account_(account) {}

    void Convert() {
        for (const std::string& domain : from_.Names("va")) ReadAliases(domain);
        for (const std::string& domain : DomainsWithMail()) {
            Mailboxes(domain);
            CatchAll(domain);
        }
        OwnMailbox();
        for (const auto& [address, alias] : aliases_) Forward(address, alias);
        Replies();
    }

private:
    std::set<std::string> DomainsWithMail() const {
        std::set<std::string> domains;
        for (const std::string& name : from_.Names("homedir/etc")) {
            std::string rest = name;
            domains.insert(str::GetWord(rest, '/'));
        }
        for (const auto& [folder, kind] : from_.mail) {
            std::string rest = folder;
            domains.insert(str::GetWord(rest, '/'));
        }
        for (const std::string& name : from_.Names("vad")) domains.insert(name);
        for (const auto& [address, alias] : aliases_)
            if (address[0] == '*') domains.insert(address.substr(2));
        std::erase_if(domains, [](const std::string& d) { return d.empty() || Domain(d) != d; });
        return domains;
    }

    // ---- Aliases ----

    void ReadAliases(const std::string& file) {
        const std::string domain = Domain(file);
        if (domain.empty()) return job_.Lost("mail alias", file, "no name of a domain");
        for (std::string line : Lines(from_.Text("va/" + file))) {
            std::string name = str::Trim(str::GetWord(line, ':'));
            if (name.empty() || name[0] == '#') continue;
            if (name == "*") name = "*@" + domain;
            if (name.find('@') == std::string::npos) name += "@" + domain;
            aliases_[name] = Read(line);
        }
    }
    Alias Read(const std::string& text) {
        Alias alias;
        for (const std::string& one : Destinations(text)) {
            if (str::StartsWith(one, ":fail:") || str::StartsWith(one, ":blackhole:") ||
                one == "/dev/null") {
                alias.action = one[1] == 'f' ? "reject" : "discard";
                alias.message = one[1] == 'f' ? Line(one.substr(6)) : "";
            } else if (one.find("/autorespond ") != std::string::npos && one[0] == '|') {
                alias.replies = true;
            } else if (one == account_.there) {
                alias.to.push_back(OwnAddress());
                own_is_used_ = true;
            } else if (const std::string address = Address(one); !address.empty()) {
                alias.to.push_back(address);
            } else {
                alias.programs.push_back(one);
            }
        }
        return alias;
    }
    void ReportPrograms(const std::string& address, const Alias& alias) {
        for (const std::string& program : alias.programs)
            job_.Lost("mail alias", address, "leads to a program or file: " + Line(program));
    }
    void Forward(const std::string& name, const Alias& alias) {
        if (name[0] == '*' || mailboxes_.count(name) > 0) return;
        const std::string address = Address(name);
        ReportPrograms(name, alias);
        if (address.empty()) return job_.Lost("mail alias", name, "no address");
        if (alias.to.empty() && alias.action.empty()) return;
        PanelObject object = job_.document.Add("emailforward", address);
        for (const std::string& to : alias.to) object.Param("to", to);
        if (alias.to.empty()) object.Param("action", alias.action).Param("message", alias.message);
        job_.Carried("mail alias", address);
    }
    void CatchAll(const std::string& domain) {
        const auto found = aliases_.find("*@" + domain);
        PanelObject object = job_.document.Add("emaildomain", domain);
        if (found != aliases_.end()) {
            ReportPrograms(found->first, found->second);
            const Alias& alias = found->second;
            object.Param("catchall", alias.to.empty() ? alias.action : alias.to[0]);
            if (alias.to.size() > 1)
                job_.Lost("mail alias", found->first, "only its first destination is kept");
        }
        job_.Carried("mail domain", domain);
        for (std::string line : Lines(from_.Text("vad/" + domain))) {
            const std::string other = Domain(line.substr(line.rfind(':') + 1));
            if (!other.empty()) object.Param("forward", other);
        }
    }

    // ---- Mailboxes ----

    void Mailboxes(const std::string& domain) {
        const std::string base = "homedir/etc/" + domain + "/";
        const auto accounts = Fields(from_.Text(base + "passwd"));
        auto shadow = Fields(from_.Text(base + "shadow"));
        auto quotas = Fields(from_.Text(base + "quota"));
        std::set<std::string> names;
        for (const auto& [name, fields] : accounts) names.insert(name);
        for (auto it = from_.mail.lower_bound(domain + "/");
             it != from_.mail.end() && str::StartsWith(it->first, domain + "/"); ++it) {
            const std::string name = it->first.substr(domain.size() + 1);
            const bool kept = it->second.maildir || it->second.mdbox;
            if (kept && accounts.count(name) == 0) {
                job_.Changed("mailbox", name + "@" + domain,
                             "has no log-in in the archive: needs a password");
                names.insert(name);
            }
        }
        for (const std::string& name : names)
            Mailbox(name, domain, str::GetWord(shadow[name], ':'), str::Trim(quotas[name]));
    }
    void Mailbox(const std::string& name, const std::string& domain, const std::string& hash,
                 const std::string& quota) {
        const std::string address = Address(name + "@" + domain);
        if (address.empty()) return job_.Lost("mailbox", name + "@" + domain, "no address");
        PanelObject object = Add(name, domain, address, FromShadow(hash));
        if (const auto bytes = Number(quota); bytes && *bytes > 0)
            object.Param("quota", str::Str(*bytes));
        Folder(object, domain + "/" + name, DocumentPath("data/mail/" + domain + "/" + name));
    }
    PanelObject Add(const std::string& name, const std::string& domain, const std::string& address,
                    const Password& password) {
        mailboxes_.insert(address);
        PanelObject object = job_.document.Add("email", address);
        object.Param("name", name).Param("domain", domain);
        job_.Secret(object, password, "mailbox", address);
        object.Flag("suspended", password.locked && !password.text.empty());
        if (const auto found = aliases_.find(address); found != aliases_.end()) {
            for (const std::string& to : found->second.to)
                if (to != address) object.Param("forward", to);
            ReportPrograms(address, found->second);
        }
        job_.Carried("mailbox", address);
        return object;
    }
    void Folder(PanelObject& object, const std::string& folder, const std::string& path) {
        const auto found = from_.mail.find(folder);
        if (found == from_.mail.end() || path.empty()) return;
        object.Param("path", path).Param("format", found->second.mdbox ? "mdbox" : "maildir");
        object.Param("compressed", found->second.compression);
    }
    std::string OwnAddress() const { return account_.there + "@" + account_.main_domain; }
    /// The account's log-in has a mailbox too: where the other ones' folders are.
    void OwnMailbox() {
        const std::string address = Address(OwnAddress());
        const bool used = from_.mail.count("") > 0 || own_is_used_;
        if (!used || address.empty() || mailboxes_.count(address) > 0) return;
        PanelObject object = Add(account_.there, account_.main_domain, address, account_.password);
        Folder(object, "", "data/mail");
    }

    // ---- Autoresponders: a header and a text in one file each ----

    void Replies() {
        for (const std::string& file : from_.Names("homedir/.autorespond")) {
            const std::string address = Address(file);
            if (address.empty()) continue;  // ADDRESS.conf: times, of no use without their program
            std::string text = str::Replace(from_.Text("homedir/.autorespond/" + file), "\r", "");
            const std::string head = str::GetWord(text, "\n\n");
            PanelObject object = job_.document.Add("emailreply", address);
            for (std::string line : Lines(head)) {
                const std::string key = str::Lower(str::GetWord(line, ':'));
                if (key == "from" || key == "subject") object.Param(key, Line(line));
            }
            object.Param("text", text);
            job_.Carried("autoresponder", address);
        }
    }

    Job& job_;
    const Collected& from_;
    const Account& account_;
    std::map<std::string, Alias> aliases_;
    std::set<std::string> mailboxes_;
    bool own_is_used_ = false;  // an alias leads to the account itself
};

}  // namespace

void ConvertMail(Job& job, const Collected& from, const Account& account) {
    Mail(job, from, account).Convert();
}

}  // namespace cpanel
