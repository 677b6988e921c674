/// What the clients have in common whose requests an account makes.
#pragma once

#include <string>
#include <utility>

#include "vel/vel_log.h"
#include "vel/vel_rpc/cloud.h"
#include "vel/vel_rpc/detail/oauth.h"

namespace vel_rpc::detail {

class AccountCloud : public Cloud {
public:
    int Put(const std::string& path, std::istream& in, const std::string&) final {
        try {
            Store(path, in);
            return 201;
        } catch (const Unauthorized&) {
            return 401;
        } catch (const NoRoom&) {
            return 507;
        }
    }
    void DropToken() final {
        try {
            Revoke();
        } catch (const Unauthorized&) {  // nothing is left to revoke
        } catch (const vel_err::Error& e) {
            const vel_log::Module logger("vel_rpc");
            logger.Write(4, "%s: the access could not be revoked: %s", account_.Service(),
                         e.what());
        }
        account_.Forget();
    }

protected:
    AccountCloud(Provider provider, const std::string& credential)
        : account_(std::move(provider), credential) {}
    virtual void Store(const std::string& path, std::istream& in) = 0;  ///< throws for all failures
    virtual void Revoke() = 0;

    Account account_;
};

}  // namespace vel_rpc::detail
