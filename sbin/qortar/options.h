/// The command line of qortar. It is read by hand because values may be empty and names may begin
/// with "-": an option takes exactly the next element, whatever that looks like; the first element
/// that is no option (or the one behind "--") starts the list of folders or paths.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qortar {

enum class Action { Create, Extract, List, Verify };
/// What happens to a file that is there already: replaced; replaced when type, size or mtime
/// differ; replaced when the archive's is newer; kept.
enum class Overwrite { Always, Changed, Newer, Never };

struct Options {
    Action action = Action::Create;
    std::string archive;  ///< --create, --extract, --list, --verify: absolute, without ".partK"
    std::string root;     ///< --root: absolute; where names begin
    std::string user;     ///< --user: the tree belongs to this user; "" = nobody in particular
    unsigned jobs = 0;    ///< --jobs: number of working threads, 0 = one for each core
    std::vector<std::string> paths;  ///< folders to save, or names to restore; empty = everything

    // Creating
    uint64_t slice_size = 0;            ///< --slice, bytes; 0 = one piece
    std::string save_listing;           ///< --save-listing: absolute
    std::string base;                   ///< --base: listing of the full backup, absolute, or ""
    std::vector<std::string> excludes;  ///< --exclude: patterns in the order given
    std::string execute;                ///< --execute: command for each finished slice, or ""
    std::string hook_dir;               ///< --backup-hook: relative to the root, or ""
    std::string hook_execute;           ///< --backup-hook-execute

    // Reading
    std::string listing;       ///< --listing: absolute, or ""
    std::string base_archive;  ///< --base-archive: the full backup's archive, absolute, or ""
    std::string fetch;         ///< --fetch: command for each slice that is not there, or ""
    Overwrite overwrite = Overwrite::Always;
    bool dry_run = false;
    bool own = false;   ///< --own: all of it becomes the user's, whoever owned it
    bool json = false;  ///< --json: reports as JSON
};

/// Throws vel_tool::UsageError with the reason for what cannot be understood or is missing.
Options ParseOptions(const std::vector<std::string>& args);
/// Bytes of "", "0", "4096", "64K", "100M", "2G", "1T" (powers of 1024; either case, a "B" or "iB"
/// behind the letter is understood). Throws vel_tool::UsageError for anything else.
uint64_t ParseSize(const std::string& text);
/// The text that --help prints.
std::string HelpText();

}  // namespace qortar
