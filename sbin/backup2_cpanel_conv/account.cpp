#include <array>
#include <ctime>
#include <stdexcept>

#include "vel/str.h"
#include "vel/vel_file.h"
#include "vel/vel_tool.h"

#include "sbin/backup2_cpanel_conv/collected.h"
#include "sbin/foreign_panel/values.h"

namespace cpanel {
namespace {

using namespace foreign_panel;

std::map<std::string, std::string> KeyValues(const std::string& text) {
    std::map<std::string, std::string> values;
    str::Split(str::Replace(text, "\r", ""), "\n", values);
    return values;
}

/// The account's own file, cp/NAME. Several: the one that was asked for.
std::string FindName(const Job& job, const Collected& from) {
    std::vector<std::string> names = from.Names("cp");
    const std::string& wanted = job.options.account;
    if (names.empty()) names = {vel_file::Name(FirstLine(from.Text("homedir_paths")))};
    std::string list;
    for (const std::string& name : names) {
        if (!wanted.empty() && name == wanted) return name;
        str::Append(list, name, ", ");
    }
    if (!wanted.empty() || names.size() > 1)
        throw vel_tool::UsageError("--account: the archive holds " + list);
    if (!IsName(names[0])) throw std::runtime_error("the archive does not say whose it is");
    return names[0];
}

std::string FindHome(const Collected& from, const std::string& name) {
    for (const char* file : {"homedir_paths", "meta/homedir_paths"})
        for (const std::string& line : Lines(from.Text(file)))
            if (str::Trim(line)[0] == '/') return vel_file::GoodPath(str::Trim(line));
    return "/home/" + name;
}

/// From seconds since 1970.
std::string Day(const std::string& seconds) {
    const auto number = Number(seconds);
    std::tm parts{};
    const auto time = static_cast<std::time_t>(number.value_or(0));
    std::array<char, 16> text{};
    if (!number || *number > 253402300799 || !::gmtime_r(&time, &parts)) return "";
    return std::strftime(text.data(), text.size(), "%Y-%m-%d", &parts) > 0 ? text.data() : "";
}

void Limits(PanelObject& user, const std::map<std::string, std::string>& values) {
    static const std::vector<std::pair<std::string, std::string>> kLimits = {
        {"MAXSQL", "databases"},  {"MAXPOP", "mailboxes"}, {"MAXADDON", "domains"},
        {"MAXSUB", "subdomains"}, {"MAXPARK", "aliases"},  {"MAXFTP", "ftp"},
        {"MAXLST", "lists"},      {"BWLIMIT", "traffic"}};
    for (const auto& [key, word] : kLimits) {
        const auto found = values.find(key);
        const auto number = found == values.end() ? std::nullopt : Number(found->second);
        if (number) user.Param("limit", word + "=" + str::Str(*number));
    }
}

}  // namespace

Account ConvertAccount(Job& job, const Collected& from) {
    Account account;
    account.there = FindName(job, from);
    account.here = job.User(account.there);
    account.home = FindHome(from, account.there);
    auto values = KeyValues(from.Text("cp/" + account.there));
    account.main_domain = Domain(values["DNS"]);
    job.unpacker.Map(account.home, "data");
    job.report.Set("account", account.there);
    job.document.External("account", account.there);
    job.document.External("home", Line(account.home));
    job.document.External("layout", from.layout);
    job.document.External("version", Line(FirstLine(from.Text("version"))));
    PanelObject user = job.document.Account(account.here);
    const Password& password = account.password = FromShadow(FirstLine(from.Text("shadow")));
    job.Secret(user, password, "account", account.there);
    const std::string contact = FirstLine(from.Text("homedir/.contactemail"));
    const std::string email =
        Address(values["CONTACTEMAIL"].empty() ? contact : values["CONTACTEMAIL"]);
    user.Param("email", email).Param("domain", account.main_domain);
    user.Param("plan", Line(values["PLAN"]))
        .Param("owner", IsName(values["OWNER"]) ? values["OWNER"] : "");
    user.Param("created", Day(values["STARTDATE"]));
    if (const auto quota = Number(from.Text("quota")); quota && *quota > 0)
        user.Param("quota", str::Str(*quota));
    user.Flag("suspended", values["SUSPENDED"] == "1" || password.locked);
    const std::string shell = str::Trim(from.Text("shell"));
    user.Flag("shell", values["HASSHELL"] == "1" || str::EndsWith(shell, "/bash"));
    Limits(user, values);
    job.document.Add("path", Line(account.home)).Param("to", "data");
    for (const auto& [key, value] : values)
        if (str::StartsWith(key, "MXCHECK-") && (value == "remote" || value == "secondary"))
            job.Lost("mail domain", Line(key.substr(8)), "its mail went to another server");
    job.Carried("account", account.there);
    if (account.here != account.there)
        job.Changed("account", account.there,
                    "is " + account.here + " here; names of databases stay");
    return account;
}

}  // namespace cpanel
