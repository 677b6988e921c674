#include <unistd.h>

#include <algorithm>
#include <functional>
#include <iostream>
#include <list>
#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "vel/str.h"
#include "vel/vel_file.h"
#include "vel/vel_log.h"
#include "vel/vel_ssh.h"

#include "backup_common/backup2_misc.h"

#include "sbin/backup2_cp/actions.h"
#include "sbin/backup2_cp/errors.h"
#include "sbin/backup2_cp/storage_mount.h"
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

/// After a failure: its folder may be there without it.
void CleanUp(const Target& target, const Probe& probe) {
    try {
        const auto storage = target.Open();
        storage->RmDir(probe.folder);
        if (Lists(*storage, probe)) logger.Write(5, "a probe stays in %s", probe.folder);
    } catch (const std::exception& e) {
        logger.Write(5, "a probe may stay in %s: %s", probe.folder, target.Redacted(e));
    }
}

/// Backups of a node were made there.
bool TakesUploads(const Target& target) { return target.Token().Type() != "node"; }

/// Each step by the name under which it is reported.
void RunSteps(const Target& target, const Probe& probe) {
    std::shared_ptr<backup2::Storage> storage;
    std::vector<std::pair<std::string, std::function<void()>>> steps = {
        {"open", [&] { storage = target.Open(); }},
        {"write", [&] { WriteProbe(target, probe, *storage); }},
        {"list",
         [&] {
             if (!Lists(*storage, probe))
                 throw std::runtime_error("what was written is not listed");
         }},
        {"read back", [&] { ReadProbe(probe, *storage); }},
        {"delete", [&] { DeleteProbe(probe, *storage); }},
    };
    if (!TakesUploads(target)) steps.resize(1);
    for (const auto& step : steps) {
        try {
            step.second();
        } catch (const std::exception& e) {
            if (storage && !IsRefusedLogin(e)) CleanUp(target, probe);
            throw std::runtime_error(target.Describe() + ": cannot " + step.first + ": " +
                                     Reason(e));
        }
    }
}

/// Of kinds behind ssh; others have no host here.
struct Server {
    std::string host, port;
};

Server ServerOf(const backup2::BackupToken& token) {
    if (token.Type() == "node") return {token.GetParam("ip"), token.GetParam("port")};
    if (token.Type() == "sftp") return {token.GetParam("url"), token.GetParam("port")};
    return {};
}

std::vector<std::string> HostKeysOf(const Server& server) {
    if (server.host.empty()) return {};
    return vel_ssh::Fingerprints(server.host, server.port);
}

}  // namespace

void Check(const Target& target, const Options& options) {
    CheckPassword(target.Token());
    if (options.dry_run) return;  // to be the target of a call, the token has passed its checks
    ProbeCipher(target);
    const Server server = ServerOf(target.Token());
    if (options.accept_host_key) vel_ssh::ForgetHost(server.host, server.port);
    const StorageMount mount(target.Token());
    if (!options.accept_disk) mount.Check();
    Probe probe;
    probe.name = probe.folder + "/" + backup2::GetName(target.Token(), "2000-01-01.probe.tgz");
    RunSteps(target, probe);
    if (options.accept_disk) mount.Accept();
    const bool encrypted = target.Token().IsEncrypted();
    if (options.json) {
        const nlohmann::ordered_json report = {{"ok", true},
                                               {"type", target.Token().Type()},
                                               {"path", target.Token().GetParam("path")},
                                               {"encrypted", encrypted},
                                               {"host_keys", HostKeysOf(server)}};
        using Json = nlohmann::ordered_json;
        std::cout << report.dump(-1, ' ', false, Json::error_handler_t::replace) << "\n";
        return;
    }
    std::cout << target.Describe()
              << (TakesUploads(target) ? ": written, listed, read back and deleted" : ": reached")
              << (encrypted ? ", encrypted" : ", not encrypted") << "\n";
    for (const std::string& key : HostKeysOf(server)) std::cout << "host key " << key << "\n";
}

}  // namespace backup2_cp
