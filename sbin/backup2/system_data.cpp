#include "sbin/backup2/system_data.h"

#include <algorithm>
#include <iostream>
#include <vector>

#include "vel/str.h"
#include "vel/vel_file.h"
#include "vel/vel_tool.h"

#include "sbin/backup2/job.h"
#include "sbin/backup2/output.h"

namespace backup2_admin {
namespace {

bool IsDocument(const std::string& name) { return str::StartsWith(name, "user."); }

std::vector<std::string> InOrder(const std::string& dumps) {
    std::vector<std::string> names;
    for (vel_file::Dir entries(dumps, 2); entries.Next();) names.push_back(entries.Name());
    std::sort(names.begin(), names.end());
    std::stable_partition(names.begin(), names.end(), IsDocument);
    return names;
}

/// All lines but the last one: what was left out.
void PrintWarnings(const std::string& name, const std::string& output) {
    std::vector<std::string> lines;
    str::Split(output, "\n", lines);
    for (std::size_t i = 0; i + 1 < lines.size(); ++i)
        std::cout << Printable(name) << "\tleft out: " << lines[i] << "\n";
}

}  // namespace

int RestoreSystem(const std::string& dumps, const std::string& user, const std::string& host_dist,
                  const std::function<void(const std::string&, const std::string&)>& done) {
    int status = vel_tool::kDone;
    for (const std::string& name : InOrder(dumps)) {
        std::vector<std::string> argv = {"backup2_system", "--restore", "--user", user,
                                         "--manager",      kPanel};
        if (!host_dist.empty()) argv.insert(argv.end(), {"--host-dist", host_dist});
        argv.push_back(vel_file::ConcatPath(dumps, name));
        const Done run = RunTool(std::move(argv));
        const bool good = run.status == vel_tool::kDone || run.status == vel_tool::kWarnings;
        if (run.status == vel_tool::kWarnings) PrintWarnings(name, run.output);
        std::cout << Printable(name) << "\t" << (good ? "restored" : run.LastLine()) << std::endl;
        done(name, good ? "" : run.LastLine());
        status = WorseStatus(status, good ? run.status : vel_tool::kFailed);
    }
    return status;
}

}  // namespace backup2_admin
