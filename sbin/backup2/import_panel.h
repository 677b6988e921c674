/// backup2 import --from: a user's newest backup on another machine becomes what he has here.
#pragma once

#include <string>

namespace backup2_admin {

struct PanelImport {
    std::string from;  ///< address of the other panel, https://host[:port]
    std::string admin, user;
    std::string ca_file;    ///< whose certificates count; "": the system's authorities
    bool insecure = false;  ///< any certificate, and http as well
    std::string report;     ///< id of the restore report; "" = a new one
    std::string host_dist;  ///< edition that the panel's data are converted for; "" = asked
};

/// Asks for the administrator's password, fetches the newest backup of the user from there and puts
/// it into his root, his databases and the panel here, with a restore report. What was fetched lies
/// in a private folder, which is gone however this ends (after kill -9: with the next import of the
/// user, or `backup2 cleanup`). Nothing of the user's is touched before all of it is here and
/// whole. The exit status. Throws std::runtime_error with a line for people.
int ImportFromPanel(const PanelImport& import);

}  // namespace backup2_admin
