#include "sbin/backup2/extract.h"

#include <stdexcept>

#include "vel/str.h"
#include "vel/vel_proc.h"
#include "vel/vel_user.h"

#include "sbin/backup2/output.h"

namespace backup2_admin {
namespace {

const std::string kArchiver = "qortar";

/// Lines with a TAB name an entry, others are the archiver's words about itself.
void Sort(const std::string& output, Extraction::Result& result) {
    std::vector<std::string> lines;
    str::Split(output, "\n", lines);
    for (std::string& line : lines) {
        if (line.find('\t') == std::string::npos) {
            const std::string prefix = kArchiver + ": ";
            result.message =
                PlainWords(str::StartsWith(line, prefix) ? line.substr(prefix.size()) : line);
            continue;
        }
        result.failed += line + "\n";
        const std::string first = str::GetWord(line, '\t');
        result.lines.push_back(Printable(backup2::DecodeFileName(first)) + "\t" + line);
    }
}

/// The archiver of a run that was killed may still be extracting there.
vel_file::TmpDir OwnDirectory(const std::string& path) {
    EndOrphans(path);
    return vel_file::TmpDir::At(path);
}

}  // namespace

void Extraction::Result::ThrowIfFatal(const std::string& title) const {
    if (status == 0 || status == 3 || !lines.empty()) return;
    throw std::runtime_error(
        title + ": " +
        (message.empty() ? "the archiver ended with status " + str::Str(status) : message));
}

Extraction::Extraction(const std::string& work, const Backup& backup, const std::string& local_dir,
                       std::string index)
    : backup_(backup),
      local_dir_(local_dir),
      index_(std::move(index)),
      slices_(OwnDirectory(vel_file::ConcatPath(local_dir, "." + work + "." + backup.user))) {}

Extraction::Result Extraction::Run(const std::string& action, const std::string& root,
                                   std::vector<std::string> more,
                                   const std::vector<std::string>& paths) const {
    std::vector<std::string> argv = {"sbin/" + kArchiver,
                                     action,
                                     vel_file::ConcatPath(slices_.Path(), backup_.Archive()),
                                     "--listing",
                                     index_,
                                     "--fetch",
                                     FetchCommand(local_dir_)};
    const auto add = [&](const std::string& option, const std::string& value) {
        if (!value.empty()) argv.insert(argv.end(), {option, value});
    };
    add("--root", root);
    const std::string base = backup_.Base();
    if (!base.empty()) add("--base-archive", vel_file::ConcatPath(slices_.Path(), base));
    if (!root.empty() && vel_user::Exists(backup_.user)) add("--user", backup_.user);
    argv.insert(argv.end(), more.begin(), more.end());
    if (!paths.empty()) {
        argv.push_back("--");
        argv.insert(argv.end(), paths.begin(), paths.end());
    }
    return RunArchiver(std::move(argv));
}

Extraction::Result RunArchiver(std::vector<std::string> argv) {
    vel_proc::Execute archiver(std::move(argv), vel_proc::kJoinErrors);
    Extraction::Result result;
    Sort(archiver.Str(), result);
    result.status = archiver.Result();
    return result;
}

}  // namespace backup2_admin
