/// What one pass over a cPanel archive leaves: the files are in the tree by then, the dumps too,
/// and what describes the account is here.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "sbin/foreign_panel/converter.h"

namespace cpanel {

struct MailFolder {
    bool maildir = false, mdbox = false;
    std::string compression;  ///< "gzip", "zstd" or ""
};

struct Collected {
    /// Texts by their names below the archive's top folder; those of the home directory begin with
    /// "homedir/".
    std::map<std::string, std::string> texts;
    std::map<std::string, MailFolder> mail;  ///< by "DOMAIN/BOX"; "" is the account's own mailbox
    std::map<std::string, std::optional<foreign_panel::Dump>> mysql, postgresql;  ///< by database
    std::string layout;  ///< "homedir/" or "homedir.tar", "" without a home directory

    const std::string& Text(const std::string& name) const {
        static const std::string kNone;
        const auto found = texts.find(name);
        return found == texts.end() ? kNone : found->second;
    }
    /// Names below "FOLDER/", without it.
    std::vector<std::string> Names(const std::string& folder) const;
};

/// What later steps need of earlier ones.
struct Account {
    std::string there, here;  ///< its name on the other machine and on this one
    std::string home;         ///< its home directory there
    std::string main_domain;
    foreign_panel::Password password;
    std::set<std::string> domains;       ///< of every kind
    std::set<std::string> certificates;  ///< domains that have one
};

/// Reads the whole archive. Throws std::runtime_error when it is none of cPanel.
Collected Collect(foreign_panel::Job& job);

/// Lines of a text without line ends, blank ones left out.
std::vector<std::string> Lines(const std::string& text);
std::string FirstLine(const std::string& text);  ///< trimmed; "" when there is none

Account ConvertAccount(foreign_panel::Job& job, const Collected& from);
void ConvertDomains(foreign_panel::Job& job, const Collected& from, Account& account);
void ConvertDatabases(foreign_panel::Job& job, const Collected& from, const Account& account);
void ConvertMail(foreign_panel::Job& job, const Collected& from, const Account& account);
void ConvertCertificates(foreign_panel::Job& job, const Collected& from, Account& account);
void ConvertZones(foreign_panel::Job& job, const Collected& from, const Account& account);
void ConvertCron(foreign_panel::Job& job, const Collected& from, const Account& account);
void ConvertFtp(foreign_panel::Job& job, const Collected& from, const Account& account);

}  // namespace cpanel
