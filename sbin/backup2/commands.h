/// The subcommands of backup2. Each Add function describes one on the command line; when it is the
/// one that was typed, `chosen` becomes the function that does it and returns the exit status.
#pragma once

#include <functional>

namespace CLI {
class App;
}

namespace backup2_admin {

using Action = std::function<int()>;

void AddRun(CLI::App& app, Action& chosen);
void AddList(CLI::App& app, Action& chosen);
void AddShow(CLI::App& app, Action& chosen);
void AddFiles(CLI::App& app, Action& chosen);
void AddRestore(CLI::App& app, Action& chosen);
void AddReport(CLI::App& app, Action& chosen);
void AddImport(CLI::App& app, Action& chosen);
void AddConvert(CLI::App& app, Action& chosen);
void AddVerify(CLI::App& app, Action& chosen);
void AddDelete(CLI::App& app, Action& chosen);
void AddCopy(CLI::App& app, Action& chosen);
void AddCleanup(CLI::App& app, Action& chosen);
void AddLimit(CLI::App& app, Action& chosen);
void AddPin(CLI::App& app, Action& chosen);
void AddUnpin(CLI::App& app, Action& chosen);
void AddStorage(CLI::App& app, Action& chosen);
/// Not shown in the help: how the archiver gets slices from the storage while it restores.
void AddFetchSlice(CLI::App& app, Action& chosen);

}  // namespace backup2_admin
