/// The folder that a conversion fills. Nothing is ever made outside of it: every name is resolved
/// by the kernel beneath the folder and without following any link at the time it is used, files
/// are made exclusively, and no existing file is ever written into.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "vel/res_handle.h"

#include "sbin/foreign_panel/budget.h"

namespace foreign_panel {

struct Owner {
    uid_t uid = 0;
    gid_t gid = 0;
};

struct Attributes {
    mode_t mode = 0644;  ///< permissions only: other bits are ignored
    timespec mtime{};
    bool owned = true;  ///< belongs to the tree's owner, not to who runs the program
};

/// `name`s are relative to the folder, without ".", "..", empty parts and NUL (see SafePath).
/// Functions that make something throw EntryError "<reason>", and OutOfRoom for a full disk; a file
/// that could not be written completely is removed again.
class OutTree {
public:
    struct OutOfRoom : std::exception {
        const char* what() const noexcept override { return "no room is left on the disk"; }
    };
    using Content = std::function<bool(std::string_view& bytes, uint64_t& offset)>;

    /// Nothing is made yet. With `dry` nothing ever is: the functions below only take the content.
    OutTree(std::string path, std::optional<Owner> owner, bool dry);
    ~OutTree();  ///< without Keep: removes all that was made, the folder too when this made it
    OutTree(const OutTree&) = delete;
    OutTree& operator=(const OutTree&) = delete;

    /// Makes the folder (0700), or takes an empty one of this user. Throws std::runtime_error for
    /// one that holds something or is somebody else's.
    void Begin();
    /// False when a file or link of that name was there and has been replaced.
    bool MakeFile(const std::string& name, const Attributes& attributes, const Content& content,
                  uint64_t size);
    void MakeText(const std::string& name, const std::string& text);  ///< 0600, not the owner's
    void MakeFolder(const std::string& name, const Attributes& attributes);
    bool MakeLink(const std::string& name, const std::string& target, timespec mtime);
    /// A second name of a regular file in the folder; links are not followed.
    bool MakeHardLink(const std::string& name, const std::string& file);
    /// Modes and times of the folders, once everything lies in them.
    void Finish();
    void Keep() { kept_ = true; }

private:
    struct Place {
        vel_file::ResHandle folder;
        std::string leaf;
    };
    Place Open(const std::string& name);
    vel_file::ResHandle OpenBeneath(const std::string& name, int flags) const;
    vel_file::ResHandle OpenFolder(const std::string& name);
    void FinishFolder(const std::string& name, const Attributes& attributes);
    bool Make(const Place& place, const std::function<int()>& make);
    void Own(int fd, const char* leaf, bool owned) const;
    void Note(const std::string& folder, const Attributes& attributes);

    std::string path_;
    std::optional<Owner> owner_;
    bool dry_, made_ = false, begun_ = false, kept_ = false;
    vel_file::ResHandle root_;
    vel_file::ResHandle last_folder_;
    std::string last_name_;
    vel_file::ResHandle notes_;  // of folders: a file without a name, as there may be millions
    std::string notes_buffer_;
};

}  // namespace foreign_panel
