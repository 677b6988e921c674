#include <algorithm>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "vel/stream.h"
#include "vel/vel_client.h"
#include "vel/vel_env.h"
#include "vel/vel_err.h"
#include "vel/vel_file.h"
#include "vel/vel_tool.h"

#include "sbin/backup2_system/child.h"
#include "sbin/backup2_system/database.h"
#include "sbin/backup2_system/marker.h"

namespace backup2_system {
namespace {

struct Options {
    bool start = false, end = false, restore = false;
    std::string user, manager, file;
};

vel_client::Result Ask(const Options& options, const std::string& request,
                       const std::string& object) {
    return vel_client::Local(options.manager, "backup2_system")
        .WaitLocked(true)
        .Query(request, object, options.user);
}

Access AskAccess(const Options& options, const Object& object) {
    const auto answer = Ask(options, "func=backup2.database&elid=?&user=?", object.name);
    const auto value = [&answer](const char* name) { return answer.value(name); };
    return {value("type"),  value("socket"),         value("host"),
            value("port"),  value("login"),          value("password"),
            value("owner"), value("owner_password"), value("database")};
}

/// Calls what the server's type asks for.
template <class Action>
void WithDatabase(const Access& access, Action mysql_action, Action postgresql_action,
                  const vel_file::ResHandle& fd) {
    if (access.type == "mysql") return mysql_action(access, fd);
    if (access.type == "postgresql") return postgresql_action(access, fd);
    throw vel_err::Error("database", "type", access.type);
}

void Start(const Options& options, const Object& object) {
    DumpTarget target(options.file);
    if (object.type == "db") {
        WithDatabase(AskAccess(options, object), mysql::Dump, postgresql::Dump, target.Fd());
    } else {
        const vel_xml::Xml document =
            Ask(options, "func=backup2.user.data&elid=?&user=?", object.name);
        vel_file::WriteAll(target.Fd(), document.Str(true), options.file);
    }
    target.Keep();
}

int Restore(const Options& options, const Object& object) {
    if (object.type == "user") {
        std::cout << object.Title() << ": nothing to restore, the panel keeps its users itself\n";
        return vel_tool::kDone;
    }
    const vel_file::ResHandle dump = OpenMarker(options.file, MarkerUse::Read);
    WithDatabase(AskAccess(options, object), mysql::Restore, postgresql::Restore, dump);
    return vel_tool::kDone;
}

Options Parse(std::vector<std::string> arguments, CLI::App& app) {
    Options options;
    auto* action = app.add_option_group("action");
    action->add_flag("--start", options.start, "Writes the object's dump over its marker");
    action->add_flag("--end", options.end, "Empties the marker again");
    action->add_flag("--restore", options.restore, "Puts the object back from the file");
    action->require_option(1);
    app.add_option("--user", options.user, "Whose the object is")->required();
    app.add_option("--manager", options.manager, "The panel to ask")->required();
    app.add_option("file", options.file, "ROOT/.system/TYPE.NAME")->required();
    std::reverse(arguments.begin(), arguments.end());  // the form that the parser takes
    try {
        app.parse(std::move(arguments));
    } catch (const CLI::ParseError& e) {
        if (dynamic_cast<const CLI::CallForHelp*>(&e)) throw;
        throw vel_tool::UsageError(e.what());
    }
    options.file = vel_tool::Absolute(options.file);
    return options;
}

int Act(const Options& options) {
    const Object object = ParseMarkerName(vel_file::Name(options.file));
    try {
        if (options.restore) return Restore(options, object);
        options.start ? Start(options, object) : EmptyMarker(options.file);
        return vel_tool::kDone;
    } catch (const vel_err::Error& e) {
        if (e.type() != "database") throw;
        // One clear line: which object, which step, why.
        throw std::runtime_error("Database " + object.name + ": " + e.object() + ": " + e.value());
    }
}

int Body(std::vector<std::string> arguments) {
    // The archiver's hook inherits them; neither this program nor its children need them.
    for (const char* name : {"BACKUP_TOKEN", "BACKUP_STORAGE", "PASSWORD"}) vel_env::UnsetEnv(name);
    CLI::App app("Saves and restores what a user has outside his files.", vel_tool::ProgramName());
    try {
        const Options options = Parse(std::move(arguments), app);
        SweepSecrets();
        return Act(options);
    } catch (const CLI::CallForHelp& help) {
        return app.exit(help);
    }
}

}  // namespace
}  // namespace backup2_system

int main(int argc, char** argv) { return vel_tool::Main(argc, argv, backup2_system::Body); }
