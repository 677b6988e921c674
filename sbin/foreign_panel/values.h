/// Texts of strangers that are to become names, addresses, paths and hashes here: each either has
/// the form that docs/foreign-panels.md promises, or is refused.
#pragma once

#include <optional>
#include <string>

namespace foreign_panel {

/// 1 to 64 letters, digits and "_.@+$-", not beginning with "-" or ".".
bool IsName(const std::string& text);
/// Lower case, without a dot at the end; "" when it is no host name ("*." and a leading "_" in a
/// part are allowed).
std::string Domain(const std::string& text);
/// "local@domain" with the domain in lower case, "" when it is none.
std::string Address(const std::string& text);
/// Printable, on one line, at most 1000 bytes: plans, titles, e-mail contacts. "" otherwise.
std::string Line(const std::string& text);
/// Decimal digits; nothing for anything else ("unlimited", negative, too large).
std::optional<uint64_t> Number(const std::string& text);

/// A place below the folder that a conversion fills. Empty parts and "." go; "" for what is
/// absolute, has "..", a part over 255 bytes, more than 256 parts or more than 3500 bytes in all.
std::string SafePath(const std::string& name);
/// As SafePath, and fit for a document: no control bytes, valid UTF-8.
std::string DocumentPath(const std::string& name);
bool IsUtf8(const std::string& text);

/// A password or what is kept in place of it.
struct Password {
    std::string text, form;  ///< form: crypt, plain, mysql_native, postgresql_md5, scram; "" = none
    bool locked = false;     ///< the log-in was suspended
    std::string problem;     ///< why there is none that can be used
};
/// The second field of a shadow file.
Password FromShadow(const std::string& field);
/// What a server of this type (mysql, postgresql) keeps.
Password FromDatabase(const std::string& text, const std::string& type);

}  // namespace foreign_panel
