/// The file that stands for one object of the system while a user's tree is saved.
#pragma once

#include <string>

#include "vel/res_handle.h"

namespace backup2_system {

/// What the name of a marker says.
struct Object {
    std::string type;  ///< "db" | "user"
    std::string name;  ///< "SERVER.DATABASE", or the user
    std::string Title() const { return type + "." + name; }
};

/// Reads TYPE.NAME. Throws vel_tool::UsageError for another type and for a name that has other
/// bytes than letters, digits and "_.@-", begins with none of the first three, or (db) lacks a
/// part.
Object ParseMarkerName(const std::string& file_name);

enum class MarkerUse { Write, Read };

/// Opens the marker below the user's tree, which he can change at any moment: its folder must be
/// a real one of root's, the file a regular one of root's with this name only. Whatever else
/// stands there is vel_err::Error("marker", "refused", path + why); nothing is changed then.
vel_file::ResHandle OpenMarker(const std::string& path, MarkerUse use);

/// The marker while it is filled: emptied again unless Keep was reached.
class DumpTarget {
public:
    explicit DumpTarget(const std::string& path);
    ~DumpTarget();
    DumpTarget(const DumpTarget&) = delete;
    DumpTarget& operator=(const DumpTarget&) = delete;
    vel_file::ResHandle Fd() const { return fd_; }
    void Keep();  ///< throws when the file system has not taken everything

private:
    std::string path_;
    vel_file::ResHandle fd_;
    bool kept_ = false;
};

void EmptyMarker(const std::string& path);

/// Up to `size` bytes from the end of the file, without moving its offset.
std::string ReadTail(int fd, std::size_t size);

}  // namespace backup2_system
