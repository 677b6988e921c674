#include "vel/vel_rpc/ftp.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <ostream>
#include <set>
#include <streambuf>
#include <string_view>
#include <vector>

#include "vel/str.h"
#include "vel/vel_err.h"
#include "vel/vel_hash.h"
#include "vel/vel_log.h"
#include "vel/vel_rpc/detail/cloud_parts.h"
#include "vel/vel_rpc/detail/ftp_session.h"

namespace vel_rpc {
namespace {

using detail::FtpReply;
using detail::Shown;
using Names = std::set<std::string>;

const vel_log::Module logger("ftp");

constexpr char kTemporaryBegin[] = "backup2-", kTemporaryEnd[] = ".part";
constexpr std::size_t kTemporaryDigits = 24;
// Before the name of a file that makes way for a newer one: so it can be given back.
constexpr char kAside[] = "backup2-aside-";
constexpr int kMaxDepth = 100;        // of folders in folders
constexpr int kMaxLines = 1'000'000;  // of one listing

constexpr int kSize = 213, kNoSpace = 452, kOverQuota = 552, kNotAllowed = 553, kMissing = 550;

/// The same for the same target, so that the next upload replaces what a killed one has left.
std::string TemporaryName(const std::string& target) {
    const std::string digest = vel_hash::Digest(vel_hash::HashType::Sha256, target);
    return kTemporaryBegin + str::hex::Encode(digest).substr(0, kTemporaryDigits) + kTemporaryEnd;
}

bool IsTemporary(const std::string& name) {
    const std::size_t begin = sizeof kTemporaryBegin - 1;
    return name.size() == begin + kTemporaryDigits + sizeof kTemporaryEnd - 1 &&
           name.starts_with(kTemporaryBegin) && name.ends_with(kTemporaryEnd) &&
           name.find_first_not_of("0123456789abcdef", begin) == begin + kTemporaryDigits;
}

std::string Join(const std::string& folder, const std::string& name) {
    return (folder == "/" ? "" : folder) + "/" + name;
}

bool IsAside(const std::string& name) {
    return name.size() >= sizeof kAside && name.starts_with(kAside);
}

/// "/a/b" -> {"/a", "b"}; "/" has no name.
struct Place {
    explicit Place(const std::string& path)
        : folder(path.substr(0, std::max<std::size_t>(path.rfind('/'), 1))),
          name(path.substr(path.rfind('/') + 1)) {}
    std::string Aside() const { return Join(folder, kAside + name); }

    std::string folder, name;
};

/// "type=file;size=3; name" -> "name"; "" for the folder itself and the one above it.
std::string_view NameOfFacts(std::string_view line) {
    const std::size_t space = line.find(' ');
    const std::string facts = ";" + str::Lower(std::string(line.substr(0, space)));
    if (facts.find(";type=cdir;") != facts.npos || facts.find(";type=pdir;") != facts.npos)
        return "";
    return space == line.npos ? "." : line.substr(space + 1);
}

/// Counts what is written.
class Counter : public std::streambuf {
public:
    uint64_t Bytes() const { return bytes_; }

private:
    std::streamsize xsputn(const char*, std::streamsize size) override {
        bytes_ += static_cast<uint64_t>(size);
        return size;
    }
    int_type overflow(int_type) override { return ++bytes_, 0; }

    uint64_t bytes_ = 0;
};

/// The server does not know the command, or not this form of it.
bool IsUnknownCommand(const FtpReply& reply) { return reply.status >= 500 && reply.status <= 504; }

}  // namespace

class Ftp::Impl {
public:
    Impl(const std::string& address, const std::string& user, const std::string& password,
         int timeout)
        : session(address, user, password, timeout) {}

    std::string Absolute(const std::string& path);
    std::string BelowRoot(const std::string& path);
    [[noreturn]] void Refuse(const std::string& step, const std::string& why,
                             const char* object = "refused") const;

    bool Upload(const std::string& step, std::istream& in, const std::string& temporary);
    std::string StoredSize(const std::string& step, const std::string& path);
    void Rename(const std::string& step, const std::string& from, const std::string& to);
    bool BringBack(const std::string& step, const std::string& path);
    void Settle(const std::string& step, const std::string& folder, Names& names);
    void Forget(const std::string& temporary) noexcept;
    bool IsFile(const std::string& step, const std::string& path);
    std::optional<Names> NamesIn(const std::string& step, const std::string& folder);
    Names NamesLike(const std::string& step, const std::string& path);
    void Remove(const std::string& step, const std::string& path, int depth);

    detail::FtpSession session;

private:
    FtpReply ListBy(const std::string& command, const std::string& step, const std::string& folder,
                    Names& names, bool& entered);
    bool IsEmpty(const std::string& step, const std::string& folder);

    bool knows_facts_ = true;
};

void Ftp::Impl::Refuse(const std::string& step, const std::string& why, const char* object) const {
    throw vel_err::Error("storage", object, session.Server() + ": " + step + ": " + why);
}

/// Without "//" and a last "/". A relative path begins where the login leads to.
std::string Ftp::Impl::Absolute(const std::string& path) {
    for (const char c : path) {
        if (static_cast<unsigned char>(c) < ' ' || c == '\xff')
            Refuse(Shown(path), "FTP has no way to write a control byte or 0xFF in a path");
    }
    std::vector<std::string> names;
    str::Split(path.starts_with('/') ? path : session.Home() + "/" + path, "/", names);
    std::string absolute;
    for (const std::string& name : names) {
        if (name == "..") Refuse(Shown(path), "\"..\" is no name");
        if (name != ".") absolute += "/" + name;
    }
    return absolute.empty() ? "/" : absolute;
}

std::string Ftp::Impl::BelowRoot(const std::string& path) {
    std::string absolute = Absolute(path);
    if (absolute == "/" || Absolute("") == absolute)
        Refuse(Shown(path), "this is the folder that everything is in");
    return absolute;
}

bool Ftp::Impl::IsFile(const std::string& step, const std::string& path) {
    const FtpReply reply = session.Command(step, {"TYPE I", "SIZE " + path});
    return reply.ok && reply.status == kSize;
}

/// False: the server does not take the data.
bool Ftp::Impl::Upload(const std::string& step, std::istream& in, const std::string& temporary) {
    uint64_t sent = 0;
    const FtpReply reply = session.Send(step, temporary, in, {"*DELE " + temporary}, sent);
    if (reply.status == kNoSpace || reply.status == kOverQuota || reply.status == kNotAllowed) {
        logger.Write(4, "%s: %s: %s", session.Server(), step, reply.text);
        return false;
    }
    if (!reply.ok) Refuse(step, reply.text);
    const std::string stored = StoredSize(step, temporary);
    if (stored != "213 " + str::Str(sent))
        Refuse(step, "the server was sent " + str::Str(sent) + " bytes and says: " + stored);
    return true;
}

/// As the server answers SIZE. Where it does not know that, the bytes are read back and counted: a
/// listing may show an older size.
std::string Ftp::Impl::StoredSize(const std::string& step, const std::string& path) {
    const FtpReply size = session.Command(step, {"TYPE I", "SIZE " + path});
    if (size.ok || !IsUnknownCommand(size)) return size.text;
    Counter counter;
    std::ostream back(&counter);
    const FtpReply reply = session.Receive(step, path, back);
    return reply.ok ? "213 " + str::Str(counter.Bytes()) : reply.text;
}

/// Where the server does not replace a file, that one makes way, and comes back when the new one
/// cannot take its place.
void Ftp::Impl::Rename(const std::string& step, const std::string& from, const std::string& to) {
    const auto move = [&](const std::string& what, const std::string& where) {
        return session.Command(step, {"RNFR " + what, "RNTO " + where});
    };
    FtpReply reply = move(from, to);
    if (reply.ok) return;
    const Place place(to);
    const bool is_folder = session.Enter(step, to).ok;
    const auto move_aside = [&] { return move(to, place.Aside()).ok; };
    const auto move_aside_after_all = [&] {  // an older one may be in the way
        std::optional<Names> names = NamesIn(step, place.folder);
        if (names) Settle(step, place.folder, *names);
        return move_aside();
    };
    if (is_folder || !(move_aside() || move_aside_after_all())) Refuse(step, reply.text);
    reply = move(from, to);
    if (reply.ok) return Forget(place.Aside());
    if (!BringBack(step, to)) logger.Write(4, "%s: what was there lies aside", step);
    Refuse(step, reply.text);
}

/// What was moved aside. False: there is nothing, or it stays there.
bool Ftp::Impl::BringBack(const std::string& step, const std::string& path) {
    return session.Command(step, {"RNFR " + Place(path).Aside(), "RNTO " + path}).ok;
}

/// Ends what killed uploads began: a file aside whose place is empty comes back, another goes.
void Ftp::Impl::Settle(const std::string& step, const std::string& folder, Names& names) {
    for (const std::string& aside : Names(names)) {
        if (!IsAside(aside)) continue;
        names.erase(aside);
        const std::string name = aside.substr(sizeof kAside - 1);
        if (names.count(name) > 0) {
            Forget(Join(folder, aside));
        } else if (BringBack(step, Join(folder, name))) {
            names.insert(name);
        }
    }
}

void Ftp::Impl::Forget(const std::string& temporary) noexcept {
    try {
        session.Command("remove " + Shown(temporary), {"*DELE " + temporary});
    } catch (const std::exception& e) {  // the failure that led here is what counts
        logger.Write(4, "%s may stay until the next upload: %s", temporary, e.what());
    }
}

FtpReply Ftp::Impl::ListBy(const std::string& command, const std::string& step,
                           const std::string& folder, Names& names, bool& entered) {
    const std::string prefix = Join(folder, "");
    detail::Listing listing(session.Server(), step);
    int lines = 0;
    const auto take = [&](std::string_view line) {
        if (++lines > kMaxLines) Refuse(step, "the listing does not end");
        if (command == "MLSD") line = NameOfFacts(line);
        if (command == "NLST" && line.starts_with(prefix)) line.remove_prefix(prefix.size());
        if (line.empty()) return;
        if (line == "." || line == "..") {
            names.emplace(line);
        } else {
            listing.Add(std::string(line));
        }
    };
    FtpReply reply = session.List(step, folder, command, take, entered);
    names.insert(listing.Found().begin(), listing.Found().end());
    return reply;
}

/// After a refusal that servers also use for "nothing there".
bool Ftp::Impl::IsEmpty(const std::string& step, const std::string& folder) {
    int lines = 0;
    bool entered = false;
    const auto count = [&](std::string_view line) { lines += line.starts_with("total ") ? 0 : 1; };
    return session.List(step, folder, "LIST", count, entered).ok && lines == 0;
}

/// Nothing when it is no folder that can be entered; the server does not say why.
std::optional<Names> Ftp::Impl::NamesIn(const std::string& step, const std::string& folder) {
    Names names;
    bool entered = false;
    FtpReply reply;
    if (knows_facts_) {
        reply = ListBy("MLSD", step, folder, names, entered);
        knows_facts_ = !entered || !IsUnknownCommand(reply);
    }
    if (!knows_facts_) {
        reply = ListBy("NLST", step, folder, names, entered);
        const bool nothing = !reply.ok && entered && reply.status == kMissing;
        if (nothing && IsEmpty(step, folder)) return Names();
    }
    // pure-ftpd ends a long listing before its end, and says so only here.
    if (reply.text.find("truncated") != reply.text.npos) Refuse(step, reply.text);
    if (reply.ok) return names;
    if (entered || reply.status < 500) Refuse(step, reply.text);
    return std::nullopt;
}

/// Of a path that is no folder: a file's own name, or nothing when there is nothing.
Names Ftp::Impl::NamesLike(const std::string& step, const std::string& path) {
    const Place place(path);
    if (IsFile(step, path)) return {place.name};
    const std::optional<Names> siblings = NamesIn(step, place.folder);
    if (place.name.empty() || (siblings && siblings->count(place.name) > 0))
        Refuse(step, "the folder cannot be entered");
    return {};
}

void Ftp::Impl::Remove(const std::string& step, const std::string& path, int depth) {
    const FtpReply reply = session.Command(step, {"DELE " + path});
    if (reply.ok) return;
    if (depth > kMaxDepth) Refuse(step, "the folders do not end");
    const std::optional<Names> names = NamesIn(step, path);
    if (!names) Refuse(step, reply.text, IsFile(step, path) ? "refused" : "missed");
    for (const std::string& name : *names) {
        if (name != "." && name != "..") Remove(step, Join(path, name), depth + 1);
    }
    const FtpReply removed = session.Command(step, {"RMD " + path});
    if (!removed.ok) Refuse(step, removed.text);
}

Ftp::Ftp(const std::string& address, const std::string& user, const std::string& password,
         int timeout)
    : impl_(std::make_unique<Impl>(address, user, password, timeout)) {}

Ftp::~Ftp() = default;
Ftp::Ftp(Ftp&&) noexcept = default;
Ftp& Ftp::operator=(Ftp&&) noexcept = default;

void Ftp::SetMode(int mode) { impl_->session.SetActive(mode == 0); }

void Ftp::Get(const std::string& path, std::ostream& out) {
    const std::string source = impl_->BelowRoot(path), step = "get " + Shown(source);
    FtpReply reply = impl_->session.Receive(step, source, out);
    const bool missing = !reply.ok && reply.status == kMissing;
    if (missing && impl_->BringBack(step, source))
        reply = impl_->session.Receive(step, source, out);
    if (!reply.ok) impl_->Refuse(step, reply.text, reply.status == kMissing ? "missed" : "refused");
}

bool Ftp::Put(std::istream& in, const std::string& path) {
    const std::string target = impl_->BelowRoot(path), step = "put " + Shown(target);
    const std::string temporary = Join(Place(target).folder, TemporaryName(target));
    bool stored = false;
    try {
        stored = impl_->Upload(step, in, temporary);
        if (stored) impl_->Rename(step, temporary, target);
    } catch (...) {
        impl_->Forget(temporary);
        throw;
    }
    if (!stored) impl_->Forget(temporary);
    return stored;
}

void Ftp::List(const std::string& dir, std::list<std::string>& out) {
    const std::string path = impl_->Absolute(dir), step = "list " + Shown(path);
    std::optional<Names> names = impl_->NamesIn(step, path);
    if (names) impl_->Settle(step, path, *names);
    for (const std::string& name : names ? *names : impl_->NamesLike(step, path)) {
        if (!IsTemporary(name)) out.push_back(name);
    }
}

void Ftp::Delete(const std::string& path) {
    const std::string target = impl_->BelowRoot(path);
    impl_->Remove("delete " + Shown(target), target, 0);
}

void Ftp::MkPath(const std::string& path) {
    const std::string folder = impl_->Absolute(path), step = "make the folder " + Shown(folder);
    const FtpReply reply = impl_->session.Command(step, {"MKD " + folder});
    if (!reply.ok && !impl_->session.Enter(step, folder).ok) impl_->Refuse(step, reply.text);
}

}  // namespace vel_rpc
