/// Amazon S3 and what speaks like it.
#pragma once

#include <string>

#include "vel/vel_rpc/cloud.h"

namespace vel_rpc {

/// One bucket. Requests are signed (Signature Version 4). A file is one PUT when it fits in the
/// first part, else a multipart upload in parts of 16 MiB that grow so that 10,000 suffice; a
/// failed one is aborted. Folders are only the common beginnings of keys: MkPath makes nothing.
class S3 final : public CloudClient {
public:
    /// `credential`: base64 of JSON {endpoint, region, bucket, access_key, secret_key, path_style
    /// ("yes"|"no")}.
    explicit S3(const std::string& credential);
};

}  // namespace vel_rpc
