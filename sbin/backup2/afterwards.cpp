#include "sbin/backup2/afterwards.h"

#include <stdexcept>

#include "vel/vel_tool.h"

#include "sbin/backup2/limits.h"
#include "sbin/backup2/private.h"

namespace backup2_admin {
namespace {

const char kOwnCopy[] = "copy to the user's own storage";

}  // namespace

Afterwards::Afterwards(vel_xml::Xml settings, Report& report)
    : settings_(std::move(settings)),
      storage_(settings_.GetNode("/doc/storage")),
      site_(storage_),
      report_(report) {}

void Afterwards::Run() {
    const Backup backup = GetBackup(site_.local_dir, report_.user, report_.date);
    const auto in_use = Protect(backup);
    const auto before = Marks();
    Step("its record", [&] { RecordPlace(storage_, backup); });
    Step("limits", [&] { HoldLimits(storage_, report_.user, report_.date); });
    Step("rules of what to keep", [&] { ApplyKeepRules(); });
    Compare(before, Marks());
    Step(kOwnCopy, [&] { CopyToOwnStorage(); });
}

void Afterwards::Step(const std::string& what, const std::function<void()>& step) try {
    step();
} catch (const std::exception& error) {
    report_.warnings.push_back(what + ": " + Reason(error));
}

void Afterwards::ApplyKeepRules() {
    Limits limits;
    limits.keep = KeepRules(settings_);
    if (limits.keep.empty()) return;
    UseStorage(site_.token);
    const Done done = RunTool(LimitCommand(site_, report_.user, report_.date, limits));
    if (done.status != vel_tool::kDone) throw std::runtime_error(done.LastLine());
}

void Afterwards::CopyToOwnStorage() {
    for (const auto& storage : AskOwnStorages(report_.user)) {
        PrivateCopy copy(settings_, storage);
        Step(kOwnCopy, [&] {
            copy.Copy(report_.date);
            report_.copied = true;
        });
        for (const auto& warning : copy.Warnings()) report_.warnings.push_back(warning);
    }
}

void Afterwards::Compare(const std::map<std::string, bool>& before,
                         const std::map<std::string, bool>& now) {
    for (const auto& [date, marked] : before) {
        const auto left = now.find(date);
        if (left == now.end()) {
            report_.removed.push_back(date);
        } else if (left->second && !marked) {
            report_.marked.push_back(date);
        }
    }
}

std::map<std::string, bool> Afterwards::Marks() const {
    std::map<std::string, bool> marks;
    for (const Backup& backup : FindBackups(site_.local_dir, report_.user, "")) {
        if (backup.user == report_.user) marks[backup.date] = !backup.Get("deleted").empty();
    }
    return marks;
}

}  // namespace backup2_admin
