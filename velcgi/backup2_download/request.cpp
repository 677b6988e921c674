#include "velcgi/backup2_download/request.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <map>
#include <vector>

#include "vel/str.h"
#include "vel/vel_env.h"

namespace backup2_download {
namespace {

constexpr std::size_t kMaxBody = 8 * 1024;
constexpr char kForm[] = "application/x-www-form-urlencoded";

[[noreturn]] void Refuse() { throw Refusal(400, "request"); }

std::string TakeVariable(const std::string& name) {
    const std::string value = vel_env::GetEnv(name);
    vel_env::UnsetEnv(name);
    return value;
}

std::string ReadBody() {
    const int64_t length = str::Int64(TakeVariable("CONTENT_LENGTH"));
    if (length == 0) return "";
    std::string type = TakeVariable("CONTENT_TYPE");
    if (str::Trim(str::GetWord(type, ';')) != kForm) Refuse();
    std::string body;
    std::array<char, 4096> bytes;
    for (;;) {
        const ssize_t got = ::read(STDIN_FILENO, bytes.data(), bytes.size());
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        body.append(bytes.data(), static_cast<std::size_t>(got));
        if (body.size() > kMaxBody) Refuse();
    }
    return body;
}

/// Adds to what is there already; a name must be new.
void Parse(const std::string& form, std::map<std::string, std::string>& values) {
    std::vector<std::string> pairs;
    str::Split(form, "&", pairs);
    for (std::string& pair : pairs) {
        const std::string name = str::url::Decode(str::GetWord(pair, '='));
        if (!values.emplace(name, str::url::Decode(pair)).second) Refuse();
    }
}

bool IsSession(const std::string& text) {
    return text.size() == 32 && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

}  // namespace

Request Request::Read() {
    Request request;
    request.method = vel_env::GetEnv("REQUEST_METHOD");
    request.range = TakeVariable("HTTP_RANGE");
    request.if_range = TakeVariable("HTTP_IF_RANGE");
    std::map<std::string, std::string> values;
    Parse(TakeVariable("QUERY_STRING"), values);
    if (request.method == "POST") Parse(ReadBody(), values);
    if (IsSession(values["auth"])) request.session = values["auth"];
    if (const std::string part = values["part"]; !part.empty()) request.part = part;
    const std::string check = values["nodownload"];
    request.check_only = check == "on";
    const bool known = request.part == "1" || request.part == "2" || request.part == "listing";
    if (!known || (!check.empty() && !request.check_only)) Refuse();
    return request;
}

}  // namespace backup2_download
