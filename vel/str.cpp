#include "vel/str.h"

#include <sys/random.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>
#include <string_view>

#include "vel/vel_err.h"

namespace str {
namespace {

constexpr std::string_view kSpaces = " \t\n\v\f\r";
constexpr std::string_view kBase64 =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

unsigned Byte(char c) { return static_cast<unsigned char>(c); }

/// Where `text` occurs; an empty text occurs nowhere, so that no caller loops for ever.
std::size_t Find(std::string_view s, std::string_view text, std::size_t from = 0) {
    return text.empty() ? std::string::npos : s.find(text, from);
}

std::string TakeAll(std::string& s) {
    std::string all;
    all.swap(s);
    return all;
}

std::string CutWord(std::string& s, std::size_t at, std::size_t delimiter_size) {
    if (at == std::string::npos) return TakeAll(s);
    std::string word = s.substr(0, at);
    s.erase(0, at + delimiter_size);
    return word;
}

int64_t ReadNumber(std::string_view s, int64_t low, int64_t high) {
    std::size_t i = std::min(s.find_first_not_of(kSpaces), s.size());
    const bool negative = i < s.size() && s[i] == '-';
    if (i < s.size() && (s[i] == '-' || s[i] == '+')) ++i;
    int64_t n = 0;  // kept negative: that side of the range is the longer one
    for (; i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i) {
        if (__builtin_mul_overflow(n, 10, &n) || __builtin_sub_overflow(n, s[i] - '0', &n)) {
            return negative ? low : high;
        }
    }
    if (negative) return std::max(n, low);
    return n < -high ? high : -n;
}

void AppendOctal(std::string& out, char c) {
    for (const unsigned shift : {6U, 3U, 0U}) {
        out += static_cast<char>('0' + ((Byte(c) >> shift) & 7));
    }
}

/// The value of a hexadecimal digit, -1 for any other byte.
int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

/// The byte that two hexadecimal digits give, -1 when they are not both digits.
int HexPair(char high, char low) {
    const int h = HexDigit(high), l = HexDigit(low);
    return h < 0 || l < 0 ? -1 : h * 16 + l;
}

template <class Element>
void ForEachElement(std::string_view s, const std::string& separator, Element element) {
    std::size_t from = 0;
    while (from < s.size()) {
        const std::size_t at = std::min(Find(s, separator, from), s.size());
        if (at > from) element(s.substr(from, at - from));
        from = at + separator.size();
        if (separator.empty()) return;
    }
}

}  // namespace

// ---- Words --------------------------------------------------------------------------------------

std::string GetWord(std::string& s) { return GetWord(s, ' '); }

std::string GetWord(std::string& s, char delimiter) { return CutWord(s, s.find(delimiter), 1); }

std::string GetWord(std::string& s, const std::string& delimiter) {
    return CutWord(s, Find(s, delimiter), delimiter.size());
}

std::string RGetWord(std::string& s, const std::string& delimiter) {
    const std::size_t at = delimiter.empty() ? std::string::npos : s.rfind(delimiter);
    if (at == std::string::npos) return TakeAll(s);
    std::string word = s.substr(at + delimiter.size());
    s.erase(at);
    return word;
}

// ---- Numbers ------------------------------------------------------------------------------------

int Int(const std::string& s) {
    using Limits = std::numeric_limits<int>;
    return static_cast<int>(ReadNumber(s, Limits::min(), Limits::max()));
}

int64_t Int64(const std::string& s) {
    using Limits = std::numeric_limits<int64_t>;
    return ReadNumber(s, Limits::min(), Limits::max());
}

std::string Str(int64_t n) { return std::to_string(n); }
std::string Str(uint64_t n) { return std::to_string(n); }
std::string Str(int n) { return std::to_string(n); }

// ---- Texts --------------------------------------------------------------------------------------

std::string Trim(std::string s) {
    const std::size_t last = s.find_last_not_of(kSpaces);
    if (last == std::string::npos) return "";
    s.erase(last + 1);
    s.erase(0, s.find_first_not_of(kSpaces));
    return s;
}

std::string Lower(std::string s) {
    for (char& c : s) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return s;
}

bool StartsWith(const std::string& s, const std::string& prefix) { return s.starts_with(prefix); }
bool EndsWith(const std::string& s, const std::string& suffix) { return s.ends_with(suffix); }

void Append(std::string& a, const std::string& b, const std::string& separator) {
    if (!a.empty()) a += separator;
    a += b;
}

std::string Replace(std::string s, const std::string& from, const std::string& to) {
    inpl::Replace(s, from, to);
    return s;
}

void inpl::Replace(std::string& s, const std::string& from, const std::string& to) {
    std::string out;  // built anew: replacing in place would move the rest once per hit
    std::size_t done = 0;
    for (std::size_t at = Find(s, from); at != std::string::npos; at = Find(s, from, done)) {
        out.append(s, done, at - done).append(to);
        done = at + from.size();
    }
    if (done != 0) s = out.append(s, done);
}

void Split(const std::string& s, const std::string& separator,
           std::map<std::string, std::string>& out) {
    ForEachElement(s, separator, [&out](std::string_view element) {
        const std::size_t end = std::min(element.find('='), element.size());
        const std::size_t value = std::min(end + 1, element.size());
        out[std::string(element.substr(0, end))] = element.substr(value);
    });
}

void Split(const std::string& s, const std::string& separator, std::vector<std::string>& out) {
    ForEachElement(s, separator, [&out](std::string_view element) { out.emplace_back(element); });
}

std::string Join(const std::map<std::string, std::string>& m, const std::string& separator) {
    std::string out;
    for (const auto& [name, value] : m) Append(out, name + "=" + value, separator);
    return out;
}

std::string Random(std::size_t n) {
    std::string bytes(n, '\0');
    for (std::size_t done = 0; done < n;) {
        const ssize_t got = ::getrandom(&bytes[done], n - done, 0);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) vel_err::RaiseErrno("getrandom", "random bytes", errno);
        done += static_cast<std::size_t>(got);
    }
    return bytes;
}

// ---- Encodings ----------------------------------------------------------------------------------

std::string base64::Encode(const std::string& bytes) {
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::size_t n = std::min<std::size_t>(3, bytes.size() - i);
        unsigned group = Byte(bytes[i]) << 16;
        if (n > 1) group |= Byte(bytes[i + 1]) << 8;
        if (n > 2) group |= Byte(bytes[i + 2]);
        out += kBase64[group >> 18];
        out += kBase64[(group >> 12) & 63];
        out += n > 1 ? kBase64[(group >> 6) & 63] : '=';
        out += n > 2 ? kBase64[group & 63] : '=';
    }
    return out;
}

std::string base64::Decode(const std::string& text) {
    static const auto values = [] {
        std::array<int, 256> table{};
        table.fill(-1);
        for (std::size_t i = 0; i < kBase64.size(); ++i)
            table[Byte(kBase64[i])] = static_cast<int>(i);
        return table;
    }();
    std::string out;
    unsigned bits = 0, count = 0;
    for (const char c : text) {
        if (c == '=') break;
        const int value = values[Byte(c)];
        if (value < 0) continue;
        bits = bits << 6 | static_cast<unsigned>(value);
        count += 6;
        if (count < 8) continue;
        count -= 8;
        out += static_cast<char>(bits >> count & 0xff);
    }
    return out;
}

std::string hex::Encode(const std::string& bytes) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::string out;
    out.reserve(bytes.size() * 2);
    for (const char c : bytes) {
        out += kDigits[Byte(c) >> 4];
        out += kDigits[Byte(c) & 15];
    }
    return out;
}

std::string hex::Decode(const std::string& text) {
    std::string out;
    for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
        out += static_cast<char>(std::max(0, HexPair(text[i], text[i + 1])));
    }
    return out;
}

std::string url::Encode(const std::string& s) {
    constexpr std::string_view kDigits = "0123456789ABCDEF";
    std::string out;
    for (const char c : s) {
        const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
        if (letter || (c >= '0' && c <= '9') || c == '-' || c == '.' || c == '_' || c == '~') {
            out += c;
        } else {
            out += '%';
            out += kDigits[Byte(c) >> 4];
            out += kDigits[Byte(c) & 15];
        }
    }
    return out;
}

std::string url::Decode(const std::string& s) {
    std::string out;
    for (std::size_t i = 0; i < s.size(); ++i) {
        const int byte = s[i] == '%' && i + 2 < s.size() ? HexPair(s[i + 1], s[i + 2]) : -1;
        if (byte >= 0) {
            out += static_cast<char>(byte);
            i += 2;
        } else {
            out += s[i] == '+' ? ' ' : s[i];
        }
    }
    return out;
}

namespace badchars {
namespace {

constexpr std::string_view kNamed = "\t\n\r\v\f";
constexpr std::string_view kLetters = "tnrvf";

/// The byte that the three octal digits at `at` give, -1 when there is none.
int Octal(const std::string& s, std::size_t at) {
    if (at + 3 > s.size() || s[at] > '3') return -1;
    int value = 0;
    for (const char c : {s[at], s[at + 1], s[at + 2]}) {
        if (c < '0' || c > '7') return -1;
        value = value * 8 + (c - '0');
    }
    return value;
}

}  // namespace

std::string Escape(const std::string& s, const std::string& bad, char escape) {
    std::string out;
    out.reserve(s.size());
    for (const char c : s) {
        const std::size_t named = kNamed.find(c);
        if (c == escape) {
            out.append(2, escape);
        } else if (bad.find(c) == std::string::npos) {
            out += c;
        } else if (named != std::string_view::npos) {
            out += escape;
            out += kLetters[named];
        } else {
            out += escape;
            AppendOctal(out, c);
        }
    }
    return out;
}

std::string Unescape(const std::string& s, char escape) {
    std::string out;
    out.reserve(s.size());
    for (std::size_t i = 0; i < s.size(); ++i) {
        const char next = s[i] == escape && i + 1 < s.size() ? s[i + 1] : '\0';
        const std::size_t letter = next == '\0' ? std::string_view::npos : kLetters.find(next);
        const int octal = s[i] == escape ? Octal(s, i + 1) : -1;
        if (s[i] == escape && next == escape) {
            out += escape;
            ++i;
        } else if (letter != std::string_view::npos) {
            out += kNamed[letter];
            ++i;
        } else if (octal >= 0) {
            out += static_cast<char>(octal);
            i += 3;
        } else {
            out += s[i];
        }
    }
    return out;
}

const std::string& Controls() {
    static const std::string bytes = [] {
        std::string all = "\x7f";
        for (char c = 0; c < ' '; ++c) all += c;
        return all;
    }();
    return bytes;
}

}  // namespace badchars
}  // namespace str
