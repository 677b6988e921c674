/// backup2 files: looks into a backup through its listing, without unpacking anything.
#include <algorithm>
#include <iostream>
#include <map>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "vel/str.h"
#include "vel/vel_file.h"
#include "vel/vel_tool.h"

#include "sbin/backup2/commands.h"
#include "sbin/backup2/entries.h"
#include "sbin/backup2/job.h"
#include "sbin/backup2/near_names.h"
#include "sbin/backup2/output.h"

namespace backup2_admin {
namespace {

const char kExamples[] = R"(
The size of a folder is that of all files below it. --search looks for a text in names, whatever its
case; with a "/" in it in whole paths. In JSON "path" is the exact name, percent-encoded.

Examples:
  backup2 files bob 2024-01-31                       what lies directly below bob's root
  backup2 files bob 2024-01-31 data/www --limit 50   the first 50 of a folder
  backup2 files bob 2024-01-31 --search invoice)";

struct Options {
    std::string user, uid, date, folder, search;
    std::size_t offset = 0, limit = 1000;
    bool own = false, json = false;
};

struct Row {
    ListedEntry entry;
    uint64_t files = 0;  ///< of a folder: below it
};

struct Found {
    std::vector<Row> rows;  ///< those that were asked for
    std::size_t total = 0;  ///< how many there are
};

// ---- One folder ---------------------------------------------------------------------------------

/// The entries directly below a folder; each sums up what lies below itself.
class FolderView {
public:
    explicit FolderView(const std::string& folder) : begin_(folder.empty() ? "" : folder + "/") {}
    void Add(const ListedEntry& entry);
    Found Page(std::size_t offset, std::size_t limit) const;

private:
    std::string begin_;
    std::map<std::string, Row> rows_;
};

void FolderView::Add(const ListedEntry& entry) {
    if (entry.name == "." || !str::StartsWith(entry.name, begin_)) return;
    const std::size_t cut = entry.name.find('/', begin_.size());
    if (cut == std::string::npos) {
        Row& row = rows_[entry.name];
        const uint64_t below = row.entry.size;
        row.entry = entry;
        row.entry.size = entry.type == 'd' ? below : entry.size;
        return;
    }
    Row& row = rows_[entry.name.substr(0, cut)];
    if (row.entry.name.empty()) {  // its own line may come later, or not at all
        row.entry.name = entry.name.substr(0, cut);
        row.entry.type = 'd';
    }
    row.entry.size += entry.type == 'f' ? entry.size : 0;
    row.files += entry.type == 'd' ? 0 : 1;
}

Found FolderView::Page(std::size_t offset, std::size_t limit) const {
    std::vector<const Row*> order;
    for (const auto& named : rows_) order.push_back(&named.second);
    std::stable_partition(order.begin(), order.end(),
                          [](const Row* row) { return row->entry.type == 'd'; });
    Found found;
    found.total = order.size();
    for (std::size_t i = offset; i < order.size() && i - offset < limit; ++i)
        found.rows.push_back(*order[i]);
    return found;
}

Found ListFolder(const std::string& index, const Options& options) {
    FolderView view(options.folder);
    bool exists = options.folder.empty();
    Found itself;
    EachListedEntry(index, [&](const ListedEntry& entry) {
        if (entry.Gone()) return;
        if (entry.name == options.folder && entry.type != 'd') itself = {{{entry, 0}}, 1};
        exists = exists || entry.name == options.folder ||
                 str::StartsWith(entry.name, options.folder + "/");
        view.Add(entry);
    });
    if (!exists) {
        std::string what = Printable(options.folder);
        const std::string near = AskNear(NearNames(index, {options.folder}).front());
        if (!near.empty()) what += ": " + near;
        throw vel_err::Error("missed", "folder", what);
    }
    if (itself.total > 0) return itself;
    return view.Page(options.offset, options.limit);
}

// ---- Search -------------------------------------------------------------------------------------

Found Search(const std::string& index, const Options& options) {
    const std::string text = str::Lower(options.search);
    const bool whole = text.find('/') != std::string::npos;
    const std::string begin = options.folder.empty() ? "" : options.folder + "/";
    Found found;
    EachListedEntry(index, [&](const ListedEntry& entry) {
        if (entry.Gone() || entry.name == "." || !str::StartsWith(entry.name, begin)) return;
        const std::string name = str::Lower(whole ? entry.name : vel_file::Name(entry.name));
        if (name.find(text) == std::string::npos) return;
        const std::size_t number = found.total++;
        if (number < options.offset || number - options.offset >= options.limit) return;
        found.rows.push_back({entry, 0});
    });
    return found;
}

// ---- Output -------------------------------------------------------------------------------------

std::string TypeWord(const ListedEntry& entry) {
    static const std::map<char, std::string> kWords = {
        {'f', "file"}, {'d', "folder"}, {'l', "link"}, {'h', "hard link"}, {'p', "pipe"}};
    const auto word = kWords.find(entry.type);
    return word == kWords.end() ? "other" : word->second;
}

nlohmann::json Json(const Row& row) {
    const ListedEntry& entry = row.entry;
    nlohmann::json json = {{"name", entry.name},      {"path", str::url::Encode(entry.name)},
                           {"type", TypeWord(entry)}, {"size", entry.size},
                           {"mtime", entry.mtime},    {"target", entry.target},
                           {"flaw", entry.Flaw()}};
    if (entry.type == 'd') json["files"] = row.files;
    return json;
}

void PrintRows(const Found& found, const Options& options) {
    if (options.json) {
        auto entries = nlohmann::json::array();
        for (const Row& row : found.rows) entries.push_back(Json(row));
        const nlohmann::json answer = {
            {"total", found.total}, {"offset", options.offset}, {"entries", std::move(entries)}};
        return PrintJson(answer);
    }
    Table table("lrrl");
    table.Add({"TYPE", "SIZE", "FILES", "NAME"});
    for (const Row& row : found.rows) {
        const std::string flaw = row.entry.Flaw();
        table.Add({TypeWord(row.entry), HumanSize(row.entry.size),
                   row.entry.type == 'd' ? str::Str(row.files) : "",
                   row.entry.name + (flaw.empty() ? "" : "  (" + flaw + ")")});
    }
    std::cout << (found.total > 0 ? table.Str() : "nothing\n");
    if (found.rows.size() < found.total)
        std::cout << "shown: " << found.rows.size() << " of " << found.total << "\n";
}

/// As the listing has it: relative to the root, "" for the root itself.
std::string FolderName(const std::string& folder) {
    if (folder.empty() || folder == ".") return "";
    const std::string name = vel_file::GoodPath(folder);
    if (name.empty() || name[0] == '/')
        throw vel_tool::UsageError("'" + folder + "' is not relative to the user's root");
    return name;
}

int Files(Options options) {
    const std::string user = CheckUser(options.user);
    options.folder = FolderName(options.folder);
    const Site site = AskSites(options.own, user).front();
    const Backup backup = GetBackup(site.local_dir, user, CheckDate(options.date), options.uid);
    backup.CheckRecord();
    UseStorage(site.token);
    const auto in_use = Protect(backup);
    const std::string index = NeedIndex(backup, site.token);
    PrintRows(options.search.empty() ? ListFolder(index, options) : Search(index, options),
              options);
    return vel_tool::kDone;
}

}  // namespace

void AddFiles(CLI::App& app, Action& chosen) {
    auto* command =
        app.add_subcommand("files", "Look into a backup: a folder, or names that match");
    const auto options = std::make_shared<Options>();
    command->add_option("user", options->user, "Whose backup")->required();
    command->add_option("date", options->date, "Its day, or \"custom\"")->required();
    command->add_option("folder", options->folder, "What to look into (the root)");
    command->add_option("--search", options->search, "Everything below it whose name holds this");
    command->add_option("--offset", options->offset, "Leave out so many at the beginning");
    command->add_option("--limit", options->limit, "Show at most so many (1000)");
    command->add_option("--uid", options->uid, kUidHelp);
    command->add_flag("--private", options->own, "The copy in the user's own storage");
    command->add_flag("--json", options->json, "Report as JSON");
    command->footer(kExamples);
    command->callback([options, &chosen] { chosen = [options] { return Files(*options); }; });
}

}  // namespace backup2_admin
