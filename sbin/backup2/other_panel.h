/// The panel of another machine, as far as it hands out backups.
#pragma once

#include <string>
#include <vector>

namespace backup2_admin {

/// Acts as the administrator there on behalf of one user. Everything that fails throws
/// std::runtime_error with one line that says which side refused what.
class OtherPanel {
public:
    OtherPanel(std::string url, std::string admin, std::string password, std::string user);

    /// The archive of his newest backup; of an increment that of its full backup.
    void FetchArchive(const std::string& path) const;
    /// Another part of the same backup: "2", the increment's own archive, or "listing". False when
    /// there is none, or the panel is of a version that has one archive only.
    bool FetchPart(const std::string& part, const std::string& path) const;

private:
    std::string Session() const;
    std::string AskStatus(const std::string& part) const;

    const std::string url_, admin_, password_, user_;
    std::string host_;
};

/// Throws vel_tool::UsageError for what is no address of a panel, or is one without TLS unless that
/// is wanted.
void CheckPanelAddress(const std::string& url, bool insecure);

}  // namespace backup2_admin
