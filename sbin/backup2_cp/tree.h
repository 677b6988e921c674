/// The info files of a local tree, brought into the form that the retention rules take.
#pragma once

#include <functional>
#include <list>
#include <map>
#include <string>
#include <vector>

#include "sbin/backup2_cp/retention.h"

namespace backup2_cp {

struct Series {
    std::vector<Backup> backups;
    std::vector<std::string> infos;  ///< the path of each
};

/// Info files of one user, exactly, in the administrator's tree or in one of a user's own.
std::list<std::string> InfosOf(const std::string& top, const std::string& user);

/// All backups of a tree by NAME; with `user` only that one's are looked at. Info files that make
/// no sense, or lie in the wrong place, are given to `complain`, one line each; those that at least
/// have the name of a backup are in their series as unknown; copies that the tree's journal names
/// are working ones. A missing tree is empty.
std::map<std::string, Series> ReadTree(const std::string& top, const std::string& user,
                                       const std::function<void(const std::string&)>& complain);

}  // namespace backup2_cp
