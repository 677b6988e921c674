/// Dropbox, API v2.
#pragma once

#include <string>

#include "vel/vel_rpc/cloud.h"

namespace vel_rpc {

/// Names are compared without case. Uploads are sessions in chunks; a wrong offset goes on where
/// the server says.
class Dropbox final : public CloudClient {
public:
    /// `credential`: base64 of JSON {access_token, refresh_token, client_id, client_secret[, api]};
    /// api: another address for all of the provider's hosts.
    explicit Dropbox(const std::string& credential);
};

}  // namespace vel_rpc
