/// Google Drive, API v3.
#pragma once

#include <string>

#include "vel/vel_rpc/cloud.h"

namespace vel_rpc {

/// Items have ids and a name may exist twice in a folder: Put replaces by id, Get takes the newest,
/// Delete removes all of the name. Uploads are resumable, in chunks that are multiples of 256 KiB.
class GoogleDrive final : public CloudClient {
public:
    /// `credential`: base64 of JSON {access_token, refresh_token, client_id, client_secret[, api]};
    /// api: another address for all of the provider's hosts.
    explicit GoogleDrive(const std::string& credential);
};

}  // namespace vel_rpc
