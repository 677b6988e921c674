#include "vel/vel_hash.h"

#include <array>

#include <openssl/evp.h>

#include "vel/vel_err.h"

namespace vel_hash {
namespace {

const EVP_MD* KindOf(HashType type) {
    switch (type) {
        case HashType::Md5:
            return EVP_md5();
        case HashType::Sha1:
            return EVP_sha1();
        case HashType::Sha256:
            return EVP_sha256();
    }
    throw vel_err::Error("hash", "unknown_type", std::to_string(static_cast<int>(type)));
}

void Check(int status, const char* step) {
    if (status != 1) throw vel_err::Error("hash", step);
}

}  // namespace

struct Hash::Impl {
    const EVP_MD* digest;
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context{EVP_MD_CTX_new(),
                                                                    &EVP_MD_CTX_free};
    void Start() { Check(EVP_DigestInit_ex(context.get(), digest, nullptr), "init_failed"); }
};

Hash::Hash(HashType type) : impl_(new Impl{KindOf(type)}) {
    Check(impl_->context != nullptr, "init_failed");
    impl_->Start();
}

Hash::Hash(Hash&&) noexcept = default;
Hash& Hash::operator=(Hash&&) noexcept = default;
Hash::~Hash() = default;

void Hash::Update(const std::string& bytes) { Update(bytes.data(), bytes.size()); }

void Hash::Update(const void* data, std::size_t size) {
    Check(EVP_DigestUpdate(impl_->context.get(), data, size), "update_failed");
}

std::string Hash::Str() {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned size = 0;
    Check(EVP_DigestFinal_ex(impl_->context.get(), digest.data(), &size), "final_failed");
    impl_->Start();
    return {digest.begin(), digest.begin() + size};
}

std::string Digest(HashType type, std::string_view bytes) {
    Hash hash(type);
    hash.Update(bytes.data(), bytes.size());
    return hash.Str();
}

}  // namespace vel_hash
