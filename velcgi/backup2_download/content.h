/// What can be downloaded: an archive, or a listing.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "velcgi/backup2_download/answer.h"
#include "velcgi/backup2_download/backups.h"
#include "velcgi/backup2_download/range.h"
#include "velcgi/backup2_download/stored.h"

namespace backup2_download {

class Content {
public:
    virtual ~Content() = default;

    const std::string& Name() const { return name_; }
    uint64_t Size() const { return size_; }
    /// A strong entity tag: equal for equal bytes only.
    const std::string& Tag() const { return tag_; }
    /// Throws when it is already clear that it could not be sent.
    virtual void Check() const = 0;
    /// Writes these bytes of it. The last of them leaves only when all that they are part of was
    /// compared with its sum. Throws when it does not agree: what was written is less than
    /// promised.
    virtual void Send(const Span& span, Answer& answer) const = 0;

protected:
    Content(std::string name, uint64_t size, std::string tag)
        : name_(std::move(name)), size_(size), tag_(std::move(tag)) {}

private:
    std::string name_;
    uint64_t size_;
    std::string tag_;
};

/// The slices of an archive, joined and decrypted.
std::unique_ptr<Content> MakeArchive(const Archive& archive, const Stored& stored);
/// The backup's listing, from this machine or, when it has lost it, from the storage.
std::unique_ptr<Content> MakeListing(const Archive& archive, const Stored& stored);

}  // namespace backup2_download
