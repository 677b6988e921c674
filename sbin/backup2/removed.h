/// Backups of users whom the panel knows no more, or knows with another number: a new user of an
/// old name must not see what the former one had.
#pragma once

#include <string>

#include "sbin/backup2/job.h"

namespace backup2_admin {

/// Deletes such backups (of one user, or "" of all) from the administrator's storage and prints a
/// line for each. The panel must say it in three ways that agree; an answer that makes no sense, a
/// panel that is locked, slow or down deletes nothing. Backups without a recorded number, pinned
/// ones and those that a backup of the present user builds on stay, and so do roles' ones. The exit
/// status: 1 when the panel or the copy tool failed for somebody, 3 when something had to stay.
int DeleteFormerUsers(const Site& site, const std::string& user);

}  // namespace backup2_admin
