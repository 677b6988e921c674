#include "vel/vel_user.h"

#include <pwd.h>

#include <cerrno>
#include <vector>

#include "vel/vel_err.h"

namespace vel_user {
namespace {

struct Entry {
    bool exists = false;
    uid_t uid = 0;
    gid_t gid = 0;
    std::string home;
};

bool NotFound(int err) {  // what the name services use to say "no such user", by getpwnam_r(3)
    return err == 0 || err == ENOENT || err == ESRCH || err == EBADF || err == EPERM;
}

Entry Find(const std::string& name) {
    if (name.empty() || name.find('\0') != std::string::npos) return {};
    std::vector<char> buffer(1024);
    for (;;) {
        passwd pw{};
        passwd* found = nullptr;
        const int err = ::getpwnam_r(name.c_str(), &pw, buffer.data(), buffer.size(), &found);
        if (found) return {true, pw.pw_uid, pw.pw_gid, pw.pw_dir ? pw.pw_dir : ""};
        if (err == ERANGE && buffer.size() < (1U << 20)) {
            buffer.resize(buffer.size() * 2);
        } else if (NotFound(err)) {
            return {};
        } else if (err != EINTR) {
            vel_err::RaiseErrno("getpwnam", name, err);
        }
    }
}

Entry Need(const std::string& name) {
    Entry entry = Find(name);
    if (!entry.exists) throw vel_err::Error("user", "missed", name);
    return entry;
}

}  // namespace

bool Exists(const std::string& name) { return Find(name).exists; }
uid_t Uid(const std::string& name) { return Need(name).uid; }
gid_t Gid(const std::string& name) { return Need(name).gid; }
std::string Home(const std::string& name) { return Need(name).home; }

}  // namespace vel_user
