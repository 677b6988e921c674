/// Amazon S3 and what speaks like it.
#pragma once

#include <memory>
#include <string>

#include "vel/vel_rpc/cloud.h"

namespace vel_rpc {

/// One bucket. Requests are signed (Signature Version 4). A file is one PUT when it fits in the
/// first part, else a multipart upload in parts of 16 MiB that grow so that 10,000 suffice; a
/// failed one is aborted. Folders are only the common beginnings of keys: MkPath makes nothing.
class S3 final : public Cloud {
public:
    /// `credential`: base64 of JSON {endpoint, region, bucket, access_key, secret_key, path_style
    /// ("yes"|"no")}.
    explicit S3(const std::string& credential);
    ~S3() override;

    void Get(const std::string& path, std::ostream& out) override;
    int Put(const std::string& path, std::istream& in, const std::string& type) override;
    void List(const std::string& path, std::vector<std::string>& out) override;
    void Delete(const std::string& path) override;
    void MkPath(const std::string& path) override;
    void RmDir(const std::string& path) override;
    void DropToken() override;
    /// Aborts multipart uploads below `path` that began more than `hours` ago; their number.
    int AbortStale(const std::string& path, int hours);

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace vel_rpc
