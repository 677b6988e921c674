#include "sbin/backup2/verified.h"

#include <vector>

#include "vel/str.h"
#include "vel/vel_date.h"
#include "vel/vel_file.h"

namespace backup2_admin {
namespace {

const char kBook[] = "var/backup2.verified";

using Entries = std::map<std::string, Verified>;

/// "<info file> TAB <identity of that backup>", fit for a line. The library finds the file under
/// more than one spelling of its path.
std::string Key(const Backup& backup) {
    return backup2::EncodeFileName(vel_file::GoodPath(backup.info_path)) + "\t" + backup.Identity();
}

/// key TAB when TAB good|bad TAB deep|stored
Entries Parse(const std::string& text) {
    Entries entries;
    std::vector<std::string> lines;
    str::Split(text, "\n", lines);
    for (std::string line : lines) {
        const std::string how = str::RGetWord(line, "\t"), result = str::RGetWord(line, "\t");
        const std::string when = str::RGetWord(line, "\t");
        if (!line.empty()) entries[line] = {when, result == "good", how == "deep"};
    }
    return entries;
}

std::string Text(const Entries& entries) {
    std::string text;
    for (const auto& [key, verified] : entries) {
        text += key + "\t" + verified.when + "\t" + (verified.good ? "good" : "bad") + "\t" +
                (verified.deep ? "deep" : "stored") + "\n";
    }
    return text;
}

bool IsGone(const std::string& key) {
    return !vel_file::Exists(backup2::DecodeFileName(key.substr(0, key.find('\t'))));
}

}  // namespace

VerifiedBook::VerifiedBook() : entries_(Parse(vel_file::Read(kBook))) {}

Verified VerifiedBook::Find(const Backup& backup) const {
    const auto found = entries_.find(Key(backup));
    return found == entries_.end() ? Verified{} : found->second;
}

void RecordVerified(const Backup& backup, const Verified& result) {
    vel_file::Lock lock;
    lock.DoLock(kBook, false);
    Entries entries = Parse(lock.Read());
    std::erase_if(entries, [](const auto& entry) { return IsGone(entry.first); });
    entries[Key(backup)] = {vel_date::DateTime().AsDateTime(), result.good, result.deep};
    lock.Write(Text(entries));
}

}  // namespace backup2_admin
