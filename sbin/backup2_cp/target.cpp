#include "sbin/backup2_cp/target.h"

#include <sys/stat.h>

#include <algorithm>
#include <ctime>
#include <list>
#include <stdexcept>

#include "vel/str.h"
#include "vel/vel_client.h"
#include "vel/vel_env.h"
#include "vel/vel_err.h"
#include "vel/vel_file.h"
#include "vel/vel_hash.h"
#include "vel/vel_log.h"
#include "vel/vel_proc.h"

#include "backup_common/backup2_misc.h"

#include "sbin/backup2_cp/errors.h"
#include "sbin/backup2_cp/token_check.h"
#include "sbin/backup2_cp/workspace.h"

namespace backup2_cp {

namespace {

const vel_log::Module logger("backup2_cp");
const std::string kPanel = "qorvel", kClient = "backup2";
constexpr int kRetries = 3, kRetryPause = 1000;

std::string TakeVariable(const std::string& name) {
    const std::string value = vel_env::GetEnv(name);
    vel_env::UnsetEnv(name);
    return value;
}

std::string AskPanel(const std::string& user) {
    vel_client::Local panel(kPanel, kClient);
    panel.WaitLocked(true);
    return user.empty() ? panel.Query("func=backup2.settings").value("storage")
                        : panel.Query("func=backup2.storage&elid=?", user).value("storage");
}

/// These kinds move whole files and stream nothing.
bool MovesFiles(const backup2::BackupToken& token) {
    return token.Type() == "sftp" || token.Type() == "node";
}

int RetryPause() {
    const std::string set = vel_env::GetEnv("BACKUP2_RETRY_MS");
    return set.empty() ? kRetryPause : std::max(0, str::Int(set));
}

}  // namespace

// ---- Which storage ------------------------------------------------------------------------------

Target Target::FromEnvironment(const std::string& user_of) {
    std::string token = TakeVariable("BACKUP_TOKEN");
    std::string user = TakeVariable("BACKUP_STORAGE");
    if (!user_of.empty()) user = user_of;
    if (token.empty()) token = AskPanel(user);
    if (token.empty()) {
        throw std::runtime_error(user.empty() ? "the panel names no storage"
                                              : "the panel names no storage of user " + user);
    }
    Target target{backup2::BackupToken(token)};
    target.user_ = user;
    return target;
}

Target::Target(const backup2::BackupToken& token) : token_(token) { CheckToken(token_); }

std::shared_ptr<backup2::Storage> Target::Open() const {
    const auto storage = backup2::GetStorage(token_);
    if (!reached_) Reach(*storage);
    reached_ = true;
    return storage;
}

bool Target::Holds(const std::string& name) const {
    std::list<std::string> names;
    Open()->List(names, vel_file::SplitPath(name).dir);
    return std::find(names.begin(), names.end(), vel_file::Name(name)) != names.end();
}

bool Target::Streams() const { return !token_.IsLocal() && !MovesFiles(token_); }

// ---- The way in ---------------------------------------------------------------------------------

namespace {

/// Remembers for other processes that a server let us in, in an empty file of root's.
class ReachedStamp {
public:
    explicit ReachedStamp(const backup2::BackupToken& token) {
        const std::string name = vel_hash::Digest(vel_hash::HashType::Sha256, token.Str());
        path_ = vel_file::ConcatPath(kStamps, str::hex::Encode(name));
    }
    bool IsRecent() const {
        const vel_file::Info stamp(path_, false);
        const auto age = std::time(nullptr) - stamp.Stat().st_mtim.tv_sec;
        return stamp.IsFile() && age >= 0 && age < kRecentSeconds;
    }
    void Set() const {
        vel_file::MkDir(kStamps, vel_file::Attrs(0700));
        vel_file::Remove(path_);
        vel_file::Write(path_, "");
    }
    void Drop() const { vel_file::Remove(path_); }

private:
    static constexpr char kStamps[] = "var/run/backup2_cp.reached";
    static constexpr int kRecentSeconds = 60;
    std::string path_;
};

}  // namespace

void Target::Reach(backup2::Storage& storage) const {
    if (!MovesFiles(token_)) return;
    const ReachedStamp stamp(token_);
    if (recent_will_do_ && stamp.IsRecent()) return;
    try {
        storage.Reach();
    } catch (const vel_err::Error& e) {
        stamp.Drop();
        if (e.type() != "storage") throw;
        const std::string no_way = Describe() + ": no way in to " + e.value();
        if (e.object() == "login_refused") throw KeyRefused(no_way);
        if (e.object() != "host_key") throw std::runtime_error(no_way);
        throw Permanent(Describe() + ": the host key of " + e.value() +
                        " is not the recorded one; if that is right: backup2 storage check " +
                        str::Trim(user_ + " --accept-host-key"));
    }
    stamp.Set();
}

std::string Target::LocalPath(const std::string& name) const {
    return token_.IsLocal() ? vel_file::ConcatPath(token_.GetParam("path"), name) : "";
}

bool Target::IsStored(const std::string& local, const std::string& name) const {
    const std::string stored = LocalPath(name);
    if (stored.empty() || vel_file::Name(stored) != vel_file::Name(local)) return false;
    const vel_file::Info a(vel_file::SplitPath(stored).dir), b(vel_file::SplitPath(local).dir);
    return a.Exists() && b.Exists() && a.Stat().st_dev == b.Stat().st_dev &&
           a.Stat().st_ino == b.Stat().st_ino;
}

bool Target::Encrypts(const std::string& name) const {
    return token_.IsEncrypted() && backup2::IsEncrypted(name);
}

void Target::ReadStored(const std::string& name, std::ostream& out) const {
    if (MovesFiles(token_)) {
        backup2::BackupToken raw = token_;  // without a password the bytes come as they are
        raw.DropParam("arch_password");
        const Workspace work;
        const std::string copy = vel_file::ConcatPath(work.Path(), "stored");
        backup2::GetStorage(raw)->Get(name, copy);
        vel_file::InStream in(copy);
        return Pump(in, out);
    }
    if (!token_.IsLocal()) return Open()->GetArch(name, out);
    vel_file::InStream in(LocalPath(name));
    Pump(in, out);
}

void Target::Sync(const std::string& name) const {
    if (!token_.IsLocal()) return;
    for (std::string part = name; !part.empty(); part = vel_file::SplitPath(part).dir) {
        vel_file::Sync(LocalPath(part));
    }
}

std::string Target::Describe() const {
    return token_.Type() + " storage " + token_.GetParam("path");
}

// ---- Failing and trying again -------------------------------------------------------------------

bool IsRefusedLogin(const std::exception& e) {
    const auto* error = dynamic_cast<const vel_err::Error*>(&e);
    return (error && error->type() == "unauthorized") || dynamic_cast<const KeyRefused*>(&e);
}

std::string Reason(const std::exception& e) {
    const auto* error = dynamic_cast<const vel_err::Error*>(&e);
    if (!error) return e.what();
    if (error->type() == "ftp_put_failed") {
        return "the server does not take the data: no room, or no right to write";
    }
    if (error->object().empty()) return e.what();
    const bool clouds =
        error->type() == "network" || error->type() == "unauthorized" || error->type() == "storage";
    if (!clouds && error->type() != "sys" && error->type() != "file") return e.what();
    std::string text = clouds && error->type() != "storage" ? error->type() : "";
    const bool names_object = str::StartsWith(error->value(), error->object() + ":");
    if (!names_object) str::Append(text, error->object(), " ");
    str::Append(text, error->value(), clouds ? ": " : " ");
    return text;
}

std::string Target::Redacted(const std::exception& e) const { return Redact(Reason(e), token_); }

/// What failed by ssh says little; getting in again tells why.
void Target::ForgetReached() const {
    reached_ = false;
    if (MovesFiles(token_)) ReachedStamp(token_).Drop();
}

void Target::Retry(const std::string& what, const std::function<void()>& attempt,
                   const std::function<void()>& undo) const {
    const int pause = RetryPause();
    for (int failed = 0;; ++failed) {
        try {
            return attempt();
        } catch (const Permanent& e) {
            if (undo && !IsRefusedLogin(e)) undo();
            throw;
        } catch (const std::exception& e) {
            const bool is_last = failed == kRetries || IsRefusedLogin(e);
            ForgetReached();
            if (undo && !IsRefusedLogin(e)) undo();
            const std::string reason = Redacted(e);
            logger.Write(4, "%s: attempt %d failed: %s", what, failed + 1, reason);
            if (is_last) throw std::runtime_error(what + ": " + reason);
        }
        vel_proc::Sleep(pause << failed);
    }
}

}  // namespace backup2_cp
