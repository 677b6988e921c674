#include "velcgi/backup2_download/decoder.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>
#include <vector>

#include <openssl/crypto.h>
#include <openssl/evp.h>

namespace backup2_download {
namespace {

constexpr std::size_t kSalt = 8, kKey = 32, kIv = 16, kBlock = 64 * 1024;
const std::string kMagic = "Salted__";

[[noreturn]] void FailToDecode() { throw std::runtime_error("Fail to decode"); }

}  // namespace

struct Decoder::Impl {
    using Context = std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)>;

    std::string password;
    OnBytes next;
    std::string head;  // magic and salt, while they come
    Context context{nullptr, &EVP_CIPHER_CTX_free};
    std::vector<unsigned char> plain = std::vector<unsigned char>(kBlock + EVP_MAX_BLOCK_LENGTH);

    ~Impl() { OPENSSL_cleanse(password.data(), password.size()); }

    /// The key as openssl derives it when it is told nothing else.
    void Begin() {
        if (head.compare(0, kMagic.size(), kMagic) != 0) FailToDecode();
        std::array<unsigned char, kKey> key{};
        std::array<unsigned char, kIv> iv{};
        const auto* salt = reinterpret_cast<const unsigned char*>(head.data() + kMagic.size());
        const auto* secret = reinterpret_cast<const unsigned char*>(password.data());
        context.reset(EVP_CIPHER_CTX_new());
        const bool ready =
            context &&
            EVP_BytesToKey(EVP_aes_256_cbc(), EVP_sha256(), salt, secret,
                           static_cast<int>(password.size()), 1, key.data(), iv.data()) != 0 &&
            EVP_DecryptInit_ex(context.get(), EVP_aes_256_cbc(), nullptr, key.data(), iv.data()) !=
                0;
        OPENSSL_cleanse(key.data(), key.size());
        if (!ready) FailToDecode();
    }

    void Decrypt(const char* data, std::size_t size) {
        int got = 0;
        const auto* bytes = reinterpret_cast<const unsigned char*>(data);
        if (EVP_DecryptUpdate(context.get(), plain.data(), &got, bytes, static_cast<int>(size)) ==
            0)
            FailToDecode();
        Pass(got);
    }

    void Pass(int size) {
        if (size > 0)
            next(reinterpret_cast<const char*>(plain.data()), static_cast<std::size_t>(size));
    }
};

Decoder::Decoder(std::string password, OnBytes next) : impl_(std::make_unique<Impl>()) {
    impl_->password = std::move(password);
    impl_->next = std::move(next);
}

Decoder::~Decoder() = default;

void Decoder::Take(const char* data, std::size_t size) {
    if (!impl_->context) {
        const std::size_t part = std::min(kMagic.size() + kSalt - impl_->head.size(), size);
        impl_->head.append(data, part);
        data += part;
        size -= part;
        if (impl_->head.size() < kMagic.size() + kSalt) return;
        impl_->Begin();
    }
    for (std::size_t at = 0; at < size; at += kBlock)
        impl_->Decrypt(data + at, std::min(kBlock, size - at));
}

void Decoder::Finish() {
    int got = 0;
    if (!impl_->context ||
        EVP_DecryptFinal_ex(impl_->context.get(), impl_->plain.data(), &got) == 0)
        FailToDecode();
    impl_->Pass(got);
}

}  // namespace backup2_download
