/// qortar: saves a tree as a sliced archive with a listing, and brings it back.
#include <algorithm>
#include <cstdio>

#include "vel/vel_tool.h"

#include "sbin/qortar/create.h"
#include "sbin/qortar/extract.h"
#include "sbin/qortar/options.h"

namespace {

int Run(const std::vector<std::string>& args) {
    if (args.empty() || args[0] == "--help") {
        std::fputs(qortar::HelpText().c_str(), args.empty() ? stderr : stdout);
        return args.empty() ? vel_tool::kUsage : vel_tool::kDone;
    }
    const qortar::Options options = qortar::ParseOptions(args);
    switch (options.action) {
        case qortar::Action::Create:
            return qortar::RunCreate(options);
        case qortar::Action::Extract:
            return qortar::RunExtract(options);
        case qortar::Action::List:
            return qortar::RunList(options);
        case qortar::Action::Verify:
            return qortar::RunVerify(options);
    }
    return vel_tool::kFailed;
}

}  // namespace

int main(int argc, char** argv) { return vel_tool::Main(argc, argv, Run); }
