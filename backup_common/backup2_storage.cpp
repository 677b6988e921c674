#include "backup_common/backup2_storage.h"

#include <sys/vfs.h>

#include <stdexcept>

#include "vel/str.h"
#include "vel/stream.h"
#include "vel/vel_err.h"
#include "vel/vel_file.h"
#include "vel/vel_hash.h"
#include "vel/vel_log.h"
#include "vel/vel_proc.h"
#include "vel/vel_user.h"

#include "backup_common/backup2_misc.h"

namespace backup2 {
namespace {

const vel_log::Module logger("backup");

constexpr char kPassword[] = "arch_password";

// Part of the trace lines' format, so that they stay what log readers look for.
constexpr char kTraceFile[] = "backup2_storage.cpp";
constexpr int kTraceLimitLine = 260;
constexpr int kTraceSizeLine = 261;

// The password of an encoder comes on its standard input, that of a decoder in its environment,
// because there the ciphertext may come on standard input.
const std::string kEncoder = "openssl enc -e -pass stdin -aes-256-cbc";
const std::string kDecoder = "openssl enc -d -pass env:PASSWORD -aes-256-cbc";
constexpr char kDecoderVariable[] = "PASSWORD";
constexpr int kCapture = 0;  // what openssl prints belongs neither to the data nor to our output

[[noreturn]] void FailToEncode() { throw std::runtime_error("Fail to encode"); }
[[noreturn]] void FailToDecode() { throw std::runtime_error("Fail to decode"); }

}  // namespace

// ---- Token --------------------------------------------------------------------------------------

BackupToken::BackupToken(const std::string& token) : token_(token) { Init(); }

void BackupToken::Init() {
    params_.clear();
    str::Split(token_, ";", params_);
}

void BackupToken::Reset(const std::string& token) {
    token_ = token;
    Init();
}

void BackupToken::Erase() {
    token_.clear();
    params_.clear();
}

std::string BackupToken::Str() const { return str::Join(params_, ";"); }

std::string BackupToken::GetParam(const std::string& name) const {
    const auto found = params_.find(name);
    return found == params_.end() ? std::string() : found->second;
}

BackupToken& BackupToken::SetParam(const std::string& name, const std::string& value) {
    if (!value.empty()) params_[name] = value;
    return *this;
}

void BackupToken::DropParam(const std::string& name) {
    if (!name.empty()) params_.erase(name);
}

std::string BackupToken::Type() const { return GetParam("type"); }

bool BackupToken::IsLocal() const { return Type() == "local"; }

BackupToken::operator bool() const { return !Type().empty(); }

bool BackupToken::IsEncrypted() const { return !GetParam(kPassword).empty(); }

std::string BackupToken::Hash() const {
    const std::string encoded = GetParam(kPassword);
    if (encoded.empty()) return {};
    vel_hash::Hash hash(vel_hash::HashType::Sha256);
    hash.Update(str::base64::Decode(encoded));
    return str::hex::Encode(hash.Str());
}

bool BackupToken::operator==(const BackupToken& other) const {
    for (const auto& [name, value] : params_) {
        if (name != kPassword && value != other.GetParam(name)) return false;
    }
    return true;
}

// ---- Storage: what all kinds share --------------------------------------------------------------

Storage::Storage(const BackupToken& token)
    : token_(token), password_(str::base64::Decode(token.GetParam(kPassword))) {}

void Storage::Get(const std::string& name, const std::string& local) {
    const vel_file::Tmp tmp(local);
    if (SkipEncrypt(name)) {
        vel_file::OutStream out(tmp.Path());
        GetArch(name, out);
        out.Close();
    } else {
        GetDecoded(name, tmp.Path());
    }
    vel_file::Move(tmp.Path(), local);
}

void Storage::GetDecoded(const std::string& name, const std::string& plain) {
    const vel_proc::Pipe pipe;
    vel_proc::Execute decoder(kDecoder + " -out " + vel_proc::Escape(plain), vel_proc::kStream);
    decoder.SetEnv(kDecoderVariable, password_).RedirectInTo(pipe.In());
    vel_file::OutStream cipher(pipe.Out());
    decoder.Run();
    pipe.In().Close();  // with the only reader gone a dead decoder is noticed
    bool fetched = false;
    try {
        GetArch(name, cipher);
        fetched = true;
        cipher.Close();
    } catch (const std::exception&) {
        // A back-end reports the broken sink in its own words; the cause is the decoder.
        if (fetched || cipher.fail()) FailToDecode();
        throw;
    }
    if (decoder.Result() != 0) FailToDecode();
}

bool Storage::Put(const std::string& name, const std::string& local) {
    vel_file::InStream plain(local);  // also keeps a missing file from becoming an empty archive
    if (SkipEncrypt(name)) return PutArch(name, plain);
    vel_proc::Execute encoder(kEncoder + " -in " + vel_proc::Escape(local), vel_proc::kStream);
    encoder.In(password_).CloseIn().Run();
    const bool stored = PutArch(name, encoder.Out());
    // Result also drains what a back-end without room left unread: an encoder that meets a closed
    // pipe fails, and that would hide the answer.
    if (encoder.Result() != 0) FailToEncode();
    return stored;
}

void Storage::Clear() { logger.Write(4, "Clear is not implemented for this storage"); }

void Storage::DropToken() {}

void Storage::MkDir(const std::string& dir) {
    const std::string full_path = vel_file::ConcatPath(token_.GetParam("path"), dir);
    if (made_dirs_.insert(full_path).second) RealMkDir(full_path);
}

bool Storage::SkipEncrypt(const std::string& name) const {
    return password_.empty() || !IsEncrypted(name);
}

uint64_t Storage::Size(const std::string& local) const {
    const uint64_t size = vel_file::Info(local).Size();
    if (size == 0 || SkipEncrypt(local)) return size;
    return size - (size + 31) % 32;
}

std::string Storage::GetFileInfo(const std::string& local) const {
    const std::string path = GetPath(GetName(token_, vel_file::Name(local)));
    return str::Trim(path + " " + str::Str(Size(local)) + " " + token_.Hash());
}

std::string Storage::GetValidPath(const std::string& path) const {
    const std::string good = vel_file::GoodPath(path);
    if (!good.empty() && good != "/") return good;
    logger.Write(4, "Invalid path '%s'", path);
    return {};
}

// ---- Local storage ------------------------------------------------------------------------------

namespace {

/// A directory of this machine.
class LocalStorage final : public Storage {
public:
    explicit LocalStorage(const BackupToken& token)
        : Storage(token), base_(token.GetParam("path")) {}

    void Get(const std::string& name, const std::string& local) override;
    bool Put(const std::string& name, const std::string& local) override;
    void Clear() override;
    void GetArch(const std::string&, std::ostream&) override {}  // Get works on files
    bool PutArch(const std::string&, std::istream&) override { return false; }  // so does Put
    void Delete(const std::string& name) override;
    void List(std::list<std::string>& out, const std::string& dir) override;
    void RealMkDir(const std::string& full_path) override;
    void RmDir(const std::string& dir) override;

private:
    std::string Full(const std::string& name) const { return vel_file::ConcatPath(base_, name); }
    void Encode(const std::string& local, const std::string& archive) const;
    void EncodeInto(const std::string& local, const std::string& archive) const;

    std::string base_;
};

/// False when the file would fill the file system *it lies on* beyond 95 percent.
bool FitsIntoLimit(const std::string& local) {
    struct statfs fs {};
    if (::statfs(local.c_str(), &fs) != 0) {
        logger.Write(4, "Cant apply limit 95 pct");
        return true;
    }
    const uint64_t block = static_cast<uint64_t>(fs.f_frsize > 0 ? fs.f_frsize : fs.f_bsize);
    const uint64_t free_mib = (block * static_cast<uint64_t>(fs.f_bavail)) >> 20;
    const auto limit_mib = static_cast<uint64_t>(static_cast<double>(free_mib) * 0.95);
    const uint64_t size_mib = vel_file::Info(local).Size() >> 20;
    logger.Write(9, "%s:%d Available limit with restriction 95 pct '%d' mib", kTraceFile,
                 kTraceLimitLine, limit_mib);
    logger.Write(9, "%s:%d File size '%d' mib", kTraceFile, kTraceSizeLine, size_mib);
    return limit_mib >= size_mib;
}

/// True when writing into `archive` would change something else: the source, another name of the
/// same file, or the file that a link points to.
bool IsShared(const std::string& archive, const std::string& local) {
    const vel_file::Info there(archive, false), source(local);
    if (!there.Exists()) return false;
    const struct stat &to = there.Stat(), &from = source.Stat();
    const bool same = to.st_dev == from.st_dev && to.st_ino == from.st_ino;
    return same || there.IsLink() || to.st_nlink > 1;
}

bool LocalStorage::Put(const std::string& name, const std::string& local) {
    if (!FitsIntoLimit(local)) return false;
    const std::string archive = Full(name);
    logger.Write(5, "File DST - %s", archive);
    if (!SkipEncrypt(name)) {
        Encode(local, archive);
    } else if (local != archive) {
        Link(local, archive);
    }
    const std::string user = GetUserName(vel_file::Name(name));  // directories may hold dots
    vel_file::Attrs(0440, vel_user::Exists(user) ? vel_user::Uid(user) : 0, 0).Set(archive);
    return true;
}

void LocalStorage::Encode(const std::string& local, const std::string& archive) const {
    if (!IsShared(archive, local)) return EncodeInto(local, archive);
    const vel_file::Tmp tmp(archive);
    EncodeInto(local, tmp.Path());
    vel_file::Move(tmp.Path(), archive);
}

void LocalStorage::EncodeInto(const std::string& local, const std::string& archive) const {
    vel_proc::Execute encoder(
        kEncoder + " -in " + vel_proc::Escape(local) + " -out " + vel_proc::Escape(archive),
        kCapture);
    encoder.In(password_).CloseIn();
    if (encoder.Result() != 0) FailToEncode();
}

void LocalStorage::Get(const std::string& name, const std::string& local) {
    const std::string archive = Full(name);
    logger.Write(5, "File SRC - %s", archive);
    if (SkipEncrypt(name)) return Link(archive, local);
    const vel_file::Tmp tmp(local);
    vel_proc::Execute decoder(
        kDecoder + " -in " + vel_proc::Escape(archive) + " -out " + vel_proc::Escape(tmp.Path()),
        kCapture);
    decoder.SetEnv(kDecoderVariable, password_);
    if (decoder.Result() != 0) FailToDecode();
    vel_file::Move(tmp.Path(), local);
}

void LocalStorage::Delete(const std::string& name) {
    logger.Write(8, "%s filename '%s'", "Delete", name);
    vel_file::RemoveFile(Full(name));
}

void LocalStorage::List(std::list<std::string>& out, const std::string& dir) {
    const std::string path = Full(dir);
    const vel_file::Info info(path);
    if (info.IsFile()) out.push_back(vel_file::Name(dir));
    if (!info.IsDir()) return;
    for (vel_file::Dir entries(path); entries.Next();) out.push_back(entries.Name());
}

void LocalStorage::RealMkDir(const std::string& full_path) {
    vel_file::MkDir(full_path, vel_file::Attrs(0751));
}

void LocalStorage::RmDir(const std::string& dir) {
    const std::string parent = vel_file::SplitPath(dir).dir;
    vel_file::Remove(Full(dir));
    std::list<std::string> left;
    List(left, parent);
    if (left.empty()) vel_file::Remove(Full(parent));
}

void LocalStorage::Clear() {
    const std::string base = GetValidPath(base_);
    if (base.empty()) return;
    made_dirs_.clear();
    vel_file::Remove(base);
}

}  // namespace

// ---- Factory ------------------------------------------------------------------------------------

bool IsS3Type(const std::string& type) { return type == "s3" || type == "amazon"; }

std::shared_ptr<Storage> GetStorage(const BackupToken& token) {
    const std::string type = token.Type();
    if (type == "local") return std::make_shared<LocalStorage>(token);
    throw std::runtime_error("Unknown storage type '" + type + "'");
}

}  // namespace backup2
