#include "sbin/backup2_cp/token_check.h"

#include <algorithm>
#include <stdexcept>

#include "vel/str.h"
#include "vel/test.h"

#include "sbin/backup2_cp/names.h"

namespace backup2_cp {

namespace {

constexpr std::size_t kMaxPassword = 1023;
const std::string kSecrets[] = {"arch_password", "password", "token", "key"};

[[noreturn]] void Refuse(const std::string& why) {
    throw std::runtime_error("storage token: " + why);
}

bool IsHostByte(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '.' ||
           c == '-' || c == '_';
}

bool IsHost(std::string host) {
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        return test::Ip6(host.substr(1, host.size() - 2));
    }
    if (test::Ip6(host)) return true;
    return !host.empty() && host.size() <= 253 && host[0] != '-' && host[0] != '.' &&
           std::all_of(host.begin(), host.end(), IsHostByte);
}

void CheckHost(const backup2::BackupToken& token, const std::string& param) {
    std::string host = token.GetParam(param);
    for (const std::string scheme : {"ftp://", "ftps://"}) {
        if (token.Type() == "ftp" && str::StartsWith(host, scheme)) host.erase(0, scheme.size());
    }
    if (!IsHost(host)) Refuse("\"" + param + "\" is not a host name or address");
}

void CheckPort(const backup2::BackupToken& token) {
    const std::string port = token.GetParam("port");
    if (port.empty()) return;
    const auto number = ParseNumber(port, 65535);
    if (!number || *number == 0) Refuse("\"port\" is not a number from 1 to 65535");
}

/// Paths that a program or a shell of this or another machine takes must be absolute.
void CheckPath(const std::string& path, bool absolute, bool through_shell) {
    if (absolute && (path.empty() || path[0] != '/')) Refuse("\"path\" is not absolute");
    if (!path.empty() && path[0] == '-') Refuse("\"path\" begins with \"-\"");
    if (("/" + path + "/").find("/../") != std::string::npos) Refuse("\"path\" holds \"..\"");
    if (through_shell && path.find_first_of("*?[]{}") != std::string::npos) {
        Refuse("\"path\" holds a wildcard");
    }
}

bool IsCloud(const std::string& type) {
    return type == "dropbox" || type == "yandex" || type == "googledrive" ||
           backup2::IsS3Type(type);
}

}  // namespace

void CheckToken(const backup2::BackupToken& token) {
    const std::string type = token.Type();
    if (type.empty()) Refuse("names no storage type");
    const std::string text = token.Str();
    if (std::any_of(text.begin(), text.end(), IsControl)) Refuse("holds control bytes");
    const bool shell = type == "node" || type == "sftp";
    CheckPath(token.GetParam("path"), shell || token.IsLocal(), shell);
    if (shell || type == "ftp") {
        CheckHost(token, type == "node" ? "ip" : "url");
        CheckPort(token);
    }
    if (type == "node" && str::StartsWith(token.GetParam("key_path"), "-")) {
        Refuse("\"key_path\" begins with \"-\"");
    }
    if (IsCloud(type) && token.GetParam("token").empty()) Refuse("holds no credential");
}

void CheckPassword(const backup2::BackupToken& token) {
    if (!token.IsEncrypted()) return;
    const std::string password = str::base64::Decode(token.GetParam("arch_password"));
    if (password.empty()) Refuse("the archive password is empty");
    if (password.find('\n') != std::string::npos) Refuse("the archive password holds a line end");
    if (password.find('\0') != std::string::npos) Refuse("the archive password holds a zero byte");
    if (password.size() > kMaxPassword) Refuse("the archive password is longer than 1023 bytes");
}

std::string Redact(std::string text, const backup2::BackupToken& token) {
    for (const std::string& name : kSecrets) {
        const std::string value = token.GetParam(name);
        for (const std::string& secret : {value, str::base64::Decode(value)}) {
            // Shorter ones stand in every text by chance.
            if (secret.size() >= 4) str::inpl::Replace(text, secret, "***");
        }
    }
    return text;
}

}  // namespace backup2_cp
