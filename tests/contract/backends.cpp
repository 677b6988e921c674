#include "tests/contract/storage_contract.h"

namespace {

class LocalSite final : public Site {
public:
    backup2::BackupToken Token() const override {
        return backup2::BackupToken("type=local;path=" + base_);
    }
    std::string Stored(const std::string& name) const override {
        return ReadFile(base_ + "/" + name);
    }

private:
    TempDir dir_;
    const std::string base_ = dir_ / "a b'c";
};

template <class Kind>
std::unique_ptr<Site> Start() {
    return std::make_unique<Kind>();
}

}  // namespace

std::vector<Backend> Backends() {
    return {
        {.name = "local", .start = Start<LocalSite>, .password = ""},
        {.name = "local_encrypted", .start = Start<LocalSite>, .password = "canary pass'word$(x)"},
    };
}
