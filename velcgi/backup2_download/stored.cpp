#include "velcgi/backup2_download/stored.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <list>
#include <stdexcept>
#include <utility>
#include <vector>

#include "vel/res_handle.h"
#include "vel/str.h"
#include "vel/stream.h"
#include "vel/vel_err.h"
#include "vel/vel_file.h"
#include "vel/vel_proc.h"
#include "vel/vel_ssh.h"

#include "backup_common/backup2_misc.h"

namespace backup2_download {
namespace {

constexpr int kSilentSeconds = 300;  // then a server behind ssh is given up

/// A private key for ssh that never lies on a disk: a file in memory, which ssh finds by the number
/// it has in this process. Whoever ends this process leaves no key behind.
class KeyInMemory {
public:
    explicit KeyInMemory(const std::string& key) : fd_(::memfd_create("key", MFD_CLOEXEC)) {
        if (!fd_ || ::fchmod(fd_, 0400) != 0) vel_err::RaiseErrno("memfd", "key", errno);
        vel_file::WriteAll(fd_, key, "key");
    }
    std::string Path() const {
        return "/proc/" + std::to_string(::getpid()) + "/fd/" + std::to_string(fd_);
    }

private:
    vel_file::ResHandle fd_;
};

/// ssh refuses a key of its own format without the last line end, or with CR LF.
std::string AsKeyFile(std::string key) {
    str::inpl::Replace(key, "\r\n", "\n");
    if (!str::EndsWith(key, "\n")) key += '\n';
    return key;
}

}  // namespace

void Pump(std::istream& in, const OnBytes& next) {
    constexpr std::size_t kBlock = 256 * 1024;
    std::vector<char> block(kBlock);
    while (in) {
        in.read(block.data(), static_cast<std::streamsize>(block.size()));
        if (in.gcount() > 0) next(block.data(), static_cast<std::size_t>(in.gcount()));
    }
}

// ---- CallStream ---------------------------------------------------------------------------------

CallStream::CallStream(OnBytes next) : std::ostream(nullptr), buffer_(std::move(next)) {
    rdbuf(&buffer_);
    exceptions(std::ios::badbit | std::ios::failbit);
}

std::streamsize CallStream::Buffer::xsputn(const char* data, std::streamsize size) {
    next_(data, static_cast<std::size_t>(size));
    return size;
}

CallStream::Buffer::int_type CallStream::Buffer::overflow(int_type c) {
    const char byte = traits_type::to_char_type(c);
    next_(&byte, 1);
    return c;
}

// ---- Stored -------------------------------------------------------------------------------------

Stored::Stored(const backup2::BackupToken& token) : token_(token) {
    if (!token_) throw std::runtime_error("no storage is set up in the panel");
    if (ByShell()) vel_ssh::PinHostKeys();
}

void Stored::Require(const Archive& archive) const {
    const auto there = Names(vel_file::SplitPath(archive.slices.front().path).dir);
    for (const Slice& slice : archive.slices) {
        if (there.count(vel_file::Name(slice.path)) == 0)
            throw std::runtime_error(slice.path + " is missing on the storage");
    }
}

std::set<std::string> Stored::Names(const std::string& dir) const {
    if (!ByShell()) {
        std::list<std::string> names;
        backup2::GetStorage(token_)->List(names, dir);
        return {names.begin(), names.end()};
    }
    std::string listing;
    RunThere("ls", dir, [&](const char* data, std::size_t size) { listing.append(data, size); });
    std::vector<std::string> names;
    str::Split(listing, "\n", names);
    return {names.begin(), names.end()};
}

void Stored::Read(const std::string& path, const OnBytes& next) const {
    if (ByShell()) return RunThere("cat", path, next);
    if (token_.IsLocal()) {
        vel_file::InStream in(vel_file::ConcatPath(token_.GetParam("path"), path));
        return Pump(in, next);
    }
    CallStream out(next);
    backup2::GetStorage(token_)->GetArch(path, out);
}

void Stored::ReadDecrypted(const std::string& path, const OnBytes& next) const {
    Decoder decoder(str::base64::Decode(token_.GetParam("arch_password")), next);
    Read(path, [&](const char* data, std::size_t size) { decoder.Take(data, size); });
    decoder.Finish();
}

void Stored::RunThere(const std::string& program, const std::string& path,
                      const OnBytes& next) const {
    const bool node = token_.Type() == "node";
    std::string host = token_.GetParam(node ? "ip" : "url");
    str::inpl::Replace(host, "[", "");
    str::inpl::Replace(host, "]", "");
    if (host.empty() || host[0] == '-') throw vel_err::Error("ssh", "bad_host", host);
    const std::string port = token_.GetParam("port");
    const KeyInMemory key(node ? vel_file::ReadE(token_.GetParam("key_path"))
                               : AsKeyFile(backup2::UnescapeKey(token_.GetParam("key"))));
    const std::string full = vel_file::ConcatPath(token_.GetParam("path"), path);
    vel_proc::Execute ssh(
        {"ssh", "-q", "-o", "StrictHostKeyChecking=no", "-i", key.Path(), "-p",
         port.empty() ? "22" : port, host, program + " " + vel_proc::Escape(full)},
        vel_proc::kStream);
    ssh.EndWhenStalled(kSilentSeconds);  // the time that the reader takes does not count
    Pump(ssh.Out(), next);
    if (const int status = ssh.Result(); status != 0)
        throw std::runtime_error(path + ": ssh ended with status " + std::to_string(status));
}

}  // namespace backup2_download
