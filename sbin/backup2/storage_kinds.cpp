#include "sbin/backup2/storage_kinds.h"

#include <algorithm>
#include <utility>

#include <nlohmann/json.hpp>

#include "vel/str.h"
#include "vel/test.h"
#include "vel/vel_file.h"
#include "vel/vel_tool.h"

#include "backup_common/backup2_misc.h"

namespace backup2_admin {
namespace {

using Json = nlohmann::ordered_json;

/// Members of a cloud's credential that are options, and those that are secrets.
const std::map<std::string, std::string> kMembers = {{"endpoint", "endpoint"},
                                                     {"region", "region"},
                                                     {"bucket", "bucket"},
                                                     {"part-size", "part_size"},
                                                     {"path-style", "path_style"},
                                                     {"api", "api"},
                                                     {"access key", "access_key"},
                                                     {"secret key", "secret_key"},
                                                     {"access token", "access_token"},
                                                     {"refresh token", "refresh_token"},
                                                     {"client id", "client_id"},
                                                     {"client secret", "client_secret"}};
constexpr const char* kPublicMembers[] = {"endpoint", "region", "bucket", "path_style", "api"};

const StorageKind kS3 = {{"bucket"},
                         {"endpoint", "region", "path-style", "part-size", "path"},
                         {"access key", "secret key"}};
const StorageKind kAccount = {
    {}, {"path", "api"}, {"access token", "refresh token", "client id", "client secret"}};

std::string Value(const Words& words, const std::string& name) {
    const auto found = words.find(name);
    return found == words.end() ? "" : found->second;
}

void CheckOptions(const std::string& type, const StorageKind& kind, const Words& options) {
    for (const std::string& name : kind.needed) {
        if (Value(options, name).empty())
            throw vel_tool::UsageError("a storage of type " + type + " needs --" + name);
    }
    for (const auto& [name, value] : options) {
        const auto has = [&name = name](const std::vector<std::string>& names) {
            return std::find(names.begin(), names.end(), name) != names.end();
        };
        if (!value.empty() && !has(kind.needed) && !has(kind.optional))
            throw vel_tool::UsageError("--" + name + " does not belong to type " + type);
    }
}

/// With brackets where a port or a path follows the address.
std::string Host(std::string host, bool brackets) {
    const bool has = host.size() > 2 && host.front() == '[' && host.back() == ']';
    if (has && !brackets) return host.substr(1, host.size() - 2);
    return brackets && test::Ip6(host) ? "[" + host + "]" : host;
}

std::string LoginAt(const std::string& login, const std::string& host) {
    return login.empty() ? host : login + "@" + host;
}

std::string Credential(const StorageKind& kind, const Words& words) {
    Json json = Json::object();
    for (const auto* names : {&kind.needed, &kind.optional, &kind.secrets}) {
        for (const std::string& name : *names) {
            const auto member = kMembers.find(name);
            const std::string value = Value(words, name);
            if (member != kMembers.end() && !value.empty()) json[member->second] = value;
        }
    }
    try {
        return str::base64::Encode(json.dump());
    } catch (const Json::type_error&) {
        throw vel_tool::UsageError("keys and tokens must be UTF-8");
    }
}

/// The parameters of the kind, without the archive password.
Words Parameters(const std::string& type, const StorageKind& kind, const Words& words) {
    const std::string path = Value(words, "path"), host = Value(words, "host");
    const std::string port = Value(words, "port"), login = Value(words, "user");
    if (type == "local") return {{"path", vel_tool::Absolute(path)}};
    if (type == "node") {
        return {{"path", path},
                {"ip", Host(host, false)},
                {"port", port},
                {"key_path", vel_tool::Absolute(Value(words, "key-file"))}};
    }
    if (type == "sftp") {
        const std::string key = vel_file::ReadE(vel_tool::Absolute(Value(words, "key-file")));
        return {{"path", path},
                {"url", LoginAt(login, Host(host, true))},
                {"port", port},
                {"key", backup2::EscapeKey(key)}};
    }
    if (type == "ftp") {
        return {{"path", path},
                {"url", Host(host, true)},
                {"port", port},
                {"username", login},
                {"mode", Value(words, "mode")},
                {"password", str::base64::Encode(Value(words, "password"))}};
    }
    return {{"path", path}, {"token", Credential(kind, words)}};
}

Json ReadCredential(const backup2::BackupToken& token) {
    const std::string text = str::base64::Decode(token.GetParam("token"));
    const Json json = Json::parse(text, nullptr, false);
    return json.is_object() ? json : Json::object();
}

}  // namespace

const std::map<std::string, StorageKind>& StorageKinds() {
    static const std::map<std::string, StorageKind> kKinds = {
        {"local", {{"path"}, {}, {}}},
        {"node", {{"host", "key-file", "path"}, {"port"}, {}}},
        {"sftp", {{"host", "key-file", "path"}, {"port", "user"}, {}}},
        {"ftp", {{"host", "user"}, {"port", "path", "mode"}, {"password"}}},
        {"s3", kS3},
        {"amazon", kS3},
        {"googledrive", kAccount},
        {"yandex", kAccount},
        {"dropbox", kAccount}};
    return kKinds;
}

backup2::BackupToken MakeToken(const std::string& type, const Words& options,
                               const std::function<std::string(const std::string&)>& ask) {
    const StorageKind& kind = StorageKinds().at(type);
    CheckOptions(type, kind, options);
    Words words = options;
    for (const std::string& name : kind.secrets) words[name] = ask(name);
    backup2::BackupToken token("type=" + type);
    for (const auto& [name, value] : Parameters(type, kind, words)) {
        if (value.find(';') != std::string::npos)
            throw vel_tool::UsageError("\"" + name + "\" must not hold a semicolon");
        token.SetParam(name, value);
    }
    return token;
}

std::string Describe(const backup2::BackupToken& token) {
    const Json credential = ReadCredential(token);
    const auto bucket = credential.find("bucket");
    std::string place = token.GetParam("url") + token.GetParam("ip");
    if (!token.GetParam("port").empty()) place += ":" + token.GetParam("port");
    if (bucket != credential.end() && bucket->is_string()) place = bucket->get<std::string>();
    const std::string path = token.GetParam("path");
    const bool apart = !place.empty() && !path.empty() && path[0] != '/';
    return token.Type() + " " + place + (apart ? "/" : "") + path;
}

std::string PlaceOf(const backup2::BackupToken& token) {
    const std::string path = token.GetParam("path");
    std::string host = token.GetParam("url") + token.GetParam("ip");
    // Behind ssh a path from the root is the same for every login.
    if (token.Type() == "sftp" && path.substr(0, 1) == "/") host = host.substr(host.rfind('@') + 1);
    std::string place = token.Type() + "\n" + host;
    for (const char* name : {"port", "username"}) place += "\n" + token.GetParam(name);
    const Json credential = ReadCredential(token);
    for (const char* name : {"endpoint", "bucket", "api"}) {
        const auto member = credential.find(name);
        const bool has = member != credential.end() && member->is_string();
        place += "\n" + (has ? member->get<std::string>() : std::string());
    }
    return place + "\n" + vel_file::GoodPath(path);
}

std::vector<std::pair<std::string, std::string>> PublicValues(const backup2::BackupToken& token) {
    std::vector<std::pair<std::string, std::string>> values = {{"type", token.Type()}};
    for (const char* name : {"url", "ip", "port", "username", "key_path", "mode", "path"}) {
        const std::string value = token.GetParam(name);
        if (!value.empty()) values.emplace_back(name, value);
    }
    const Json credential = ReadCredential(token);
    for (const char* name : kPublicMembers) {
        const auto member = credential.find(name);
        if (member != credential.end() && member->is_string())
            values.emplace_back(name, member->get<std::string>());
    }
    values.emplace_back("encrypted", token.IsEncrypted() ? "yes" : "no");
    return values;
}

}  // namespace backup2_admin
