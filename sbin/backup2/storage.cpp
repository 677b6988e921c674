/// backup2 storage: where the backups go.
#include <iostream>
#include <stdexcept>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "vel/str.h"
#include "vel/vel_env.h"
#include "vel/vel_ssh.h"
#include "vel/vel_tool.h"

#include "sbin/backup2/commands.h"
#include "sbin/backup2/job.h"
#include "sbin/backup2/output.h"
#include "sbin/backup2/secret.h"
#include "sbin/backup2/storage_kinds.h"

namespace backup2_admin {
namespace {

const char kExamples[] = R"(
Examples:
  backup2 storage add --type sftp --host backup.example --path /srv/backup --key-file /root/key
  backup2 storage add bob --type s3 --endpoint https://s3.example --bucket bob --encrypt < keys
  backup2 storage check        write, list, read back and delete a probe on the storage
  backup2 storage check bob    the same on bob's own storage
  backup2 storage list         all storages, without any secret)";

const char kAddHelp[] = R"(
The storage is tried, and kept only when it works. USER: his own storage; without: the
administrator's. Secrets come from standard input, one a line in this order; at a terminal they are
asked for and not shown:
  ftp                            password
  s3, amazon                     access key, secret key
  googledrive, yandex, dropbox   access token, refresh token, client id, client secret; lines may
                                 be empty
  with --encrypt                 then the archive password: without it nothing can be restored.
                                 Keep a copy away from this server.

Options of each type (those in brackets may be left out):
  local         --path
  node          --host --key-file --path [--port]; restore and tidy only, nothing is stored there
  sftp          --host --key-file --path [--port --user]
  ftp           --host --user [--port --path --mode]; ftps:// or ftpes:// before the host: TLS
  s3, amazon    --bucket [--endpoint --region --path-style --part-size --path]
  googledrive, yandex, dropbox   [--path --api])";

std::string Whose(const std::string& user) {
    return user.empty() ? "the storage" : "the storage of " + user;
}

/// Lines of a tool's report about host keys, which an administrator compares with the server's own.
void ShowHostKeys(const std::string& report) {
    std::vector<std::string> lines;
    str::Split(report, "\n", lines);
    for (const std::string& line : lines) {
        if (str::StartsWith(line, "host key ")) std::cout << line << "\n";
    }
}

// ---- Try ----------------------------------------------------------------------------------------

/// What is there now is accepted although it was something else before.
struct Accept {
    bool host_key = false, disk = false;
};

int Check(const std::string& user, const Accept& accept) {
    if (user.empty()) {
        UseStorage(AskSite().token);
    } else {
        CheckApart(user, AskOwnSite(CheckUser(user)).token);
        vel_env::UnsetEnv("BACKUP_TOKEN");
        vel_env::SetEnv("BACKUP_STORAGE", user);
    }
    std::vector<std::string> argv = {"backup2_cp", "--check"};
    if (accept.host_key) argv.emplace_back("--accept-host-key");
    if (accept.disk) argv.emplace_back("--accept-disk");
    const Done done = RunTool(std::move(argv));
    done.ThrowIfFailed(Whose(user));
    std::cout << Whose(user) << " can be written, listed and read\n";
    ShowHostKeys(done.output);
    return vel_tool::kDone;
}

// ---- Set up -------------------------------------------------------------------------------------

struct NewStorage {
    Site site;  ///< owner and limits; the token is made of the rest
    std::string type;
    Words options;
    bool encrypt = false, no_check = false, replace = false;
};

bool HasStorage(const std::string& owner) {
    return owner.empty() ? static_cast<bool>(AskSite().token) : !AskOwnStorages(owner).empty();
}

void Keep(const Site& site, bool replace) {
    const std::string limits = "&slice_size=" + str::url::Encode(site.slice_size) +
                               "&size_limit=" + str::url::Encode(site.size_limit) +
                               "&count_limit=" + str::url::Encode(site.count_limit);
    Panel().Query("func=backup2.storage.set&user=?&token=?&new=?" + limits, site.owner,
                  site.token.Str(), replace ? "" : "yes");
}

/// Before the administrator types his secrets: what would be refused afterwards.
void CheckOwner(const NewStorage& added) {
    if (!added.site.owner.empty()) AskJob(CheckUser(added.site.owner));  // throws for a stranger
    if (!added.replace && HasStorage(added.site.owner))
        throw std::runtime_error(Whose(added.site.owner) +
                                 " is set up already; --replace puts another one in its place");
}

int Add(NewStorage& added) {
    CheckOwner(added);
    Site& site = added.site;
    site.token = MakeToken(added.type, added.options, AskSecret);
    if (added.encrypt) {
        const std::string password = AskNewSecret("archive password");
        if (password.empty()) throw vel_tool::UsageError("an empty archive password");
        site.token.SetParam("arch_password", str::base64::Encode(password));
    }
    if (!site.owner.empty()) CheckApart(site.owner, site.token);
    UseStorage(site.token);
    const Done done =
        RunTool({"backup2_cp", "--check", added.no_check ? "--dry-run" : "--accept-disk"});
    done.ThrowIfFailed(Whose(site.owner) + " was not set up");
    Keep(site, added.replace);
    std::cout << Whose(site.owner) << " is set up: " << Printable(Describe(site.token))
              << (site.token.IsEncrypted() ? ", encrypted" : ", not encrypted")
              << (added.no_check ? ", not tried" : "") << "\n";
    ShowHostKeys(done.output);
    return vel_tool::kDone;
}

int Remove(const std::string& user) {
    if (!user.empty()) CheckUser(user);
    if (!HasStorage(user)) throw std::runtime_error(Whose(user) + " is not set up");
    Panel().Query("func=backup2.storage.remove&user=?", user);
    std::cout << Whose(user) << " is forgotten; what it holds stays there\n";
    return vel_tool::kDone;
}

// ---- Show ---------------------------------------------------------------------------------------

using Values = std::vector<std::pair<std::string, std::string>>;

Values Limits(const Site& site) {
    return {{"slice size", site.slice_size},
            {"size limit", site.size_limit},
            {"count limit", site.count_limit}};
}

int Show(const std::string& user, bool json) {
    const Site site = user.empty() ? AskSite() : AskOwnSite(CheckUser(user));
    if (!site.token) throw std::runtime_error("no storage is set up in the panel");
    Values values = PublicValues(site.token);
    values.emplace_back("local tree", site.local_dir);
    for (auto& limit : Limits(site)) {
        if (!limit.second.empty()) values.push_back(std::move(limit));
    }
    const std::string host = site.token.GetParam("url") + site.token.GetParam("ip");
    if (!host.empty() && site.token.Type() != "ftp") {
        for (const auto& key : vel_ssh::Fingerprints(host, site.token.GetParam("port")))
            values.emplace_back("host key", key);
    }
    if (json) {
        nlohmann::ordered_json object;
        for (const auto& [name, value] : values) object[str::Replace(name, " ", "_")] = value;
        PrintJson(object);
        return vel_tool::kDone;
    }
    Table table("ll");
    for (const auto& [name, value] : values) table.Add({name, value});
    std::cout << table.Str();
    return vel_tool::kDone;
}

int List(bool json) {
    std::vector<Site> sites = AskSites(true, "");
    if (Site own = AskSite(); own.token) sites.insert(sites.begin(), std::move(own));
    Table table("lllrrr");
    table.Add({"OWNER", "STORAGE", "ENCRYPTED", "SLICE", "SIZE LIMIT", "COUNT LIMIT"});
    auto rows = nlohmann::ordered_json::array();
    for (const Site& site : sites) {
        const std::string encrypted = site.token.IsEncrypted() ? "yes" : "no";
        table.Add({site.owner.empty() ? "administrator" : site.owner, Describe(site.token),
                   encrypted, site.slice_size, site.size_limit, site.count_limit});
        rows.push_back({{"owner", site.owner},
                        {"type", site.token.Type()},
                        {"storage", Describe(site.token)},
                        {"encrypted", site.token.IsEncrypted()},
                        {"slice_size", site.slice_size},
                        {"size_limit", site.size_limit},
                        {"count_limit", site.count_limit}});
    }
    if (json) {
        PrintJson(rows);
    } else if (sites.empty()) {
        std::cout << "no storage is set up\n";
    } else {
        std::cout << table.Str();
    }
    return vel_tool::kDone;
}

// ---- The command line ---------------------------------------------------------------------------

void DeclareKindOptions(CLI::App& add, NewStorage& added) {
    const auto option = [&](const std::string& names, const std::string& help) {
        const std::string key = names.substr(2, names.find(',') - 2);
        return add.add_option(names, added.options[key], help);
    };
    option("--path", "Folder on the storage, below which everything lies");
    option("--host,--url", "Name or address of the server");
    option("--port", "Its port");
    option("--user", "Login there");
    option("--key-file", "Private ssh key without a passphrase");
    option("--mode", "Of FTP data connections")->check(CLI::IsMember({"active", "passive"}));
    option("--endpoint", "Address of the S3 service; left out: Amazon");
    option("--region", "Its region");
    option("--bucket", "The bucket; it must exist");
    option("--path-style", "Is the bucket in the path of requests, not in the host's name")
        ->check(CLI::IsMember({"yes", "no"}));
    option("--part-size", "MiB of the parts of an upload");
    option("--api", "Another address for the provider's hosts");
}

void DeclareAdd(CLI::App& storage, Action& chosen) {
    auto* add = storage.add_subcommand("add", "Set up a storage; secrets from standard input");
    const auto added = std::make_shared<NewStorage>();
    add->add_option("owner", added->site.owner, "Whose own storage it is")->type_name("USER");
    std::vector<std::string> types;
    for (const auto& [type, kind] : StorageKinds()) types.push_back(type);
    add->add_option("--type", added->type, "Kind of storage")
        ->required()
        ->check(CLI::IsMember(types));
    DeclareKindOptions(*add, *added);
    add->add_flag("--encrypt", added->encrypt, "Encrypt archives; their password comes last");
    add->add_option("--slice-size", added->site.slice_size, "Size of archives' pieces, as 100M");
    add->add_option("--size-limit", added->site.size_limit, "Room for one user's backups");
    add->add_option("--count-limit", added->site.count_limit, "How many backups of one user");
    add->add_flag("--no-check", added->no_check, "Keep it without trying it");
    add->add_flag("--replace", added->replace, "In place of the storage that is set up");
    add->footer(kAddHelp);
    add->callback([added, &chosen] { chosen = [added] { return Add(*added); }; });
}

/// A command about one storage, which is named by its owner.
template <class Do>
CLI::App* DeclareForOwner(CLI::App& storage, Action& chosen, const std::string& name,
                          const std::string& help, Do action) {
    auto* command = storage.add_subcommand(name, help);
    const auto user = std::make_shared<std::string>();
    command->add_option("user", *user, "The user's own storage in place of the administrator's");
    command->callback([=, &chosen] { chosen = [=] { return action(*user); }; });
    return command;
}

}  // namespace

void AddStorage(CLI::App& app, Action& chosen) {
    auto* command = app.add_subcommand("storage", "Set up, check or show where the backups go");
    command->require_subcommand(1);
    command->footer(kExamples);
    DeclareAdd(*command, chosen);
    const auto accept = std::make_shared<Accept>();
    const auto json = std::make_shared<bool>(false);
    auto* check =
        DeclareForOwner(*command, chosen, "check", "Try the storage with a probe",
                        [accept](const std::string& user) { return Check(user, *accept); });
    check->add_flag("--accept-host-key", accept->host_key,
                    "The server's key may be another one than before");
    check->add_flag("--accept-disk", accept->disk,
                    "A local storage may lie on another disk than before");
    DeclareForOwner(*command, chosen, "show", "Show the storage, without any secret",
                    [json](const std::string& user) { return Show(user, *json); })
        ->add_flag("--json", *json, "Report as JSON");
    DeclareForOwner(*command, chosen, "remove", "Forget the storage; what it holds stays", Remove);
    auto* list = command->add_subcommand("list", "Show all storages, without any secret");
    list->add_flag("--json", *json, "Report as JSON");
    list->callback([json, &chosen] { chosen = [json] { return List(*json); }; });
}

}  // namespace backup2_admin
