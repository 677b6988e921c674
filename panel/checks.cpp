#include "panel/checks.h"

#include <cctype>
#include <map>

#include "vel/str.h"
#include "vel/vel_file.h"
#include "vel/vel_tool.h"

namespace panel {
namespace {

bool Fits(const std::string& name, const std::string& extra, std::size_t longest) {
    if (name.empty() || name.size() > longest) return false;
    for (const char c : name)
        if (!std::isalnum(static_cast<unsigned char>(c)) && extra.find(c) == std::string::npos)
            return false;
    return std::isalnum(static_cast<unsigned char>(name[0])) || name[0] == '_';
}

/// Length of the well-formed UTF-8 sequence at `at`, 0 when there is none (also for overlong
/// forms, surrogates and what lies beyond U+10FFFF).
std::size_t SequenceLength(const std::string& text, std::size_t at) {
    const auto byte = [&](std::size_t i) {
        return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
    };
    const unsigned lead = byte(at);
    if (lead < 0x80) return 1;
    const std::size_t length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
    if (lead < 0xc2 || lead > 0xf4) return 0;
    for (std::size_t i = 1; i < length; ++i)
        if ((byte(at + i) & 0xc0U) != 0x80) return 0;
    const unsigned second = byte(at + 1);
    const bool bad = (lead == 0xe0 && second < 0xa0) || (lead == 0xed && second > 0x9f) ||
                     (lead == 0xf0 && second < 0x90) || (lead == 0xf4 && second > 0x8f);
    return bad ? 0 : length;
}

bool Clean(const std::string& text) {
    for (std::size_t at = 0; at < text.size();) {
        const auto c = static_cast<unsigned char>(text[at]);
        const std::size_t length = c < 0x20 || c == 0x7f ? 0 : SequenceLength(text, at);
        if (length == 0) return false;
        at += length;
    }
    return true;
}

[[noreturn]] void Refuse(const std::string& what, const std::string& rule) {
    throw vel_tool::UsageError(what + ": " + rule);
}

}  // namespace

void CheckName(const std::string& what, const std::string& name) {
    if (!Fits(name, "_-", 32))
        Refuse(what, "letters, digits, _ and -, not first -, at most 32 characters");
}

void CheckDatabaseName(const std::string& name) {
    if (!Fits(name, "_-.@", 64))
        Refuse("database", "letters, digits, and _ - . @ but first, at most 64 characters");
}

void CheckText(const std::string& what, const std::string& text) {
    // The value itself may be a secret: it is not shown.
    if (!Clean(text)) Refuse(what, "must be UTF-8 without control characters");
}

void CheckAbsolutePath(const std::string& what, const std::string& path) {
    CheckText(what, path);
    if (path.empty() || path[0] != '/' || path == "/" || vel_file::GoodPath(path) != path)
        Refuse(what, "must be an absolute path without \"//\", \".\", \"..\" and \"/\" at its end");
}

void CheckFolder(const std::string& folder) {
    CheckText("folder", folder);
    std::string first = folder;
    if (folder.empty() || folder[0] == '/' || vel_file::GoodPath(folder) != folder ||
        str::GetWord(first, '/') == ".system")
        Refuse("folder", "must be a path below the user's root, not .system");
}

void CheckSize(const std::string& what, const std::string& size) {
    std::string digits = size;
    if (!digits.empty() && std::string("KMGT").find(digits.back()) != std::string::npos)
        digits.pop_back();
    if (!size.empty() &&
        (digits.empty() || digits.find_first_not_of("0123456789") != std::string::npos ||
         digits.size() > 15))
        Refuse(what, "must be a number, perhaps followed by K, M, G or T");
}

void CheckToken(const std::string& token) {
    CheckText("token", token);
    std::map<std::string, std::string> parameters;
    str::Split(token, ";", parameters);
    if (parameters["type"].empty()) Refuse("token", "names no type");
    const std::string& path = parameters["path"];
    if (parameters["type"] == "local" && (path.empty() || path[0] != '/'))
        Refuse("token", "a local storage needs an absolute path");
}

}  // namespace panel
