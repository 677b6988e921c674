#include "panel/api.h"

#include <algorithm>
#include <chrono>
#include <deque>
#include <map>
#include <mutex>
#include <semaphore>
#include <set>
#include <utility>

#include <httplib.h>
#include <nlohmann/json.hpp>

#include "vel/str.h"
#include "vel/test.h"
#include "vel/vel_err.h"
#include "vel/vel_file.h"
#include "vel/vel_log.h"
#include "vel/vel_tool.h"

#include "panel/checks.h"
#include "panel/jobs.h"
#include "panel/password.h"
#include "panel/programs.h"
#include "panel/store.h"
#include "panel/web_sessions.h"

namespace panel {
namespace {

using Json = nlohmann::json;

const vel_log::Module logger("panel");

// The prefix makes browsers refuse the cookie from anything but this host, over TLS.
constexpr char kCookie[] = "__Host-backup2";
constexpr char kCookieRules[] = "; Path=/; Secure; HttpOnly; SameSite=Strict";
constexpr char kDatabases[] = ".system/db.";
constexpr std::size_t kMostPaths = 500;
constexpr std::size_t kLongestPath = 4096;
constexpr std::size_t kLongestSearch = 200;
constexpr std::size_t kLongestSecret = 1024;
constexpr int64_t kMostRows = 1000;
constexpr std::size_t kDownloadsAnHour = 200;  // each opens a session of the panel's protocol

/// Why a request is not answered with what it asked for.
struct Refusal {
    int status;
    std::string code, message;
};

Refusal Wrong(const std::string& message) { return {400, "value", message}; }
Refusal Missed(const std::string& what) {
    return {404, "missed", "There is no such " + what + "."};
}

/// One request, with the user who sent it.
struct Call {
    const httplib::Request& http;
    httplib::Response& out;
    Store& store;
    std::string name, id;  ///< /api/NAME or /api/NAME/ID
    Json body = Json::object();
    std::string session;
    User user;

    /// A value of the body, for GET of the address; "" when it is not there. One of another kind is
    /// refused: nobody's name, or a dry run, must not pass for what is meant without them.
    std::string Text(const std::string& key) const {
        if (http.method == "GET") return http.has_param(key) ? http.get_param_value(key) : "";
        const auto found = body.find(key);
        if (found == body.end()) return "";
        if (!found->is_string()) throw Wrong(key + " must be a text.");
        return found->get<std::string>();
    }
    bool Flag(const std::string& key) const {
        if (http.method == "GET") return Text(key) == "yes";
        const auto found = body.find(key);
        if (found == body.end()) return false;
        if (!found->is_boolean()) throw Wrong(key + " must be true or false.");
        return found->get<bool>();
    }
};

// ---- Grammar of what comes in -------------------------------------------------------------------

/// Whose objects the request is about: his own who asks; an administrator may name anybody. Others
/// get the same refusal whether or not there is such a user.
std::string Owner(const Call& call) {
    const std::string name = call.Text("user");
    if (name.empty() || name == call.user.name) return call.user.name;
    if (!call.user.admin) throw Refusal{403, "forbidden", "That is not yours."};
    CheckName("user", name);
    return name;
}

/// Nothing that a former user of his name had; an administrator sees that, too.
bool IsHis(const Call& call, const std::string& owner, const std::string& uid) {
    const bool same = uid.empty() || uid == std::to_string(call.user.uid);
    return call.user.admin || (owner == call.user.name && same);
}

/// The same, for the program.
std::vector<std::string> HisOnly(const Call& call, std::vector<std::string> words) {
    if (!call.user.admin) words.push_back("--uid=" + std::to_string(call.user.uid));
    return words;
}

std::string Date(const Call& call) {
    const std::string date = call.Text("date");
    if (date != "custom" && !test::Date(date)) throw Wrong("The date is not one of a backup.");
    return date;
}

/// From the form that "backup2 files" gives to the bytes of the name, below the user's root.
std::string Path(const std::string& encoded) {
    const std::string path = str::url::Decode(encoded);
    const bool relative = !path.empty() && path[0] != '/' && vel_file::GoodPath(path) == path;
    if (!relative || path.size() > kLongestPath || path.find('\0') != std::string::npos)
        throw Wrong("A path is not one of a backup.");
    return path;
}

/// As an argument: whatever the name begins with, this is no option.
std::string Argument(const std::string& path) { return "./" + path; }

std::vector<std::string> Paths(const Call& call) {
    std::vector<std::string> paths;
    const auto list = call.body.find("paths");
    if (list == call.body.end() || !list->is_array() || list->empty() || list->size() > kMostPaths)
        throw Wrong("Choose up to " + std::to_string(kMostPaths) + " files and folders.");
    for (const Json& item : *list) {
        const std::string path = Path(item.is_string() ? item.get<std::string>() : "");
        const bool system = path == ".system" || str::StartsWith(path, ".system/");
        if (system && !str::StartsWith(path, kDatabases)) throw Wrong("That is no database.");
        paths.push_back(Argument(path));
    }
    return paths;
}

int64_t Number(const Call& call, const std::string& key, int64_t otherwise, int64_t most) {
    const std::string text = call.Text(key);
    if (text.empty()) return otherwise;
    if (text.size() > 15 || text.find_first_not_of("0123456789") != std::string::npos)
        throw Wrong(key + " must be a number.");
    return std::min(str::Int64(text), most);
}

bool IsId(const std::string& id) {
    return !id.empty() && id.size() <= 64 && std::all_of(id.begin(), id.end(), [](unsigned char c) {
        return std::isalnum(c) != 0 || c == '_' || c == '-';
    });
}

std::string Cookie(const httplib::Request& request) {
    std::vector<std::string> pairs;
    str::Split(request.get_header_value("Cookie"), ";", pairs);
    for (std::string pair : pairs) {
        const std::string name = str::Trim(str::GetWord(pair, '='));
        if (name == kCookie) return str::Trim(pair);
    }
    return "";
}

/// What another origin's page can neither send nor know. Browsers say where a request comes from.
void CheckOrigin(const httplib::Request& request) {
    const std::string origin = request.get_header_value("Origin");
    const std::string site = request.get_header_value("Sec-Fetch-Site");
    const bool foreign = !origin.empty() && origin != "https://" + request.get_header_value("Host");
    if (foreign || (!site.empty() && site != "same-origin"))
        throw Refusal{403, "origin", "The request comes from another page."};
}

Json Body(const httplib::Request& request) {
    const std::string type = request.get_header_value("Content-Type");
    if (type.substr(0, type.find(';')) != "application/json") throw Wrong("The body must be JSON.");
    Json body = Json::parse(request.body, nullptr, false);
    if (!body.is_object()) throw Wrong("The body must be a JSON object.");
    return body;
}

// ---- What goes out ------------------------------------------------------------------------------

void Send(httplib::Response& out, int status, const Json& json) {
    out.status = status;
    out.set_content(json.dump(-1, ' ', false, Json::error_handler_t::replace), "application/json");
}

void Send(httplib::Response& out, const Refusal& refusal) {
    if (refusal.code == "tries") out.set_header("Retry-After", "300");
    Send(out, refusal.status, {{"error", {{"code", refusal.code}, {"message", refusal.message}}}});
}

/// Of errors that others raise; what they tell of this machine stays here.
Refusal RefusalFor(const vel_err::Error& error) {
    if (error.type() == "auth" && error.object() == "tries")
        return {429, "tries", "Too many attempts. Try again in five minutes."};
    if (error.type() == "auth") return {503, "limit", "Too many sessions are open."};
    if (error.type() == "missed") return Missed(error.object());
    if (error.type() == "program") return {422, "program", error.object()};
    if (error.type() == "busy" && !error.object().empty())
        return {409, "busy", "Another job of " + error.object() + " is running."};
    if (error.type() == "busy") return {503, "busy", "Too much is going on. Try again soon."};
    logger.Write(3, "The page failed: %s", error.what());
    return {500, "internal", "The panel failed; its log says why."};
}

Json Parsed(const std::string& output) {
    Json json = Json::parse(output, nullptr, false);
    if (json.is_discarded()) throw vel_err::Error("program", "its answer makes no sense");
    return json;
}

Json View(const JobState& job) {
    Json view = {{"id", job.id},         {"user", job.user},        {"kind", job.kind},
                 {"date", job.date},     {"report", job.report},    {"running", job.running},
                 {"status", job.status}, {"started", job.started},  {"finished", job.finished},
                 {"step", job.step},     {"bytes", job.bytes},      {"of_bytes", job.of_bytes},
                 {"files", job.files},   {"of_files", job.of_files}};
    if (job.running) return view;  // while it runs only the figures are looked at
    view["lines"] = job.lines;
    view["line_count"] = job.line_count;
    view["actions"] = job.actions;
    return view;
}

Json View(const User& user, const std::string& session) {
    return {{"user", user.name},
            {"admin", user.admin},
            {"root", user.root},
            {"csrf", WebSessions::CsrfToken(session)}};
}

/// The user without his role: backups of "bob#mail" are bob's.
std::string OwnerOf(const Json& backup) {
    std::string user = backup.value("user", "");
    return str::GetWord(user, '#');
}

/// What the administrator wants to see of one user at a glance.
struct Sum {
    bool known = false;  ///< to the panel, by now
    std::string plan, newest;
    int64_t backups = 0, size = 0;

    void Add(const Json& backup) {
        ++backups;
        size += backup.value("size", int64_t{0});
        newest = std::max(newest, backup.value("finished", ""));
    }
};

/// How often each user did something lately. Safe to use from several threads.
class Allowance {
public:
    /// False when he did it `most` times within the hour.
    bool Take(const std::string& user, std::size_t most) {
        const std::lock_guard lock(mutex_);
        auto& times = times_[user];
        const auto now = Clock::now();
        while (!times.empty() && times.front() + std::chrono::hours(1) <= now) times.pop_front();
        if (times.size() >= most) return false;
        times.push_back(now);
        return true;
    }

private:
    using Clock = std::chrono::steady_clock;
    std::mutex mutex_;
    std::map<std::string, std::deque<Clock::time_point>> times_;  // of known users only
};

}  // namespace

// ---- The requests -------------------------------------------------------------------------------

class Api::Impl {
public:
    explicit Impl(Sessions& protocol) : protocol_(protocol) {}
    Json Handle(Call& call);

private:
    enum class Access { Anybody, User, Admin };
    struct Entry {
        Json (Impl::*handler)(Call&);
        Access access;
    };
    static const std::map<std::string, Entry> kEntries;

    void Identify(Call& call, Access access);

    Json Login(Call& call);
    Json Logout(Call& call);
    Json Session(Call& call);
    Json Users(Call& call);
    Json Backups(Call& call);
    Json Files(Call& call);
    Json Reports(Call& call);
    Json Report(Call& call);
    Json Storages(Call& call);
    Json CheckStorage(Call& call);
    Json Pin(Call& call);
    Json Run(Call& call);
    Json Verify(Call& call);
    Json Restore(Call& call);
    Json JobsOf(Call& call);
    Json JobNamed(Call& call);
    Json Download(Call& call);

    Json Ask(const Call& call, const std::vector<std::string>& words) {
        return Parsed(programs_.Ask(call.user.name, words));
    }
    Json Start(const Call& call, JobRequest request) {
        if (const auto user = call.store.FindUser(request.user)) request.uid = user->uid;
        return {{"id", jobs_.Start(request)}};
    }

    Sessions& protocol_;
    WebSessions web_;
    Programs programs_;
    Jobs jobs_;
    Allowance downloads_;
    std::counting_semaphore<2> password_checks_{2};  // each takes a core and 16 MiB for a while
};

const std::map<std::string, Api::Impl::Entry> Api::Impl::kEntries = {
    {"POST login", {&Impl::Login, Access::Anybody}},
    {"POST logout", {&Impl::Logout, Access::User}},
    {"GET session", {&Impl::Session, Access::Anybody}},
    {"GET users", {&Impl::Users, Access::Admin}},
    {"GET backups", {&Impl::Backups, Access::User}},
    {"GET files", {&Impl::Files, Access::User}},
    {"GET reports", {&Impl::Reports, Access::User}},
    {"POST reports/ID", {&Impl::Report, Access::User}},
    {"GET storages", {&Impl::Storages, Access::User}},
    {"POST storage-check", {&Impl::CheckStorage, Access::User}},
    {"POST pin", {&Impl::Pin, Access::Admin}},
    {"POST run", {&Impl::Run, Access::User}},
    {"POST verify", {&Impl::Verify, Access::Admin}},
    {"POST restore", {&Impl::Restore, Access::User}},
    {"GET jobs", {&Impl::JobsOf, Access::User}},
    {"GET jobs/ID", {&Impl::JobNamed, Access::User}},
    {"POST download", {&Impl::Download, Access::User}},
};

Json Api::Impl::Handle(Call& call) {
    const auto entry =
        kEntries.find(call.http.method + " " + call.name + (call.id.empty() ? "" : "/ID"));
    if (entry == kEntries.end()) throw Missed("request");
    if (call.store.Locked()) throw Refusal{503, "locked", "The panel is locked; try again later."};
    if (call.http.method != "GET") {
        CheckOrigin(call.http);
        call.body = Body(call.http);
    }
    Identify(call, entry->second.access);
    return (this->*entry->second.handler)(call);
}

void Api::Impl::Identify(Call& call, Access access) {
    if (access == Access::Anybody) return;
    const Refusal stranger{401, "session", "Please log in."};
    call.session = Cookie(call.http);
    const auto user = call.store.FindUser(web_.User(call.session));
    if (!user || !web_.StillHis(call.session, *user)) throw stranger;
    call.user = *user;
    const std::string token = call.http.get_header_value("X-CSRF-Token");
    if (call.http.method != "GET" && token != WebSessions::CsrfToken(call.session))
        throw Refusal{403, "csrf", "The page is out of date; load it again."};
    if (access == Access::Admin && !user->admin)
        throw Refusal{403, "forbidden", "Only administrators may do that."};
}

// ---- Log-in -------------------------------------------------------------------------------------

/// A refusal says the same, and takes as long, for an unknown name and for a wrong password.
Json Api::Impl::Login(Call& call) {
    const std::string password = call.Text("password");
    std::string name = call.Text("user");
    if (!IsId(name) || password.size() > kLongestSecret) name.clear();
    Sessions::Try attempt(protocol_, name, call.http.remote_addr);
    if (!password_checks_.try_acquire_for(std::chrono::seconds(5))) throw vel_err::Error("busy");
    const auto user = call.store.FindUser(name);
    const bool known = CheckPassword(password, user ? user->password_hash : "");
    password_checks_.release();
    if (!user || !known) {
        attempt.Failed();
        logger.Write(4, "Refused log-in from %s", call.http.remote_addr);
        throw Refusal{401, "auth", "The name or the password is wrong."};
    }
    const std::string session = web_.Open(*user);
    call.out.set_header("Set-Cookie", std::string(kCookie) + "=" + session + kCookieRules);
    return View(*user, session);
}

Json Api::Impl::Logout(Call& call) {
    web_.Close(call.session);
    call.out.set_header("Set-Cookie", std::string(kCookie) + "=; Max-Age=0" + kCookieRules);
    return Json::object();
}

/// A page that is opened asks whether there is a log-in: that there is none is no failure.
Json Api::Impl::Session(Call& call) {
    try {
        Identify(call, Access::User);
    } catch (const Refusal& refusal) {
        return {{"logged_in", false}};
    }
    Json view = View(call.user, call.session);
    view["logged_in"] = true;
    return view;
}

// ---- What there is ------------------------------------------------------------------------------

Json Api::Impl::Users(Call& call) {
    std::map<std::string, Sum> sums;
    for (const User& user : call.store.Users()) {
        if (user.root.empty()) continue;  // an administrator without files
        sums[user.name].known = true;
        sums[user.name].plan = user.plan;
    }
    for (const Json& backup : Ask(call, {"list", "--json"})) sums[OwnerOf(backup)].Add(backup);
    Json rows = Json::array();
    for (const auto& [name, sum] : sums)
        rows.push_back({{"name", name},
                        {"known", sum.known},
                        {"plan", sum.plan},
                        {"backups", sum.backups},
                        {"size", sum.size},
                        {"newest", sum.newest}});
    return rows;
}

Json Api::Impl::Backups(Call& call) {
    if (call.user.admin && call.Flag("all"))
        return {{"backups", Ask(call, {"list", "--json"})}, {"own", nullptr}};
    const std::string owner = Owner(call);
    const auto list = [&](std::vector<std::string> words) {
        words = HisOnly(call, std::move(words));
        words.insert(words.end(), {"--", owner});
        return words;
    };
    Json own = nullptr;
    if (call.store.FindStorage(owner)) own = Ask(call, list({"list", "--json", "--private"}));
    return {{"backups", Ask(call, list({"list", "--json"}))}, {"own", own}};
}

Json Api::Impl::Files(Call& call) {
    const std::string folder = call.Text("folder"), search = call.Text("search");
    if (search.size() > kLongestSearch || search.find('\0') != std::string::npos)
        throw Wrong("The text to search for is too long.");
    std::vector<std::string> words = {
        "files", "--json", "--offset=" + std::to_string(Number(call, "offset", 0, INT64_MAX)),
        "--limit=" + std::to_string(Number(call, "limit", kMostRows, kMostRows))};
    if (!search.empty()) words.push_back("--search=" + search);
    if (call.Flag("own")) words.push_back("--private");
    words = HisOnly(call, std::move(words));
    words.insert(words.end(), {"--", Owner(call), Date(call)});
    if (!folder.empty()) words.push_back(Argument(Path(folder)));
    return Ask(call, words);
}

/// The program knows whose report each is; another's is as good as none.
Json Api::Impl::Reports(Call& call) {
    const bool all = call.user.admin && call.Flag("all");
    const std::string owner = Owner(call);
    Json rows = Json::array();
    for (Json& report : Ask(call, {"report", "--json"}))
        if (all ||
            (report.value("owner", "") == owner && IsHis(call, owner, report.value("uid", ""))))
            rows.push_back(std::move(report));
    return rows;
}

Json Api::Impl::Report(Call& call) {
    for (const Json& report : Ask(call, {"report", "--json"})) {
        const bool his = IsHis(call, report.value("owner", ""), report.value("uid", ""));
        if (his && report.value("id", "") == call.id)
            return Ask(call, {"report", "--json", "--", call.id});
    }
    throw Missed("report");
}

/// An administrator sees all; a user his own, and what kind the administrator's is.
Json Api::Impl::Storages(Call& call) {
    if (call.user.admin && call.Text("user").empty())
        return Ask(call, {"storage", "list", "--json"});
    const std::string owner = Owner(call);
    Json rows = Json::array();
    for (const Json& storage : Ask(call, {"storage", "list", "--json"}))
        if (storage.value("owner", "") == owner) rows.push_back(storage);
    return rows;
}

// ---- What is done -------------------------------------------------------------------------------

/// An administrator who names nobody means his own storage.
Json Api::Impl::CheckStorage(Call& call) {
    const bool main = call.user.admin && call.Text("user").empty();
    const std::string owner = main ? "" : Owner(call);
    std::vector<std::string> words = {"storage", "check"};
    if (!main) words.insert(words.end(), {"--", owner});
    return Start(call, {owner, "check", "", "", words});
}

Json Api::Impl::Pin(Call& call) {
    const std::string owner = Owner(call), date = Date(call);
    programs_.Ask(call.user.name, {call.Flag("pinned") ? "pin" : "unpin", "--", owner, date});
    return Json::object();
}

Json Api::Impl::Run(Call& call) {
    const std::string owner = Owner(call);
    std::vector<std::string> words = {"run"};
    if (call.Flag("custom")) words.push_back("--custom");
    words.insert(words.end(), {"--", owner});
    return Start(call, {owner, "run", "", "", words});
}

Json Api::Impl::Verify(Call& call) {
    const std::string owner = Owner(call), date = Date(call);
    std::vector<std::string> words = {"verify"};
    if (call.Flag("deep")) words.push_back("--deep");
    words.insert(words.end(), {"--", owner, date});
    return Start(call, {owner, "verify", date, "", words});
}

/// Always into the user's own root. A preview changes nothing.
Json Api::Impl::Restore(Call& call) {
    static const std::set<std::string> kOverwrite = {"always", "changed", "newer", "never"};
    const std::string owner = Owner(call), date = Date(call), what = call.Text("what");
    const bool preview = call.Flag("preview");
    const std::string overwrite = call.Text("overwrite");
    if (kOverwrite.count(overwrite) == 0) throw Wrong("What happens to files that are there?");
    std::vector<std::string> words = {"restore", "--yes", "--overwrite=" + overwrite};
    const std::string report =
        preview ? "" : owner + "-" + date + "-" + str::hex::Encode(str::Random(4));
    if (preview) words.push_back("--dry-run");
    if (!preview) words.push_back("--report=" + report);
    if (what == "files") words.push_back("--no-databases");
    if (call.Flag("own")) words.push_back("--private");
    words = HisOnly(call, std::move(words));
    words.insert(words.end(), {"--", owner, date});
    if (what == "paths") {
        const auto paths = Paths(call);
        words.insert(words.end(), paths.begin(), paths.end());
    } else if (what != "all" && what != "files") {
        throw Wrong("What is to come back?");
    }
    return Start(call, {owner, preview ? "preview" : "restore", date, report, words});
}

Json Api::Impl::JobsOf(Call& call) {
    const bool all = call.user.admin && call.Flag("all");
    const std::string owner = Owner(call);
    Json rows = Json::array();
    for (const JobState& job : jobs_.Of(all ? "" : owner))
        if (IsHis(call, job.user, std::to_string(job.uid))) rows.push_back(View(job));
    return rows;
}

Json Api::Impl::JobNamed(Call& call) {
    const auto job = jobs_.Find(call.id);
    if (!job || !IsHis(call, job->user, std::to_string(job->uid))) throw Missed("job");
    return View(*job);
}

/// The session travels in an address and is good for one download of this user's.
Json Api::Impl::Download(Call& call) {
    static const std::set<std::string> kParts = {"1", "2", "listing"};
    const std::string owner = Owner(call), part = call.Text("part");
    if (kParts.count(part) == 0) throw Wrong("There is no such part.");
    const User user = call.store.GetUser(owner);
    if (!downloads_.Take(call.user.name, kDownloadsAnHour))
        throw Refusal{429, "downloads", "Too many downloads. Try again in an hour."};
    return {{"url", "/velcgi/backup2_download?auth=" + protocol_.Open(user) + "&part=" + part}};
}

// ---- The door -----------------------------------------------------------------------------------

Api::Api(Sessions& protocol) : impl_(std::make_unique<Impl>(protocol)) {}
Api::~Api() = default;

void Api::Answer(const httplib::Request& request, httplib::Response& response) try {
    std::string rest = request.path.substr(std::min(request.path.size(), std::size_t{5}));
    Store store;
    Call call{request, response, store, str::GetWord(rest, '/'), rest, Json::object(), "", {}};
    if (!call.id.empty() && !IsId(call.id)) throw Missed("request");
    Send(response, 200, impl_->Handle(call));
} catch (const Refusal& refusal) {
    Send(response, refusal);
} catch (const vel_tool::UsageError& error) {
    Send(response, Wrong(error.what()));
} catch (const vel_err::Error& error) {
    Send(response, RefusalFor(error));
} catch (const std::exception& error) {
    logger.Write(3, "The page failed: %s", error.what());
    Send(response, Refusal{500, "internal", "The panel failed; its log says why."});
}

}  // namespace panel
