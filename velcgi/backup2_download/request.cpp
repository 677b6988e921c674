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
constexpr char kCheck[] = "nodownload";
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

using Values = std::map<std::string, std::string>;

/// Adds to what is there already; false when a name is not new.
bool Parse(const std::string& form, Values& values) {
    std::vector<std::string> pairs;
    str::Split(form, "&", pairs);
    bool all_new = true;
    for (std::string& pair : pairs) {
        const std::string name = str::url::Decode(str::GetWord(pair, '='));
        all_new &= values.emplace(name, str::url::Decode(pair)).second;
    }
    return all_new;
}

bool IsSession(const std::string& text) {
    return text.size() == 32 && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

}  // namespace

void Request::Read() {
    method = vel_env::GetEnv("REQUEST_METHOD");
    range = TakeVariable("HTTP_RANGE");
    if_range = TakeVariable("HTTP_IF_RANGE");
    Values values;
    bool good = Parse(TakeVariable("QUERY_STRING"), values);
    const auto is_check = [&] { return values.count(kCheck) != 0 && values[kCheck] == "on"; };
    check_only = is_check();
    if (method == "POST") good &= Parse(ReadBody(), values);
    check_only = is_check();
    if (IsSession(values["auth"])) session = values["auth"];
    if (!values["part"].empty()) part = values["part"];
    const bool known = part == "1" || part == "2" || part == "listing";
    if (!good || !known || (!values[kCheck].empty() && !check_only)) Refuse();
}

}  // namespace backup2_download
