#include "tests/vel/clouds.h"

#include <algorithm>
#include <sstream>

#include <nlohmann/json.hpp>

#include "vel/str.h"
#include "vel/vel_err.h"
#include "vel/vel_hash.h"
#include "vel/vel_rpc/detail/http.h"
#include "vel/vel_rpc/dropbox.h"
#include "vel/vel_rpc/google_drive.h"
#include "vel/vel_rpc/yandex.h"

namespace clouds {

void PrintTo(const Row& row, std::ostream* out) { *out << row.service; }

std::string NameOf(const testing::TestParamInfo<Row>& row) { return row.param.server; }

template <class Client>
Row Make(Row row) {
    row.open = [](const std::string& credential) { return std::make_unique<Client>(credential); };
    return row;
}

// clang-format off
Row DropboxRow() {
    return Make<vel_rpc::Dropbox>(
        {"dropbox", "Dropbox", 409, true, true, false, "upload_session", kThreeChunks,
         {"upload_session/start", "upload_session/append_v2", "upload_session/finish",
          "files/upload$", "get_metadata", "download", "list_folder$", "continue", "delete_v2",
          "create_folder"},
         {{"200 OK", R"({"size":5,"content_hash":"00"})"},
          {"200 OK", R"({".tag":"file","name":"x"})"}, {"200 OK", "{}"}},
         "POST /2/files/delete_v2", {}});
}

Row GoogleDriveRow() {
    return Make<vel_rpc::GoogleDrive>(
        {"google_drive", "Google Drive", 403, true, false, false, "upload_id", kTwoChunks,
         {"uploadType=resumable&fields", "upload_id", "uploadType=multipart", "files.q=",
          "alt=media", R"(v3/files/[^?"]*$)", "v3/files.fields=id$"},
         {{"200 OK", R"({"files":[]})"}, {"200 OK", "", "Location: @/session\r\n"},
          {"204 No Content"}},
         "DELETE /drive/v3/files/X",
         {{"200 OK", R"({"files":[{"id":"d","name":"x","mimeType":"m"}]})"},
          {"302 Found", "", "Location: @/there\r\n"}}});
}

Row YandexRow() {
    return Make<vel_rpc::Yandex>(
        {"yandex", "Yandex Disk", 423, false, false, true, "upload-target", 5,
         {"resources/upload", "upload-target", "resources/move", "resources/download",
          "disk/[0-9a-f]", "operations", "fields=type", "permanently", "path=disk%3A%2Ff%2Fg$"},
         {{"200 OK", R"({"href":"@/up"})"}, {"200 OK", R"({"size":5,"md5":"00"})"},
          {"204 No Content"}},
         "DELETE /v1/disk/resources", {{"200 OK", R"({"href":"@/there"})"}}});
}
// clang-format on

std::string Sha256(const std::string& bytes) {
    vel_hash::Hash hash(vel_hash::HashType::Sha256);
    hash.Update(bytes);
    return str::hex::Encode(hash.Str());
}

int Put(vel_rpc::Cloud& cloud, const std::string& path, const std::string& bytes) {
    std::istringstream in(bytes);
    return cloud.Put(path, in, "");
}

std::string Get(vel_rpc::Cloud& cloud, const std::string& path) {
    std::ostringstream out;
    cloud.Get(path, out);
    return out.str();
}

Names List(vel_rpc::Cloud& cloud, const std::string& path) {
    Names names;
    cloud.List(path, names);
    std::sort(names.begin(), names.end());
    return names;
}

std::string Life(vel_rpc::Cloud& cloud, const std::string& bytes) {
    try {
        cloud.MkPath("/f/g");
        if (Put(cloud, "/f/g/a.tgz", bytes) != 201) return "Put";
        for (const char* name : {"b", "c"}) {
            if (Put(cloud, std::string("/f/g/") + name, "") != 201) return "Put of nothing";
        }
        if (List(cloud, "/f/g/") != Names{"a.tgz", "b", "c"}) return "List";
        if (List(cloud, "/f/g/b") != Names{"b"}) return "List of a file";
        if (Get(cloud, "/f/g/a.tgz") != bytes) return "Get";
        cloud.Delete("/f/g/b");
        if (List(cloud, "/f/g/") != Names{"a.tgz", "c"}) return "Delete";
        cloud.RmDir("/f");
        return List(cloud, "/").empty() ? "" : "RmDir";
    } catch (const vel_err::Error& e) {
        return e.what();
    }
}

std::string CloudClient::Ask(const std::string& method, const std::string& body,
                             const std::string& url, const std::vector<std::string>& headers,
                             const std::string& member) {
    vel_rpc::detail::Http http("test");
    vel_rpc::detail::Request request;
    std::ostringstream answer;
    request.method = method;
    request.url = url;
    request.headers = headers;
    request.body = body;
    request.sink = &answer;
    EXPECT_EQ(http.Send(request).status, 200) << body;
    const auto all = nlohmann::json::parse(answer.str());
    return all.contains(member) ? all[member].dump() : "";
}

void CloudClient::Control(const std::string& commands) {
    Ask("POST", commands, server_["control"], {}, "");
}

std::string CloudClient::State(const std::string& member) {
    return Ask("GET", "", server_["control"], {}, member);
}

std::map<std::string, std::string> CloudClient::Stored() {
    std::map<std::string, std::string> stored;
    const auto files = nlohmann::json::parse(State("files"));
    for (const auto& [path, file] : files.items()) stored[path] = file[1];
    return stored;
}

std::unique_ptr<vel_rpc::Cloud> CloudClient::Open() {
    nlohmann::json members;
    for (const char* name :
         {"api", "access_token", "refresh_token", "client_id", "client_secret"}) {
        members[name] = server_[name];
    }
    return GetParam().open(str::base64::Encode(members.dump()));
}

}  // namespace clouds
