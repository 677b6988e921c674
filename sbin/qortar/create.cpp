#include "sbin/qortar/create.h"

#include <algorithm>
#include <cstdio>
#include <memory>

#include "vel/vel_err.h"
#include "vel/vel_file.h"
#include "vel/vel_tool.h"

#include "backup_common/backup2_misc.h"

#include "sbin/qortar/archive_stream.h"
#include "sbin/qortar/base_index.h"
#include "sbin/qortar/gzip_member.h"
#include "sbin/qortar/listing.h"
#include "sbin/qortar/slice_writer.h"
#include "sbin/qortar/tar_header.h"
#include "sbin/qortar/tree_saver.h"
#include "sbin/qortar/workers.h"

namespace qortar {
namespace {

// Each thread takes about 5 MiB; more than these do not make it faster than one reader is.
constexpr unsigned kMostJobs = 16;

bool Covers(const std::string& folder, const std::string& other) {
    return folder == "." || other == folder ||
           other.compare(0, folder.size() + 1, folder + "/") == 0;
}

// Whether the text is one of ".", "./", ".//." and the like.
bool NamesRoot(const std::string& text) {
    return !text.empty() && text[0] == '.' && text.find("..") == std::string::npos &&
           text.find_first_not_of("./") == std::string::npos;
}

// In normal form; "" for what does not lie below the root.
std::string CleanFolder(const std::string& text) {
    if (NamesRoot(text)) return std::string(1, '.');
    std::string folder = vel_file::GoodPath(text);
    return folder.empty() || folder[0] == '/' ? std::string() : folder;
}

// The folders without those that lie in others of the list. What leads out of the root is reported
// and left out.
std::vector<std::string> CleanFolders(const std::vector<std::string>& given) {
    std::vector<std::string> folders;
    for (const std::string& text : given) {
        const std::string folder = CleanFolder(text);
        if (folder.empty()) {
            std::fprintf(stderr, "%s\tit is not below the root\n",
                         backup2::EncodeFileName(text).c_str());
            continue;
        }
        const auto covers = [&](const std::string& other) { return Covers(other, folder); };
        if (std::any_of(folders.begin(), folders.end(), covers)) continue;
        std::erase_if(folders, [&](const std::string& other) { return Covers(folder, other); });
        folders.push_back(folder);
    }
    if (given.empty()) folders.push_back(CleanFolder("."));
    return folders;
}

void PrintCounts(const SaveCounts& counts, uint32_t slices) {
    std::printf(
        "%llu entries (%llu stored, %llu removed since the base), %llu bytes read, %u slices, "
        "%llu reported\n",
        static_cast<unsigned long long>(counts.entries),
        static_cast<unsigned long long>(counts.stored),
        static_cast<unsigned long long>(counts.removed),
        static_cast<unsigned long long>(counts.bytes), slices,
        static_cast<unsigned long long>(counts.reported));
}

}  // namespace

int RunCreate(const Options& options) {
    const int level = LevelFromEnvironment();
    const std::vector<std::string> folders = CleanFolders(options.paths);
    std::unique_ptr<BaseIndex> base;
    if (!options.base.empty()) base = std::make_unique<BaseIndex>(options.base);

    SliceWriter slices(options.archive, options.slice_size, options.execute);
    ListingWriter listing(options.save_listing);
    ArchiveStream stream(slices, listing, std::min(Jobs(options), kMostJobs), level);
    TreeSaver saver(options, stream, base.get());
    for (const std::string& folder : folders) saver.SaveFolder(folder);
    if (saver.Counts().entries == 0) {
        throw vel_err::Error("archive", "nothing_readable", options.root);
    }
    saver.ListRemoved();
    stream.AppendZeros(kTarEndSize);
    stream.Finish();
    slices.Finish();
    // Last: an archive without a listing is none, a listing without its archive would be a lie.
    listing.Finish();
    PrintCounts(saver.Counts(), slices.Next().slice);
    return vel_tool::kDone;
}

}  // namespace qortar
