/// Digests.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace vel_hash {

enum class HashType { Md5 = 0, Sha1 = 1, Sha256 = 2 };

class Hash {
public:
    /// Throws vel_err::Error("hash", ...) for a kind that the crypto library does not offer.
    explicit Hash(HashType type);
    Hash(Hash&&) noexcept;
    Hash& operator=(Hash&&) noexcept;
    ~Hash();
    void Update(const std::string& bytes);
    void Update(const void* data, std::size_t size);
    /// The raw digest. The object starts afresh: a second call gives the digest of nothing.
    std::string Str();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

/// The raw digest of one text.
std::string Digest(HashType type, std::string_view bytes);

}  // namespace vel_hash
