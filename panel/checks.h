/// What the panel takes from an administrator. Every value later becomes a file name, an argument
/// or an XML text; what does not fit its grammar is refused here, with vel_tool::UsageError.
#pragma once

#include <string>

namespace panel {

/// Letters, digits, "_" and "-", not first "-", at most 32: no dots, as names of backups and of
/// databases are cut at them.
void CheckName(const std::string& what, const std::string& name);
/// As above, also ".", "@", at most 64: what may follow the first dot of a marker's name.
void CheckDatabaseName(const std::string& name);
/// UTF-8 without control bytes: whatever else XML and one-line protocols would change.
void CheckText(const std::string& what, const std::string& text);
/// Absolute, normal, not "/".
void CheckAbsolutePath(const std::string& what, const std::string& path);
/// Relative to a user's root, normal, not the folder of markers.
void CheckFolder(const std::string& folder);
/// Digits, perhaps with K, M, G or T; "" is none.
void CheckSize(const std::string& what, const std::string& size);
void CheckToken(const std::string& token);

}  // namespace panel
