/// Writes entries beneath a directory whose owner may change it at any moment.
///
/// Every path is resolved by the kernel beneath the root, without following any link, at the time
/// it is used; what is then changed is changed through the descriptor of what was just made.
/// No file is ever written into: a new one is created exclusively, an old one is replaced by
/// renaming. A file that could not be written completely is removed again. A program that is killed
/// may leave one, under its own name where none was before, else as ".qortar-" and 16 digits beside
/// the old one. The same restore started again removes or replaces both, unless told to overwrite
/// "never" or only what is older ("newer"): the cut file bears the time of the killed run.
///
/// With a user, names are made, renamed and removed with that user's rights, by the kernel's own
/// checks: what he could not write himself is refused, but for names that are missing directly in
/// the root, which may be the administrator's. Owners and times are then set through descriptors
/// with root's rights. (A root that he cannot enter is out of his reach: root's rights everywhere.)
/// Device nodes are refused, set-id bits of what does not belong to him are dropped, and so are
/// xattrs other than "user." and ACLs; a folder that is there and is not his stays as it is.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "vel/res_handle.h"

#include "sbin/qortar/options.h"
#include "sbin/qortar/tar_stream.h"

namespace qortar {

/// Why a name cannot stand beneath a root, "" when it can: empty, absolute, "." or ".." in it, a
/// part longer than 255 bytes, longer than 4095 bytes. The root itself is ".".
std::string NameProblem(const std::string& name);

/// What all threads share.
struct Target {
    explicit Target(const Options& options);  ///< opens the root, which is made when missing
    /// With `own`: gives the entry to the user. Set-id bits go, they were another owner's word.
    void Adopt(Item& item) const;
    vel_file::ResHandle root;
    Overwrite overwrite;
    bool privileged;           ///< may set owners
    bool for_user = false;     ///< the rules for a user's tree hold
    bool with_rights = false;  ///< and names are made with his rights
    bool own = false;          ///< and all that is restored becomes his
    uid_t uid = 0;
    gid_t gid = 0;
    std::vector<gid_t> groups;
};

/// A folder as it was found or made at the beginning of a restore.
struct FolderState {
    dev_t device = 0;
    ino_t inode = 0;
    bool made = false;
};

/// Belongs to the thread that made it. Functions that fail throw vel_err::Error whose value is a
/// reason without the name, and leave what was there; only "disk_full" concerns more than one
/// entry.
class Writer {
public:
    explicit Writer(const Target& target);
    ~Writer();

    using Content = std::function<bool(std::string_view& bytes, uint64_t& offset)>;
    /// As TarStream::Data gives the content. False when an existing file is kept.
    bool WriteFile(const Item& item, const Content& content);
    /// The folder and its missing parents, mode 0700 until FinishFolder. `in_archive` says that it
    /// is an entry of its own: something else that stands in its place is replaced then.
    FolderState MakeFolder(const std::string& name, bool in_archive);
    /// Owner, mode, attributes and times. Throws when the folder is not the one of `state`.
    void FinishFolder(const Item& item, const FolderState& state);
    void MakeLink(const Item& item);     ///< type l
    void MakeSpecial(const Item& item);  ///< types p, c, b
    void MakeHardLink(
        const Item& item);  ///< of what item.target is beneath the root, never a folder
    /// A missing name is no error; a folder that is not empty stays.
    void Remove(const std::string& name);
    /// What writing the item would do: "create", "replace", or "" for nothing.
    std::string Preview(const Item& item);
    bool Exists(const std::string& name);

private:
    struct Parent {
        vel_file::ResHandle fd;
        bool keeps_group = false;  // set-group-id: what is created in it gets its group
        bool has_acl = false;      // a default ACL, which what is created in it inherits
    };
    struct Spot;
    const Parent& OpenParent(const std::string& name);
    vel_file::ResHandle OpenFolder(const std::string& name, int flags) const;
    FolderState NewFolder(const std::string& name);
    bool MayReplace(const Item& item, const struct stat& old) const;
    bool Clear(const Item& item, const Spot& spot);
    template <class Make>
    bool Place(const Item& item, const Make& make);
    mode_t AllowedMode(const Item& item) const;
    bool BornRight(const Item& item) const;
    void SetAttributes(int fd, const Item& item, bool owned, bool inherited);
    std::string SetXattrs(int fd, const Item& item, bool by_path) const;
    void SetByPath(int fd, const Item& item);

    const Target& target_;
    std::string parent_name_;
    Parent parent_;
    bool has_parent_ = false;
    bool made_by_root_ = false;  // the last one, where the user's rights did not suffice
};

}  // namespace qortar
