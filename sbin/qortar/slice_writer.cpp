#include "sbin/qortar/slice_writer.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <exception>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "vel/vel_err.h"
#include "vel/vel_file.h"
#include "vel/vel_log.h"

#include "sbin/qortar/shell_command.h"

namespace qortar {
namespace {

const vel_log::Module logger("qortar");

constexpr const char* kTmpMark = ".tmp-";
constexpr std::size_t kTmpLetters = 6;
constexpr const char* kPartMark = ".part";

std::string FolderOf(const std::string& path) {
    const std::string dir = vel_file::SplitPath(path).dir;
    return dir.empty() ? "/" : dir;
}

bool IsTmpOf(const std::string& archive, const std::string& name) {
    const std::string head = "." + vel_file::Name(archive) + kTmpMark;
    return name.size() == head.size() + kTmpLetters && name.compare(0, head.size(), head) == 0;
}

bool IsFinishedPieceOf(const std::string& archive, const std::string& name) {
    const std::string bare = vel_file::Name(archive);
    if (name == bare) return true;
    const std::string head = bare + kPartMark;
    return name.size() > head.size() && name.compare(0, head.size(), head) == 0 &&
           name.find_first_not_of("0123456789", head.size()) == std::string::npos;
}

template <class Predicate>
std::vector<std::string> FilesBeside(const std::string& archive, Predicate wanted) {
    std::vector<std::string> found;
    for (vel_file::Dir dir(FolderOf(archive)); dir.Next();) {
        if (wanted(archive, dir.Name())) found.push_back(dir.Path());
    }
    return found;
}

// A temporary is locked as long as its writer lives.
void RemoveLeftOvers(const std::string& archive) {
    for (const std::string& path : FilesBeside(archive, IsTmpOf)) {
        const vel_file::ResHandle fd(
            ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        if (fd && ::flock(fd, LOCK_EX | LOCK_NB) != 0)
            throw vel_err::Error("archive", "busy", archive);
        vel_file::RemoveFile(path);
        logger.Write(5, "Removed '%s' of a run that was broken off", path);
    }
}

void RemoveOldPieces(const std::string& archive) {
    for (const std::string& path : FilesBeside(archive, IsFinishedPieceOf))
        vel_file::RemoveFile(path);
}

// The slice that grows: removed by the destructor until it got its name.
class SliceFile {
public:
    explicit SliceFile(const std::string& archive)
        : path_(vel_file::ConcatPath(FolderOf(archive), "." + vel_file::Name(archive) + kTmpMark +
                                                            std::string(kTmpLetters, 'X'))),
          fd_(::mkostemp(path_.data(), O_CLOEXEC)) {
        if (!fd_) vel_err::RaiseErrno("create", std::exchange(path_, ""), errno);
        if (::flock(fd_, LOCK_EX | LOCK_NB) != 0) vel_err::RaiseErrno("lock", path_, errno);
    }
    SliceFile(const SliceFile&) = delete;
    SliceFile& operator=(const SliceFile&) = delete;
    ~SliceFile() {
        if (!path_.empty())
            ::unlink(path_.c_str());  // nothing refers to it; a left-over goes next time
    }

    void Write(const uint8_t* data, std::size_t size) {
        while (size > 0) {
            const ssize_t n = ::write(fd_, data, size);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) vel_err::RaiseErrno("write", path_, errno);
            data += n;
            size -= static_cast<std::size_t>(n);
        }
    }
    void Sync() const {
        if (::fsync(fd_) != 0) vel_err::RaiseErrno("fsync", path_, errno);
    }
    void MoveTo(const std::string& target) {
        vel_file::Move(path_, target);
        path_.clear();
    }

private:
    std::string path_;
    vel_file::ResHandle fd_;
};

}  // namespace

struct SliceWriter::Impl {
    void CheckCommand() {
        if (!failed) return;
        Join();
    }
    // Waits for the slice before this one; its failure is thrown here, once.
    void Join() {
        if (thread.joinable()) thread.join();
        failed = false;
        if (failure) std::rethrow_exception(std::exchange(failure, nullptr));
    }
    void Complete(bool last) {
        Join();
        std::string target = archive;
        if (!last || number > 1) target += kPartMark + std::to_string(number);
        const auto publish = [this, target, last,
                              done = std::shared_ptr<SliceFile>(std::move(file))] {
            try {
                Publish(*done, target, last);
            } catch (...) {
                failure = std::current_exception();
                failed = true;
            }
        };
        try {
            thread = std::thread(publish);
        } catch (const std::system_error&) {  // no thread is to be had: nothing grows meanwhile
            publish();
        }
    }
    void Publish(SliceFile& done, const std::string& target, bool last) {
        // With a command the slice is only on its way: what it makes of it has to last.
        if (command.empty()) done.Sync();
        if (!std::exchange(published, true)) RemoveOldPieces(archive);
        done.MoveTo(target);
        if (command.empty()) return;
        const std::string word = last ? "last-slice" : "slice";
        RunCommand(ExpandCommand(command, word, FolderOf(target), vel_file::Name(target)), target,
                   Token::Keep);
    }

    std::string archive;
    uint64_t size = 0;
    std::string command;
    uint32_t number = 1;
    uint64_t offset = 0;
    std::unique_ptr<SliceFile> file;

    std::thread thread;  // looks after the slice before `number`
    bool published = false;
    bool finished = false;
    std::exception_ptr failure;  // set by the thread, taken after the join
    std::atomic<bool> failed = false;
};

SliceWriter::SliceWriter(const std::string& archive, uint64_t size, const std::string& command)
    : impl_(std::make_unique<Impl>()) {
    impl_->archive = archive;
    impl_->size = size;
    impl_->command = command;
    vel_file::MkDir(FolderOf(archive), vel_file::Attrs(0700));
    RemoveLeftOvers(archive);
    impl_->file = std::make_unique<SliceFile>(archive);
}

SliceWriter::~SliceWriter() {
    if (impl_->thread.joinable()) impl_->thread.join();
    if (impl_->finished || !impl_->published) return;
    try {  // the beginning of an archive is none, and may fill the disk
        RemoveOldPieces(impl_->archive);
    } catch (const std::exception& error) {
        logger.Write(4, "Fail to remove the slices of '%s': %s", impl_->archive, error.what());
    }
}

SlicePlace SliceWriter::Next() const {
    if (impl_->size != 0 && impl_->offset == impl_->size) return {impl_->number + 1, 0};
    return {impl_->number, impl_->offset};
}

void SliceWriter::Write(const uint8_t* data, std::size_t size) {
    Impl& it = *impl_;
    it.CheckCommand();
    while (size > 0) {
        if (it.size != 0 && it.offset == it.size) {
            it.Complete(/*last=*/false);
            it.file = std::make_unique<SliceFile>(it.archive);
            ++it.number;
            it.offset = 0;
        }
        const std::size_t piece =
            it.size == 0 ? size
                         : static_cast<std::size_t>(std::min<uint64_t>(size, it.size - it.offset));
        it.file->Write(data, piece);
        it.offset += piece;
        data += piece;
        size -= piece;
    }
}

void SliceWriter::Finish() {
    impl_->Complete(/*last=*/true);
    impl_->Join();
    impl_->finished = true;
}

bool IsPieceOf(const std::string& archive, const std::string& name) {
    return IsTmpOf(archive, name) || IsFinishedPieceOf(archive, name);
}

}  // namespace qortar
