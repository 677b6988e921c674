#include "panel/cli.h"

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <map>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "vel/str.h"
#include "vel/vel_err.h"
#include "vel/vel_file.h"
#include "vel/vel_tool.h"
#include "vel/vel_user.h"

#include "panel/checks.h"
#include "panel/jobs.h"
#include "panel/password.h"
#include "panel/server.h"
#include "panel/storages.h"
#include "panel/store.h"
#include "panel/user_data.h"

namespace panel {
namespace {

constexpr char kDefaultFolder[] = "data";
constexpr std::size_t kLongestSecret = 64 * 1024;

/// Everything of standard input, less one line end: what `echo` and a here-document add.
std::string ReadSecret(const std::string& what) {
    std::string secret(std::istreambuf_iterator<char>(std::cin), {});
    if (!secret.empty() && secret.back() == '\n') secret.pop_back();
    if (secret.size() > kLongestSecret) throw vel_tool::UsageError(what + ": too long");
    CheckText(what, secret);
    return secret;
}

/// A report: aligned columns for people, an array of objects for programs.
class Report {
public:
    explicit Report(std::vector<std::string> columns) : columns_(std::move(columns)) {}
    void Row(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }
    void Print(bool json) const { json ? PrintJson() : PrintTable(); }

private:
    void PrintJson() const {
        auto rows = nlohmann::json::array();
        for (const auto& cells : rows_) {
            auto row = nlohmann::json::object();
            for (std::size_t i = 0; i < columns_.size(); ++i) row[columns_[i]] = cells[i];
            rows.push_back(row);
        }
        std::cout << rows.dump(2) << "\n";
    }
    void PrintTable() const {
        std::vector<std::size_t> widths;
        for (std::size_t i = 0; i < columns_.size(); ++i) {
            widths.push_back(columns_[i].size());
            for (const auto& cells : rows_) widths[i] = std::max(widths[i], cells[i].size());
        }
        PrintLine(columns_, widths);
        for (const auto& cells : rows_) PrintLine(cells, widths);
    }
    static void PrintLine(const std::vector<std::string>& cells,
                          const std::vector<std::size_t>& widths) {
        std::string line;
        for (std::size_t i = 0; i < cells.size(); ++i)
            line += cells[i] + std::string(widths[i] - cells[i].size() + 2, ' ');
        std::cout << line.substr(0, line.find_last_not_of(' ') + 1) << "\n";
    }
    std::vector<std::string> columns_;
    std::vector<std::vector<std::string>> rows_;
};

std::string JoinWords(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) str::Append(text, word, " ");
    return text;
}

/// All values that options and arguments fill; each command uses its own few.
struct Values {
    User user;
    Storage storage;
    DatabaseServer server;
    Database database;
    Plan plan;
    ServeOptions serve;
    std::string name;
    int64_t uid = -1;
    bool json = false;
};

// ---- Users --------------------------------------------------------------------------------------

void AddUser(Values& v) {
    User& user = v.user;
    CheckName("user", user.name);
    if (!user.root.empty()) CheckAbsolutePath("root", user.root);
    if (user.root.empty() && !user.admin) throw vel_tool::UsageError("--root is missing");
    if (v.uid < 0 && !vel_user::Exists(user.name))
        throw vel_tool::UsageError("there is no system user " + user.name + ": give --uid");
    user.uid = v.uid < 0 ? vel_user::Uid(user.name) : v.uid;
    if (user.folders.empty() && !user.root.empty()) user.folders = {kDefaultFolder};
    for (const std::string& folder : user.folders) CheckFolder(folder);
    for (const std::string& pattern : user.excludes) CheckText("exclude", pattern);
    user.password_hash = HashPassword(ReadSecret("password"));
    Store().AddUser(user);
}

void ListUsers(Values& v) {
    Report report({"user", "uid", "root", "folders", "plan", "level"});
    for (const User& user : Store().Users())
        report.Row({user.name, std::to_string(user.uid), user.root, JoinWords(user.folders),
                    user.plan, user.admin ? "admin" : "user"});
    report.Print(v.json);
}

void UserCommands(CLI::App& app, Values& v) {
    auto* user = app.add_subcommand("user", "Users and what is saved of them");
    user->require_subcommand(1);
    auto* add = user->add_subcommand("add", "Adds a user; his password comes on standard input");
    add->add_option("name", v.user.name)->required();
    add->add_option("--root", v.user.root, "The folder that holds his folders");
    add->add_option("--uid", v.uid, "Default: that of the system user of this name")
        ->check(CLI::NonNegativeNumber);
    add->add_option("--folder", v.user.folders, "What to save below the root (default: data)")
        ->allow_extra_args(false);
    add->add_option("--exclude", v.user.excludes, "A pattern of files to leave out")
        ->allow_extra_args(false);
    add->add_flag("--admin", v.user.admin, "May issue keys for other users' sessions");
    add->callback([&v] { AddUser(v); });
    auto* password = user->add_subcommand("password", "Sets a password, from standard input");
    password->add_option("name", v.name)->required();
    password->callback([&v] { Store().SetPassword(v.name, HashPassword(ReadSecret("password"))); });
    auto* remove = user->add_subcommand("remove", "Forgets a user; his backups stay");
    remove->add_option("name", v.name)->required();
    remove->callback([&v] { Store().RemoveUser(v.name); });
    auto* list = user->add_subcommand("list", "Shows the users");
    list->add_flag("--json", v.json);
    list->callback([&v] { ListUsers(v); });
}

// ---- Storages -----------------------------------------------------------------------------------

void SetStorage(Values& v) {
    v.storage.token = ReadSecret("token");
    KeepStorage(v.storage);
}

void ShowStorage(Values& v) {
    const auto storage = Store().FindStorage(v.name);
    if (!storage) throw vel_err::Error("missed", "storage", v.name);
    std::map<std::string, std::string> token;
    str::Split(storage->token, ";", token);
    Report report(
        {"type", "path", "encrypted", "slice_size", "size_limit", "count_limit", "local_dir"});
    report.Row({token["type"], token["path"], token["arch_password"].empty() ? "no" : "yes",
                storage->slice_size, storage->size_limit, storage->count_limit,
                storage->local_dir});
    report.Print(v.json);
}

void StorageCommands(CLI::App& app, Values& v) {
    auto* storage = app.add_subcommand("storage", "Where backups go");
    storage->require_subcommand(1);
    auto* set = storage->add_subcommand("set", "Sets a storage; its token comes on standard input");
    set->add_option("--user", v.storage.user, "Whose it is (default: the administrator's)");
    set->add_option("--slice-size", v.storage.slice_size, "Size of an archive's pieces, as 100M");
    set->add_option("--size-limit", v.storage.size_limit, "Room for one user's backups");
    set->add_option("--count-limit", v.storage.count_limit, "How many backups of one user");
    set->add_option("--local-dir", v.storage.local_dir, "Where work and indexes lie");
    set->callback([&v] { SetStorage(v); });
    auto* show = storage->add_subcommand("show", "Shows a storage without its secrets");
    show->add_option("--user", v.name);
    show->add_flag("--json", v.json);
    show->callback([&v] { ShowStorage(v); });
    auto* remove = storage->add_subcommand("remove", "Forgets a storage; what it holds stays");
    remove->add_option("--user", v.name);
    remove->callback([&v] { Store().RemoveStorage(v.name); });
}

// ---- Database servers and databases -------------------------------------------------------------

void AddServer(Values& v) {
    DatabaseServer& server = v.server;
    CheckName("server", server.name);
    CheckText("login", server.login);
    CheckText("host", server.host);
    if (!server.socket.empty()) CheckAbsolutePath("socket", server.socket);
    if (server.socket.empty() == server.host.empty())
        throw vel_tool::UsageError("give either --socket or --host");
    if (server.login[0] == '-' || server.host[0] == '-')
        throw vel_tool::UsageError("login and host must not begin with -");
    server.password = ReadSecret("password");
    Store().AddServer(server);
}

void ListServers(Values& v) {
    Report report({"server", "type", "socket", "host", "port", "login"});
    for (const DatabaseServer& s : Store().Servers())
        report.Row({s.name, s.type, s.socket, s.host, s.port, s.login});
    report.Print(v.json);
}

void ServerCommands(CLI::App& app, Values& v) {
    auto* server = app.add_subcommand("server", "Database servers");
    server->require_subcommand(1);
    auto* add =
        server->add_subcommand("add", "Adds a server; the password comes on standard input");
    add->add_option("name", v.server.name)->required();
    add->add_option("--type", v.server.type)
        ->required()
        ->check(CLI::IsMember({"mysql", "postgresql"}));
    add->add_option("--socket", v.server.socket, "For postgresql: the folder that holds it");
    add->add_option("--host", v.server.host);
    add->add_option("--port", v.server.port)->check(CLI::Range(1, 65535));
    add->add_option("--login", v.server.login, "An account that may dump and create databases")
        ->required();
    add->callback([&v] { AddServer(v); });
    auto* remove = server->add_subcommand("remove", "Forgets a server and its databases");
    remove->add_option("name", v.name)->required();
    remove->callback([&v] { Store().RemoveServer(v.name); });
    auto* list = server->add_subcommand("list", "Shows the servers");
    list->add_flag("--json", v.json);
    list->callback([&v] { ListServers(v); });
}

void AddDatabase(Values& v) {
    CheckDatabaseName(v.database.name);
    if (!v.database.owner.empty()) CheckName("owner", v.database.owner);
    v.database.owner_password = ReadSecret("password");
    Store().AddDatabase(v.database);
}

void ListDatabases(Values& v) {
    Store store;
    Report report({"user", "server", "database", "owner"});
    for (const User& user : store.Users())
        for (const Database& d : store.Databases(user.name))
            if (!d.wanted) report.Row({d.user, d.server, d.name, d.owner});
    report.Print(v.json);
}

void DatabaseCommands(CLI::App& app, Values& v) {
    auto* db = app.add_subcommand("db", "Databases of users");
    db->require_subcommand(1);
    auto* add = db->add_subcommand("add",
                                   "Gives a database to a user; its owner's password comes "
                                   "on standard input and may be empty");
    auto* remove = db->add_subcommand("remove", "Forgets a database; the server keeps it");
    for (CLI::App* command : {add, remove}) {
        command->add_option("user", v.database.user)->required();
        command->add_option("server", v.database.server)->required();
        command->add_option("database", v.database.name)->required();
    }
    add->add_option("--owner", v.database.owner, "The account that uses the database");
    add->callback([&v] { AddDatabase(v); });
    remove->callback([&v] { Store().RemoveDatabase(v.database); });
    auto* list = db->add_subcommand("list", "Shows the databases");
    list->add_flag("--json", v.json);
    list->callback([&v] { ListDatabases(v); });
}

// ---- Plans --------------------------------------------------------------------------------------

/// A rule of 0 is off.
void SetPlan(Values& v) {
    for (auto rule = v.plan.keep.begin(); rule != v.plan.keep.end();)
        rule = rule->second == 0 ? v.plan.keep.erase(rule) : std::next(rule);
    CheckName("plan", v.plan.name);
    CheckSize("slice-size", v.plan.slice_size);
    for (const std::string& pattern : v.plan.excludes) CheckText("exclude", pattern);
    for (const std::string& name : v.plan.exclude_databases) CheckDatabaseName(name);
    Store().SetPlan(v.plan);
}

std::string KeepWords(const Plan& plan) {
    std::vector<std::string> words;
    for (const char* rule : kKeepRules)
        if (const auto found = plan.keep.find(rule); found != plan.keep.end())
            words.push_back(std::string(rule) + "=" + std::to_string(found->second));
    return JoinWords(words);
}

void ListPlans(Values& v) {
    Report report({"plan", "slice_size", "exclude", "exclude_db", "keep"});
    for (const Plan& plan : Store().Plans())
        report.Row({plan.name, plan.slice_size, JoinWords(plan.excludes),
                    JoinWords(plan.exclude_databases), KeepWords(plan)});
    report.Print(v.json);
}

void PlanCommands(CLI::App& app, Values& v) {
    auto* plan = app.add_subcommand("plan", "What several users' backups have in common");
    plan->require_subcommand(1);
    auto* set = plan->add_subcommand("set", "Makes or replaces a plan");
    set->add_option("name", v.plan.name)->required();
    set->add_option("--slice-size", v.plan.slice_size, "Goes before the storage's own");
    set->add_option("--exclude", v.plan.excludes, "A pattern of files to leave out")
        ->allow_extra_args(false);
    set->add_option("--exclude-db", v.plan.exclude_databases, "A database to leave out")
        ->allow_extra_args(false);
    for (const std::string rule : kKeepRules)
        set->add_option("--keep-" + rule, v.plan.keep[rule],
                        rule == "last" ? "So many of the newest backups stay"
                                       : "The newest of each of so many " + rule + " periods stays")
            ->check(CLI::Range(0, kMostKept));
    set->callback([&v] { SetPlan(v); });
    auto* assign = plan->add_subcommand("assign", "Gives a plan to a user");
    assign->add_option("name", v.plan.name)->required();
    assign->add_option("user", v.name)->required();
    assign->callback([&v] { Store().AssignPlan(v.plan.name, v.name); });
    auto* remove = plan->add_subcommand("remove", "Removes a plan; its users stay without one");
    remove->add_option("name", v.name)->required();
    remove->callback([&v] { Store().RemovePlan(v.name); });
    auto* list = plan->add_subcommand("list", "Shows the plans");
    list->add_flag("--json", v.json);
    list->callback([&v] { ListPlans(v); });
}

// ---- The edition --------------------------------------------------------------------------------

void SetDist(Values& v) {
    if (v.name != kSmallerEdition && v.name != kLargerEdition)
        throw vel_tool::UsageError("the edition is 1 (smaller) or 3 (larger)");
    Store().SetDist(v.name);
}

void EditionCommands(CLI::App& app, Values& v) {
    auto* dist = app.add_subcommand("dist", "The edition that this panel plays: 1 or 3");
    dist->require_subcommand(1);
    auto* set = dist->add_subcommand("set", "Plays another one");
    set->add_option("code", v.name)->required();
    set->callback([&v] { SetDist(v); });
    dist->add_subcommand("show", "Shows its code")->callback([] {
        std::cout << Store().Dist() << "\n";
    });
}

// ---- The panel itself ---------------------------------------------------------------------------

void ServeCommand(CLI::App& app, Values& v) {
    auto* serve = app.add_subcommand("serve", "Answers requests until it is told to end");
    auto* tls = serve->add_option("--tls", v.serve.tls_address, "Also take log-ins on ADDR:PORT");
    auto* certificate = serve->add_option("--cert", v.serve.certificate, "PEM file for --tls");
    auto* key = serve->add_option("--key", v.serve.key, "PEM file for --tls");
    tls->needs(certificate)->needs(key);
    serve->callback([&v] {
        for (std::string* path : {&v.serve.certificate, &v.serve.key})
            if (!path->empty()) *path = vel_tool::Absolute(*path);
        Serve(v.serve);
    });
    auto* job = app.add_subcommand("job", "Runs what was started at the page")->group("");
    job->add_option("id", v.name)->required();
    job->callback([&v] { KeepJob(v.name); });
}

}  // namespace

int RunCommand(std::vector<std::string> arguments) {
    Values values;
    CLI::App app("The embedded panel: users, storages, plans and database servers of one machine.",
                 vel_tool::ProgramName());
    app.require_subcommand(1);
    ServeCommand(app, values);
    UserCommands(app, values);
    StorageCommands(app, values);
    ServerCommands(app, values);
    DatabaseCommands(app, values);
    PlanCommands(app, values);
    EditionCommands(app, values);
    app.add_subcommand("lock", "Makes callers wait")->callback([] { Store().SetLocked(true); });
    app.add_subcommand("unlock", "Lets them go on")->callback([] { Store().SetLocked(false); });
    std::reverse(arguments.begin(), arguments.end());  // the form that the parser takes
    try {
        app.parse(std::move(arguments));
    } catch (const CLI::CallForHelp& help) {
        return app.exit(help);
    } catch (const CLI::ParseError& e) {
        throw vel_tool::UsageError(e.what());
    }
    return vel_tool::kDone;
}

}  // namespace panel
