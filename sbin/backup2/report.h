/// What "backup2 run" says about one user's backup.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sbin/backup2/entries.h"

namespace backup2_admin {

struct Report {
    std::string user, date, kind;
    std::string error;   ///< why there is no backup, else ""
    bool empty = false;  ///< the panel names nothing to save
    uint64_t bytes = 0, parts = 0, files = 0;
    double seconds = 0;
    std::vector<FlaggedEntry> flagged;
    std::vector<std::string> removed;   ///< dates of backups that the limits took
    std::vector<std::string> marked;    ///< dates of those that go with their last increment
    bool copied = false;                ///< it is in the user's own storage, too
    std::vector<std::string> warnings;  ///< the backup is complete, but ...
};

int StatusOf(const Report& report);  ///< of the program
void Print(const Report& report);
void PrintAsJson(const std::vector<Report>& reports);

}  // namespace backup2_admin
