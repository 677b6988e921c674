#include <unistd.h>

#include <algorithm>
#include <functional>
#include <iostream>
#include <list>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "vel/str.h"
#include "vel/vel_file.h"
#include "vel/vel_log.h"

#include "backup_common/backup2_misc.h"

#include "sbin/backup2_cp/actions.h"
#include "sbin/backup2_cp/errors.h"
#include "sbin/backup2_cp/token_check.h"
#include "sbin/backup2_cp/upload.h"
#include "sbin/backup2_cp/workspace.h"

namespace backup2_cp {

namespace {

const vel_log::Module logger("backup2_cp");
constexpr std::size_t kProbeSize = 4096;

/// A backup-like file in a folder of its own, two levels deep as backups are.
struct Probe {
    std::string folder = ".backup2_check/" + str::hex::Encode(str::Random(8));
    std::string name;
    Workspace work;
    std::string local = vel_file::ConcatPath(work.Path(), "probe");
    std::string bytes = str::Random(kProbeSize);
};

bool Lists(backup2::Storage& storage, const Probe& probe) {
    std::list<std::string> names;
    storage.List(names, probe.folder);
    return std::find(names.begin(), names.end(), vel_file::Name(probe.name)) != names.end();
}

void WriteProbe(const Target& target, const Probe& probe, backup2::Storage& storage) {
    vel_file::Write(probe.local, probe.bytes);
    storage.MkDir(probe.folder);
    if (!storage.Put(probe.name, probe.local)) throw std::runtime_error("no room");
    SumStream stored;
    target.ReadStored(probe.name, stored);
    const uint64_t wanted = target.Encrypts(probe.name) ? EncryptedSize(kProbeSize) : kProbeSize;
    if (stored.Result().size != wanted) throw std::runtime_error("the stored size is wrong");
}

void ReadProbe(const Probe& probe, backup2::Storage& storage) {
    const std::string back = probe.local + ".back";
    storage.Get(probe.name, back);
    if (vel_file::ReadE(back) != probe.bytes) throw std::runtime_error("other bytes came back");
}

void DeleteProbe(const Probe& probe, backup2::Storage& storage) {
    storage.Delete(probe.name);
    if (Lists(storage, probe)) throw std::runtime_error("it is still listed");
    storage.RmDir(probe.folder);
}

void CleanUp(const Target& target, const Probe& probe) {
    try {
        if (Lists(*target.Open(), probe)) target.Open()->RmDir(probe.folder);
    } catch (const std::exception& e) {
        logger.Write(5, "a probe stays in %s: %s", probe.folder, target.Redacted(e));
    }
}

/// Each step by the name under which it is reported.
void RunSteps(const Target& target, const Probe& probe) {
    const auto storage = target.Open();
    const std::pair<std::string, std::function<void()>> steps[] = {
        {"write", [&] { WriteProbe(target, probe, *storage); }},
        {"list",
         [&] {
             if (!Lists(*storage, probe))
                 throw std::runtime_error("what was written is not listed");
         }},
        {"read back", [&] { ReadProbe(probe, *storage); }},
        {"delete", [&] { DeleteProbe(probe, *storage); }},
    };
    for (const auto& step : steps) {
        try {
            step.second();
        } catch (const std::exception& e) {
            CleanUp(target, probe);
            throw std::runtime_error(target.Describe() + ": cannot " + step.first + ": " +
                                     Reason(e));
        }
    }
}

}  // namespace

void Check(const Target& target, const Options& options) {
    CheckPassword(target.Token());
    ProbeCipher(target);
    Probe probe;
    probe.name = probe.folder + "/" + backup2::GetName(target.Token(), "2000-01-01.probe.tgz");
    RunSteps(target, probe);
    const bool encrypted = target.Token().IsEncrypted();
    if (options.json) {
        const nlohmann::ordered_json report = {{"ok", true},
                                               {"type", target.Token().Type()},
                                               {"path", target.Token().GetParam("path")},
                                               {"encrypted", encrypted}};
        using Json = nlohmann::ordered_json;
        std::cout << report.dump(-1, ' ', false, Json::error_handler_t::replace) << "\n";
        return;
    }
    std::cout << target.Describe() << ": written, listed, read back and deleted"
              << (encrypted ? ", encrypted" : ", not encrypted") << "\n";
}

}  // namespace backup2_cp
