#include "panel/password.h"

#include <crypt.h>

#include <cerrno>
#include <cstdlib>
#include <memory>

#include <string.h>

#include "vel/vel_err.h"

namespace panel {
namespace {

/// "" when it cannot be hashed: the library would take a password up to its first NUL for the
/// whole.
std::string Crypt(const std::string& password, const std::string& setting) {
    if (password.find('\0') != std::string::npos) return "";
    // The work area holds the password while it is hashed: cleared by the library's own wipe.
    auto area = std::make_unique<crypt_data>();
    const char* hash = ::crypt_r(password.c_str(), setting.c_str(), area.get());
    const std::string result = hash && hash[0] != '*' ? hash : "";
    ::explicit_bzero(area.get(), sizeof(*area));
    return result;
}

std::string NewSetting() {
    const std::unique_ptr<char, decltype(&std::free)> setting(
        ::crypt_gensalt_ra("$y$", 0, nullptr, 0), std::free);
    if (!setting) vel_err::RaiseErrno("crypt_gensalt", "yescrypt", errno);
    return setting.get();
}

bool SameText(const std::string& a, const std::string& b) {
    unsigned char difference = a.size() != b.size();
    for (std::size_t i = 0; i < a.size() && i < b.size(); ++i)
        difference = static_cast<unsigned char>(difference | (a[i] ^ b[i]));
    return difference == 0;
}

}  // namespace

std::string HashPassword(const std::string& password) {
    if (password.empty()) return "";
    const std::string hash = Crypt(password, NewSetting());
    if (hash.empty()) throw vel_err::Error("sys", "crypt", "cannot hash the password");
    return hash;
}

bool CheckPassword(const std::string& password, const std::string& hash) {
    static const std::string kNobody = Crypt("nobody's", NewSetting());
    const std::string computed = Crypt(password, hash.empty() ? kNobody : hash);
    return !hash.empty() && !computed.empty() && SameText(computed, hash);
}

}  // namespace panel
