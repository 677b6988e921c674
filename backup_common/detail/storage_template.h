/// The cloud storages: one template over the clients of the providers. A header only so that tests
/// can put a client of their own under it.
#pragma once

#include <exception>
#include <istream>
#include <list>
#include <ostream>
#include <string>
#include <vector>

#include "vel/vel_err.h"
#include "vel/vel_file.h"
#include "vel/vel_log.h"

#include "backup_common/backup2_storage.h"

namespace backup2 {

/// `Client` is made from the token's "token"; vel_rpc::Cloud describes its operations.
template <class Client>
class StorageTemplate final : public Storage {
public:
    explicit StorageTemplate(const BackupToken& token)
        : Storage(token), client_(token.GetParam("token")), base_(token.GetParam("path")) {}

    void DropToken() override { client_.DropToken(); }
    void GetArch(const std::string& name, std::ostream& out) override {
        client_.Get(Full(name), out);
    }
    bool PutArch(const std::string& name, std::istream& in) override;
    void Delete(const std::string& name) override;
    void List(std::list<std::string>& out, const std::string& dir) override;
    void RealMkDir(const std::string& full_path) override { client_.MkPath(full_path); }
    void RmDir(const std::string& dir) override;
    int Sweep(const std::string& dir, int hours) override;

private:
    std::string Full(const std::string& name) const { return vel_file::ConcatPath(base_, name); }
    std::string FullDir(const std::string& dir) const {
        return vel_file::ConcatPath(base_, dir, "/");
    }

    static inline const vel_log::Module log_{"backup"};
    Client client_;
    std::string base_;
};

template <class Client>
bool StorageTemplate<Client>::PutArch(const std::string& name, std::istream& in) {
    constexpr int kUnauthorized = 401, kNoRoom = 507;
    const int status = client_.Put(Full(name), in, "");
    if (status == kUnauthorized) {
        throw vel_err::Error("unauthorized", "storage", "Authorization error");
    }
    return status != kNoRoom;
}

template <class Client>
void StorageTemplate<Client>::Delete(const std::string& name) {
    try {
        std::vector<std::string> found;
        client_.List(Full(name), found);
        if (found.empty()) {
            log_.Write(9, "%s:%d Content is empty", "backup2_storage.cpp", 137);
            return;
        }
        client_.Delete(Full(name));
    } catch (const std::exception&) {
        log_.Write(4, "Failed to find file on storage");
    }
}

template <class Client>
void StorageTemplate<Client>::List(std::list<std::string>& out, const std::string& dir) {
    std::vector<std::string> names;
    client_.List(FullDir(dir), names);
    out.insert(out.end(), names.begin(), names.end());
}

template <class Client>
void StorageTemplate<Client>::RmDir(const std::string& dir) {
    try {
        const std::string parent = vel_file::SplitPath(dir).dir;
        client_.RmDir(FullDir(dir));
        std::list<std::string> left;
        List(left, parent);
        if (left.empty()) client_.RmDir(FullDir(parent));
    } catch (const std::exception& e) {
        log_.Write(6, "Cannot remove '%s': %s", dir, e.what());
    }
}

/// A client need not know of unfinished uploads.
template <class Client>
int StorageTemplate<Client>::Sweep(const std::string& dir, int hours) {
    if constexpr (requires { client_.AbortStale(base_, hours); }) {
        return client_.AbortStale(FullDir(dir), hours);
    } else {
        return Storage::Sweep(dir, hours);
    }
}

}  // namespace backup2
