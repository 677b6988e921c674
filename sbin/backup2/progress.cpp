#include "sbin/backup2/progress.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <iostream>
#include <memory>
#include <system_error>

#include <nlohmann/json.hpp>

#include "vel/vel_env.h"
#include "vel/vel_err.h"
#include "vel/vel_tool.h"

#include "sbin/backup2/output.h"

namespace backup2_admin {
namespace {

const char kVariable[] = "BACKUP2_PROGRESS";
const char kCopyTool[] = "backup2_cp", kUpload[] = "upload";
constexpr auto kRedraw = std::chrono::milliseconds(200);
constexpr std::size_t kBarWidth = 20;

double Now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

std::size_t ScreenWidth() {
    winsize size{};
    return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 20 ? size.ws_col : 80;
}

vel_file::ResHandle OpenReports(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) vel_err::RaiseErrno("open", path, errno);
    return vel_file::ResHandle(fd);
}

/// About how many bytes the files below `top` have; the user may change them meanwhile.
uint64_t SizeOf(const std::string& top, const std::atomic<bool>& stop) {
    namespace fs = std::filesystem;
    std::error_code ignored;  // an estimate does without what cannot be read
    uint64_t total = 0;
    fs::recursive_directory_iterator at(top, fs::directory_options::skip_permission_denied,
                                        ignored);
    for (const fs::recursive_directory_iterator end; at != end && !stop; at.increment(ignored)) {
        if (at->is_symlink(ignored) || !at->is_regular_file(ignored)) continue;
        const uint64_t size = at->file_size(ignored);
        if (!ignored) total += size;
    }
    return total;
}

uint64_t Count(const nlohmann::json& report, const char* name) {
    const auto found = report.find(name);
    return found != report.end() && found->is_number_unsigned() ? found->get<uint64_t>() : 0;
}

/// Without a thread nothing is shown, which is no reason to fail.
template <class Work>
std::thread StartIfPossible(const Work& work) try {
    return std::thread(work);
} catch (const std::system_error&) {
    return {};
}

}  // namespace

ProgressView::ProgressView(std::string title, const std::string& dir)
    : title_(std::move(title)), caller_file_(vel_env::GetEnv(kVariable)), start_(Now()) {
    if (caller_file_.empty()) {
        file_.emplace(vel_file::ConcatPath(dir, "progress"));
        vel_env::SetEnv(kVariable, std::filesystem::absolute(file_->Path()).string());
    }
    reports_ = OpenReports(file_ ? file_->Path() : vel_tool::Absolute(caller_file_));
    read_to_ = ::lseek(reports_, 0, SEEK_END);  // what stands there is of an earlier step
    if (isatty(STDERR_FILENO)) drawer_ = StartIfPossible([this] { Draw(); });
}

ProgressView::~ProgressView() {
    Stop();
    if (file_) vel_env::UnsetEnv(kVariable);
}

void ProgressView::Measure(const std::string& root, const std::list<std::string>& folders) {
    if (!drawer_.joinable() && caller_file_.empty()) return;
    // Made here: the variable that names the file must not be read beside a change of others.
    const auto report = std::make_shared<vel_tool::Progress>("measure");
    measurer_ = StartIfPossible([this, root, folders, report] {
        uint64_t total = 0;
        for (const std::string& folder : folders) {
            total += SizeOf(vel_file::ConcatPath(root, folder), stop_);
        }
        measured_ = total;
        if (!stop_) report->Total(total, 0);
    });
}

void ProgressView::ShowUploads(uint64_t bytes) { uploads_ = std::max<uint64_t>(1, bytes); }

double ProgressView::Seconds() const { return Now() - start_; }

ProgressView::Line ProgressView::Finish(const std::string& tool) {
    Stop();
    ReadReports();
    return latest_[tool];
}

void ProgressView::Stop() {
    stop_ = true;
    if (measurer_.joinable()) measurer_.join();
    if (!drawer_.joinable()) return;
    drawer_.join();
    std::cerr << "\r\033[K" << std::flush;
}

void ProgressView::Draw() {
    while (!stop_) {
        ReadReports();
        std::cerr << "\r" << Bar().substr(0, ScreenWidth() - 1) << "\033[K" << std::flush;
        std::this_thread::sleep_for(kRedraw);
    }
}

void ProgressView::ReadReports() {
    char block[64 << 10];
    ssize_t got;
    while ((got = ::pread(reports_, block, sizeof block, read_to_)) > 0) {
        read_to_ += got;
        half_line_.append(block, static_cast<std::size_t>(got));
    }
    std::size_t end;
    while ((end = half_line_.find('\n')) != std::string::npos) {
        const auto report = nlohmann::json::parse(half_line_.substr(0, end), nullptr, false);
        half_line_.erase(0, end + 1);
        if (!report.is_object()) continue;  // a child that was killed in the middle of a line
        const Line line = {Count(report, "bytes"), Count(report, "of_bytes"),
                           Count(report, "files"), Count(report, "of_files")};
        if (report.value("step", "") == kUpload) TakeUpload(line);
        latest_[report.value("tool", "")] = line;
    }
}

/// Each call of the copy tool counts from 0 to its file's size; one that failed stays below it.
void ProgressView::TakeUpload(const Line& line) {
    const Line& before = latest_[kCopyTool];
    if (line.bytes < before.bytes && before.bytes == before.of_bytes) uploaded_ += before.bytes;
}

std::optional<ProgressView::Line> ProgressView::Seen() const {
    const auto found = latest_.find(uploads_ > 0 ? kCopyTool : "qortar");
    if (found == latest_.end()) return std::nullopt;
    if (uploads_ == 0) return found->second;
    Line sum;
    sum.of_bytes = uploads_;
    sum.bytes = std::min(uploaded_ + found->second.bytes, sum.of_bytes);  // less small files beside
    return sum;
}

std::string ProgressView::Bar() const {
    const auto seen = Seen();
    if (!seen) return title_ + "  starting  " + HumanTime(Seconds());
    const Line& line = *seen;
    const uint64_t total = line.of_bytes > 0 ? line.of_bytes : measured_.load();
    const double seconds = Seconds();
    std::string text = title_ + "  ";
    if (total == 0) text += std::to_string(line.files) + " files  ";
    if (total > 0) {
        const double part =
            std::min(1.0, static_cast<double>(line.bytes) / static_cast<double>(total));
        const auto full = static_cast<std::size_t>(part * kBarWidth);
        text += "[" + std::string(full, '#') + std::string(kBarWidth - full, '.') + "] " +
                std::to_string(static_cast<int>(part * 100)) + "%  ";
    }
    text += HumanSize(line.bytes) + "  " + HumanRate(line.bytes, seconds);
    if (total > line.bytes && line.bytes > total / 100) {  // before that it is a guess
        const double rate = static_cast<double>(line.bytes) / seconds;
        text += "  " + HumanTime(static_cast<double>(total - line.bytes) / rate) + " left";
    }
    return text;
}

}  // namespace backup2_admin
