#include <iostream>
#include <list>
#include <optional>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "vel/str.h"
#include "vel/vel_err.h"
#include "vel/vel_file.h"
#include "vel/vel_tool.h"

#include "sbin/backup2_cp/actions.h"
#include "sbin/backup2_cp/errors.h"
#include "sbin/backup2_cp/removal.h"
#include "sbin/backup2_cp/retention.h"
#include "sbin/backup2_cp/storage_mount.h"
#include "sbin/backup2_cp/tree.h"

namespace backup2_cp {

namespace {

using Action = Decision::Action;
using Json = nlohmann::ordered_json;

const char* KindName(const Backup& backup) {
    if (backup.state == Backup::State::kUnknown) return "unknown";
    if (backup.kind == Backup::Kind::kFull) return "full";
    return backup.kind == Backup::Kind::kCustom ? "custom" : "incremental";
}

const char* ActionName(Action action) {
    if (action == Action::kKeep) return "keep";
    return action == Action::kRemove ? "remove" : "mark";
}

bool IsBusy(const std::exception& e) {
    const auto* error = dynamic_cast<const vel_err::Error*>(&e);
    return error && error->type() == "lock" && error->object() == "busy";
}

/// What is said about each backup, as lines or as one JSON document that is never held as a whole.
class Report {
public:
    explicit Report(const Options& options) : json_(options.json), dry_run_(options.dry_run) {
        if (json_) std::cout << "{\"backups\":[";
    }

    /// `failure` is why the decision could not be carried out.
    void Say(const std::string& name, const Backup& backup, const Decision& decision,
             const std::string& failure) {
        if (json_) return SayJson(name, backup, decision, failure);
        if (!failure.empty() || (decision.action == Action::kKeep && !dry_run_)) return;
        const std::string user = name.substr(0, name.find('#'));
        std::cout << Verb(decision.action) << user << "/" << backup.date << " " << name << ": "
                  << decision.reason << std::endl;
    }
    void Unreachable(const std::string& line) {
        unreachable_.push_back(line);
        if (!json_) std::cout << line << std::endl;
    }
    void Close() {
        if (json_) std::cout << "\n],\"unreachable\":" << Dump(unreachable_) << "}\n";
    }
    bool AllReached() const { return unreachable_.empty(); }

private:
    static std::string Dump(const Json& json) {
        return json.dump(-1, ' ', false, Json::error_handler_t::replace);
    }
    void SayJson(const std::string& name, const Backup& backup, const Decision& decision,
                 const std::string& failure) {
        Json entry{{"user", name},
                   {"date", backup.date},
                   {"kind", KindName(backup)},
                   {"size", backup.size},
                   {"decision", ActionName(decision.action)},
                   {"reason", decision.reason}};
        if (!failure.empty()) entry["failed"] = failure;
        std::cout << (first_ ? "\n" : ",\n") << Dump(entry);
        first_ = false;
    }
    const char* Verb(Action action) const {
        if (action == Action::kKeep) return "kept ";
        if (action == Action::kRemove) return dry_run_ ? "would remove " : "removed ";
        return dry_run_ ? "would mark as deleted " : "marked as deleted ";
    }

    bool json_, dry_run_, first_ = true;
    std::vector<std::string> unreachable_;
};

class Run {
public:
    explicit Run(const Options& options) : options_(options), report_(options) {}

    int Do() {
        const auto complain = [](const std::string& line) { std::cerr << line << "\n"; };
        const std::string top = vel_file::GoodPath(options_.path);
        for (const auto& [name, series] : ReadTree(top, options_.user, complain)) {
            Handle(name, series);
        }
        report_.Close();
        if (failed_ == 0) return report_.AllReached() ? vel_tool::kDone : vel_tool::kWarnings;
        if (options_.json) return vel_tool::kFailed;  // standard output is the document
        throw std::runtime_error(str::Str(failed_) + " backups could not be removed");
    }

private:
    void Handle(const std::string& name, const Series& series) {
        const auto in_use = [&](const Backup& backup) {
            const auto at = static_cast<std::size_t>(&backup - series.backups.data());
            return IsInUse(PlaceOf(series.infos[at]));
        };
        Outcome outcome = Decide(series.backups, options_.policy, in_use);
        for (const bool fulls : {false, true}) {  // a full backup goes behind its increments
            for (std::size_t i = 0; i < series.backups.size(); ++i) {
                const Backup& backup = series.backups[i];
                if (backup.state == Backup::State::kWorking) continue;
                if ((backup.kind == Backup::Kind::kFull) != fulls) continue;
                const std::string failure = Apply(name, series.infos[i], outcome.decisions[i]);
                report_.Say(name, backup, outcome.decisions[i], failure);
            }
        }
        for (const auto& line : outcome.unreachable) report_.Unreachable(name + ": " + line);
    }

    /// Carries a decision out; what kept it from being done, for the report and on standard error.
    std::string Apply(const std::string& name, const std::string& info, Decision& decision) {
        if (decision.action == Action::kKeep || options_.dry_run) return "";
        try {
            Carry(PlaceOf(info), decision);
            return "";
        } catch (const std::exception& e) {
            if (!vel_file::Exists(info)) return "";  // another process was faster
            if (IsBusy(e)) {
                decision = {Action::kKeep, "in use by now"};
                report_.Unreachable(name + ": " + info + " is in use by now");
                return "";
            }
            const std::string reason = target_ ? target_->Redacted(e) : Reason(e);
            std::cerr << info << ": the backup of " << name << " is not removed: " << reason
                      << "\n";
            ++failed_;
            return reason;
        }
    }

    /// The tree may have changed since it was read: looks again at what is about to go.
    void Carry(const Place& place, Decision& decision) {
        const InfoMap keys = ReadInfo(place);
        if (place.name.date != "custom" && Value(keys, "base").empty()) {
            const std::size_t increments = Increments(place).size();
            if (increments > 0 && decision.action == Action::kRemove) {
                decision = {Action::kMark, decision.reason + ", increments that need it are there"};
            }
        }
        if (decision.action == Action::kMark) return MarkDeleted(place);
        RemoveBackup(Storage(), place, false);
    }

    /// Opened when something must go, and only once: nobody waits for a dead one again and again.
    const Target& Storage() {
        if (!broken_.empty()) throw std::runtime_error(broken_);
        try {
            if (!target_) Open();
        } catch (const std::exception& e) {
            broken_ = target_ ? target_->Redacted(e) : Reason(e);
            throw std::runtime_error(broken_);
        }
        return *target_;
    }

    /// What would be removed from a storage that is not mounted would stay there, and nobody would
    /// know. One that holds nothing at all is taken for such a one, too.
    void Open() {
        target_ = Target::FromEnvironment(options_.user);
        StorageMount(target_->Token()).Check();
        std::list<std::string> names;
        target_->Retry("listing " + target_->Describe(), [&] {
            names.clear();
            target_->Open()->List(names, "");
        });
        if (names.empty()) throw std::runtime_error(target_->Describe() + " holds nothing");
    }

    const Options& options_;
    Report report_;
    std::optional<Target> target_;
    std::string broken_;  // why the storage cannot be used
    int failed_ = 0;
};

}  // namespace

int Limit(const Options& options) { return Run(options).Do(); }

}  // namespace backup2_cp
