#include "vel/vel_rpc/cloud.h"

namespace vel_rpc {

int Cloud::AbortStale(const std::string&, int) { return 0; }

void CloudClient::Get(const std::string& path, std::ostream& out) { provider_->Get(path, out); }

int CloudClient::Put(const std::string& path, std::istream& in, const std::string& type) {
    return provider_->Put(path, in, type);
}

void CloudClient::List(const std::string& path, std::vector<std::string>& out) {
    provider_->List(path, out);
}

void CloudClient::Delete(const std::string& path) { provider_->Delete(path); }

void CloudClient::MkPath(const std::string& path) { provider_->MkPath(path); }

void CloudClient::RmDir(const std::string& path) { provider_->RmDir(path); }

void CloudClient::DropToken() { provider_->DropToken(); }

int CloudClient::AbortStale(const std::string& path, int hours) {
    return provider_->AbortStale(path, hours);
}

}  // namespace vel_rpc
