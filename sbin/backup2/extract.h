/// Runs the archiver over a stored backup, or over an archive that lies here.
#pragma once

#include <string>
#include <vector>

#include "vel/vel_file.h"

#include "sbin/backup2/job.h"

namespace backup2_admin {

class Extraction {
public:
    struct Result {
        int status = 0;
        std::vector<std::string> lines;  ///< "name TAB reason", fit for a terminal
        std::string failed;              ///< the same lines as the archiver wrote them
        std::string message;             ///< the archiver's own last word, "" when it had none
        /// Throws when the archiver failed as a whole and not only for the names in `lines`.
        void ThrowIfFatal(const std::string& title) const;
    };

    /// `index` is the backup's local listing. Slices pass through a directory that belongs to
    /// `work` on this user, so the caller must hold LockWork of the same.
    Extraction(const std::string& work, const Backup& backup, const std::string& local_dir,
               std::string index);
    /// `action` is --extract (into `root`) or --verify (root ""); `more` are further options.
    Result Run(const std::string& action, const std::string& root, std::vector<std::string> more,
               const std::vector<std::string>& paths) const;

private:
    const Backup& backup_;
    std::string local_dir_, index_;
    vel_file::TmpDir slices_;
};

/// Runs the archiver and sorts what it says. `argv` begins with its path.
Extraction::Result RunArchiver(std::vector<std::string> argv);

}  // namespace backup2_admin
