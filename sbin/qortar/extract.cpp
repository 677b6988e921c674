#include "sbin/qortar/extract.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <thread>

#include "vel/vel_err.h"
#include "vel/vel_tool.h"

#include "sbin/qortar/plan.h"
#include "sbin/qortar/reader.h"
#include "sbin/qortar/report.h"
#include "sbin/qortar/target.h"
#include "sbin/qortar/workers.h"

namespace qortar {
namespace {

constexpr uint64_t kLargestUnit = 32 << 20, kSmallestUnit = 1 << 20;

bool EndsTheRun(const std::exception& error) {
    const auto* known = dynamic_cast<const vel_err::Error*>(&error);
    return known && known->object() == "disk_full";
}

/// Runs `work` for one name: a failure is reported, but for one that ends the run.
template <class Work>
void Attempt(Report& report, std::string_view name, const Work& work) {
    try {
        work();
    } catch (const std::exception& error) {
        if (EndsTheRun(error)) throw;
        report.Fail(std::string(name), Reason(error));
    }
}

// ---- With a listing -----------------------------------------------------------------------------

class PlannedRestore {
public:
    PlannedRestore(const Options& options, Selection& selection)
        : options_(options),
          plan_(options.listing, selection, !options.base_archive.empty() || options.dry_run),
          target_(options),
          report_(options.json),
          slices_(options.archive, options.fetch),
          base_slices_(options.base_archive, options.fetch) {}

    int Run(const Selection& selection);

private:
    void Preview();
    void DropWhatStays();
    void MakeFolders(Writer& writer);
    void RestoreStored();
    void RestoreUnit(const Unit& unit, Writer& writer);
    void RestoreFrom(const std::deque<Record>& records, std::size_t& next, std::size_t end,
                     Writer& writer);
    void RestoreEntry(EntryReader& reader, const Record& record, Item& item, Writer& writer);
    Item WholeItem(const Record& record);
    void MakeLinks(Writer& writer);
    void FinishFolders(Writer& writer);

    const Options& options_;
    Plan plan_;
    Target target_;
    Report report_;
    Slices slices_, base_slices_;
    vel_tool::Progress progress_{"restore"};
    std::deque<std::optional<FolderState>> folder_states_;  // as plan_.folders
    std::mutex mutex_;
    std::map<std::string, Item> headers_;  // of what has attributes and is no file
    std::atomic<bool> stop_{false};
};

/// Reads on until the record's header comes.
void Find(EntryReader& reader, const Record& record, Item& item) {
    while (reader.Tar().Next(item)) {
        uint32_t offset = 0;
        const Place place = reader.HeaderPlace(offset);
        const bool there = place == record.Where() && offset == record.offset;
        if (there && item.name == record.name && item.type == record.type &&
            item.size == record.size)
            return;
        if (there || std::pair(place, offset) > std::pair(record.Where(), record.offset)) break;
    }
    throw vel_err::Error("archive", "mismatch",
                         "the archive holds something else where the listing says it is");
}

void PlannedRestore::RestoreEntry(EntryReader& reader, const Record& record, Item& item,
                                  Writer& writer) {
    item.name = plan_.NameFor(record);
    item.mtime = record.mtime;
    target_.Adopt(item);
    if (item.type != 'f') {
        const std::lock_guard lock(mutex_);
        headers_[item.name] = item;
    } else {
        writer.WriteFile(item, [&](std::string_view& bytes, uint64_t& offset) {
            if (!reader.Tar().Data(bytes, offset)) return false;
            progress_.Add(bytes.size(), 0);
            return true;
        });
    }
    progress_.Add(0, 1);
}

/// Restores records[next...) from one stream; `next` is the first one that was not dealt with when
/// the stream breaks, which throws.
void PlannedRestore::RestoreFrom(const std::deque<Record>& records, std::size_t& next,
                                 std::size_t end, Writer& writer) {
    const Record& first = records[next];
    Gunzip gunzip(first.in_base ? base_slices_ : slices_, first.Where());
    EntryReader reader([&](Block& block) { return gunzip.Read(block); }, first.offset);
    for (Item item; next < end && !stop_; ++next) {
        const Record& record = records[next];
        Find(reader, record, item);
        Attempt(report_, plan_.NameFor(record),
                [&] { RestoreEntry(reader, record, item, writer); });
        if (!reader.Tar().Broken()) continue;
        ++next;  // reported; what follows is read from its own place
        return;
    }
}

void PlannedRestore::RestoreUnit(const Unit& unit, Writer& writer) {
    const std::deque<Record>& records = unit.in_base ? plan_.stored_in_base : plan_.stored;
    for (std::size_t next = unit.first; next < unit.end && !stop_;) {
        const std::size_t before = next;
        try {
            RestoreFrom(records, next, unit.end, writer);
        } catch (const std::exception& error) {
            if (EndsTheRun(error)) throw;
            report_.Fail(std::string(plan_.NameFor(records[next])), Reason(error));
            ++next;
        }
        if (next == before) ++next;
    }
}

void PlannedRestore::RestoreStored() {
    slices_.Expect(plan_.SliceNumbers(false));
    base_slices_.Expect(plan_.SliceNumbers(true));
    const uint64_t share = plan_.bytes / (8ULL * Jobs(options_));
    const std::vector<Unit> units = plan_.Units(std::clamp(share, kSmallestUnit, kLargestUnit));
    std::atomic<std::size_t> next{0};
    const auto jobs = static_cast<unsigned>(std::min<std::size_t>(Jobs(options_), units.size()));
    RunWorkers(jobs, stop_, [&] {
        Writer writer(target_);
        for (std::size_t i = next++; i < units.size() && !stop_; i = next++)
            RestoreUnit(units[i], writer);
    });
}

void PlannedRestore::MakeFolders(Writer& writer) {
    for (const Record& folder : plan_.folders) {
        folder_states_.emplace_back();
        Attempt(report_, folder.name, [&] {
            folder_states_.back() = writer.MakeFolder(std::string(folder.name), !folder.passage);
        });
    }
}

/// With the attributes that its header brought.
Item PlannedRestore::WholeItem(const Record& record) {
    Item item = record.AsItem();
    item.name = plan_.NameFor(record);
    target_.Adopt(item);
    const auto header = record.xattrs ? headers_.find(item.name) : headers_.end();
    if (header == headers_.end()) return item;
    item.xattrs = std::move(header->second.xattrs);
    item.left_out = std::move(header->second.left_out);
    return item;
}

void PlannedRestore::MakeLinks(Writer& writer) {
    const auto each = [&](const std::deque<Record>& records, void (Writer::*make)(const Item&)) {
        for (const Record& record : records) {
            const Item item = WholeItem(record);
            Attempt(report_, item.name, [&] { (writer.*make)(item); });
        }
    };
    each(plan_.specials, &Writer::MakeSpecial);
    each(plan_.links, &Writer::MakeLink);
    each(plan_.hard_links, &Writer::MakeHardLink);
}

/// From the last to the first: what is in a folder comes behind it in the listing.
void PlannedRestore::FinishFolders(Writer& writer) {
    for (std::size_t i = plan_.folders.size(); i-- > 0;) {
        const Record& folder = plan_.folders[i];
        const std::optional<FolderState>& state = folder_states_[i];
        if (!state || (folder.passage && !state->made)) continue;
        const Item item = WholeItem(folder);
        Attempt(report_, folder.name, [&] { writer.FinishFolder(item, *state); });
    }
}

void PlannedRestore::Preview() {
    Writer writer(target_);
    const auto show = [&](const Record& record) {
        Item item = record.AsItem();
        item.name = plan_.NameFor(record);
        Attempt(report_, item.name, [&] {
            const std::string action = writer.Preview(item);
            if (!action.empty()) report_.Action(action, item.name);
        });
    };
    if (options_.overwrite != Overwrite::Never)
        for (const std::string_view name : plan_.deleted)
            if (writer.Exists(std::string(name))) report_.Action("remove", std::string(name));
    for (const Record& folder : plan_.folders) show(folder);
    for (const std::deque<Record>* records : {&plan_.stored_in_base, &plan_.stored})
        for (const Record& record : *records)
            if (record.type == 'f') show(record);
    for (const std::deque<Record>* records : {&plan_.specials, &plan_.links, &plan_.hard_links})
        for (const Record& record : *records) show(record);
}

/// Files that are kept need no reading.
void PlannedRestore::DropWhatStays() {
    if (options_.overwrite == Overwrite::Always) return;
    Writer writer(target_);
    const auto stays = [&](const Record& record) {
        Item item = record.AsItem();
        item.name = plan_.NameFor(record);
        try {
            return record.type == 'f' && writer.Preview(item).empty();
        } catch (const vel_err::Error&) {
            return false;  // comes again, and is reported, when it is written
        }
    };
    std::erase_if(plan_.stored, stays);
    std::erase_if(plan_.stored_in_base, stays);
}

int PlannedRestore::Run(const Selection& selection) {
    for (const std::string& name : selection.NotFound())
        report_.Fail(name, "is not in the archive");
    for (const auto& [name, why] : plan_.not_saved) report_.Warn(std::string(name), why);
    if (options_.dry_run) {
        Preview();
        return report_.Finish("dry run");
    }
    progress_.Total(plan_.bytes, plan_.files);
    {
        Writer writer(target_);
        std::sort(plan_.deleted.rbegin(), plan_.deleted.rend());  // what is in a folder first
        if (options_.overwrite != Overwrite::Never)
            for (const std::string_view name : plan_.deleted)
                Attempt(report_, name, [&] { writer.Remove(std::string(name)); });
        MakeFolders(writer);
    }
    DropWhatStays();
    RestoreStored();
    Writer writer(target_);
    MakeLinks(writer);
    FinishFolders(writer);
    return report_.Finish("restored what could be");
}

// ---- Without a listing --------------------------------------------------------------------------

/// Inflates in a thread of its own, where one is to be had, a few blocks ahead.
class BlocksAhead {
public:
    explicit BlocksAhead(Gunzip& gunzip)
        : gunzip_(gunzip), threads_(StartThreads(1, [this] { Work(); })) {}
    ~BlocksAhead() {
        {
            const std::lock_guard lock(mutex_);
            stop_ = true;
            changed_.notify_all();
        }
        for (std::thread& thread : threads_) thread.join();
    }

    bool Next(Block& block) {
        if (threads_.empty()) return gunzip_.Read(block);
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return !ready_.empty() || ended_; });
        if (ready_.empty()) {
            if (failure_) std::rethrow_exception(failure_);
            return false;
        }
        std::swap(block, ready_.front());
        free_.push_back(std::move(ready_.front()));
        ready_.pop_front();
        changed_.notify_all();
        return true;
    }

private:
    static constexpr std::size_t kAhead = 4;

    void Work() {
        std::unique_lock lock(mutex_);
        while (!stop_ && !ended_) {
            changed_.wait(lock, [&] { return stop_ || ready_.size() < kAhead; });
            if (stop_) return;
            Block block = free_.empty() ? Block() : std::move(free_.front());
            if (!free_.empty()) free_.pop_front();
            lock.unlock();
            bool more = false;
            std::exception_ptr failure;
            try {
                more = gunzip_.Read(block);
            } catch (...) {
                failure = std::current_exception();
            }
            lock.lock();
            if (more) ready_.push_back(std::move(block));
            failure_ = failure;
            ended_ = !more;
            changed_.notify_all();
        }
    }

    Gunzip& gunzip_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Block> ready_, free_;
    std::exception_ptr failure_;
    bool ended_ = false, stop_ = false;
    std::vector<std::thread> threads_;  // one or none
};

class StreamRestore {
public:
    StreamRestore(const Options& options, Selection& selection)
        : options_(options), selection_(selection), target_(options), report_(options.json) {}
    int Run();

private:
    struct Folder {
        Item item;
        FolderState state;
    };
    void Restore(TarStream& tar, Item& item, Writer& writer);
    void Preview(const Item& item, Writer& writer);
    void Finish(Writer& writer);

    const Options& options_;
    Selection& selection_;
    Target target_;
    Report report_;
    vel_tool::Progress progress_{"restore"};
    std::map<std::string, Folder> folders_;  // a folder comes before what is in it
    std::map<std::string, Item> links_, hard_links_;
};

void StreamRestore::Preview(const Item& item, Writer& writer) {
    const std::string action = writer.Preview(item);
    if (!action.empty()) report_.Action(action, item.name);
}

/// Links wait until the end, so that nothing can be written through one; an entry of the same name
/// that comes later takes their place.
void StreamRestore::Restore(TarStream& tar, Item& item, Writer& writer) {
    folders_.erase(item.name);
    links_.erase(item.name);
    hard_links_.erase(item.name);
    if (item.type == 'd') {
        const FolderState state = writer.MakeFolder(item.name, true);
        folders_[item.name] = {item, state};
    } else if (item.type == 'l') {
        links_[item.name] = item;
    } else if (item.type == 'h') {
        hard_links_[item.name] = item;
    } else if (item.type == 'f') {
        writer.WriteFile(item, [&](std::string_view& bytes, uint64_t& offset) {
            if (!tar.Data(bytes, offset)) return false;
            progress_.Add(bytes.size(), 0);
            return true;
        });
    } else {
        writer.MakeSpecial(item);
    }
    progress_.Add(0, 1);
}

void StreamRestore::Finish(Writer& writer) {
    for (const auto& link : links_)
        Attempt(report_, link.first, [&] { writer.MakeLink(link.second); });
    for (const auto& link : hard_links_)
        Attempt(report_, link.first, [&] { writer.MakeHardLink(link.second); });
    for (auto it = folders_.rbegin(); it != folders_.rend(); ++it)
        Attempt(report_, it->first,
                [&] { writer.FinishFolder(it->second.item, it->second.state); });
}

int StreamRestore::Run() {
    Slices slices(options_.archive, options_.fetch);
    Gunzip gunzip(slices, {1, 0});
    BlocksAhead ahead(gunzip);
    EntryReader reader([&](Block& block) { return ahead.Next(block); }, 0);
    Writer writer(target_);
    Item item;
    std::exception_ptr failure;
    try {
        while (reader.Tar().Next(item)) {
            if (!selection_.Holds(item.name)) continue;
            target_.Adopt(item);
            Attempt(report_, item.name, [&] {
                options_.dry_run ? Preview(item, writer) : Restore(reader.Tar(), item, writer);
            });
        }
        if (reader.RanDry())
            throw vel_err::Error("archive", "cut",
                                 options_.archive + ": has no end mark, a slice may be missing");
    } catch (const std::exception&) {  // what was restored so far is finished first
        failure = std::current_exception();
    }
    Finish(writer);
    if (failure) std::rethrow_exception(failure);
    for (const std::string& name : selection_.NotFound())
        report_.Fail(name, "is not in the archive");
    return report_.Finish("restored what could be");
}

}  // namespace

int RunExtract(const Options& options) {
    Selection selection(options.paths);
    if (options.listing.empty()) return StreamRestore(options, selection).Run();
    PlannedRestore restore(options, selection);
    return restore.Run(selection);
}

}  // namespace qortar
