/// What is known of a copy on its way into a user's own storage: sizes and digests of the slices
/// that arrived there, in "<private tree>/.copying/<date>.<NAME>.info". The copy's info file is
/// made from the administrator's, whose slices were stored in another form.
#pragma once

#include <cstdint>
#include <string>

#include "sbin/backup2_cp/names.h"
#include "sbin/backup2_cp/sums.h"
#include "sbin/backup2_cp/target.h"

namespace backup2_cp {

/// The private tree of a user. Throws for what is no user's name.
std::string PrivateTree(const std::string& user);
std::string RecordPath(const std::string& tree, const BackupName& backup);

/// Makes the record (0600, its folder 0700) when it is missing: there is half a copy from now on.
void MakeRecord(const std::string& tree, const BackupName& backup);
/// Records a slice that was uploaded and proved; makes the record.
void RecordCopied(const std::string& tree, const BackupName& slice, const SliceSums& sums);

/// Rewrites the info file of a copy: each slice.K as it lies on `target`, the index by its name
/// there; "pinned" and "deleted", which are the administrator's, go. Throws std::runtime_error that
/// says which slice never arrived or arrived with other bytes; the file is as it was then.
void DescribeCopy(const Target& target, const std::string& tree, const std::string& info);

/// The copy is complete, or is given up.
void DropRecord(const std::string& tree, const BackupName& backup);

}  // namespace backup2_cp
