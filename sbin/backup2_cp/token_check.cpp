#include "sbin/backup2_cp/token_check.h"

#include <algorithm>
#include <map>
#include <set>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "vel/str.h"
#include "vel/test.h"
#include "vel/vel_proc.h"

#include "backup_common/backup2_misc.h"

#include "sbin/backup2_cp/names.h"

namespace backup2_cp {

namespace {

using backup2::BackupToken;

constexpr std::size_t kMaxPassword = 1023;
const std::string kSecrets[] = {"arch_password", "password", "token", "key"};
constexpr const char* kSecretMembers[] = {"access_key", "secret_key", "access_token",
                                          "refresh_token", "client_secret"};

[[noreturn]] void Refuse(const std::string& why) {
    throw std::runtime_error("storage token: " + why);
}

bool IsHostByte(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '.' ||
           c == '-' || c == '_';
}

bool IsHostName(const std::string& host) {
    return !host.empty() && host.size() <= 253 && host[0] != '-' && host[0] != '.' &&
           std::all_of(host.begin(), host.end(), IsHostByte);
}

/// A login before "@": what no program takes for an option or a word of its own.
bool IsLogin(const std::string& login) {
    return !login.empty() && login.size() <= 64 && login[0] != '-' && login[0] != '.' &&
           std::all_of(login.begin(), login.end(), IsHostByte);
}

/// Where an address is followed by ":", brackets keep the two kinds of colon apart.
void CheckHost(const std::string& param, const std::string& host, bool in_brackets) {
    const bool bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
    if (bracketed && test::Ip6(host.substr(1, host.size() - 2))) {
        if (!in_brackets) Refuse("\"" + param + "\" is an IPv6 address: without brackets, please");
    } else if (test::Ip6(host)) {
        if (in_brackets) Refuse("\"" + param + "\" is an IPv6 address: it needs brackets");
    } else if (!IsHostName(host)) {
        Refuse("\"" + param + "\" is not a host name or address");
    }
}

void CheckPort(const BackupToken& token) {
    const std::string port = token.GetParam("port");
    if (port.empty()) return;
    const auto number = ParseNumber(port, 65535);
    if (!number || *number == 0) Refuse("\"port\" is not a number from 1 to 65535");
}

void CheckPath(const BackupToken& token) {
    const std::string path = token.GetParam("path");
    if (!path.empty() && path[0] == '-') Refuse("\"path\" begins with \"-\"");
    if (("/" + path + "/").find("/../") != std::string::npos) Refuse("\"path\" holds \"..\"");
}

void CheckAbsolutePath(const BackupToken& token) {
    const std::string path = token.GetParam("path");
    if (path.empty() || path[0] != '/') Refuse("\"path\" is not absolute");
}

/// scp takes the remote path of a download for a pattern.
void CheckNoPattern(const BackupToken& token) {
    if (token.GetParam("path").find_first_of("*?[]{}\\") != std::string::npos) {
        Refuse("\"path\" holds a wildcard or a backslash");
    }
}

/// The decoder skips what it does not know: half a secret would be taken for a whole one.
bool IsBase64(const std::string& text) {
    return str::base64::Encode(str::base64::Decode(text)) == text;
}

// ---- The kinds ----------------------------------------------------------------------------------

void CheckLocal(const BackupToken& token) { CheckAbsolutePath(token); }

void CheckNode(const BackupToken& token) {
    CheckAbsolutePath(token);
    CheckNoPattern(token);
    CheckHost("ip", token.GetParam("ip"), false);
    CheckPort(token);
    const std::string key = token.GetParam("key_path");
    if (key.empty() || key[0] != '/') Refuse("\"key_path\" is not absolute");
    if (vel_proc::Escape(key) != key) Refuse("\"key_path\" holds more than [A-Za-z0-9_@%+=:,./-]");
}

void CheckSftp(const BackupToken& token) {
    CheckAbsolutePath(token);
    CheckNoPattern(token);
    std::string host = token.GetParam("url");
    if (host.find('@') != std::string::npos && !IsLogin(str::GetWord(host, '@'))) {
        Refuse("\"url\" has no login before \"@\"");
    }
    CheckHost("url", host, true);
    CheckPort(token);
    const std::string key = backup2::UnescapeKey(token.GetParam("key"));
    const bool is_key = str::StartsWith(key, "-----BEGIN ") &&
                        key.find(" PRIVATE KEY-----") != std::string::npos &&
                        key.find("-----END ") != std::string::npos;
    if (!is_key) Refuse("\"key\" is not a private key");
}

void CheckFtp(const BackupToken& token) {
    std::string host = token.GetParam("url");
    for (const std::string scheme : {"ftp://", "ftps://", "ftpes://"}) {
        if (str::StartsWith(host, scheme)) {
            host.erase(0, scheme.size());
            break;
        }
    }
    CheckHost("url", host, true);
    CheckPort(token);
    const std::string mode = token.GetParam("mode");
    if (!mode.empty() && mode != "active" && mode != "passive") {
        Refuse("\"mode\" is neither active nor passive");
    }
    if (!IsBase64(token.GetParam("password"))) Refuse("\"password\" is not base64");
}

// ---- Credentials of clouds ----------------------------------------------------------------------

using Members = std::map<std::string, std::string>;

Members ReadCredential(const BackupToken& token) {
    const std::string text = token.GetParam("token");
    if (text.empty()) Refuse("holds no credential");
    if (!IsBase64(text)) Refuse("\"token\" is not base64");
    const auto json = nlohmann::json::parse(str::base64::Decode(text), nullptr, false);
    if (!json.is_object()) Refuse("\"token\" is not base64 of a JSON object");
    Members members;
    for (const auto& [name, value] : json.items()) {
        if (!value.is_string()) Refuse("a member of \"token\" is not a text");
        members[name] = value.get<std::string>();
        const std::string& member = members[name];
        if (std::any_of(member.begin(), member.end(), IsControl)) {
            Refuse("a member of \"token\" holds control bytes");
        }
    }
    return members;
}

void Need(const Members& members, const std::string& name) {
    const auto found = members.find(name);
    if (found == members.end() || found->second.empty()) {
        Refuse("\"token\" lacks \"" + name + "\"");
    }
}

bool IsHostAndPort(std::string text) {
    const std::size_t colon = text.rfind(':');
    if (colon != std::string::npos && text.back() != ']') {
        const auto port = ParseNumber(text.substr(colon + 1), 65535);
        if (!port || *port == 0) return false;
        text.erase(colon);
    }
    const bool bracketed = text.size() > 2 && text.front() == '[' && text.back() == ']';
    return bracketed ? test::Ip6(text.substr(1, text.size() - 2)) : IsHostName(text);
}

/// [http[s]://]host[:port][/...]
void CheckAddress(const Members& members, const std::string& name, bool needs_scheme) {
    const auto found = members.find(name);
    if (found == members.end() || found->second.empty()) return;
    std::string rest = found->second;
    const bool scheme = str::StartsWith(rest, "http://") || str::StartsWith(rest, "https://");
    if (scheme) rest.erase(0, rest.find("//") + 2);
    if ((needs_scheme && !scheme) || !IsHostAndPort(str::GetWord(rest, '/'))) {
        Refuse("\"" + name + "\" of \"token\" is not an address");
    }
}

void CheckS3(const BackupToken& token) {
    const Members members = ReadCredential(token);
    for (const char* name : {"bucket", "access_key", "secret_key"}) Need(members, name);
    CheckAddress(members, "endpoint", false);
    const auto style = members.find("path_style");
    if (style != members.end() && style->second != "yes" && style->second != "no") {
        Refuse("\"path_style\" of \"token\" is neither yes nor no");
    }
}

/// An access token alone works until it ends; what refreshes it is needed as a whole.
void CheckOAuth(const BackupToken& token) {
    const Members members = ReadCredential(token);
    const auto refresh = members.find("refresh_token");
    if (refresh == members.end() || refresh->second.empty()) {
        Need(members, "access_token");
    } else {
        Need(members, "client_id");
    }
    CheckAddress(members, "api", true);
}

using TypeCheck = void (*)(const BackupToken&);
const std::map<std::string, TypeCheck> kTypes = {
    {"local", CheckLocal},  {"node", CheckNode},
    {"sftp", CheckSftp},    {"ftp", CheckFtp},
    {"s3", CheckS3},        {"amazon", CheckS3},
    {"yandex", CheckOAuth}, {"googledrive", CheckOAuth},
    {"dropbox", CheckOAuth}};

std::string KnownTypes() {
    std::string known;
    for (const auto& [name, check] : kTypes) str::Append(known, name, ", ");
    return known;
}

}  // namespace

void CheckToken(const BackupToken& token) {
    const std::string type = token.Type();
    if (type.empty()) Refuse("names no storage type");
    const std::string text = token.Str();
    if (std::any_of(text.begin(), text.end(), IsControl)) Refuse("holds control bytes");
    const auto found = kTypes.find(type);
    if (found == kTypes.end()) Refuse("\"" + type + "\" is no type; known are " + KnownTypes());
    CheckPath(token);
    found->second(token);
    if (!IsBase64(token.GetParam("arch_password"))) Refuse("\"arch_password\" is not base64");
}

void CheckPassword(const BackupToken& token) {
    if (!token.IsEncrypted()) return;
    const std::string password = str::base64::Decode(token.GetParam("arch_password"));
    if (password.empty()) Refuse("the archive password is empty");
    if (password.find('\n') != std::string::npos) Refuse("the archive password holds a line end");
    if (password.find('\0') != std::string::npos) Refuse("the archive password holds a zero byte");
    if (password.size() > kMaxPassword) Refuse("the archive password is longer than 1023 bytes");
}

std::string Redact(std::string text, const BackupToken& token) {
    std::set<std::string> secrets;
    for (const std::string& name : kSecrets) {
        secrets.insert(token.GetParam(name));
        secrets.insert(str::base64::Decode(token.GetParam(name)));
    }
    const std::string credential = str::base64::Decode(token.GetParam("token"));
    const auto json = nlohmann::json::parse(credential, nullptr, false);
    for (const char* name : kSecretMembers) {
        if (json.is_object() && json.contains(name) && json[name].is_string()) {
            secrets.insert(json[name].get<std::string>());
        }
    }
    // Backwards: the longer of two that begin alike first.
    for (auto secret = secrets.rbegin(); secret != secrets.rend(); ++secret) {
        // Shorter ones stand in every text by chance.
        if (secret->size() >= 4) str::inpl::Replace(text, *secret, "***");
    }
    return text;
}

}  // namespace backup2_cp
