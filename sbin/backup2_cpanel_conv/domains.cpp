#include <stdexcept>

#include "vel/str.h"

#include "sbin/backup2_cpanel_conv/collected.h"
#include "sbin/foreign_panel/values.h"
#include "sbin/foreign_panel/yaml.h"

namespace cpanel {
namespace {

using namespace foreign_panel;

/// All domains by kind, from the YAML of newer archives or the lists of older ones.
struct Lists {
    std::string main;
    std::map<std::string, std::string> addons;  ///< domain -> the subdomain that serves it
    std::vector<std::string> parked;
    std::map<std::string, std::string> subdomains;  ///< domain -> document root, "" when not known
};

Lists FromYaml(const std::string& text) {
    Yaml::Pointer root;
    try {
        root = Yaml::Parse(text);
    } catch (const std::runtime_error& e) {
        throw std::runtime_error(std::string("userdata/main: ") + e.what());
    }
    Lists lists;
    lists.main = root->Get("main_domain");
    for (const auto& [domain, sub] : root->At("addon_domains").Map())
        lists.addons[domain] = sub->Text();
    for (const auto& domain : root->At("parked_domains").List())
        lists.parked.push_back(domain->Text());
    for (const auto& domain : root->At("sub_domains").List()) lists.subdomains[domain->Text()] = "";
    return lists;
}

/// "sub_main.com" means sub.main.com: only the last "_" before the domain separates.
std::string Subdomain(const std::string& text) {
    const std::size_t at = text.rfind('_');
    return at == std::string::npos ? text : text.substr(0, at) + "." + text.substr(at + 1);
}

Lists FromOldFiles(const Collected& from, const std::string& main) {
    Lists lists;
    lists.main = main;
    for (std::string line : Lines(from.Text("addons"))) {
        const std::string domain = str::GetWord(line, '=');
        lists.addons[domain] = Subdomain(str::Trim(line));
    }
    for (const std::string& line : Lines(from.Text("pds"))) lists.parked.push_back(str::Trim(line));
    for (const std::string& line : Lines(from.Text("sds")))
        lists.subdomains[Subdomain(str::Trim(line))];
    for (std::string line : Lines(from.Text("sds2"))) {
        const std::string domain = Subdomain(str::GetWord(line, '='));
        lists.subdomains[domain] = str::Trim(line);
    }
    return lists;
}

class Domains {
public:
    Domains(Job& job, const Collected& from, Account& account)
        : job_(job), from_(from), account_(account) {
        const std::string& yaml = from.Text("userdata/main");
        lists_ = yaml.empty() ? FromOldFiles(from, account.main_domain) : FromYaml(yaml);
        if (Domain(lists_.main).empty()) lists_.main = account.main_domain;
    }

    void Convert() {
        account_.main_domain = Domain(lists_.main);
        if (!lists_.main.empty()) Add(lists_.main, "main", "", lists_.main, "public_html");
        for (const auto& [domain, sub] : lists_.addons) {
            const auto root = lists_.subdomains.find(sub);
            Add(domain, "addon", "", sub, root == lists_.subdomains.end() ? "" : root->second);
        }
        for (const auto& [domain, root] : lists_.subdomains)
            Add(domain, "sub", Parent(domain), domain, root);
        for (const std::string& domain : lists_.parked)
            Add(domain, "alias", account_.main_domain, "", "");
    }

private:
    /// The longest domain of the account that this one is below.
    std::string Parent(const std::string& domain) const {
        std::string parent = account_.main_domain, rest = domain;
        while (!rest.empty()) {
            str::GetWord(rest, '.');
            if (account_.domains.count(Domain(rest)) > 0) return Domain(rest);
        }
        return parent;
    }

    /// What the panel's web server was told of the domain; an empty one when that is not known.
    Yaml::Pointer WebServer(const std::string& domain) {
        const std::string& text = from_.Text("userdata/" + domain);
        try {
            return Yaml::Parse(text);
        } catch (const std::runtime_error& e) {
            job_.Lost("domain", domain, "userdata/" + domain + ": " + e.what());
            return Yaml::Parse("");
        }
    }

    /// The document root's place, "" when it is not below the home directory.
    std::string Place(const std::string& domain, const std::string& root) {
        const bool absolute = !root.empty() && root[0] == '/';
        const std::string inner = DocumentPath(root);
        const std::string place = absolute        ? job_.unpacker.PlaceOf(root)
                                  : inner.empty() ? ""
                                                  : "data/" + inner;
        if (!place.empty() && !DocumentPath(place).empty()) return place;
        job_.Lost("domain", domain,
                  root.empty() ? "its document root is not known"
                               : "its document root is outside the account: " + Line(root));
        return "";
    }

    void Add(const std::string& name, const std::string& kind, const std::string& parent,
             const std::string& served_by, const std::string& old_root) {
        const std::string domain = Domain(name);
        if (domain.empty()) return job_.Lost("domain", name, "no name of a domain");
        if (!account_.domains.insert(domain).second) return;
        const Yaml::Pointer web = WebServer(served_by.empty() ? domain : served_by);
        PanelObject object = job_.document.Add("webdomain", domain);
        object.Param("name", domain).Param("kind", kind).Param("parent", parent);
        if (kind != "alias") {
            const std::string& root = web->Get("documentroot");
            object.Param("docroot", Place(domain, root.empty() ? old_root : root));
            const std::string& secure =
                WebServer((served_by.empty() ? domain : served_by) + "_SSL")->Get("documentroot");
            if (!secure.empty() && !root.empty() && secure != root)
                job_.Lost("domain", domain, "another document root with TLS: " + Line(secure));
            object.Param("php", Line(web->Get("phpversion"))).Param("ip", Line(web->Get("ip")));
        }
        object.Param("certificate", account_.certificates.count(domain) > 0 ? domain : "");
        job_.Carried("domain", domain);
    }

    Job& job_;
    const Collected& from_;
    Account& account_;
    Lists lists_;
};

}  // namespace

void ConvertDomains(Job& job, const Collected& from, Account& account) {
    Domains(job, from, account).Convert();
}

}  // namespace cpanel
