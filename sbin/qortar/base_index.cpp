#include "sbin/qortar/base_index.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include <xxhash.h>

#include "vel/str.h"
#include "vel/vel_err.h"

namespace qortar {
namespace {

constexpr std::string_view kKeptFlags = "sx";  // of the stored entry itself
constexpr unsigned kSeen = 1U << 15;
constexpr unsigned kAlwaysStore = 1U << 14;

unsigned FlagBits(const Entry& entry) {
    unsigned bits = entry.Stored() && !entry.Has('c') ? 0 : kAlwaysStore;
    for (std::size_t i = 0; i < kKeptFlags.size(); ++i)
        bits |= entry.Has(kKeptFlags[i]) ? 1U << i : 0;
    return bits;
}

std::string FlagText(unsigned bits) {
    std::string text = "b";
    for (std::size_t i = 0; i < kKeptFlags.size(); ++i) {
        if ((bits & 1U << i) != 0) text += kKeptFlags[i];
    }
    return text;
}

uint64_t RandomNumber() {
    uint64_t number = 0;
    std::memcpy(&number, str::Random(sizeof number).data(), sizeof number);
    return number;
}

}  // namespace

BaseIndex::BaseIndex(const std::string& path) : path_(path), secret_(RandomNumber()) {
    ReadListing(path, [this](const Entry& entry) {
        if (entry.Has('b') || entry.Has('D')) throw vel_err::Error("listing", "incremental", path_);
        records_.push_back(
            {NameHash(entry.name), StateHash(entry), entry.member & ((1ULL << 48) - 1),
             static_cast<uint16_t>(FlagBits(entry)), entry.slice, entry.offset, records_.size()});
    });
    std::sort(records_.begin(), records_.end(),
              [](const Record& a, const Record& b) { return a.name < b.name; });
}

uint64_t BaseIndex::NameHash(const std::string& name) const {
    return XXH3_64bits_withSeed(name.data(), name.size(), secret_);
}

uint64_t BaseIndex::StateHash(const Entry& entry) const {
    const uint64_t state[] = {
        static_cast<uint64_t>(entry.type),
        entry.size,
        static_cast<uint64_t>(entry.mtime.tv_sec),
        static_cast<uint64_t>(entry.mtime.tv_nsec),
        static_cast<uint64_t>(entry.ctime.tv_sec),
        static_cast<uint64_t>(entry.ctime.tv_nsec),
        entry.inode,
        XXH3_64bits_withSeed(entry.target.data(), entry.target.size(), secret_)};
    return XXH3_64bits_withSeed(state, sizeof state, secret_);
}

const BaseIndex::Record* BaseIndex::Find(uint64_t name_hash) const {
    const auto found =
        std::lower_bound(records_.begin(), records_.end(), name_hash,
                         [](const Record& a, uint64_t hash) { return a.name < hash; });
    return found != records_.end() && found->name == name_hash ? &*found : nullptr;
}

bool BaseIndex::TakeUnchanged(Entry& entry) {
    auto* record = const_cast<Record*>(Find(NameHash(entry.name)));
    if (record == nullptr) return false;
    record->flags |= kSeen;
    if ((record->flags & kAlwaysStore) != 0 || record->state != StateHash(entry)) return false;
    entry.slice = record->slice;
    entry.member = record->member;
    entry.offset = record->offset;
    entry.flags = FlagText(record->flags);
    return true;
}

void BaseIndex::ForEachUnseen(const std::function<void(const Entry&)>& each) const {
    std::vector<bool> unseen(records_.size());
    for (const Record& record : records_) unseen[record.number] = (record.flags & kSeen) == 0;
    if (std::find(unseen.begin(), unseen.end(), true) == unseen.end()) return;
    ReadListing(
        path_, [&unseen](uint64_t number) { return number < unseen.size() && unseen[number]; },
        each);
}

}  // namespace qortar
