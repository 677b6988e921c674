/// Dropbox, API v2.
#pragma once

#include <memory>
#include <string>

#include "vel/vel_rpc/cloud.h"

namespace vel_rpc {

/// Names are compared without case. Uploads are sessions in chunks; a wrong offset goes on where
/// the server says.
class Dropbox final : public Cloud {
public:
    /// `credential`: base64 of JSON {access_token, refresh_token, client_id, client_secret[, api]};
    /// api: another address for all of the provider's hosts.
    explicit Dropbox(const std::string& credential);
    ~Dropbox() override;

    void Get(const std::string& path, std::ostream& out) override;
    int Put(const std::string& path, std::istream& in, const std::string& type) override;
    void List(const std::string& path, std::vector<std::string>& out) override;
    void Delete(const std::string& path) override;
    void MkPath(const std::string& path) override;
    void RmDir(const std::string& path) override;
    void DropToken() override;
    /// The credential with the tokens as they are now: a refresh may bring a new refresh token.
    std::string Credential() const;

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace vel_rpc
