/// Decrypts what `openssl enc -aes-256-cbc` wrote, as it passes.
#pragma once

#include <functional>
#include <memory>
#include <string>

namespace backup2_download {

using OnBytes = std::function<void(const char* data, std::size_t size)>;

class Decoder {
public:
    Decoder(std::string password, OnBytes next);
    ~Decoder();
    Decoder(const Decoder&) = delete;
    Decoder& operator=(const Decoder&) = delete;

    void Take(const char* data, std::size_t size);
    /// Throws std::runtime_error when what came was cut, or is not of this password.
    void Finish();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace backup2_download
