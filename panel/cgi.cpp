#include "panel/cgi.h"

#include <poll.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include <httplib.h>

#include "vel/res_handle.h"
#include "vel/str.h"
#include "vel/vel_env.h"
#include "vel/vel_err.h"
#include "vel/vel_file.h"
#include "vel/vel_log.h"
#include "vel/vel_proc.h"

namespace panel {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::seconds;
using Environment = std::map<std::string, std::string>;

const vel_log::Module logger("panel");

constexpr unsigned kAtOnce = 32, kAtOnceOfGuest = 4;
constexpr std::size_t kMaxHead = 8 * 1024, kMaxUncounted = 1024 * 1024, kBlock = 128 * 1024;
constexpr int kSilenceSeconds = 300, kPollMs = 500, kAfterwardsMs = 5000;
constexpr seconds kWholeTime{24 * 60 * 60};
constexpr char kFolder[] = "/velcgi/";
constexpr char kSession[] = "auth";  // the parameter that brings one
constexpr char kPath[] = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
const char* const kOwnVariables[] = {"VEL_LOG_LEVEL", "BACKUP2_CA_FILE"};

#if defined(__has_feature)
constexpr bool kSanitized = __has_feature(address_sanitizer);  // which reserves terabytes
#else
constexpr bool kSanitized = false;
#endif

/// Hours of decrypting a big archive; far more memory than constant memory needs. Processes are not
/// counted: the kernel does not hold root to that.
constexpr std::pair<int, uint64_t> kLimits[] = {
    {RLIMIT_CORE, 0},
    {RLIMIT_CPU, 4 * 60 * 60},
    {RLIMIT_NOFILE, 256},
    {RLIMIT_AS, kSanitized ? RLIM_INFINITY : uint64_t{2} << 30},
};

/// Why there is no answer of the program's own.
struct Refusal : std::runtime_error {
    Refusal(int http_status, const std::string& why)
        : std::runtime_error(why), status(http_status) {}
    int status;
};

[[noreturn]] void BadProgram(const std::string& why) { throw Refusal(502, why); }

// ---- The request --------------------------------------------------------------------------------

bool IsPrintable(const std::string& text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

/// Taken from the address as it came: nothing that is written in two ways reaches a program.
std::string ProgramName(const std::string& target) {
    std::string path = target;
    path = str::GetWord(path, '?');
    const std::string name = str::StartsWith(path, kFolder) ? path.substr(sizeof kFolder - 1) : "";
    const auto fits = [](char c) { return (c >= 'a' && c <= 'z') || std::isdigit(c) || c == '_'; };
    return name.size() <= 64 && std::all_of(name.begin(), name.end(), fits) ? name : "";
}

/// "" for a header that is not there; one that is there twice says nothing.
std::string HeaderOf(const httplib::Request& in, const char* name) {
    if (in.get_header_value_count(name) > 1) throw Refusal(400, std::string(name) + " twice");
    return in.get_header_value(name);
}

Environment MakeEnvironment(const httplib::Request& in, const std::string& name, bool tls) {
    std::string query = in.target;
    str::GetWord(query, '?');
    Environment env = {
        {"GATEWAY_INTERFACE", "CGI/1.1"},
        {"SERVER_SOFTWARE", "backup2_panel"},
        {"SERVER_PROTOCOL", in.version},
        {"SERVER_NAME", in.local_addr},
        {"SERVER_PORT", std::to_string(in.local_port)},
        {"REQUEST_METHOD", in.method},
        {"SCRIPT_NAME", kFolder + name},
        {"QUERY_STRING", query},
        {"REMOTE_ADDR", in.remote_addr},
        {"VEL_ROOT", std::filesystem::current_path().string()},
        {"PATH", kPath},
    };
    if (tls) env["HTTPS"] = "on";
    if (in.method == "POST") {
        env["CONTENT_TYPE"] = HeaderOf(in, "Content-Type");
        env["CONTENT_LENGTH"] = std::to_string(in.body.size());
    }
    if (in.has_header("Range")) env["HTTP_RANGE"] = HeaderOf(in, "Range");
    if (in.has_header("If-Range")) env["HTTP_IF_RANGE"] = HeaderOf(in, "If-Range");
    for (const char* variable : kOwnVariables)
        if (const auto value = vel_env::GetEnv(variable); !value.empty()) env[variable] = value;
    for (const auto& [variable, value] : env)
        if (variable != "VEL_ROOT" && !IsPrintable(value)) throw Refusal(400, "control bytes");
    return env;
}

// ---- The program's answer -----------------------------------------------------------------------

/// What a program may say, as it is written.
const std::map<std::string, std::string> kHeaders = {
    {"status", "Status"},
    {"content-type", "Content-Type"},
    {"content-length", "Content-Length"},
    {"content-range", "Content-Range"},
    {"content-disposition", "Content-Disposition"},
    {"content-security-policy", "Content-Security-Policy"},
    {"accept-ranges", "Accept-Ranges"},
    {"etag", "ETag"},
    {"last-modified", "Last-Modified"},
    {"cache-control", "Cache-Control"},
    {"retry-after", "Retry-After"},
    {"referrer-policy", "Referrer-Policy"},
    {"x-content-type-options", "X-Content-Type-Options"},
};

uint64_t NumberOf(const std::string& text, uint64_t most) {
    uint64_t value = 0;
    const char* end = text.data() + text.size();
    const auto done = std::from_chars(text.data(), end, value);
    if (done.ec != std::errc() || done.ptr != end || value > most) BadProgram("a bad number");
    return value;
}

struct Head {
    int status = 200;
    std::string type;
    std::optional<uint64_t> length;
    std::map<std::string, std::string> others;
};

void TakeHeader(Head& head, const std::string& name, const std::string& value) {
    if (name == "Status") {
        std::string text = value;
        head.status = static_cast<int>(NumberOf(str::GetWord(text), 599));
        if (head.status < 200) BadProgram("a bad status");
    } else if (name == "Content-Length") {
        head.length = NumberOf(value, INT64_MAX);
    } else if (name == "Content-Type") {
        head.type = value;
    } else {
        head.others[name] = value;
    }
}

/// `text`: the lines of the head, each with its end.
Head ParseHead(std::string text) {
    Head head;
    std::map<std::string, bool> seen;
    while (!text.empty()) {
        std::string line = str::GetWord(text, '\n');
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.find(':') == std::string::npos || !IsPrintable(line)) BadProgram("a bad header");
        const auto known = kHeaders.find(str::Lower(str::GetWord(line, ':')));
        if (known == kHeaders.end()) BadProgram("a header that nobody knows");
        if (std::exchange(seen[known->first], true)) BadProgram(known->second + " twice");
        TakeHeader(head, known->second, str::Trim(line));
    }
    if (head.type.empty()) BadProgram("no Content-Type");
    return head;
}

/// Length of the head with the empty line behind it; npos while that has not come.
std::size_t EndOfHead(const std::string& text, std::size_t& body) {
    const std::size_t lf = text.find("\n\n"), crlf = text.find("\n\r\n");
    const std::size_t end = std::min(lf, crlf);
    if (end != std::string::npos) body = end + (end == crlf ? 3 : 2);
    return end == std::string::npos ? end : end + 1;
}

// ---- The run ------------------------------------------------------------------------------------

thread_local int connection = -1;

seconds Silence() {
    const int set = str::Int(vel_env::GetEnv("VEL_CGI_WAIT"));
    return seconds(set > 0 ? set : kSilenceSeconds);
}

/// A program at work, for the client whom this thread serves.
class Run {
public:
    Run(const std::string& name, const Environment& environment, const std::string& body,
        const std::atomic<bool>& stopping)
        : process_({"velcgi/" + name}, 0), stopping_(stopping) {
        for (char** entry = environ; entry && *entry; ++entry) {
            std::string variable = *entry;
            process_.UnsetEnv(str::GetWord(variable, '='));
        }
        for (const auto& [variable, value] : environment) process_.SetEnv(variable, value);
        for (const auto& [resource, value] : kLimits) process_.SetLimit(resource, value);
        if (!body.empty()) process_.In(body).CloseIn();
        process_.RedirectOutTo(pipe_.Out());
        process_.Run();
        pipe_.Out().Close();
    }
    ~Run() {
        if (complete_) LetItEnd();
    }
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    /// 0 at the end of the output. Throws Refusal when there is no point in waiting for more.
    std::size_t Read(char* to, std::size_t size) {
        Wait();
        ssize_t got = 0;
        do got = ::read(pipe_.In(), to, size);
        while (got < 0 && errno == EINTR);
        if (got < 0) vel_err::RaiseErrno("read", "velcgi", errno);
        return static_cast<std::size_t>(got);
    }
    /// Reads on; false at the end of the output.
    bool Append(std::string& text) {
        std::array<char, 4096> bytes;
        const std::size_t got = Read(bytes.data(), bytes.size());
        text.append(bytes.data(), got);
        return got > 0;
    }
    /// All that was wanted of it is there.
    void Complete() { complete_ = true; }

private:
    void Wait() const {
        const auto silent_until = Clock::now() + silence_;
        for (;;) {
            std::array<pollfd, 2> polled{{{pipe_.In(), POLLIN, 0}, {client_, POLLRDHUP, 0}}};
            if (::poll(polled.data(), polled.size(), kPollMs) < 0 && errno != EINTR)
                vel_err::RaiseErrno("poll", "velcgi", errno);
            if (stopping_) throw Refusal(503, "the panel ends");
            if (polled[1].revents != 0) throw Refusal(499, "the client has gone");
            if (Clock::now() > until_) throw Refusal(504, "works for too long");
            if (polled[0].revents != 0) return;
            if (Clock::now() > silent_until) throw Refusal(504, "was silent for too long");
        }
    }
    /// What it still has to tidy up is its own affair, for a while.
    void LetItEnd() noexcept {
        const vel_file::ResHandle ended(
            static_cast<int>(::syscall(SYS_pidfd_open, process_.Pid(), 0)));
        pollfd polled{ended, POLLIN, 0};
        ::poll(&polled, 1, kAfterwardsMs);
    }

    vel_proc::Pipe pipe_;
    vel_proc::Execute process_;
    const std::atomic<bool>& stopping_;
    const int client_ = connection;
    const seconds silence_ = Silence();
    const Clock::time_point until_ = Clock::now() + kWholeTime;
    bool complete_ = false;
};

/// What follows the head, block by block, for exactly its length.
class Body {
public:
    Body(std::shared_ptr<Run> run, std::string first, uint64_t length, std::string title)
        : run_(std::move(run)), first_(std::move(first)), left_(length), title_(std::move(title)) {}

    /// One block. False: the connection has to be cut, so that nobody takes a part for the whole.
    bool Write(httplib::DataSink& sink) try {
        if (left_ > 0 && !Pass(sink)) return false;
        if (left_ > 0) return true;
        run_->Complete();
        sink.done();
        return true;
    } catch (const std::exception& e) {
        logger.Write(4, "%s: cut with %d bytes to go: %s", title_, left_, e.what());
        return false;
    }

private:
    bool Pass(httplib::DataSink& sink) {
        std::string block = std::exchange(first_, {});
        if (block.empty()) {
            block_.resize(kBlock);
            const std::size_t got =
                run_->Read(block_.data(), std::min<uint64_t>(left_, block_.size()));
            return Pass(sink, block_.data(), got);
        }
        return Pass(sink, block.data(), std::min<uint64_t>(left_, block.size()));
    }
    bool Pass(httplib::DataSink& sink, const char* bytes, std::size_t size) {
        if (size == 0) BadProgram("the program ended before its time");
        left_ -= size;
        return sink.write(bytes, size);
    }

    std::shared_ptr<Run> run_;
    std::string first_;
    std::vector<char> block_;
    uint64_t left_;
    std::string title_;
};

/// The library would cut bodies and documents of its own by the client's Range; a provider without
/// a length is left alone.
void SetBody(httplib::Response& out, const std::string& type, std::shared_ptr<Body> body,
             uint64_t length) {
    out.set_content_provider(
        type, [body](std::size_t, httplib::DataSink& sink) { return body->Write(sink); });
    out.set_header("Content-Length", std::to_string(length));
}

void SetText(httplib::Response& out, int status, const std::string& text) {
    out = httplib::Response();
    out.status = status;
    out.set_content_provider("text/plain", [text](std::size_t, httplib::DataSink& sink) {
        sink.done();
        return sink.write(text.data(), text.size());
    });
    out.set_header("Content-Length", std::to_string(text.size()));
    if (status == 503) out.set_header("Retry-After", "60");
}

}  // namespace

// ---- Cgi ----------------------------------------------------------------------------------------

void Cgi::SetConnection(int socket) { connection = socket; }

void Cgi::Route(httplib::Server& server, bool tls) {
    const auto answer = [this, tls](const httplib::Request& in, httplib::Response& out) {
        Answer(in, out, tls);
    };
    const std::string pattern = std::string(kFolder) + ".*";
    server.Get(pattern, answer);  // and HEAD
    server.Post(pattern, answer);
}

/// Many users may share an address: each is a guest of his own once his session is known.
std::string Cgi::GuestOf(const httplib::Request& in) const {
    const std::string user =
        in.has_param(kSession) ? user_of_(in.get_param_value(kSession)) : std::string();
    return user.empty() ? in.remote_addr : "user " + user;
}

/// One place for as long as the answer lives.
std::shared_ptr<void> Cgi::TakePlace(const std::string& guest) {
    const std::lock_guard lock(mutex_);
    const auto own = places_.find(guest);
    const unsigned has = own == places_.end() ? 0 : own->second;
    if (taken_ >= kAtOnce || has >= std::min(kAtOnceOfGuest, kAtOnce - taken_))
        throw Refusal(503, "too many at once");
    ++taken_;
    ++places_[guest];
    return {this, [guest](Cgi* cgi) {
                const std::lock_guard relock(cgi->mutex_);
                --cgi->taken_;
                if (--cgi->places_[guest] == 0) cgi->places_.erase(guest);
            }};
}

void Cgi::Serve(const httplib::Request& in, httplib::Response& out, bool tls) {
    const std::string name = ProgramName(in.target);
    if (name.empty() || !vel_file::Info("velcgi/" + name, false).IsFile())
        throw Refusal(404, "no such program");
    const auto environment = MakeEnvironment(in, name, tls);
    const auto place = TakePlace(GuestOf(in));
    // The place is given back when the run has ended.
    const std::shared_ptr<Run> run(new Run(name, environment, in.body, stopping_),
                                   [place](Run* ended) { delete ended; });
    std::string text;
    std::size_t body_at = 0, end = std::string::npos;
    while ((end = EndOfHead(text, body_at)) == std::string::npos) {
        if (text.size() > kMaxHead) BadProgram("a head without end");
        if (!run->Append(text)) BadProgram("the program ended without a head");
    }
    Head head = ParseHead(text.substr(0, end));
    text.erase(0, body_at);
    while (!head.length && run->Append(text))
        if (text.size() > kMaxUncounted) BadProgram("a big answer without Content-Length");
    if (in.method == "HEAD") run->Complete();
    const uint64_t length = head.length.value_or(text.size());
    out.status = head.status;
    for (const auto& [header, value] : head.others) out.set_header(header, value);
    SetBody(out, head.type, std::make_shared<Body>(run, std::move(text), length, name), length);
}

void Cgi::Answer(const httplib::Request& in, httplib::Response& out, bool tls) try {
    Serve(in, out, tls);
} catch (const Refusal& e) {
    if (e.status >= 499)
        logger.Write(4, "%s for %s: %s", ProgramName(in.target), in.remote_addr, e.what());
    SetText(out, e.status,
            e.status >= 502 ? "The program failed.\n" : std::string(e.what()) + "\n");
} catch (const std::exception& e) {
    logger.Write(3, "%s for %s: %s", ProgramName(in.target), in.remote_addr, e.what());
    SetText(out, 500, "The program failed.\n");
}

}  // namespace panel
