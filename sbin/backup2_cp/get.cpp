#include <unistd.h>

#include <atomic>
#include <exception>
#include <functional>
#include <future>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>

#include "vel/str.h"
#include "vel/vel_file.h"
#include "vel/vel_log.h"
#include "vel/vel_proc.h"
#include "vel/vel_tool.h"

#include "backup_common/backup2_misc.h"

#include "sbin/backup2_cp/actions.h"
#include "sbin/backup2_cp/errors.h"
#include "sbin/backup2_cp/info_record.h"
#include "sbin/backup2_cp/names.h"

namespace backup2_cp {

namespace {

const vel_log::Module logger("backup2_cp");

// ---- Checks before anything is fetched ----------------------------------------------------------

/// The storage's own password decides what is decrypted; the info file only tells whether it is the
/// one that the backup was made with.
void CheckPasswordOf(const InfoMap& keys, const Target& target, const std::string& slice) {
    const std::string hash = Value(keys, "key_hash"), own = target.Token().Hash();
    const bool encrypted = !hash.empty() || backup2::IsEncrypted(Value(keys, "last-slice"));
    if (encrypted && own.empty()) {
        throw std::runtime_error(slice + ": the backup is encrypted, the storage has no password");
    }
    if (!encrypted && !own.empty()) {
        throw std::runtime_error(
            slice +
            ": the backup is not encrypted, the storage has a password; read it through a "
            "token without one");
    }
    if (!hash.empty() && hash != own) {
        throw std::runtime_error(slice + ": wrong password: the backup was made with another one");
    }
}

/// Nothing for a backup of old, which holds no sums at all.
std::optional<SliceSums> SumsOf(const InfoMap& keys, const BackupName& slice,
                                const std::string& info) {
    const std::string key = "slice." + str::Str(uint64_t{slice.Slice()});
    const auto first = keys.lower_bound("slice.");
    if (first == keys.end() || !str::StartsWith(first->first, "slice.")) return std::nullopt;
    try {
        return SliceSums::Parse(Value(keys, key));
    } catch (const std::exception& e) {
        throw std::runtime_error(info + ": " + key + ": " + e.what());
    }
}

void RequireStored(const Target& target, const std::string& name) {
    bool found = false;
    target.Retry(target.Describe() + ", " + name, [&] { found = target.Holds(name); });
    if (!found) throw std::runtime_error(target.Describe() + ": " + name + " is missing");
}

// ---- Fetching -----------------------------------------------------------------------------------

/// `openssl` between what is stored and a local file. A second thread takes the plain bytes, hashes
/// and writes them, while this one downloads and hashes the stored ones.
class Decoder {
public:
    Decoder(const std::string& password, const std::string& to)
        : child_({"openssl", "enc", "-d", "-pass", "env:PASSWORD", "-aes-256-cbc"},
                 vel_proc::kStream) {
        child_.SetEnv("PASSWORD", password);
        child_.RedirectInTo(pipe_.In());
        child_.Run();
        pipe_.In().Close();  // or a dead child would never be noticed
        in_ = std::make_unique<vel_file::OutStream>(pipe_.Out());
        plain_ = std::async(std::launch::async, [this, to] { return Drain(to); });
    }
    ~Decoder() { CloseInput(); }

    /// A child that died takes no more; what is wrong shows in the sums and the status. Throws what
    /// kept the plain bytes from being written.
    void Feed(const char* data, std::size_t size) {
        if (failed_) Finish();
        try {
            if (in_) in_->write(data, static_cast<std::streamsize>(size));
        } catch (const std::exception& e) {
            logger.Write(6, "openssl takes no more: %s", e.what());
            pipe_.Out().Close();
            in_.reset();
        }
    }
    /// Ends the input; the sums of the plain bytes, nothing when openssl failed.
    std::optional<Sums> Finish() {
        CloseInput();
        const Sums sums = plain_.get();
        if (child_.Result() != 0) return std::nullopt;
        return sums;
    }

private:
    Sums Drain(const std::string& to) {
        try {
            return Save(to);
        } catch (...) {
            failed_ = true;
            SumStream nowhere;  // a child that nobody reads stops taking what it is fed
            Pump(child_.Out(), nowhere);
            throw;
        }
    }
    Sums Save(const std::string& to) {
        vel_file::OutStream file(to);
        SumStream sums(UINT64_MAX, [&](const char* data, std::size_t size) {
            file.write(data, static_cast<std::streamsize>(size));
        });
        Pump(child_.Out(), sums);
        file.Close();
        return sums.Result();
    }
    void CloseInput() noexcept {
        try {
            if (in_) in_->Close();
        } catch (const std::exception& e) {
            logger.Write(6, "openssl takes no more: %s", e.what());
        }
        in_.reset();
        pipe_.Out().Close();
    }

    vel_proc::Pipe pipe_;
    vel_proc::Execute child_;
    std::unique_ptr<vel_file::OutStream> in_;
    std::atomic<bool> failed_{false};
    std::future<Sums> plain_;  // last: ends before what it uses
};

using OnBytes = std::function<void(const char*, std::size_t)>;

/// What came, told from what was wanted; checked in the order in which a cause shows first.
struct Fetched {
    Sums stored;
    std::optional<Sums> plain;
};

Fetched Fetch(const Target& target, const std::string& stored, const std::string& to,
              uint64_t limit, vel_tool::Progress& progress) {
    Fetched out;
    const auto read = [&](const OnBytes& next) {
        SumStream sums(limit, [&](const char* data, std::size_t size) {
            next(data, size);
            progress.Add(size, 0);
        });
        try {
            target.ReadStored(stored, sums);
        } catch (const Permanent& e) {
            throw Permanent(stored + ": stored are " + e.what());
        }
        out.stored = sums.Result();
    };
    if (!target.Encrypts(stored)) {
        vel_file::OutStream file(to);
        read([&](const char* data, std::size_t size) {
            file.write(data, static_cast<std::streamsize>(size));
        });
        file.Close();
        out.plain = out.stored;
        return out;
    }
    Decoder decoder(str::base64::Decode(target.Token().GetParam("arch_password")), to);
    read([&](const char* data, std::size_t size) { decoder.Feed(data, size); });
    out.plain = decoder.Finish();
    return out;
}

void CopyBytes(const std::string& from, const std::string& to) {
    vel_file::InStream in(from);
    vel_file::OutStream out(to);
    Pump(in, out);
    out.Close();
}

void CheckFetched(const Fetched& came, const SliceSums& wanted, const std::string& stored) {
    const auto refuse = [&](const std::string& why) {
        throw std::runtime_error(stored + ": " + why);
    };
    if (came.stored.size != wanted.stored.size) {
        refuse("stored size is " + str::Str(came.stored.size) + ", not " +
               str::Str(wanted.stored.size));
    }
    if (came.stored.sha256 != wanted.stored.sha256) refuse("the stored bytes are damaged (sha256)");
    if (!came.plain) refuse("openssl cannot decrypt it: wrong password");
    if (*came.plain != wanted.plain) refuse("what it decrypts to is not what was saved (sha256)");
}

}  // namespace

void GetFile(const Target& target, const Options& options) {
    CheckStorageName(options.name);
    RequireStored(target, options.name);
    const vel_file::Tmp fetched(options.file);
    target.Retry(target.Describe() + ", " + options.name + " -> " + options.file,
                 [&] { target.Open()->Get(options.name, fetched); });
    // A local storage may hand out another name of its own file, with the user's rights on it: what
    // the caller gets is a file of his own.
    const vel_file::Tmp own(options.file);
    if (vel_file::Info(fetched).Stat().st_nlink > 1) {
        CopyBytes(fetched, own);
    } else {
        vel_file::Move(fetched, own);
        vel_file::Attrs(0600, ::geteuid(), ::getegid()).Set(own);
    }
    vel_file::Move(own, options.file);
}

void GetSlice(const Target& target, const Options& options) {
    const BackupName slice = NameOf(options.file);
    const std::string& info = options.info_file;
    const BackupName owner = InfoNameOf(info);
    if (!slice.SameBackup(owner) || slice.kind != BackupName::Kind::kArchive) {
        throw std::runtime_error(options.file + " is no slice of the backup of " + info);
    }
    const InfoMap keys = backup2::GetInfo(info);
    CheckInfo(keys, owner);
    const std::string stored = backup2::GetPath(backup2::GetName(target.Token(), options.file));
    CheckPasswordOf(keys, target, stored);
    const auto sums = SumsOf(keys, slice, info);
    if (!sums) {
        std::cerr << info << ": holds no sums of slices, " << stored << " is not checked\n";
        Options plain = options;
        plain.name = stored;
        return GetFile(target, plain);
    }
    const vel_file::Tmp fetched(options.file);
    vel_tool::Progress progress("download");
    progress.Total(sums->stored.size, 1);
    RequireStored(target, stored);
    Fetched came;
    target.Retry(target.Describe() + ", " + stored,
                 [&] { came = Fetch(target, stored, fetched, sums->stored.size, progress); });
    CheckFetched(came, *sums, stored);
    vel_file::Move(fetched, options.file);
    progress.Add(0, 1);
}

}  // namespace backup2_cp
