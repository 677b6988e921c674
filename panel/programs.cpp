#include "panel/programs.h"

#include <chrono>
#include <filesystem>

#include "vel/str.h"
#include "vel/vel_err.h"
#include "vel/vel_proc.h"

namespace panel {
namespace {

constexpr int kMostAtOnce = 8;
constexpr int kMostOfCaller = 3;
constexpr std::chrono::seconds kPatience{10};
constexpr std::size_t kLongestAnswer = 64 << 20;

std::string ReadAll(std::istream& in) {
    std::string text;
    std::vector<char> block(256 << 10);
    while (in.read(block.data(), static_cast<std::streamsize>(block.size())) || in.gcount() > 0) {
        text.append(block.data(), static_cast<std::size_t>(in.gcount()));
        if (text.size() > kLongestAnswer) throw vel_err::Error("too_long");
    }
    return text;
}

}  // namespace

std::vector<std::string> Backup2(const std::vector<std::string>& words) {
    std::vector<std::string> argv = {"sbin/backup2"};
    argv.insert(argv.end(), words.begin(), words.end());
    return argv;
}

std::string LastWord(const std::string& output) {
    std::string text = str::Trim(output);
    text = str::Trim(text.substr(text.rfind('\n') + 1));  // npos + 1 is the whole
    if (str::StartsWith(text, "backup2: ")) text.erase(0, 9);
    return str::Replace(text, std::filesystem::current_path().string() + "/", "");
}

/// A place among those that may run; left by the destructor.
class Programs::Turn {
public:
    Turn(Programs& all, const std::string& caller) : all_(all), caller_(caller) {
        std::unique_lock lock(all_.mutex_);
        const bool mine = all_.freed_.wait_for(lock, kPatience, [this] {
            return all_.running_ < kMostAtOnce && all_.of_caller_[caller_] < kMostOfCaller;
        });
        if (!mine) throw vel_err::Error("busy");
        ++all_.running_;
        ++all_.of_caller_[caller_];
    }
    ~Turn() {
        const std::lock_guard lock(all_.mutex_);
        --all_.running_;
        if (--all_.of_caller_[caller_] == 0) all_.of_caller_.erase(caller_);
        all_.freed_.notify_all();
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

private:
    Programs& all_;
    std::string caller_;
};

std::string Programs::Ask(const std::string& caller, const std::vector<std::string>& words) {
    const Turn turn(*this, caller);
    // A program says why it failed on both outputs: the standard one has it.
    vel_proc::Execute program(Backup2(words), vel_proc::kStream);
    std::string output = ReadAll(program.Out());
    if (program.Result() != 0) throw vel_err::Error("program", LastWord(output));
    return output;
}

}  // namespace panel
