#include "vel/vel_rpc/detail/token_file.h"

#include <utility>

#include "vel/str.h"
#include "vel/vel_hash.h"
#include "vel/vel_log.h"
#include "vel/vel_rpc/detail/http.h"
#include "vel/vel_rpc/kept_tokens.h"

namespace vel_rpc {
namespace {

const vel_log::Module logger("vel_rpc");

std::string& Folder() {
    static std::string folder;
    return folder;
}

}  // namespace

void KeepTokensIn(const std::string& folder) { Folder() = folder; }

namespace detail {

TokenFile::TokenFile(std::string service, const std::string& credential)
    : service_(std::move(service)) {
    if (Folder().empty()) return;
    const std::string name =
        vel_hash::Digest(vel_hash::HashType::Sha256, service_ + " " + credential);
    path_ = vel_file::ConcatPath(Folder(), str::hex::Encode(name));
}

Tokens TokenFile::Read() const {
    if (path_.empty()) return {};
    try {
        const std::string text = vel_file::Read(path_);
        return text.empty() ? Tokens() : ReadCredential(service_, text);
    } catch (const std::exception& e) {
        logger.Write(4, "%s: the kept tokens are of no use: %s", service_, e.what());
        return {};
    }
}

std::unique_ptr<vel_file::Lock> TokenFile::LockOthersOut() const {
    if (path_.empty()) return nullptr;
    vel_file::MkDir(vel_file::SplitPath(path_).dir, vel_file::Attrs(0700));
    auto lock = std::make_unique<vel_file::Lock>();
    lock->DoLock(path_, false);
    return lock;
}

void TokenFile::Write(vel_file::Lock* lock, const std::string& credential) const {
    if (lock) lock->Write(credential);
}

void TokenFile::Remove() const {
    if (!path_.empty()) vel_file::Remove(path_);
}

}  // namespace detail
}  // namespace vel_rpc
