/// backup2 fetch-slice: one command by which qortar gets any slice while it restores. The slice's
/// own name tells which backup it belongs to, so it serves an increment and its base alike.
#include <stdexcept>

#include <CLI/CLI.hpp>

#include "vel/str.h"
#include "vel/vel_file.h"
#include "vel/vel_tool.h"

#include "sbin/backup2/commands.h"
#include "sbin/backup2/job.h"

namespace backup2_admin {
namespace {

int FetchSlice(const std::string& local_dir, const std::string& local) {
    std::string file = backup2::GetPath(local);  // user/date/file
    const std::string user = str::GetWord(file, '/');
    const std::string date = str::GetWord(file, '/');
    const std::string info = backup2::GetInfoFile(local_dir, user, date);
    RunTool({"backup2_cp", "--get", "--info-file", info, "--slice", local})
        .ThrowIfFailed(vel_file::Name(local));
    return vel_tool::kDone;
}

}  // namespace

void AddFetchSlice(CLI::App& app, Action& chosen) {
    auto* command = app.add_subcommand("fetch-slice", "Fetch one slice for the archiver");
    command->group("");  // not for people
    const auto dir = std::make_shared<std::string>();
    const auto local = std::make_shared<std::string>();
    command->add_option("--dir", *dir)->required();
    command->add_option("local", *local)->required();
    command->callback(
        [dir, local, &chosen] { chosen = [dir, local] { return FetchSlice(*dir, *local); }; });
}

}  // namespace backup2_admin
