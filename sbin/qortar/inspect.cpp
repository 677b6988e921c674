// Looks into archives without restoring: --list and --verify.
#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <ctime>
#include <exception>
#include <vector>

#include "vel/vel_err.h"
#include "vel/vel_tool.h"

#include "backup_common/backup2_misc.h"

#include "sbin/qortar/extract.h"
#include "sbin/qortar/plan.h"
#include "sbin/qortar/reader.h"
#include "sbin/qortar/report.h"
#include "sbin/qortar/workers.h"

namespace qortar {
namespace {

constexpr uint64_t kVerifyUnit = 32 << 20;
constexpr uint64_t kHeaderBytes = 512;  // so that empty files count as work, too

// ---- List ---------------------------------------------------------------------------------------

std::string ModeText(char type, mode_t mode) {
    std::string text = type == 'f' ? "-" : std::string(1, type);
    for (int shift = 6; shift >= 0; shift -= 3)
        for (int bit = 0; bit < 3; ++bit) text += mode >> shift & (4U >> bit) ? "rwx"[bit] : '-';
    if (mode & 04000) text[3] = text[3] == 'x' ? 's' : 'S';
    if (mode & 02000) text[6] = text[6] == 'x' ? 's' : 'S';
    if (mode & 01000) text[9] = text[9] == 'x' ? 't' : 'T';
    return text;
}

std::string TimeText(time_t seconds) {
    char text[32];
    tm local{};
    if (!::localtime_r(&seconds, &local)) return std::to_string(seconds);
    return {text, std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local)};
}

void PrintHuman(const Item& item, const std::string& flags) {
    std::printf("%s %5u/%-5u %12" PRIu64 " %s %s", ModeText(item.type, item.mode).c_str(), item.uid,
                item.gid, item.size, TimeText(item.mtime.tv_sec).c_str(),
                backup2::EncodeFileName(item.name).c_str());
    if (item.type == 'l') std::printf(" -> %s", backup2::EncodeFileName(item.target).c_str());
    if (item.type == 'h') std::printf(" link to %s", backup2::EncodeFileName(item.target).c_str());
    std::puts(flags.empty() ? "" : ("  [" + flags + "]").c_str());
}

void PrintJson(const Item& item, const std::string& flags) {
    std::string texts;
    PutJsonText(texts, "name", item.name);
    if (!item.target.empty()) PutJsonText(texts, "target", item.target);
    if (!flags.empty()) PutJsonText(texts, "flags", flags);
    std::printf(R"({"type":"%c","mode":"%o","uid":%u,"gid":%u,"size":%)" PRIu64
                R"(,"mtime":"%jd.%09ld",%s})"
                "\n",
                item.type, item.mode, item.uid, item.gid, item.size,
                static_cast<intmax_t>(item.mtime.tv_sec), item.mtime.tv_nsec, texts.c_str());
}

Item ItemOf(const Entry& entry) {
    Item item;
    item.type = entry.type;
    item.mode = entry.mode;
    item.uid = entry.uid;
    item.gid = entry.gid;
    item.size = entry.size;
    item.mtime = entry.mtime;
    item.name = entry.name;
    item.target = entry.target;
    return item;
}

// ---- Verify -------------------------------------------------------------------------------------

struct Totals {
    std::atomic<uint64_t> entries{0}, bytes{0};
};

void ReadContent(EntryReader& reader, Totals& totals) {
    std::string_view bytes;
    uint64_t offset = 0;
    while (reader.Tar().Data(bytes, offset)) totals.bytes += bytes.size();
    ++totals.entries;
}

/// What must come behind the last entry: the end mark, and nothing but whole members after it.
void ReadEnd(EntryReader& reader, Gunzip& gunzip, const std::string& archive) {
    if (reader.RanDry())
        throw vel_err::Error("archive", "cut",
                             archive + ": has no end mark, a slice may be missing");
    gunzip.StayLocal();
    for (Block block; gunzip.Read(block);) {
    }
}

class Verification {
public:
    explicit Verification(const Options& options)
        : options_(options), report_(options.json), slices_(options.archive, options.fetch) {}
    int Run();

private:
    void ByListing();
    void Check(const std::deque<Record>& records, const Unit& unit);
    void CheckHeader(EntryReader& reader, const Record& record, bool there, const Item& item) const;
    void Straight();

    const Options& options_;
    Report report_;
    Slices slices_;
    Totals totals_;
    vel_tool::Progress progress_{"verify"};
};

std::string Describe(const Slices& slices, const Record& record) {
    return slices.Path(record.slice) + ": gzip member at " + std::to_string(record.member) +
           ", offset " + std::to_string(record.offset);
}

void Verification::CheckHeader(EntryReader& reader, const Record& record, bool there,
                               const Item& item) const {
    const std::string where = Describe(slices_, record) + ": ";
    if (!there) throw vel_err::Error("archive", "mismatch", where + "the archive ends before it");
    uint32_t offset = 0;
    const Place place = reader.HeaderPlace(offset);
    if (place != record.Where() || offset != record.offset)
        throw vel_err::Error("archive", "mismatch", where + "its header is not there");
    if (item.name != record.name || item.type != record.type || item.size != record.size ||
        item.target != record.target)
        throw vel_err::Error("archive", "mismatch",
                             where + "found is " + backup2::EncodeFileName(item.name) + " of " +
                                 std::to_string(item.size) + " bytes");
}

/// Goes to the record's header. A file that changed while it was saved may stand in front of it,
/// under the same name, as it was read before.
bool NextListed(EntryReader& reader, const Record& record, Item& item) {
    uint32_t offset = 0;
    while (reader.Tar().Next(item)) {
        const Place place = reader.HeaderPlace(offset);
        const bool before = std::pair(place, offset) < std::pair(record.Where(), record.offset);
        if (!before || item.name != record.name) return true;
    }
    return false;
}

/// Entries of one unit, and that the next unit's first entry (or the end) follows at once.
void Verification::Check(const std::deque<Record>& records, const Unit& unit) {
    std::size_t next = unit.first;
    try {
        Gunzip gunzip(slices_, records[next].Where());
        EntryReader reader([&](Block& block) { return gunzip.Read(block); }, records[next].offset);
        Item item;
        for (; next < unit.end; ++next) {
            const bool there = NextListed(reader, records[next], item);
            CheckHeader(reader, records[next], there, item);
            ReadContent(reader, totals_);
            progress_.Add(records[next].size + kHeaderBytes, 1);
        }
        if (next < records.size()) {
            const bool more = NextListed(reader, records[next], item);
            CheckHeader(reader, records[next], more, item);
        } else if (reader.Tar().Next(item)) {
            throw vel_err::Error("archive", "mismatch",
                                 "behind it stands " + backup2::EncodeFileName(item.name) +
                                     ", which is not in the listing");
        } else {
            ReadEnd(reader, gunzip, options_.archive);
        }
    } catch (const std::exception& error) {
        report_.Fail(std::string(records[std::min(next, records.size() - 1)].name), Reason(error));
    }
}

void Verification::ByListing() {
    const Plan plan(options_.listing);
    const std::deque<Record>& records = plan.stored;
    if (records.empty()) return Straight();
    uint64_t bytes = 0;
    std::vector<Unit> units;
    std::vector<uint32_t> numbers;
    for (std::size_t i = 0; i < records.size(); ++i) {
        if (units.empty() || bytes >= kVerifyUnit * units.size()) units.push_back({i, i, false});
        units.back().end = i + 1;
        bytes += records[i].size + kHeaderBytes;
        if (numbers.empty() || numbers.back() != records[i].slice)
            numbers.push_back(records[i].slice);
    }
    slices_.Expect(numbers);
    progress_.Total(bytes, records.size());
    std::atomic<std::size_t> next{0};
    std::atomic<bool> stop{false};
    RunWorkers(Jobs(options_), stop, [&] {
        for (std::size_t k = next++; k < units.size() && !stop; k = next++)
            Check(records, units[k]);
    });
}

void Verification::Straight() {
    Gunzip gunzip(slices_, {1, 0});
    EntryReader reader([&](Block& block) { return gunzip.Read(block); }, 0);
    Item item;
    try {
        while (reader.Tar().Next(item)) ReadContent(reader, totals_);
        ReadEnd(reader, gunzip, options_.archive);
    } catch (const std::exception& error) {
        report_.Fail(item.name.empty() ? options_.archive : item.name, Reason(error));
    }
}

int Verification::Run() {
    options_.listing.empty() ? Straight() : ByListing();
    if (report_.Failures() == 0)
        std::printf(options_.json ? "{\"entries\":%" PRIu64 ",\"bytes\":%" PRIu64 "}\n"
                                  : "%" PRIu64 " entries, %" PRIu64 " bytes: all well\n",
                    totals_.entries.load(), totals_.bytes.load());
    return report_.Finish("the archive is damaged");
}

}  // namespace

int RunList(const Options& options) {
    Selection selection(options.paths);
    const auto print = [&](const Item& item, const std::string& flags) {
        if (selection.Holds(item.name)) (options.json ? PrintJson : PrintHuman)(item, flags);
    };
    if (!options.listing.empty()) {
        ReadListing(options.listing,
                    [&](const Entry& entry) { print(ItemOf(entry), entry.flags); });
    } else {
        Slices slices(options.archive, options.fetch);
        Gunzip gunzip(slices, {1, 0});
        EntryReader reader([&](Block& block) { return gunzip.Read(block); }, 0);
        for (Item item; reader.Tar().Next(item);) print(item, "");
    }
    Report report(options.json);
    for (const std::string& name : selection.NotFound()) report.Fail(name, "is not in the archive");
    return report.Finish("not everything was found");
}

int RunVerify(const Options& options) { return Verification(options).Run(); }

}  // namespace qortar
