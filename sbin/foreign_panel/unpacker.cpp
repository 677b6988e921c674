#include "sbin/foreign_panel/unpacker.h"

#include <algorithm>

#include <xxhash.h>

#include "vel/str.h"

#include "sbin/foreign_panel/values.h"

namespace foreign_panel {
namespace {

constexpr mode_t kSpecialBits = 07000;
constexpr std::size_t kLongestTarget = 4095;
constexpr std::size_t kMostWaiting = 64 << 20;  // bytes of links that wait for the end

std::vector<std::string> Parts(const std::string& path) {
    std::vector<std::string> parts;
    str::Split(path, "/", parts);
    return parts;
}

std::string Joined(std::size_t ups, const std::vector<std::string>& names, std::size_t from) {
    std::string path;
    for (std::size_t i = 0; i < ups; ++i) str::Append(path, "..", "/");
    for (std::size_t i = from; i < names.size(); ++i) str::Append(path, names[i], "/");
    return path.empty() ? "." : path;
}

}  // namespace

std::string InnerTarget(const std::string& place, const std::string& target) {
    std::vector<std::string> at = Parts(place);
    at.pop_back();
    std::size_t ups = 0;
    std::vector<std::string> names;
    for (const std::string& part : Parts(target)) {
        if (part == ".") continue;
        if (part != "..")
            names.push_back(part);
        else if (!names.empty())
            names.pop_back();
        else
            ++ups;
    }
    // The first part of the place is the tree's own top folder: nothing above it may be named.
    if (target.empty() || ups >= at.size()) return "";
    return Joined(ups, names, 0);
}

std::string RelativeTarget(const std::string& place, const std::string& target) {
    const std::vector<std::string> from = Parts(place), to = Parts(target);
    std::size_t same = 0;
    while (same + 1 < from.size() && same < to.size() && from[same] == to[same]) ++same;
    return Joined(from.size() - 1 - same, to, same);
}

void Unpacker::Map(const std::string& there, const std::string& here) {
    std::string folder = there;
    while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
    if (folder.size() > 1 && folder[0] == '/') folders_.emplace_back(folder, here);
}

std::string Unpacker::PlaceOf(const std::string& path) const {
    const std::pair<std::string, std::string>* best = nullptr;
    for (const auto& pair : folders_) {
        const bool within = str::StartsWith(path, pair.first) &&
                            (path.size() == pair.first.size() || path[pair.first.size()] == '/');
        if (within && (!best || pair.first.size() > best->first.size())) best = &pair;
    }
    if (!best) return "";
    const std::string rest = path.substr(best->first.size());
    if (rest.find_first_not_of('/') == std::string::npos) return best->second;
    const std::string inner = SafePath(rest.substr(rest.find_first_not_of('/')));
    return inner.empty() ? "" : best->second + "/" + inner;
}

void Unpacker::Refuse(const std::string& name) {
    report_.Add(Fate::Lost, "file", name, "its name leaves the account's tree or is too long");
}

void Unpacker::Seen(const std::string& place, bool fresh) {
    if (dry_) fresh = seen_.insert(XXH3_64bits(place.data(), place.size())).second;
    if (!fresh)
        report_.Add(Fate::Changed, "file", place, "is there several times: the last one counts");
}

void Unpacker::PutFile(ArchiveReader& reader, const Entry& entry, const std::string& place,
                       const Tap& tap) {
    budget_.CheckSize(entry.size);
    uint64_t bytes = 0;
    const auto content = [&](std::string_view& piece, uint64_t& offset) {
        if (!reader.Data(piece, offset)) return false;
        if (offset > entry.size) budget_.CheckSize(offset);
        if (tap) tap(piece, offset);
        bytes += piece.size();
        return true;
    };
    Seen(place, tree_.MakeFile(place, {entry.mode, entry.mtime, true}, content, entry.size));
    report_.CountFile(bytes);
}

void Unpacker::PutRelative(const std::string& place, const std::string& target, timespec mtime) {
    const std::string inner = InnerTarget(place, target);
    if (inner.empty()) throw EntryError("a link that leaves the account's tree: " + target);
    std::string plain = target;
    while (plain.size() > 1 && plain.back() == '/') plain.pop_back();
    const bool same = inner == plain || "./" + inner == plain;
    // A ".." behind a name goes where the name's own link says, which may be anywhere.
    Seen(place, tree_.MakeLink(place, same ? target : inner, mtime));
    if (!same) report_.Add(Fate::Changed, "link", place, "leads to " + inner + ", was " + target);
    report_.CountLink();
}

void Unpacker::PutLink(const std::string& place, const std::string& target, timespec mtime) {
    if (target.empty() || target.size() > kLongestTarget)
        throw EntryError("a link without a target that can be kept");
    if (target[0] != '/') return PutRelative(place, target, mtime);
    waiting_bytes_ += sizeof(Waiting) + place.size() + target.size();
    if (waiting_bytes_ > kMostWaiting) throw EntryError("too many absolute links");
    waiting_.push_back({place, target, mtime});
}

void Unpacker::Put(ArchiveReader& reader, const Entry& entry, const std::string& place,
                   const std::string& hard_link, const Tap& tap) {
    const bool keeps_mode = entry.type == 'f' || entry.type == 'd';
    try {
        if (entry.type == 'f') {
            PutFile(reader, entry, place, tap);
        } else if (entry.type == 'd') {
            tree_.MakeFolder(place, {entry.mode, entry.mtime, true});
            report_.CountFolder();
        } else if (entry.type == 'l') {
            PutLink(place, entry.target, entry.mtime);
        } else if (entry.type == 'h') {
            if (hard_link.empty()) throw EntryError("a link that leaves the account's tree");
            Seen(place, tree_.MakeHardLink(place, hard_link));
            report_.CountLink();
        } else {
            throw EntryError("a " + entry.kind + " is not carried");
        }
        if (keeps_mode && (entry.mode & kSpecialBits) != 0)
            report_.Add(Fate::Changed, "file", place, "without its set-id and sticky bits");
    } catch (const EntryError& e) {
        report_.Add(Fate::Lost, entry.type == 'l' || entry.type == 'h' ? "link" : "file", place,
                    e.what());
    }
}

void Unpacker::Finish() {
    for (const Waiting& link : waiting_) {
        const std::string to = PlaceOf(link.target);
        try {
            if (to.empty())
                throw EntryError("a link that leaves the account's tree: " + link.target);
            const std::string target = RelativeTarget(link.place, to);
            Seen(link.place, tree_.MakeLink(link.place, target, link.mtime));
            report_.Add(Fate::Changed, "link", link.place,
                        "leads to " + target + ", was " + link.target);
            report_.CountLink();
        } catch (const EntryError& e) {
            report_.Add(Fate::Lost, "link", link.place, e.what());
        }
    }
    waiting_.clear();
}

}  // namespace foreign_panel
