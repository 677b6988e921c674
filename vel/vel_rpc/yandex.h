/// Yandex Disk, REST API v1.
#pragma once

#include <string>

#include "vel/vel_rpc/cloud.h"

namespace vel_rpc {

/// Archives are slowed down by the service when their name says so: a file is uploaded under a name
/// without its extension and then moved. Deletes are permanent; asynchronous operations are waited
/// for.
class Yandex final : public CloudClient {
public:
    /// `credential`: base64 of JSON {access_token, refresh_token, client_id, client_secret[, api]};
    /// api: another address for all of the provider's hosts.
    explicit Yandex(const std::string& credential);
};

}  // namespace vel_rpc
