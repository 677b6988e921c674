#include "sbin/qortar/options.h"

#include <cctype>
#include <charconv>
#include <functional>
#include <limits>
#include <map>
#include <optional>

#include "vel/vel_tool.h"

namespace qortar {
namespace {

using vel_tool::UsageError;

constexpr char kHelp[] = R"(qortar - the archiver

  qortar --create ARCHIVE --root R --save-listing L [options] [folders...]
  qortar --extract ARCHIVE --root R [options] [paths...]
  qortar --list ARCHIVE [--listing L] [--json] [paths...]
  qortar --verify ARCHIVE [--listing L] [--json]

Every option takes the next element as its value; the first other element, or the one behind
"--", starts the folders or paths, which are relative to the root. None means everything.

Creating:
  --slice SIZE               bytes of a piece (K, M, G, T: powers of 1024); "" or 0: one piece
  --save-listing FILE        where the listing goes
  --base FILE                listing of a full archive: unchanged entries are not stored again
  --exclude PATTERN          leave out what matches (repeatable)
  --execute CMD              run for each finished piece: %c is "slice" or "last-slice",
                             %p its directory, %f its name, %% a percent sign
  --backup-hook DIR          run the next command round each file below DIR
  --backup-hook-execute CMD  %c is "start" or "end"; %p, %f: directory and name of the file
  --user NAME                the tree is this user's: files with several names that are somebody
                             else's are not read
Reading:
  --listing FILE             the archive's listing
  --base-archive ARCHIVE     the full archive below an incremental one
  --fetch CMD                run for each piece that is not there; %p, %f: where it must appear
  --overwrite WHEN           always, changed, newer or never
  --dry-run                  say what would be made
  --own                      with --user: whoever owned an entry, it becomes the user's
  --json                     report as JSON
Both:
  --root R                   where names begin
  --jobs N                   working threads, one for each core when it is not given
  --help, --version

Environment: QORTAR_LEVEL 0..3 (compression, 1 when it is not set).
Status: 0 done, 1 failed, 2 wrong usage, 3 done with warnings. Creating ends with 0 when single
files could not be saved: they stand as "name TAB reason" on standard error.
)";

Overwrite ParseOverwrite(const std::string& text) {
    static const std::map<std::string, Overwrite> kWords = {{"always", Overwrite::Always},
                                                            {"changed", Overwrite::Changed},
                                                            {"newer", Overwrite::Newer},
                                                            {"never", Overwrite::Never}};
    const auto found = kWords.find(text);
    if (found != kWords.end()) return found->second;
    throw UsageError("--overwrite takes always, changed, newer or never, not '" + text + "'");
}

unsigned ParseJobs(const std::string& text) {
    unsigned jobs = 0;
    const char* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, jobs);
    if (result.ec == std::errc() && result.ptr == end && jobs >= 1 && jobs <= 1024) return jobs;
    throw UsageError("--jobs takes a number from 1 to 1024, not '" + text + "'");
}

std::string AbsoluteOrEmpty(const std::string& path) {
    return path.empty() ? path : vel_tool::Absolute(path);
}

class Parser {
public:
    Options Parse(const std::vector<std::string>& args) {
        std::size_t at = 0;
        while (at < args.size() && args[at] != "--") {
            const std::string& word = args[at];
            if (TakeFlag(word)) {
                ++at;
            } else if (const auto option = valued_.find(word); option != valued_.end()) {
                if (at + 1 == args.size()) throw UsageError(word + " needs a value");
                option->second(args[at + 1]);
                at += 2;
            } else {
                break;
            }
        }
        if (at < args.size() && args[at] == "--") ++at;
        options_.paths.assign(args.begin() + static_cast<std::ptrdiff_t>(at), args.end());
        Check();
        return options_;
    }

private:
    using Take = std::function<void(const std::string&)>;

    bool TakeFlag(const std::string& word) {
        if (word == "--dry-run") return options_.dry_run = true;
        if (word == "--json") return options_.json = true;
        if (word == "--own") return options_.own = true;
        return false;
    }

    Take Text(std::string& target) {
        return [&target](const std::string& value) { target = value; };
    }
    Take Path(std::string& target) {
        return [&target](const std::string& value) { target = AbsoluteOrEmpty(value); };
    }
    Take Archive(Action action) {
        return [this, action](const std::string& value) {
            if (chosen_) throw UsageError("only one of --create, --extract, --list and --verify");
            chosen_ = true;
            options_.action = action;
            options_.archive = AbsoluteOrEmpty(value);
        };
    }

    void Check() const {
        if (!chosen_) throw UsageError("one of --create, --extract, --list and --verify is needed");
        Need(options_.archive, "the archive's name");
        if (options_.archive.back() == '/') throw UsageError("the archive's name ends in \"/\"");
        const bool create = options_.action == Action::Create;
        if (create || options_.action == Action::Extract) Need(options_.root, "--root");
        if (create) Need(options_.save_listing, "--save-listing");
        if (options_.own) Need(options_.user, "--user");
        if (options_.hook_dir.empty() != options_.hook_execute.empty()) {
            throw UsageError("--backup-hook and --backup-hook-execute need each other");
        }
    }

    static void Need(const std::string& value, const char* what) {
        if (value.empty()) throw UsageError(std::string(what) + " is missing");
    }

    Options options_;
    bool chosen_ = false;
    const std::map<std::string, Take> valued_ = {
        {"--create", Archive(Action::Create)},
        {"--extract", Archive(Action::Extract)},
        {"--list", Archive(Action::List)},
        {"--verify", Archive(Action::Verify)},
        {"--slice", [this](const std::string& v) { options_.slice_size = ParseSize(v); }},
        {"--user", Text(options_.user)},
        {"--root", Path(options_.root)},
        {"--save-listing", Path(options_.save_listing)},
        {"--base", Path(options_.base)},
        {"--exclude", [this](const std::string& v) { options_.excludes.push_back(v); }},
        {"--execute", Text(options_.execute)},
        {"--backup-hook", Text(options_.hook_dir)},
        {"--backup-hook-execute", Text(options_.hook_execute)},
        {"--listing", Path(options_.listing)},
        {"--base-archive", Path(options_.base_archive)},
        {"--fetch", Text(options_.fetch)},
        {"--overwrite", [this](const std::string& v) { options_.overwrite = ParseOverwrite(v); }},
        {"--jobs", [this](const std::string& v) { options_.jobs = ParseJobs(v); }},
    };
};

// The power of 1024 that a suffix stands for.
std::optional<unsigned> SuffixPower(const std::string& suffix) {
    if (suffix.empty()) return 0;
    constexpr std::string_view kLetters = "KMGT";
    const auto letter = static_cast<char>(std::toupper(static_cast<unsigned char>(suffix[0])));
    const std::size_t power = kLetters.find(letter);
    const std::string rest = suffix.substr(1);
    const bool known = rest.empty() || rest == "B" || rest == "b" || rest == "iB";
    if (power == std::string_view::npos || !known) return std::nullopt;
    return static_cast<unsigned>(power) + 1;
}

}  // namespace

Options ParseOptions(const std::vector<std::string>& args) { return Parser().Parse(args); }

uint64_t ParseSize(const std::string& text) {
    if (text.empty()) return 0;
    uint64_t number = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    const auto power = SuffixPower(std::string(result.ptr, text.data() + text.size()));
    const bool fits = power && number <= (std::numeric_limits<uint64_t>::max() >> (10 * *power));
    if (result.ec == std::errc() && fits) return number << (10 * *power);
    throw UsageError("'" + text + "' is no size (a number, then K, M, G or T)");
}

std::string HelpText() { return kHelp; }

}  // namespace qortar
