#include "vel/vel_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <ctime>
#include <limits>
#include <mutex>

#include <fmt/format.h>
#include <fmt/printf.h>

#include "vel/str.h"
#include "vel/vel_env.h"

namespace vel_log {
namespace {

constexpr int kMaxWidth = 1024;  // a width from outside must not ask for gigabytes

// ---- Formats ------------------------------------------------------------------------------------

/// One conversion of a format: "%-08.3lx".
struct Conversion {
    std::string flags;
    int width = -1;
    int precision = -1;
    char letter = 0;  // 0: the format ends within the conversion
};

int64_t Clamped(double d) {
    constexpr double kLimit = 9.2e18;
    return std::isnan(d) ? 0 : static_cast<int64_t>(std::clamp(d, -kLimit, kLimit));
}

int64_t AsSigned(const Arg& arg) {
    if (arg.kind == Arg::Kind::Text) return 0;
    return arg.kind == Arg::Kind::Real ? Clamped(arg.d) : arg.i;
}

double AsReal(const Arg& arg) {
    switch (arg.kind) {
        case Arg::Kind::Signed:
            return static_cast<double>(arg.i);
        case Arg::Kind::Unsigned:
            return static_cast<double>(arg.u);
        case Arg::Kind::Real:
            return arg.d;
        case Arg::Kind::Text:
            break;
    }
    return 0;
}

/// Walks a format and its values side by side.
class Formatter {
public:
    Formatter(std::string_view format, std::initializer_list<Arg> args)
        : format_(format), next_(args.begin()), end_(args.end()) {}

    std::string Run() {
        while (at_ < format_.size()) {
            const std::size_t percent = std::min(format_.find('%', at_), format_.size());
            out_.append(format_, at_, percent - at_);
            at_ = percent;
            if (at_ < format_.size()) Convert();
        }
        return std::move(out_);
    }

private:
    char Peek() const { return at_ < format_.size() ? format_[at_] : '\0'; }
    const Arg* Take() { return next_ == end_ ? nullptr : next_++; }

    /// Digits, or "*" for a value; -1 for neither and for a negative value.
    int Number() {
        if (Peek() == '*') {
            ++at_;
            const Arg* arg = Take();
            return static_cast<int>(std::clamp<int64_t>(arg ? AsSigned(*arg) : -1, -1, kMaxWidth));
        }
        int n = -1;
        for (; Peek() >= '0' && Peek() <= '9'; ++at_) {
            n = std::min(std::max(n, 0) * 10 + (Peek() - '0'), kMaxWidth);
        }
        return n;
    }

    Conversion Parse() {
        constexpr std::string_view kFlags = "-+ #0", kLengths = "hljztLq";
        Conversion c;
        for (; Peek() && kFlags.find(Peek()) != std::string_view::npos; ++at_) c.flags += Peek();
        c.width = Number();
        if (Peek() == '.') {
            ++at_;
            c.precision = std::max(0, Number());
        }
        while (Peek() && kLengths.find(Peek()) != std::string_view::npos) ++at_;
        if (at_ < format_.size()) c.letter = format_[at_++];
        return c;
    }

    void Convert() {
        constexpr std::string_view kKnown = "sdiuxXocfFgGeEaA";
        const std::size_t start = at_++;
        const Conversion c = Parse();
        if (c.letter == '%') {
            out_ += '%';
        } else if (c.letter == 0 || kKnown.find(c.letter) == std::string_view::npos) {
            out_.append(format_, start, at_ - start);
        } else if (const Arg* arg = Take()) {
            AppendValue(c, *arg);
        }
    }

    void AppendValue(const Conversion& c, const Arg& arg) {
        switch (c.letter) {
            case 's':
                AppendText(c, arg);
                break;
            case 'c':
                Pad(c, std::string(1, static_cast<char>(AsSigned(arg))));
                break;
            case 'd':
            case 'i':
                AppendInteger(c, arg);
                break;
            case 'u':
            case 'x':
            case 'X':
            case 'o':
                AppendNumber(c, Bits(arg));
                break;
            default:
                AppendNumber(c, AsReal(arg));
        }
    }

    static uint64_t Bits(const Arg& arg) {
        return arg.kind == Arg::Kind::Real || arg.kind == Arg::Kind::Text
                   ? static_cast<uint64_t>(AsSigned(arg))
                   : arg.u;
    }

    void AppendInteger(Conversion c, const Arg& arg) {
        if (arg.kind == Arg::Kind::Unsigned) {
            c.letter = 'u';
            AppendNumber(c, arg.u);
        } else {
            AppendNumber(c, AsSigned(arg));
        }
    }

    void AppendText(const Conversion& c, const Arg& arg) {
        std::string text;
        switch (arg.kind) {
            case Arg::Kind::Text:
                text = arg.s;
                break;
            case Arg::Kind::Real:
                text = fmt::format("{:g}", arg.d);
                break;
            case Arg::Kind::Signed:
                text = std::to_string(arg.i);
                break;
            case Arg::Kind::Unsigned:
                text = std::to_string(arg.u);
                break;
        }
        if (c.precision >= 0) text = text.substr(0, static_cast<std::size_t>(c.precision));
        Pad(c, text);
    }

    void Pad(const Conversion& c, const std::string& text) {
        const std::size_t width = c.width > 0 ? static_cast<std::size_t>(c.width) : 0;
        const std::string fill(width > text.size() ? width - text.size() : 0, ' ');
        const bool left = c.flags.find('-') != std::string::npos;
        out_ += left ? text + fill : fill + text;
    }

    template <class Number>
    void AppendNumber(const Conversion& c, Number value) {
        std::string one = "%" + c.flags;
        if (c.width >= 0) one += std::to_string(c.width);
        if (c.precision >= 0) one += "." + std::to_string(c.precision);
        out_ += fmt::sprintf(one + c.letter, value);
    }

    std::string_view format_;
    const Arg* next_;
    const Arg* end_;
    std::size_t at_ = 0;
    std::string out_;
};

// ---- Lines --------------------------------------------------------------------------------------

std::string Line(int level, const char* module, const std::string& text) {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    ::localtime_r(&now, &local);
    return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02} {} {}[{}]: {}\n", local.tm_year + 1900,
                       local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                       level, module, ::getpid(),
                       str::badchars::Escape(text, str::badchars::Controls(), '\\'));
}

/// Opens for every line: so the file follows a rotation and a change of the install root, and no
/// descriptor is held between two events.
void AppendTo(const std::string& path, const std::string& line) {
    const int flags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
    const int fd = ::open(path.c_str(), flags, 0600);
    if (fd < 0) return;
    struct stat st {};
    // A line that cannot be written is lost: there is no better place to say so.
    if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
        [[maybe_unused]] const ssize_t lost = ::write(fd, line.data(), line.size());
    }
    ::close(fd);
}

int LevelLimit() {
    static const int limit = [] {
        const std::string text = vel_env::GetEnv("VEL_LOG_LEVEL");
        return text.empty() ? 5 : str::Int(text);
    }();
    return limit;
}

class SinkHolder {
public:
    Sink Current() {
        if (!set_) return {};
        const std::lock_guard lock(mutex_);
        return sink_;
    }
    Sink Exchange(Sink sink) {
        const std::lock_guard lock(mutex_);
        set_ = static_cast<bool>(sink);
        std::swap(sink_, sink);
        return sink;
    }

private:
    std::mutex mutex_;
    Sink sink_;
    std::atomic<bool> set_{false};
};

// Never destroyed: static objects log while the process ends.
SinkHolder& InPlaceOfFile() {
    static auto& holder = *new SinkHolder;
    return holder;
}
SinkHolder& Observer() {
    static auto& holder = *new SinkHolder;
    return holder;
}

/// A caller that logs between a failed call and its look at errno must still find it.
class ErrnoGuard {
public:
    ErrnoGuard() = default;
    ErrnoGuard(const ErrnoGuard&) = delete;
    ErrnoGuard& operator=(const ErrnoGuard&) = delete;
    ~ErrnoGuard() { errno = saved_; }

private:
    int saved_ = errno;
};

}  // namespace

std::string Format(std::string_view format, std::initializer_list<Arg> args) {
    return Formatter(format, args).Run();
}

void Module::WriteArgs(int level, std::string_view format,
                       std::initializer_list<Arg> args) const noexcept {
    const ErrnoGuard guard;
    try {
        const Sink sink = InPlaceOfFile().Current(), observer = Observer().Current();
        if (!sink && !observer && level > LevelLimit()) return;
        const std::string text = Format(format, args);
        if (observer) observer(level, module_, text);
        if (sink) {
            sink(level, module_, text);
        } else if (level <= LevelLimit()) {
            AppendTo(std::string("var/") + log_ + ".log", Line(level, module_, text));
        }
    } catch (...) {  // out of memory, or a sink's own failure: an event is lost, the work goes on
    }
}

Sink SetSink(Sink sink) { return InPlaceOfFile().Exchange(std::move(sink)); }

Sink SetObserver(Sink observer) { return Observer().Exchange(std::move(observer)); }

}  // namespace vel_log
