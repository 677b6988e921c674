/// backup2 storage: is the storage usable, and which one is it.
#include <iostream>
#include <stdexcept>

#include <CLI/CLI.hpp>

#include "vel/vel_env.h"
#include "vel/vel_tool.h"

#include "sbin/backup2/commands.h"
#include "sbin/backup2/job.h"
#include "sbin/backup2/output.h"

namespace backup2_admin {
namespace {

const char kExamples[] = R"(
Examples:
  backup2 storage check        write, list, read back and delete a probe on the storage
  backup2 storage check bob    the same on bob's own storage
  backup2 storage show         where the backups go, without any secret)";

int Check(const std::string& user) {
    if (user.empty()) {
        UseStorage(AskSite().token);
    } else {
        vel_env::UnsetEnv("BACKUP_TOKEN");
        vel_env::SetEnv("BACKUP_STORAGE", CheckUser(user));
    }
    const std::string whose = user.empty() ? "the storage" : "the storage of " + user;
    RunTool({"backup2_cp", "--check"}).ThrowIfFailed(whose);
    std::cout << whose << " can be written, listed and read\n";
    return vel_tool::kDone;
}

int ShowStorage() {
    const Site site = AskSite();
    if (!site.token) throw std::runtime_error("no storage is set up in the panel");
    Table table("ll");
    table.Add({"type", site.token.Type()});
    for (const char* name : {"url", "ip", "port", "username", "path", "mode"}) {
        const std::string value = site.token.GetParam(name);
        if (!value.empty()) table.Add({name, Printable(value)});
    }
    table.Add({"encrypted", site.token.IsEncrypted() ? "yes" : "no"});
    table.Add({"local tree", site.local_dir});
    const std::pair<const char*, const std::string*> limits[] = {
        {"slice size", &site.slice_size},
        {"size limit", &site.size_limit},
        {"count limit", &site.count_limit}};
    for (const auto& [name, value] : limits) {
        if (!value->empty()) table.Add({name, *value});
    }
    std::cout << table.Str();
    return vel_tool::kDone;
}

}  // namespace

void AddStorage(CLI::App& app, Action& chosen) {
    auto* command = app.add_subcommand("storage", "Check or show where the backups go");
    command->require_subcommand(1);
    command->footer(kExamples);
    auto* check = command->add_subcommand("check", "Try the storage with a probe");
    const auto user = std::make_shared<std::string>();
    check->add_option("user", *user, "The user's own storage in place of the administrator's");
    check->callback([user, &chosen] { chosen = [user] { return Check(*user); }; });
    auto* show = command->add_subcommand("show", "Show the storage, without any secret");
    show->callback([&chosen] { chosen = ShowStorage; });
}

}  // namespace backup2_admin
