/// Names and bytes, as the clients of cloud storages need them.
#pragma once

#include <cstddef>
#include <ctime>
#include <istream>
#include <set>
#include <string>
#include <vector>

namespace vel_rpc::detail {

constexpr std::size_t kChunkSize = std::size_t{16} << 20;  // what an upload holds in memory

/// The names on a path from the root.
using Names = std::vector<std::string>;
/// "//" counts as "/". Throws vel_err::Error("storage", "refused") for "." and "..", and for bytes
/// that the providers cannot store: NUL, and what is not UTF-8.
Names SplitNames(const std::string& service, const std::string& path);
/// The same of a path that must have a name: the root is refused.
Names SplitBelowRoot(const std::string& service, const std::string& path);
std::string JoinNames(const Names& names);  ///< "/a/b"; "" for the root
Names Parent(Names names);                  ///< without the last name
/// A path for messages: without control bytes, at most 300 bytes.
std::string Shown(const std::string& path);
bool IsFolderPath(const std::string& path);  ///< ends in "/", or is empty

/// The names of one listing, as they come from the server.
class Listing {
public:
    /// Both are for messages: "Dropbox", "list /a".
    Listing(const std::string& service, const std::string& what) : what_(service + ": " + what) {}
    /// Both throw vel_err::Error("storage", "refused"): for a name that is no bare name, and when
    /// the listing does not end within reason. Add: false for a name that came before.
    bool Add(const std::string& name);
    void TurnPage();
    void Clear() { names_.clear(); }
    const std::set<std::string>& Found() const { return names_; }

private:
    const std::string what_;
    std::set<std::string> names_;
    std::size_t names_before_ = 0;  // that the last page with news ended with
    int idle_pages_ = 0;
};

/// Of "2024-01-31T12:00:00.5+03:00"; without a zone it is UTC. Throws vel_err::Error("storage",
/// "refused") for anything else.
std::time_t TimeOf(const std::string& service, const std::string& what, const std::string& iso);
/// The time that many hours ago; -1: not yet here, as servers round up.
std::time_t HoursAgo(int hours);

/// Reads into `chunk` until it holds kChunkSize bytes or the stream ends. A stream that breaks
/// throws vel_err::Error("file", "read_failed"): its part must not count as the whole.
void ReadChunk(std::istream& in, std::string& chunk);
bool AtEnd(std::istream& in);

}  // namespace vel_rpc::detail
