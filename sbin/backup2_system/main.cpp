#include <algorithm>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "vel/str.h"
#include "vel/stream.h"
#include "vel/vel_client.h"
#include "vel/vel_env.h"
#include "vel/vel_err.h"
#include "vel/vel_file.h"
#include "vel/vel_tool.h"
#include "vel/vel_xml.h"

#include "backup_common/backup2_convert.h"

#include "sbin/backup2_system/child.h"
#include "sbin/backup2_system/database.h"
#include "sbin/backup2_system/marker.h"
#include "sbin/backup2_system/user_data.h"

namespace backup2_system {
namespace {

struct Options {
    bool start = false, end = false, restore = false;
    std::string user, manager, file, host_dist;
};

vel_client::Local Panel(const Options& options) {
    return vel_client::Local(options.manager, "backup2_system").WaitLocked(true);
}

Account ReadAccount(const vel_xml::XmlNode& node) {
    Account account;
    for (auto child = node.FirstChild(); child; child = child.Next()) {
        const std::string name = child.GetProp("name");
        if (child.Name() == "grant") account.grants.push_back({child.GetProp("host"), child.Str()});
        if (name == "name") account.name = child.Str();
        if (name == "host") account.hosts.push_back(child.Str());
        if (name != "password") continue;
        account.form = child.GetProp("form");
        account.password = child.Str();
    }
    return account;
}

Access ReadAccess(const vel_client::Result& answer, const std::string& server) {
    const auto value = [&answer](const char* name) { return answer.value(name); };
    Access access{server,
                  value("type"),
                  value("socket"),
                  value("host"),
                  value("port"),
                  value("login"),
                  value("password"),
                  value("owner"),
                  value("owner_password"),
                  value("database"),
                  {},
                  value("wanted") == "yes"};
    for (const auto& node : answer.GetNodes("/doc/account"))
        access.accounts.push_back(ReadAccount(node));
    return access;
}

Access AskAccess(const Options& options, const Object& object) {
    std::string server = object.name;
    return ReadAccess(
        Panel(options).Query("func=backup2.database&elid=?&user=?", object.name, options.user),
        str::GetWord(server, '.'));
}

Own AskOwn(const Options& options) {
    const auto answer = Panel(options).Query("func=backup2.database&user=?", options.user);
    Own own;
    for (const auto& node : answer.GetNodes("/doc/own_database")) own.databases.insert(node.Str());
    for (const auto& node : answer.GetNodes("/doc/own_account")) own.accounts.insert(node.Str());
    return own;
}

void Start(const Options& options, const Object& object) {
    DumpTarget target(options.file);
    if (object.type == "db") {
        const Access access = AskAccess(options, object);
        ServerOf(access.type).dump(access, target.Fd());
    } else {
        const vel_xml::Xml document =
            Panel(options).Query("func=backup2.user.data&elid=?&user=?", object.name, options.user);
        vel_file::WriteAll(target.Fd(), document.Str(true), options.file);
    }
    target.Keep();
}

/// The document in the form of this panel's edition.
vel_xml::Xml ReadDocument(const Options& options) {
    vel_file::InStream in(OpenMarker(options.file, MarkerUse::Read));
    const vel_xml::Xml document(in);
    std::string dist = options.host_dist;
    if (dist.empty()) dist = Panel(options).Query("func=backup2.settings").value("dist");
    if (dist.empty()) dist = "3";
    backup2::Convert(document, dist);
    document.GetNode("/doc/info").SetProp("dist", dist);
    return document;
}

/// One line for each thing that was left out, then what became of the object.
int Ended(const Object& object, const char* what, const std::vector<std::string>& left_out) {
    for (const std::string& text : left_out)
        std::cout << str::badchars::Escape(text, str::badchars::Controls(), '\\') << "\n";
    std::cout << object.Title() << ": " << what << "\n";
    return left_out.empty() ? vel_tool::kDone : vel_tool::kWarnings;
}

/// What the panel takes over of the user's document, see docs/formats.md.
int RestoreUser(const Options& options, const Object& object) {
    const vel_xml::Xml document = ReadDocument(options);
    const PanelAnswers panel{
        AskOwn(options), [&options](const std::string& server) {
            return ReadAccess(Panel(options).Query("func=backup2.server&elid=?", server), server);
        }};
    std::vector<std::string> warnings = TakeOutStrangers(document, panel);
    Secrets secrets;  // the document may hold passwords of accounts
    const std::string file = secrets.Add("user.xml", document.Str());
    const auto answer =
        Panel(options).Query("func=backup2.user.restore&elid=?&file=?", options.user, file);
    for (const auto& node : answer.GetNodes("/doc/warning")) warnings.push_back(node.Str());
    return Ended(object, "taken over by the panel", warnings);
}

Possession PossessionOf(const Options& options, const Object& object) {
    const auto tell = [options, object](const std::string& made, const std::string& owner) {
        Panel(options).Query("func=backup2.database.made&made=" + made + "&elid=?&user=?&owner=?",
                             object.name, options.user, owner);
    };
    return {AskOwn(options), [tell](const std::string& name) { tell("account", name); },
            [tell](const std::string& owner, bool made) { tell(made ? "database" : "", owner); }};
}

int Restore(const Options& options, const Object& object) {
    if (object.type == "user") return RestoreUser(options, object);
    const vel_file::ResHandle dump = OpenMarker(options.file, MarkerUse::Read);
    return Ended(object, "restored",
                 RestoreDatabase(AskAccess(options, object), PossessionOf(options, object), dump));
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
    app.add_option("--host-dist", options.host_dist,
                   "Edition of the panel that takes a user's document (default: it is asked)");
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
