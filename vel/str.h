/// Words, numbers and encodings over byte strings. Nothing here throws but for lack of memory
/// (Random: Error "sys" when the kernel gives no random bytes), and nothing assumes an encoding.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace str {

/// Cuts the text up to the first delimiter off `s` (the delimiter goes too) and returns it.
/// Without a delimiter the whole text is returned and `s` becomes empty. Default: a space.
std::string GetWord(std::string& s);
std::string GetWord(std::string& s, char delimiter);
std::string GetWord(std::string& s, const std::string& delimiter);
/// Returns the text behind the last delimiter and cuts `s` before it; without a delimiter the
/// whole text is returned and `s` becomes empty.
std::string RGetWord(std::string& s, const std::string& delimiter);

/// Lenient decimal numbers: leading white space and a sign are taken, the digits up to the first
/// other byte count, nonsense is 0, overflow saturates.
int Int(const std::string& s);
int64_t Int64(const std::string& s);
std::string Str(int64_t n);
std::string Str(uint64_t n);
std::string Str(int n);

/// Removes white space (space, \t \n \v \f \r) at both ends.
std::string Trim(std::string s);
std::string Lower(std::string s);  ///< ASCII only
bool StartsWith(const std::string& s, const std::string& prefix);
bool EndsWith(const std::string& s, const std::string& suffix);
/// Appends `b` to `a`, with `separator` between them only when `a` is not empty.
void Append(std::string& a, const std::string& b, const std::string& separator);
/// Replaces every occurrence, left to right, never looking at replaced text again.
std::string Replace(std::string s, const std::string& from, const std::string& to);
namespace inpl {
void Replace(std::string& s, const std::string& from, const std::string& to);
}

/// Splits at `separator`, dropping empty elements. The map form reads "name=value" pairs, cut at
/// the first "="; an element without "=" is a name with an empty value; of equal names the last
/// counts. Both forms add to what the container holds.
void Split(const std::string& s, const std::string& separator,
           std::map<std::string, std::string>& out);
void Split(const std::string& s, const std::string& separator, std::vector<std::string>& out);
/// The inverse of the map form: "name=value" pairs in the order of the names.
std::string Join(const std::map<std::string, std::string>& m, const std::string& separator);

/// `n` raw bytes of the kernel's generator.
std::string Random(std::size_t n);

namespace base64 {  // RFC 4648, standard alphabet, padded, no line breaks
std::string Encode(const std::string& bytes);
/// Skips bytes outside the alphabet, stops at the first "=", drops a half byte at the end.
std::string Decode(const std::string& text);
}  // namespace base64

namespace hex {
std::string Encode(const std::string& bytes);  ///< two lower-case digits a byte
/// Either case; an odd last digit is ignored, a pair that is no number counts as 0.
std::string Decode(const std::string& text);
}  // namespace hex

namespace url {                            // RFC 3986
std::string Encode(const std::string& s);  ///< unreserved bytes stay, others %XX in upper case
std::string Decode(const std::string& s);  ///< also "+" as a space; a broken %-pair stays as it is
}  // namespace url

namespace badchars {
/// Makes a text free of the bytes in `bad`: each becomes the escape byte and a letter
/// (\t \n \r \v \f) or three octal digits; the escape byte itself is doubled.
std::string Escape(const std::string& s, const std::string& bad, char escape);
/// The exact inverse; an escape that Escape never writes stays as it is.
std::string Unescape(const std::string& s, char escape);
/// Every byte below the blank, and DEL: what must not reach a terminal or break a line.
const std::string& Controls();
}  // namespace badchars

}  // namespace str
