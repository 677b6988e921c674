#include "sbin/foreign_panel/values.h"

#include <algorithm>
#include <cctype>
#include <limits>
#include <string_view>
#include <vector>

#include "vel/str.h"

namespace foreign_panel {
namespace {

constexpr std::size_t kLongestPath = 3500, kLongestPart = 255, kMostParts = 256;

bool IsAlnum(char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0; }
bool IsGraph(char c) { return c > ' ' && c < 0x7f; }

bool AllOf(const std::string& text, bool (*test)(char)) {
    return std::all_of(text.begin(), text.end(), test);
}

bool IsHostPart(const std::string& part) {
    const auto plain = [](char c) { return IsAlnum(c) || c == '-' || c == '_'; };
    return !part.empty() && part.size() <= 63 && part.front() != '-' && part.back() != '-' &&
           AllOf(part, plain);
}

/// Bytes of the sequence that begins with `lead`, 0 for none.
std::size_t SequenceSize(unsigned char lead) {
    if (lead < 0x80) return 1;
    if (lead >= 0xc2 && lead <= 0xdf) return 2;
    if (lead >= 0xe0 && lead <= 0xef) return 3;
    return lead >= 0xf0 && lead <= 0xf4 ? 4 : 0;
}

bool IsHash(const std::string& text) {
    const auto fits = [](char c) { return IsGraph(c) && c != ':'; };
    return !text.empty() && text.size() <= 500 && AllOf(text, fits);
}

bool TakePrefix(std::string& text, const std::string& prefix) {
    if (!str::StartsWith(text, prefix)) return false;
    text.erase(0, prefix.size());
    return true;
}

}  // namespace

bool IsName(const std::string& text) {
    const auto fits = [](char c) {
        return IsAlnum(c) || std::string_view("_.@+$-").find(c) != std::string_view::npos;
    };
    return !text.empty() && text.size() <= 64 && text[0] != '-' && text[0] != '.' &&
           AllOf(text, fits);
}

std::string Domain(const std::string& text) {
    std::string name = str::Lower(str::Trim(text));
    if (!name.empty() && name.back() == '.') name.pop_back();
    if (name.empty() || name.size() > 253) return "";
    std::string rest = str::StartsWith(name, "*.") ? name.substr(2) : name;
    bool good = true;
    do {
        good = IsHostPart(str::GetWord(rest, '.'));
    } while (good && !rest.empty());
    return good ? name : "";
}

std::string Address(const std::string& text) {
    const std::string address = str::Trim(text);
    const std::size_t at = address.rfind('@');
    if (at == std::string::npos || at == 0 || at > 64) return "";
    const auto fits = [](char c) {
        return IsAlnum(c) ||
               std::string_view("!#$%&'*+/=?^_`{|}~.-").find(c) != std::string_view::npos;
    };
    const std::string local = address.substr(0, at), domain = Domain(address.substr(at + 1));
    if (domain.empty() || !AllOf(local, fits) || local[0] == '-' || local[0] == '|' ||
        local[0] == '/')
        return "";
    return local + "@" + domain;
}

std::string Line(const std::string& text) {
    const std::string line = str::Trim(text);
    const auto fits = [](char c) { return static_cast<unsigned char>(c) >= ' ' && c != 0x7f; };
    return line.size() <= 1000 && AllOf(line, fits) && IsUtf8(line) ? line : "";
}

std::optional<uint64_t> Number(const std::string& text) {
    const std::string digits = str::Trim(text);
    const auto is_digit = [](char c) { return c >= '0' && c <= '9'; };
    if (digits.empty() || digits.size() > 18 || !AllOf(digits, is_digit)) return std::nullopt;
    return static_cast<uint64_t>(str::Int64(digits));
}

std::string SafePath(const std::string& name) {
    if (name.empty() || name[0] == '/' || name.size() > kLongestPath) return "";
    std::vector<std::string> parts;
    str::Split(name, "/", parts);
    std::string path;
    std::size_t count = 0;
    for (const std::string& part : parts) {
        if (part == ".") continue;
        const bool bad = part == ".." || part.size() > kLongestPart ||
                         part.find('\0') != std::string::npos || ++count > kMostParts;
        if (bad) return "";
        str::Append(path, part, "/");
    }
    return path;
}

std::string DocumentPath(const std::string& name) {
    const std::string path = SafePath(name);
    const auto fits = [](char c) { return static_cast<unsigned char>(c) >= ' ' && c != 0x7f; };
    return AllOf(path, fits) && IsUtf8(path) ? path : "";
}

bool IsUtf8(const std::string& text) {
    for (std::size_t at = 0; at < text.size();) {
        const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
        const unsigned char lead = byte(at);
        const std::size_t size = SequenceSize(lead);
        if (size == 0 || size > text.size() - at) return false;
        for (std::size_t i = 1; i < size; ++i)
            if ((byte(at + i) & 0xc0) != 0x80) return false;
        const unsigned char second = size > 1 ? byte(at + 1) : 0;
        const bool overlong = (lead == 0xe0 && second < 0xa0) || (lead == 0xf0 && second < 0x90);
        const bool beyond = (lead == 0xed && second > 0x9f) || (lead == 0xf4 && second > 0x8f);
        if (overlong || beyond) return false;
        at += size;
    }
    return true;
}

// ---- Passwords ----------------------------------------------------------------------------------

Password FromShadow(const std::string& field) {
    Password password;
    std::string text = str::Trim(field);
    for (const char* mark : {"*LOCKED*", "!!", "!"}) password.locked |= TakePrefix(text, mark);
    if (text.empty() || text == "*" || text == "x") {
        password.problem = "no password is kept";
    } else if (IsHash(text) && text.size() >= 13) {
        password.text = text;
        password.form = "crypt";
    } else {
        password.problem = "its password's hash is of no known form";
    }
    return password;
}

Password FromDatabase(const std::string& text, const std::string& type) {
    Password password;
    const auto is_hex = [](char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; };
    const bool mysql = type == "mysql";
    if (mysql && text.size() == 41 && text[0] == '*' && AllOf(text.substr(1), is_hex)) {
        password.form = "mysql_native";
    } else if (!mysql && text.size() == 35 && str::StartsWith(text, "md5") &&
               AllOf(text.substr(3), is_hex)) {
        password.form = "postgresql_md5";
    } else if (!mysql && str::StartsWith(text, "SCRAM-SHA-256$") && text.size() <= 500 &&
               AllOf(text, IsGraph)) {
        password.form = "scram";
    } else {
        password.problem = text.empty()
                               ? "no password is kept"
                               : "its password's hash is of a kind that cannot be used here";
        return password;
    }
    password.text = text;
    return password;
}

}  // namespace foreign_panel
