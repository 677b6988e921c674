/// backup2_cp: copies backups to and from their storage.
#include <iostream>
#include <stdexcept>

#include "vel/vel_rpc/kept_tokens.h"
#include "vel/vel_ssh.h"
#include "vel/vel_tool.h"

#include "sbin/backup2_cp/actions.h"

namespace backup2_cp {

namespace {

void ActOnStorage(const Target& target, const Options& options) {
    switch (options.action) {
        case Options::Action::kPut:
            return PutFile(target, options);
        case Options::Action::kPutSlice:
            return PutSlice(target, options);
        case Options::Action::kPutFinal:
            return PutFinal(target, options);
        case Options::Action::kGet:
            return GetFile(target, options);
        case Options::Action::kGetSlice:
            return GetSlice(target, options);
        case Options::Action::kDelete:
            return Delete(target, options);
        case Options::Action::kList:
            return List(target, options);
        case Options::Action::kCheck:
            return Check(target, options);
        case Options::Action::kSweep:
            return Sweep(target, options);
        default:
            break;
    }
}

void WithStorage(const Options& options) {
    Target target = Target::FromEnvironment();
    if (options.IsTransfer()) target.ReachOncePerMinute();
    try {
        ActOnStorage(target, options);
    } catch (const std::exception& e) {
        throw std::runtime_error(target.Redacted(e));
    }
}

int Run(std::vector<std::string> arguments) {
    const Options options = ParseOptions(std::move(arguments));
    vel_ssh::PinHostKeys();
    vel_rpc::KeepTokensIn("var/backup2_cp.tokens");
    switch (options.action) {
        case Options::Action::kHelp:
            std::cout << options.help;
            break;
        case Options::Action::kLimit:
            return Limit(options);
        case Options::Action::kCleanUp:
            CleanUp(options);
            break;
        case Options::Action::kPin:
            Pin(options);
            break;
        case Options::Action::kUnpin:
            Unpin(options);
            break;
        default:
            WithStorage(options);
    }
    return vel_tool::kDone;
}

}  // namespace

}  // namespace backup2_cp

int main(int argc, char** argv) { return vel_tool::Main(argc, argv, backup2_cp::Run); }
