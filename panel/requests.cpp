#include "panel/requests.h"

#include <exception>
#include <filesystem>
#include <map>

#include "vel/vel_err.h"
#include "vel/vel_file.h"
#include "vel/vel_log.h"
#include "vel/vel_tool.h"
#include "vel/vel_xml.h"

#include "panel/password.h"
#include "panel/storages.h"
#include "panel/store.h"
#include "panel/user_data.h"

namespace panel {
namespace {

const vel_log::Module logger("panel");

constexpr char kLocalDir[] = "var/backup/qorvel";

struct Request {
    const Parameters& parameters;
    const std::string& address;
    Store& store;
    Sessions& sessions;

    std::string Get(const std::string& name) const {
        const auto found = parameters.find(name);
        return found == parameters.end() ? "" : found->second;
    }
};

using Handler = void (*)(const Request&, vel_xml::XmlNode doc);

std::string AbsoluteLocalDir() {
    return vel_file::ConcatPath(std::filesystem::current_path().string(), kLocalDir);
}

// ---- Log-in -------------------------------------------------------------------------------------

void AppendSession(const Request& r, vel_xml::XmlNode doc, const User& user) {
    doc.AppendChild("auth")
        .SetProp("id", r.sessions.Open(user))
        .SetProp("user", user.name)
        .SetProp("level", user.admin ? "admin" : "user");
}

/// With a key: one that session.newkey left for this user. Else: name and password. A refusal says
/// the same for an unknown name, a wrong password and a used key.
void Auth(const Request& r, vel_xml::XmlNode doc) {
    const std::string name = r.Get("username"), key = r.Get("key");
    Sessions::Try attempt(r.sessions, name, r.address);
    const auto user = r.store.FindUser(name);
    const bool known = key.empty()
                           ? CheckPassword(r.Get("password"), user ? user->password_hash : "")
                           : r.sessions.TakeKey(key, name, r.Get("auth"));
    if (!user || !known) {
        attempt.Failed();
        logger.Write(4, "Refused log-in from %s", r.address);
        throw vel_err::Error("auth", "refused");
    }
    AppendSession(r, doc, *user);
}

void NewKey(const Request& r, vel_xml::XmlNode doc) {
    const std::string session = r.Get("auth");
    const auto issuer = r.sessions.Holder(session, r.store);
    if (!issuer || !issuer->admin) throw vel_err::Error("auth", "refused");
    const User user = r.store.GetUser(r.Get("username"));
    r.sessions.AddKey(r.Get("key"), user.name, session);
    doc.AppendChild("ok");
}

/// For programs that serve one request of a session, as whom it was opened.
void TakeSession(const Request& r, vel_xml::XmlNode doc) {
    const auto user = r.sessions.Take(r.Get("auth"), r.store);
    if (!user) throw vel_err::Error("auth", "refused");
    doc.AppendChild("user", user->name);
    doc.AppendChild("uid", std::to_string(user->uid));
}

// ---- Users and storages -------------------------------------------------------------------------

void UserList(const Request& r, vel_xml::XmlNode doc) {
    for (const User& user : r.store.Users()) {
        if (user.root.empty()) continue;  // an administrator without files: nothing to save
        auto elem = doc.AppendChild("elem");
        elem.AppendChild("name", user.name);
        elem.AppendChild("uid", std::to_string(user.uid));
    }
}

/// An unknown user is an empty document: that is how callers learn that he was removed.
void UserEdit(const Request& r, vel_xml::XmlNode doc) {
    const auto user = r.store.FindUser(r.Get("elid"));
    if (!user) return;
    doc.AppendChild("elid", user->name);
    doc.AppendChild("name", user->name);
    doc.AppendChild("uid", std::to_string(user->uid));
    doc.AppendChild("root", user->root);
    doc.AppendChild("plan", user->plan);
}

void Settings(const Request& r, vel_xml::XmlNode doc) {
    const auto storage = r.store.FindStorage("");
    doc.AppendChild("local_dir", storage ? storage->local_dir : AbsoluteLocalDir());
    doc.AppendChild("dist", r.store.Dist());
    if (!storage) return;
    doc.AppendChild("storage", storage->token);
    doc.AppendChild("slice_size", storage->slice_size);
    doc.AppendChild("size_limit", storage->size_limit);
    doc.AppendChild("count_limit", storage->count_limit);
}

void AppendStorage(vel_xml::XmlNode doc, const Storage& storage, const std::string& slice_size) {
    auto node = doc.AppendChild("storage", storage.token)
                    .SetProp("slice_size", slice_size)
                    .SetProp("local_dir", storage.local_dir)
                    .SetProp("size_limit", storage.size_limit)
                    .SetProp("count_limit", storage.count_limit);
    if (!storage.user.empty()) node.SetProp("user", storage.user);
}

/// With "elid" that user's own storage, without it all users' own ones.
void StorageOf(const Request& r, vel_xml::XmlNode doc) {
    const std::string name = r.Get("elid");
    if (name.empty()) {
        for (const Storage& storage : r.store.UserStorages())
            AppendStorage(doc, storage, storage.slice_size);
        return;
    }
    const auto storage = r.store.FindStorage(name);
    if (!storage) throw vel_err::Error("missed", "storage", name);
    AppendStorage(doc, *storage, storage->slice_size);
}

/// With "new" only when the owner has none yet. What is not given of limits is none; the folder for
/// work and indexes stays.
void SetStorage(const Request& r, vel_xml::XmlNode doc) {
    const auto former = r.store.FindStorage(r.Get("user"));
    if (former && r.Get("new") == "yes") throw vel_err::Error("exists", "storage", r.Get("user"));
    KeepStorage({r.Get("user"), r.Get("token"), r.Get("slice_size"), r.Get("size_limit"),
                 r.Get("count_limit"), former ? former->local_dir : ""});
    doc.AppendChild("ok");
}

void RemoveStorage(const Request& r, vel_xml::XmlNode doc) {
    r.store.RemoveStorage(r.Get("user"));
    doc.AppendChild("ok");
}

// ---- One job ------------------------------------------------------------------------------------

void AppendFiles(vel_xml::XmlNode doc, const User& user) {
    if (user.root.empty()) return;
    auto files = doc.AppendChild("files").SetProp("root", user.root);
    for (const std::string& folder : user.folders) files.AppendChild("folder", folder);
}

void AppendExcludes(vel_xml::XmlNode doc, const User& user, const Plan& plan) {
    auto files = doc.AppendChild("exclude_file");
    for (const auto* patterns : {&plan.excludes, &user.excludes})
        for (const std::string& pattern : *patterns) files.AppendChild("pattern", pattern);
    auto databases = doc.AppendChild("exclude_db");
    for (const std::string& name : plan.exclude_databases) databases.AppendChild("exclude", name);
}

void AppendKeep(vel_xml::XmlNode doc, const Plan& plan) {
    if (plan.keep.empty()) return;
    auto keep = doc.AppendChild("keep");
    for (const auto& [rule, count] : plan.keep) keep.SetProp(rule, std::to_string(count));
}

void AppendSystem(const Request& r, vel_xml::XmlNode doc, const User& user) {
    auto system = doc.AppendChild("system");
    for (const Database& database : r.store.Databases(user.name)) {
        if (database.wanted) continue;  // there is nothing to save
        system.AppendChild("spec")
            .SetProp("type", "db")
            .SetProp("name", database.server + "." + database.name);
    }
    if (r.Get("userdata") != "off")
        system.AppendChild("spec").SetProp("type", "user").SetProp("name", user.name);
}

void ItemInfo(const Request& r, vel_xml::XmlNode doc) {
    const User user = r.store.GetUser(r.Get("elid"));
    if (const std::string role = r.Get("role"); !role.empty())
        throw vel_err::Error("missed", "role", role);
    const Plan plan = r.store.FindPlan(user.plan).value_or(Plan{});
    const auto storage = r.store.FindStorage("");
    doc.AppendChild("local_dir", storage ? storage->local_dir : AbsoluteLocalDir());
    AppendFiles(doc, user);
    AppendExcludes(doc, user, plan);
    AppendSystem(r, doc, user);
    if (storage)
        AppendStorage(doc, *storage,
                      plan.slice_size.empty() ? storage->slice_size : plan.slice_size);
    AppendKeep(doc, plan);
    doc.AppendChild("backup").SetProp("local", "yes");
}

void UserData(const Request& r, vel_xml::XmlNode doc) {
    AppendUserData(r.store, r.store.GetUser(r.Get("elid")), doc);
}

/// The document comes in a file: it may be larger than a request.
void UserRestore(const Request& r, vel_xml::XmlNode doc) {
    const User user = r.store.GetUser(r.Get("elid"));
    vel_xml::Xml data;
    data.LoadFromFile(r.Get("file"));
    RestoreUserData(r.store, user, data, doc);
    doc.AppendChild("ok");
}

void AppendServer(vel_xml::XmlNode doc, const DatabaseServer& server) {
    doc.AppendChild("type", server.type);
    doc.AppendChild("socket", server.socket);
    doc.AppendChild("host", server.host);
    doc.AppendChild("port", server.port);
    doc.AppendChild("login", server.login);
    doc.AppendChild("password", server.password);
}

/// With "elid" how to log in to that server, without it the names and types of all.
void ServerAccess(const Request& r, vel_xml::XmlNode doc) {
    const std::string name = r.Get("elid");
    if (!name.empty()) return AppendServer(doc, r.store.GetServer(name));
    for (const DatabaseServer& server : r.store.Servers())
        doc.AppendChild("server").SetProp("name", server.name).SetProp("type", server.type);
}

/// The one that "elid" and "user" name.
Database FindDatabase(const Request& r) {
    const std::string id = r.Get("elid");
    for (const Database& database : r.store.Databases(r.Get("user")))
        if (database.server + "." + database.name == id) return database;
    throw vel_err::Error("missed", "database", id);
}

void AppendOwn(const Request& r, vel_xml::XmlNode doc) {
    const std::string user = r.Get("user");
    for (const Database& database : r.store.Databases(user))
        if (!database.wanted)
            doc.AppendChild("own_database", database.server + "." + database.name);
    for (const auto& [server, name] : r.store.Accounts(user))
        doc.AppendChild("own_account", server + "." + name);
}

/// With "elid" how to reach that database and as whom; in any case what is the user's.
void DatabaseAccess(const Request& r, vel_xml::XmlNode doc) {
    AppendOwn(r, doc);
    if (r.Get("elid").empty()) return;
    const Database database = FindDatabase(r);
    const DatabaseServer server = r.store.GetServer(database.server);
    AppendServer(doc, server);
    doc.AppendChild("owner", database.owner);
    doc.AppendChild("owner_password", database.owner_password);
    doc.AppendChild("database", database.name);
    doc.AppendChild("wanted", database.wanted ? "yes" : "");
    AppendAccounts(r.store, database, server.type, doc);
}

/// The panel forgets it; the server keeps it.
void RemoveDatabase(const Request& r, vel_xml::XmlNode doc) {
    r.store.RemoveDatabase(FindDatabase(r));
    doc.AppendChild("ok");
}

/// "made" is what a restore has just made: "database", "account", or "" when the database has gone.
void DatabaseMade(const Request& r, vel_xml::XmlNode doc) {
    Database database = FindDatabase(r);
    const std::string made = r.Get("made");
    database.owner = r.Get("owner");
    if (made == "account") {
        r.store.MadeAccount(database.user, database.server, database.owner);
    } else if (made == "database") {
        r.store.MadeDatabase(database);
    } else {
        r.store.UnmadeDatabase(database);
    }
    doc.AppendChild("ok");
}

// ---- The table ----------------------------------------------------------------------------------

struct Entry {
    Handler handler;
    bool from_network;
};

const std::map<std::string, Entry> kRequests = {
    {"auth", {Auth, true}},
    {"session.newkey", {NewKey, true}},
    {"session.take", {TakeSession, false}},
    {"user", {UserList, false}},
    {"user.edit", {UserEdit, false}},
    {"backup2.settings", {Settings, false}},
    {"backup2.storage", {StorageOf, false}},
    {"backup2.storage.set", {SetStorage, false}},
    {"backup2.storage.remove", {RemoveStorage, false}},
    {"backup2.item.info", {ItemInfo, false}},
    {"backup2.user.data", {UserData, false}},
    {"backup2.user.restore", {UserRestore, false}},
    {"backup2.server", {ServerAccess, false}},
    {"backup2.database", {DatabaseAccess, false}},
    {"backup2.database.made", {DatabaseMade, false}},
    {"backup2.database.remove", {RemoveDatabase, false}},
};

std::string Message(const vel_err::Error& error) {
    static const std::map<std::string, std::string> kTexts = {
        {"missed", "There is no such object"},
        {"auth", "The log-in was refused"},
        {"locked", "The panel is locked; try again later"},
        {"func", "The request is not known here"},
        {"exists", "There is such an object already"},
    };
    const auto found = kTexts.find(error.type());
    return found == kTexts.end() ? error.what() : found->second;
}

std::string ErrorDocument(const vel_err::Error& error) {
    vel_xml::Xml xml;
    auto node = xml.GetRoot().AppendChild("error").SetProp("type", error.type());
    node.SetProp("object", error.object());
    node.AppendChild("value", error.value());
    node.AppendChild("msg", Message(error));
    return xml.Str();
}

}  // namespace

std::string Requests::Answer(const Parameters& parameters, Caller caller,
                             const std::string& address) try {
    Store store;
    const Request request{parameters, address, store, sessions_};
    if (store.Locked()) throw vel_err::Error("locked", "panel");
    const std::string name = request.Get("func");
    const auto found = kRequests.find(name);
    if (found == kRequests.end() || (caller == Caller::Network && !found->second.from_network))
        throw vel_err::Error("func", name);
    vel_xml::Xml answer;
    found->second.handler(request, answer.GetRoot());
    return answer.Str();
} catch (const vel_err::Error& e) {
    if (e.type() == "store" || e.type() == "sys") logger.Write(4, "Request failed: %s", e.what());
    // The network learns what kind of refusal it is, nothing of the files behind it.
    const bool internal = e.type() == "store" || e.type() == "sys";
    return ErrorDocument(internal && caller == Caller::Network ? vel_err::Error("internal") : e);
} catch (const vel_tool::UsageError& e) {
    return ErrorDocument(vel_err::Error("value", e.what()));
} catch (const std::exception& e) {
    logger.Write(3, "Request failed: %s", e.what());
    return ErrorDocument(vel_err::Error("internal", "panel"));
}

}  // namespace panel
