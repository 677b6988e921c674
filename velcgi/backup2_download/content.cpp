#include "velcgi/backup2_download/content.h"

#include <algorithm>
#include <optional>
#include <stdexcept>

#include "vel/str.h"
#include "vel/vel_file.h"
#include "vel/vel_hash.h"
#include "vel/vel_log.h"
#include "vel/vel_proc.h"

#include "backup_common/backup2_misc.h"

namespace backup2_download {
namespace {

const vel_log::Module logger("backup2_download");

constexpr int kTries = 3, kPauseMs = 1000;
const std::string kIndexExt = ".tgz", kInfoExt = ".info";

std::string Sum(vel_hash::Hash& hash) { return str::hex::Encode(hash.Str()); }

std::string TagOf(const Archive& archive) {
    vel_hash::Hash hash(vel_hash::HashType::Sha256);
    hash.Update(archive.name);
    for (const Slice& slice : archive.slices)
        hash.Update("\n" + str::Str(slice.size) + " " + slice.sha256);
    return "\"" + Sum(hash).substr(0, 32) + "\"";
}

// ---- One slice on its way -----------------------------------------------------------------------

/// Sees all plain bytes of a slice and lets those of the span pass; the last of them waits until
/// the whole slice was what it should be.
class Gate {
public:
    /// `span` counts from the slice's first byte; nothing of it lies behind its end.
    Gate(const Slice& slice, const Span& span, Answer& answer)
        : slice_(slice), span_(span), answer_(answer) {}

    bool Opened() const { return seen_ > 0; }

    void Take(const char* data, std::size_t size) {
        if (size == 0) return;
        if (size > slice_.size - seen_) throw std::runtime_error(slice_.path + ": is too long");
        answer_.Begin();
        hash_.Update(data, size);
        const uint64_t begin = std::max(seen_, span_.from);
        const uint64_t end = std::min(seen_ + size, span_.to - 1);
        if (begin < end) answer_.Write(data + (begin - seen_), end - begin);
        if (seen_ < span_.to && span_.to <= seen_ + size) last_ = data[span_.to - 1 - seen_];
        seen_ += size;
    }
    void Finish() {
        if (seen_ != slice_.size) throw std::runtime_error(slice_.path + ": is too short");
        if (Sum(hash_) != slice_.sha256)
            throw std::runtime_error(slice_.path + ": is not what was saved (sha256)");
        answer_.Write(&last_, 1);
    }

private:
    const Slice& slice_;
    const Span span_;
    Answer& answer_;
    uint64_t seen_ = 0;
    char last_ = 0;
    vel_hash::Hash hash_{vel_hash::HashType::Sha256};
};

// ---- Archives -----------------------------------------------------------------------------------

class ArchiveContent final : public Content {
public:
    ArchiveContent(const Archive& archive, const Stored& stored)
        : Content(archive.name, archive.Size(), TagOf(archive)),
          archive_(archive),
          stored_(stored) {}

    void Check() const override { stored_.Require(archive_); }

    void Send(const Span& span, Answer& answer) const override {
        uint64_t at = 0;
        for (const Slice& slice : archive_.slices) {
            const uint64_t from = std::max(span.from, at), to = std::min(span.to, at + slice.size);
            if (from < to) SendSlice(slice, {from - at, to - at, true}, answer);
            at += slice.size;
        }
    }

private:
    /// Until its first byte came, a storage is asked again.
    void SendSlice(const Slice& slice, const Span& span, Answer& answer) const {
        for (int tries = 1;; ++tries) {
            Gate gate(slice, span, answer);
            try {
                return Pass(slice, gate);
            } catch (const std::exception& e) {
                if (gate.Opened() || tries == kTries) throw;
                logger.Write(4, "%s: attempt %d failed: %s", slice.path, tries, e.what());
            }
            vel_proc::Sleep(kPauseMs << tries);
        }
    }
    void Pass(const Slice& slice, Gate& gate) const {
        const OnBytes plain = [&](const char* data, std::size_t size) { gate.Take(data, size); };
        if (archive_.encrypted) {
            stored_.ReadDecrypted(slice.path, plain);
        } else {
            stored_.Read(slice.path, plain);
        }
        gate.Finish();
    }

    const Archive& archive_;
    const Stored& stored_;
};

// ---- Listings -----------------------------------------------------------------------------------

/// A listing on this machine; one that was fetched goes with the object.
struct ListingFile {
    std::string path;
    std::optional<vel_file::TmpDir> fetched;
};

ListingFile FindListing(const Archive& archive, const Stored& stored) {
    ListingFile file;
    file.path = archive.info_path.substr(0, archive.info_path.size() - kInfoExt.size()) + kIndexExt;
    if (vel_file::Exists(file.path)) return file;
    const std::string path = backup2::GetPath(vel_file::Name(file.path));
    file.fetched.emplace(vel_file::TmpDir::Under("var/run/backup2_download"));
    file.path = vel_file::ConcatPath(file.fetched->Path(), "listing");
    vel_file::OutStream out(file.path);
    const OnBytes save = [&](const char* data, std::size_t size) {
        out.write(data, static_cast<std::streamsize>(size));
    };
    if (archive.encrypted) {
        stored.ReadDecrypted(path + ".aes", save);
    } else {
        stored.Read(path, save);
    }
    out.Close();
    return file;
}

void EachBlock(const std::string& path, const OnBytes& next) {
    vel_file::InStream in(path);
    Pump(in, next);
}

/// The sum is made of the file itself, when the object is.
class ListingContent final : public Content {
public:
    ListingContent(ListingFile file, Slice whole)
        : Content("listing-" + vel_file::Name(whole.path), whole.size,
                  "\"" + whole.sha256.substr(0, 32) + "\""),
          file_(std::move(file)),
          whole_(std::move(whole)) {}

    void Check() const override {}
    void Send(const Span& span, Answer& answer) const override {
        Gate gate(whole_, span, answer);
        EachBlock(file_.path, [&](const char* data, std::size_t size) { gate.Take(data, size); });
        gate.Finish();
    }

private:
    ListingFile file_;
    Slice whole_;
};

}  // namespace

std::unique_ptr<Content> MakeArchive(const Archive& archive, const Stored& stored) {
    return std::make_unique<ArchiveContent>(archive, stored);
}

std::unique_ptr<Content> MakeListing(const Archive& archive, const Stored& stored) {
    ListingFile file = FindListing(archive, stored);
    Slice whole;
    whole.path = vel_file::Name(archive.info_path);
    whole.path.replace(whole.path.size() - kInfoExt.size(), kInfoExt.size(), kIndexExt);
    vel_hash::Hash hash(vel_hash::HashType::Sha256);
    EachBlock(file.path, [&](const char* data, std::size_t size) {
        hash.Update(data, size);
        whole.size += size;
    });
    whole.sha256 = Sum(hash);
    return std::make_unique<ListingContent>(std::move(file), std::move(whole));
}

}  // namespace backup2_download
