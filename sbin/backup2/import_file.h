/// backup2 import FILE: an archive of another panel becomes what a user has here.
#pragma once

#include <string>
#include <vector>

namespace backup2_admin {

struct FileImport {
    std::string file;       ///< the archive
    std::string user;       ///< who gets it: a user of the panel with an account on this machine
    std::string panel;      ///< cPanel | Plesk; "" = told from the archive
    std::string account;    ///< which of the archive's accounts; "" = the only one
    std::string report;     ///< id of the restore report; "" = a new one
    std::string host_dist;  ///< edition that panel data are converted for; "" = asked
    std::vector<std::string> servers;  ///< database servers to use; none: the first of each type
    bool dry_run = false;              ///< only show what the archive would become
};

/// Converts the archive in a private folder (removed however this ends), puts the tree into the
/// user's root with his rights, the panel data into the panel, and the databases into their
/// servers; prints what was carried, changed and lost. The exit status. Throws when the archive
/// cannot be converted (nothing has changed here then) or not everything could be put in place.
int ImportFile(const FileImport& import);

}  // namespace backup2_admin
