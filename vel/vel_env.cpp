#include "vel/vel_env.h"

#include <cerrno>
#include <fstream>
#include <map>

#include <stdlib.h>

#include "vel/str.h"
#include "vel/vel_err.h"

namespace vel_env {
namespace {

struct Os {
    unsigned type = 0x20000;
    std::string version;
};

unsigned TypeOf(const std::string& id, const std::string& like) {
    static const std::map<std::string, unsigned> codes = {
        {"debian", 0x20201}, {"ubuntu", 0x20202},    {"rhel", 0x20101},  {"centos", 0x20101},
        {"ol", 0x20101},     {"almalinux", 0x20102}, {"rocky", 0x20103}, {"cloudlinux", 0x20104}};
    const auto found = codes.find(id);
    if (found != codes.end()) return found->second;
    return (" " + like + " ").find(" rhel ") != std::string::npos ? 0x20101 : 0x20000;
}

/// os-release quotes its values as a shell does; the ones read here hold nothing to unescape.
std::string Unquote(const std::string& s) {
    const bool quoted = s.size() >= 2 && (s[0] == '"' || s[0] == '\'') && s.back() == s[0];
    return quoted ? s.substr(1, s.size() - 2) : s;
}

Os ReadOs() {
    std::ifstream in("/etc/os-release");
    std::map<std::string, std::string> values;
    for (std::string line; std::getline(in, line);) {
        const std::string name = str::GetWord(line, '=');
        values[name] = Unquote(str::Trim(line));
    }
    return {TypeOf(values["ID"], values["ID_LIKE"]), values["VERSION_ID"]};
}

Os& CurrentOs() {
    static Os os = ReadOs();
    return os;
}

void CheckText(const char* op, const std::string& text) {
    if (text.find('\0') != std::string::npos) vel_err::RaiseErrno(op, "a NUL byte", EINVAL);
}

}  // namespace

std::string GetEnv(const std::string& name) {
    const char* value = ::getenv(name.c_str());
    return value ? value : "";
}

// The value stays out of the error: it may be a secret.
void SetEnv(const std::string& name, const std::string& value) {
    CheckText("setenv", name);
    CheckText("setenv", value);
    if (::setenv(name.c_str(), value.c_str(), 1) != 0) vel_err::RaiseErrno("setenv", name, errno);
}

void UnsetEnv(const std::string& name) {
    CheckText("unsetenv", name);
    if (::unsetenv(name.c_str()) != 0) vel_err::RaiseErrno("unsetenv", name, errno);
}

unsigned GetOsType() { return CurrentOs().type; }
std::string GetOsVersion() { return CurrentOs().version; }
void SetOsForTests(unsigned type, const std::string& version) { CurrentOs() = {type, version}; }

}  // namespace vel_env
