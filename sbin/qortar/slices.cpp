#include "sbin/qortar/slices.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <map>
#include <mutex>
#include <thread>

#include "vel/vel_err.h"
#include "vel/vel_file.h"
#include "vel/vel_log.h"

#include "sbin/qortar/report.h"
#include "sbin/qortar/shell_command.h"

namespace qortar {
namespace {

const vel_log::Module logger("qortar");

constexpr int kFetchedAtOnce = 3;  // files on the disk at the same time

/// "" when it went well, else the reason.
std::string Fetch(const std::string& command, const std::string& path) {
    try {
        const std::string dir = vel_file::SplitPath(path).dir;
        RunCommand(ExpandCommand(command, "fetch", dir.empty() ? "/" : dir, vel_file::Name(path)),
                   "fetching", Token::Keep);
        return vel_file::Info(path, false).IsFile() ? "" : "the fetch command brought no file";
    } catch (const std::exception& error) {
        return Reason(error);
    }
}

}  // namespace

struct Slices::Impl {
    enum class State { Asked, Running, Here, Failed };
    struct Fetched {
        State state = State::Asked;
        int users = 0;  // threads that hold it or wait for it
        std::string problem;
    };

    std::string archive, command;
    std::atomic<bool> parts{false};
    std::vector<uint32_t> expected;  // ascending
    std::mutex mutex;
    std::condition_variable changed;
    std::map<uint32_t, Fetched> fetched;
    bool stop = false;
    std::thread fetcher;

    std::string Path(uint32_t number) const {
        const bool single = number == 1 && !parts && !vel_file::Exists(archive + ".part1");
        return single ? archive : archive + ".part" + std::to_string(number);
    }

    void RemoveFile(uint32_t number) const {
        if (::unlink(Path(number).c_str()) != 0 && errno != ENOENT)
            logger.Write(4, "Cannot remove the fetched slice '%s': %s", Path(number),
                         ::strerror(errno));
    }

    /// Makes room for one more file. An expected slice may only push out what lies before it.
    bool MakeRoom(uint32_t number, bool waited_for) {
        int there = 0;
        auto victim = fetched.end();
        for (auto it = fetched.begin(); it != fetched.end(); ++it) {
            if (it->second.state != State::Here && it->second.state != State::Running) continue;
            ++there;
            const bool free = it->second.state == State::Here && it->second.users == 0;
            if (free && victim == fetched.end() && (waited_for || it->first < number)) victim = it;
        }
        if (there < kFetchedAtOnce) return true;
        if (victim == fetched.end()) return false;
        RemoveFile(victim->first);
        fetched.erase(victim);
        return true;
    }

    /// What to fetch now: first what a thread waits for. 0 = nothing.
    uint32_t Pick() {
        for (const bool waited_for : {true, false})
            for (auto& [number, file] : fetched)
                if (file.state == State::Asked && (file.users > 0) == waited_for) {
                    if (MakeRoom(number, waited_for)) return number;
                    break;
                }
        return 0;
    }

    void Work() {
        std::unique_lock lock(mutex);
        while (true) {
            uint32_t number = 0;
            changed.wait(lock, [&] { return stop || (number = Pick()) != 0; });
            if (stop) return;
            fetched[number].state = State::Running;
            lock.unlock();
            std::string problem = FetchPart(number);
            lock.lock();
            fetched[number].state = problem.empty() ? State::Here : State::Failed;
            fetched[number].problem = std::move(problem);
            changed.notify_all();
        }
    }

    /// Whether slice 1 is the only one is unknown until one of its two names was found.
    std::string FetchPart(uint32_t number) {
        const std::string problem = Fetch(command, Path(number));
        if (problem.empty() || number != 1 || parts) return problem;
        const bool is_part = Fetch(command, archive + ".part1").empty();
        if (is_part) parts = true;
        return is_part ? "" : problem;
    }

    void AskForNext(uint32_t number) {
        const auto next = std::upper_bound(expected.begin(), expected.end(), number);
        if (next != expected.end() && !vel_file::Exists(Path(*next))) fetched[*next];
    }

    /// Returns when the file is there; the caller counts as a user of it from then on.
    void WaitFor(uint32_t number) {
        std::unique_lock lock(mutex);
        if (!fetcher.joinable()) fetcher = std::thread([this] { Work(); });
        Fetched& file = fetched[number];
        ++file.users;
        changed.notify_all();
        changed.wait(lock,
                     [&] { return file.state == State::Here || file.state == State::Failed; });
        if (file.state == State::Failed) {
            --file.users;
            throw vel_err::Error("archive", "fetch_failed", Path(number) + ": " + file.problem);
        }
        AskForNext(number);
        changed.notify_all();
    }

    void LetGo(uint32_t number) {
        const std::lock_guard lock(mutex);
        --fetched[number].users;
        changed.notify_all();
    }

    bool IsFetched(uint32_t number) {
        const std::lock_guard lock(mutex);
        return fetched.count(number) != 0;
    }
};

Slices::Slices(std::string archive, std::string fetch) : impl_(std::make_shared<Impl>()) {
    impl_->archive = std::move(archive);
    impl_->command = std::move(fetch);
}

Slices::~Slices() {
    {
        const std::lock_guard lock(impl_->mutex);
        impl_->stop = true;
        impl_->changed.notify_all();
    }
    if (impl_->fetcher.joinable()) impl_->fetcher.join();
    for (const auto& [number, file] : impl_->fetched)
        if (file.state == Impl::State::Here) impl_->RemoveFile(number);
}

void Slices::Expect(std::vector<uint32_t> numbers) {
    std::sort(numbers.begin(), numbers.end());
    if (!numbers.empty() && numbers.back() > 1) impl_->parts = true;
    impl_->expected = std::move(numbers);
}

std::string Slices::Path(uint32_t number) const { return impl_->Path(number); }

bool Slices::MayExist(uint32_t number) const {
    return !impl_->command.empty() || vel_file::Exists(impl_->Path(number));
}

Slice Slices::Open(uint32_t number) {
    Slice slice;
    const bool local = !impl_->IsFetched(number) && vel_file::Exists(impl_->Path(number));
    if (!local && !impl_->command.empty()) {
        impl_->WaitFor(number);
        slice.in_use = std::shared_ptr<void>(
            nullptr, [impl = impl_.get(), number](void*) { impl->LetGo(number); });
    }
    slice.path = impl_->Path(number);
    slice.fd = vel_file::ResHandle(::open(slice.path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat st {};
    if (!slice.fd || ::fstat(slice.fd, &st) != 0) {
        const int err = errno;
        throw vel_err::Error("archive", err == ENOENT ? "slice_missing" : "open_failed",
                             slice.path + ": " + ::strerror(err));
    }
    if (!S_ISREG(st.st_mode))
        throw vel_err::Error("archive", "open_failed", slice.path + ": not a regular file");
    slice.size = static_cast<uint64_t>(st.st_size);
    return slice;
}

}  // namespace qortar
