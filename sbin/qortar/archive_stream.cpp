#include "sbin/qortar/archive_stream.h"

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <exception>
#include <map>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "sbin/qortar/gzip_member.h"
#include "sbin/qortar/workers.h"

namespace qortar {
namespace {

constexpr std::size_t kBlockSize = 1 << 20;
// Bytes of listing entries that travel with one block; more of them go ahead with a short block.
constexpr std::size_t kListedBytes = 512 << 10;
constexpr std::size_t kEntryBytes = 256;  // of an entry without its names

enum class Origin { ThisBlock, EarlierBlock, Given };

struct Listed {
    Entry entry;
    Origin origin;
};

struct Block {
    Block() : plain(new char[kBlockSize]), member(new uint8_t[MemberBound(kBlockSize)]) {}

    std::string_view Plain() const { return {plain.get(), used}; }
    bool Empty() const { return used == 0 && listed.empty(); }
    void Clear() {
        used = member_size = listed_bytes = 0;
        listed.clear();
        begins_open_entry = false;
    }

    uint64_t number = 0;
    std::unique_ptr<char[]> plain;
    std::size_t used = 0;
    std::unique_ptr<uint8_t[]> member;
    std::size_t member_size = 0;
    std::vector<Listed> listed;
    std::size_t listed_bytes = 0;
    bool begins_open_entry = false;  // an entry begins here and ends in a later block
};

using BlockPtr = std::unique_ptr<Block>;

}  // namespace

struct ArchiveStream::Impl {
    Impl(SliceWriter& slice_writer, ListingWriter& listing_writer, unsigned jobs, int level)
        : slices(slice_writer),
          listing(listing_writer),
          own_compressor(level),
          most_waiting(jobs - 1),
          most_blocks(2 * jobs + 2),
          current(std::make_unique<Block>()) {
        threads = StartThreads(jobs - 1, [this, level] { Work(level); });
    }
    ~Impl() {
        {
            const std::lock_guard lock(mutex);
            stopping = true;
        }
        changed.notify_all();
        for (std::thread& thread : threads) thread.join();
    }

    // ---- The filling thread ----

    void HandOver() {
        current->number = handed_over++;
        current->begins_open_entry = in_entry && begin_block == current->number;
        std::unique_lock lock(mutex);
        waiting.push_back(std::move(current));
        changed.notify_all();
        while (waiting.size() > most_waiting) CompressOne(lock, own_compressor);
        current = FreeBlock(lock);
    }

    BlockPtr FreeBlock(std::unique_lock<std::mutex>& lock) {
        for (;;) {
            if (failure) std::rethrow_exception(failure);
            if (!free.empty()) {
                BlockPtr block = std::move(free.back());
                free.pop_back();
                return block;
            }
            if (++blocks <= most_blocks) return std::make_unique<Block>();
            --blocks;
            if (!CompressOne(lock, own_compressor)) changed.wait(lock);
        }
    }

    void List(Entry entry, Origin origin) {
        current->listed_bytes += kEntryBytes + entry.name.size() + entry.target.size();
        current->listed.push_back({std::move(entry), origin});
        if (current->listed_bytes > kListedBytes) HandOver();
    }

    void Drain() {
        if (!current->Empty()) HandOver();
        std::unique_lock lock(mutex);
        while (!failure && next_to_write < handed_over) {
            if (!CompressOne(lock, own_compressor)) changed.wait(lock);
        }
        if (failure) std::rethrow_exception(failure);
    }

    // ---- All threads ----

    void Work(int level) {
        MemberCompressor compressor(level);
        std::unique_lock lock(mutex);
        for (;;) {
            changed.wait(lock, [this] { return stopping || failure || !waiting.empty(); });
            if (stopping || failure) return;
            CompressOne(lock, compressor);
        }
    }

    // Returns false when nothing is waiting. The lock is held at call and return, not meanwhile.
    bool CompressOne(std::unique_lock<std::mutex>& lock, MemberCompressor& compressor) {
        if (waiting.empty()) return false;
        BlockPtr block = std::move(waiting.front());
        waiting.pop_front();
        lock.unlock();
        try {
            if (block->used > 0) {
                block->member_size = compressor.Compress(block->Plain(), block->member.get());
            }
            lock.lock();
            WriteInOrder(lock, std::move(block));
        } catch (...) {
            if (!lock.owns_lock()) lock.lock();
            if (!failure) failure = std::current_exception();
            changed.notify_all();
        }
        return true;
    }

    // Parks the block; whoever brings the next one in order writes all that can be written.
    void WriteInOrder(std::unique_lock<std::mutex>& lock, BlockPtr block) {
        const uint64_t number = block->number;
        finished.emplace(number, std::move(block));
        if (writing) return;
        writing = true;
        for (auto it = finished.find(next_to_write); it != finished.end() && !failure;
             it = finished.find(next_to_write)) {
            BlockPtr next = std::move(it->second);
            finished.erase(it);
            lock.unlock();
            Write(*next);
            next->Clear();
            lock.lock();
            free.push_back(std::move(next));
            ++next_to_write;
            changed.notify_all();
        }
        writing = false;
    }

    void Write(Block& block) {
        const SlicePlace place = slices.Next();
        if (block.used > 0) slices.Write(block.member.get(), block.member_size);
        for (Listed& listed : block.listed) {
            if (listed.origin != Origin::Given) {
                const SlicePlace& at = listed.origin == Origin::ThisBlock ? place : open_entry;
                listed.entry.slice = at.slice;
                listed.entry.member = at.offset;
            }
            listing.Add(listed.entry);
        }
        if (block.begins_open_entry) open_entry = place;
    }

    SliceWriter& slices;
    ListingWriter& listing;

    // Of the filling thread.
    MemberCompressor own_compressor;
    const std::size_t most_waiting, most_blocks;
    BlockPtr current;
    std::size_t blocks = 1;
    uint64_t handed_over = 0;
    bool in_entry = false;
    uint64_t begin_block = 0;
    std::size_t begin_offset = 0;

    // Of the thread that writes.
    SlicePlace open_entry;  // of the last entry that began in a block before

    std::mutex mutex;  // guards what follows
    std::condition_variable changed;
    std::deque<BlockPtr> waiting;
    std::map<uint64_t, BlockPtr> finished;
    std::vector<BlockPtr> free;
    uint64_t next_to_write = 0;
    bool writing = false, stopping = false;
    std::exception_ptr failure;

    std::vector<std::thread> threads;
};

ArchiveStream::ArchiveStream(SliceWriter& slices, ListingWriter& listing, unsigned jobs, int level)
    : impl_(std::make_unique<Impl>(slices, listing, jobs, level)) {}

ArchiveStream::~ArchiveStream() = default;

std::span<char> ArchiveStream::Room() {
    if (impl_->current->used == kBlockSize) impl_->HandOver();
    Block& block = *impl_->current;
    return {block.plain.get() + block.used, kBlockSize - block.used};
}

void ArchiveStream::Advance(std::size_t size) { impl_->current->used += size; }

void ArchiveStream::Append(std::string_view bytes) {
    while (!bytes.empty()) {
        const std::span<char> room = Room();
        const std::size_t size = std::min(room.size(), bytes.size());
        std::memcpy(room.data(), bytes.data(), size);
        Advance(size);
        bytes.remove_prefix(size);
    }
}

void ArchiveStream::AppendZeros(uint64_t count) {
    while (count > 0) {
        const std::span<char> room = Room();
        const auto size = static_cast<std::size_t>(std::min<uint64_t>(room.size(), count));
        std::memset(room.data(), 0, size);
        Advance(size);
        count -= size;
    }
}

void ArchiveStream::BeginEntry() {
    Room();  // an entry never begins at the very end of a block
    impl_->in_entry = true;
    impl_->begin_block = impl_->handed_over;
    impl_->begin_offset = impl_->current->used;
}

bool ArchiveStream::Rewind() {
    if (!impl_->in_entry || impl_->begin_block != impl_->handed_over) return false;
    impl_->current->used = impl_->begin_offset;
    impl_->in_entry = false;
    return true;
}

void ArchiveStream::EndEntry(Entry entry) {
    const bool here = impl_->begin_block == impl_->handed_over;
    entry.offset = static_cast<uint32_t>(impl_->begin_offset);
    impl_->in_entry = false;
    impl_->List(std::move(entry), here ? Origin::ThisBlock : Origin::EarlierBlock);
}

void ArchiveStream::ListEntry(Entry entry) { impl_->List(std::move(entry), Origin::Given); }

void ArchiveStream::Finish() { impl_->Drain(); }

}  // namespace qortar
