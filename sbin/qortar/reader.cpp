#include "sbin/qortar/reader.h"

#include "vel/vel_err.h"

namespace qortar {

EntryReader::EntryReader(BlockSource source, uint32_t offset)
    : source_(std::move(source)), skip_(offset), tar_([this] { return Feed(); }) {}

std::string_view EntryReader::Feed() {
    if (ran_dry_ || !source_(block_)) {
        ran_dry_ = true;
        return {};
    }
    std::string_view bytes(reinterpret_cast<const char*>(block_.bytes.get()), block_.size);
    if (skip_ >= bytes.size())
        throw vel_err::Error("archive", "mismatch", "the listing points behind its gzip member");
    bytes.remove_prefix(skip_);
    begins_.push_back({position_, block_.place, block_.in_member + skip_});
    position_ += bytes.size();
    skip_ = 0;
    return bytes;
}

Place EntryReader::HeaderPlace(uint32_t& offset) const {
    const uint64_t position = tar_.HeaderPosition();
    while (begins_.size() > 1 && begins_[1].position <= position) begins_.pop_front();
    const Begin& begin = begins_.front();
    offset = static_cast<uint32_t>(begin.in_member + (position - begin.position));
    return begin.place;
}

}  // namespace qortar
