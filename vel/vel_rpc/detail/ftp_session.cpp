#include "vel/vel_rpc/detail/ftp_session.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <exception>

#include <curl/curl.h>

#include "vel/str.h"
#include "vel/vel_env.h"
#include "vel/vel_err.h"

namespace vel_rpc::detail {
namespace {

using Clock = std::chrono::steady_clock;

constexpr long kBufferBytes = 512 << 10;
constexpr long kUploadBufferBytes = 2 << 20;
constexpr long kOlderTls = +CURL_SSLVERSION_TLSv1_2 | +CURL_SSLVERSION_MAX_TLSv1_2;
constexpr int kMaxWaitMs = 200;
constexpr curl_off_t kSlowest = 16;  // bytes a second that count as moving
constexpr std::size_t kMaxText = 200;
constexpr std::size_t kMaxReplies = 256 << 10;  // bytes of all replies in one step
constexpr std::size_t kMaxLine = 64 << 10;      // of a listing

struct CurlFree {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

struct MultiFree {
    void operator()(CURLM* handle) const { curl_multi_cleanup(handle); }
};

CURL* NewHandle() {
    static const CURLcode ready = curl_global_init(CURL_GLOBAL_DEFAULT);
    CURL* handle = ready == CURLE_OK ? curl_easy_init() : nullptr;
    if (!handle) throw vel_err::Error("network", "ftp", "libcurl cannot be set up");
    return handle;
}

CURLM* NewMulti() {
    CURLM* handle = curl_multi_init();
    if (!handle) throw std::bad_alloc();
    return handle;
}

struct Address {
    std::string scheme, host;  // "ftp" or "ftps"; "name", "name:21", "[::1]:21"
    curl_usessl tls;
};

/// Only what names a host: everything else could turn into another part of the URL.
bool IsHost(const std::string& host) {
    if (host.find_first_of("/\\@?#%\"'<> ") != std::string::npos) return false;
    if (host.find_first_of(str::badchars::Controls()) != std::string::npos) return false;
    const std::size_t name_end = host.front() == '[' ? host.find(']') : 0;
    if (name_end == std::string::npos) return false;
    return host.find(':', name_end) == host.rfind(':') || host.find(':', name_end) == host.npos;
}

Address ReadAddress(const std::string& address) {
    Address read{"ftp", address, CURLUSESSL_TRY};
    const std::size_t mark = address.find("://");
    if (mark != std::string::npos) {
        const std::string scheme = str::Lower(address.substr(0, mark));
        read.host = address.substr(mark + 3);
        if (scheme != "ftp") read.tls = CURLUSESSL_ALL;
        if (scheme == "ftps") read.scheme = scheme;
        if (scheme != "ftp" && scheme != "ftps" && scheme != "ftpes") read.host.clear();
    }
    if (read.host.empty() || !IsHost(read.host)) {
        throw vel_err::Error("storage", "bad_address",
                             "an FTP server is host[:port], with ftp://, ftps:// or ftpes:// "
                             "before it where needed, and an IPv6 address in brackets");
    }
    return read;
}

std::string PeerAddress(curl_socket_t fd) {
    sockaddr_storage peer{};
    socklen_t size = sizeof peer;
    char text[INET6_ADDRSTRLEN] = "";
    if (::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &size) != 0) return "";
    const void* address =
        peer.ss_family == AF_INET6
            ? static_cast<const void*>(&reinterpret_cast<const sockaddr_in6&>(peer).sin6_addr)
            : &reinterpret_cast<const sockaddr_in&>(peer).sin_addr;
    return ::inet_ntop(peer.ss_family, address, text, sizeof text) ? text : "";
}

/// What libcurl calls the failure when the server has answered with a refusal.
bool IsRefusal(CURLcode code, int status) {
    if (status < 400) return false;
    switch (code) {
        case CURLE_QUOTE_ERROR:
        case CURLE_REMOTE_ACCESS_DENIED:
        case CURLE_REMOTE_FILE_NOT_FOUND:
        case CURLE_REMOTE_DISK_FULL:
        case CURLE_REMOTE_FILE_EXISTS:
        case CURLE_UPLOAD_FAILED:
        case CURLE_FTP_COULDNT_RETR_FILE:
        case CURLE_FTP_COULDNT_SET_TYPE:
        case CURLE_PARTIAL_FILE:  // the reply after the last byte
            return true;
        default:
            return false;
    }
}

/// Of a login that was refused: there are too many others just now. ProFTPD says that with 530.
bool IsForAMoment(const FtpReply& reply) {
    return reply.status < 500 || str::Lower(reply.text).find("maximum number") != std::string::npos;
}

}  // namespace

class FtpSession::State {
public:
    State(const std::string& address, const std::string& user, const std::string& password,
          int timeout);

    /// Begins a step at the path, which is encoded and ends in "/" for a folder.
    void Begin(const std::string& encoded_path);
    template <class Value>
    void Set(CURLoption option, Value value);
    void SetCommands(const std::vector<std::string>& commands);
    FtpReply Perform(const std::string& step);
    std::string FolderUrl(const std::string& folder);
    std::string Home();
    CURLcode LastCode() const { return last_code_; }

    std::string server;
    bool active = false;
    std::function<void(std::string_view)> sink;
    std::istream* source = nullptr;
    uint64_t sent = 0;

    Address address;

private:
    CURLcode Run();
    void SetSecurity();
    void SetLimits();
    std::size_t Give(char* to, std::size_t room);
    void TakeReply(std::string_view line);
    bool IsFromServer(curl_socket_t fd);
    bool Stalled(curl_off_t moved);
    [[noreturn]] void RefuseLogin(const std::string& step) const;
    [[noreturn]] void Fail(const std::string& step, CURLcode code, const FtpReply& reply);
    std::string Clean(std::string text) const;
    /// Runs a step of a C callback; what it throws is kept for Perform.
    template <class Step>
    bool Guard(const Step& step);

    static std::size_t OnRead(char* to, std::size_t size, std::size_t count, void* self);
    static std::size_t OnWrite(const char* data, std::size_t size, std::size_t count, void* self);
    static std::size_t OnReply(const char* data, std::size_t size, std::size_t count, void* self);
    static int OnProgress(void* self, curl_off_t, curl_off_t down, curl_off_t, curl_off_t up);
    static int OnSocket(void* self, curl_socket_t fd, curlsocktype purpose);

    const std::string user_, password_;
    const long timeout_;
    std::unique_ptr<curl_slist, CurlFree> commands_;
    std::string home_;
    bool other_spelling_ = false, newest_tls_ = false;
    std::exception_ptr thrown_;
    std::string login_refusal_;  // the server's words, once it has refused the login
    CURLcode last_code_ = CURLE_OK;
    std::string reply_;
    bool reply_whole_ = true;
    std::size_t reply_bytes_ = 0;
    Clock::time_point since_;
    curl_off_t moved_ = 0;
    char reason_[CURL_ERROR_SIZE] = "";
    const std::unique_ptr<CURL, CurlFree> curl_;
    const std::unique_ptr<CURLM, MultiFree> multi_;  // has the connection
};

FtpSession::State::State(const std::string& given, const std::string& user,
                         const std::string& password, int timeout)
    : address(ReadAddress(given)),
      user_(user),
      password_(password),
      timeout_(timeout),
      curl_(NewHandle()),
      multi_(NewMulti()) {
    server = (address.tls == CURLUSESSL_ALL && address.scheme == "ftp" ? "ftpes" : address.scheme) +
             "://" + address.host;
    if ((user + password).find_first_of(std::string("\r\n\0", 3)) != std::string::npos) {
        throw vel_err::Error("storage", "bad_login",
                             server + ": the login or its password holds a line end or NUL");
    }
}

template <class Value>
void FtpSession::State::Set(CURLoption option, Value value) {
    const CURLcode code = curl_easy_setopt(curl_.get(), option, value);
    if (code != CURLE_OK) throw vel_err::Error("network", server, curl_easy_strerror(code));
}

void FtpSession::State::Begin(const std::string& encoded_path) {
    curl_easy_reset(curl_.get());  // keeps the connection
    sink = nullptr;
    source = nullptr;
    sent = 0;
    thrown_ = nullptr;
    reply_.clear();
    reply_whole_ = true;
    reply_bytes_ = 0;
    reason_[0] = '\0';
    moved_ = 0;
    Set(CURLOPT_URL, (address.scheme + "://" + address.host + "/" + encoded_path).c_str());
    Set(CURLOPT_PATH_AS_IS, 1L);
    Set(CURLOPT_FTP_FILEMETHOD, static_cast<long>(CURLFTPMETHOD_NOCWD));
    SetSecurity();
    SetLimits();
    since_ = Clock::now();
}

void FtpSession::State::SetSecurity() {
    Set(CURLOPT_PROTOCOLS_STR, "ftp,ftps");
    Set(CURLOPT_PROXY, "");
    Set(CURLOPT_USERNAME, user_.c_str());
    Set(CURLOPT_PASSWORD, password_.c_str());
    // This libcurl cannot open a data connection in active mode with TLS.
    const bool without = active && address.tls == CURLUSESSL_TRY;
    Set(CURLOPT_USE_SSL, static_cast<long>(without ? CURLUSESSL_NONE : address.tls));
    Set(CURLOPT_FTPSSLAUTH, static_cast<long>(CURLFTPAUTH_TLS));
    // Servers want data connections to resume the TLS session of the control connection. With
    // TLS 1.3 libcurl does that only once.
    Set(CURLOPT_SSLVERSION, newest_tls_ ? long{CURL_SSLVERSION_TLSv1_3} : kOlderTls);
    const std::string ca = vel_env::GetEnv("BACKUP2_CA_FILE");
    if (!ca.empty()) Set(CURLOPT_CAINFO, ca.c_str());
    if (active) Set(CURLOPT_FTPPORT, "-");
    Set(CURLOPT_FTP_SKIP_PASV_IP, 1L);
    Set(CURLOPT_SOCKOPTFUNCTION, &OnSocket);
    Set(CURLOPT_SOCKOPTDATA, this);
}

void FtpSession::State::SetLimits() {
    Set(CURLOPT_NOSIGNAL, 1L);
    Set(CURLOPT_CONNECTTIMEOUT, timeout_);
    Set(CURLOPT_ACCEPTTIMEOUT_MS, timeout_ * 1000);
    Set(CURLOPT_SERVER_RESPONSE_TIMEOUT, timeout_);
    Set(CURLOPT_TCP_KEEPALIVE, 1L);  // the control connection waits while a slice travels
    Set(CURLOPT_BUFFERSIZE, kBufferBytes);
    Set(CURLOPT_UPLOAD_BUFFERSIZE, kUploadBufferBytes);
    Set(CURLOPT_ERRORBUFFER, static_cast<char*>(reason_));
    Set(CURLOPT_NOPROGRESS, 0L);
    Set(CURLOPT_XFERINFOFUNCTION, &OnProgress);
    Set(CURLOPT_XFERINFODATA, this);
    Set(CURLOPT_READFUNCTION, &OnRead);
    Set(CURLOPT_READDATA, this);
    Set(CURLOPT_WRITEFUNCTION, &OnWrite);
    Set(CURLOPT_WRITEDATA, this);
    Set(CURLOPT_HEADERFUNCTION, &OnReply);
    Set(CURLOPT_HEADERDATA, this);
}

void FtpSession::State::SetCommands(const std::vector<std::string>& commands) {
    commands_.reset();
    for (const std::string& command : commands) {
        curl_slist* list = curl_slist_append(commands_.get(), command.c_str());
        if (!list) throw std::bad_alloc();
        commands_.release();
        commands_.reset(list);
    }
    Set(CURLOPT_QUOTE, commands_.get());
}

/// libcurl leaves out the way to a folder that it believes to be in, also when that was removed
/// meanwhile; so the same folder is spelled differently from one time to the next.
std::string FtpSession::State::FolderUrl(const std::string& folder) {
    other_spelling_ = !other_spelling_;
    return str::url::Encode(folder) + (other_spelling_ ? "/" : "//");
}

std::string FtpSession::State::Home() {
    if (home_.empty()) {
        Begin("%2F");
        Set(CURLOPT_NOBODY, 1L);
        Perform("log in");
        const char* path = nullptr;
        curl_easy_getinfo(curl_.get(), CURLINFO_FTP_ENTRY_PATH, &path);
        if (!path || *path != '/') {
            throw vel_err::Error("storage", "refused",
                                 server +
                                     ": the server does not tell the login's own folder; "
                                     "give the storage an absolute path");
        }
        home_ = path;
    }
    return home_;
}

/// What curl_easy_perform does, but when a reply has come faster than libcurl expects, it waits
/// without a descriptor: a second there, and here a moment.
CURLcode FtpSession::State::Run() {
    CURLMcode code = curl_multi_add_handle(multi_.get(), curl_.get());
    int running = 1, ready = 0;
    for (int wait_ms = 1; code == CURLM_OK && running > 0;) {
        code = curl_multi_perform(multi_.get(), &running);
        if (code != CURLM_OK || running == 0) break;
        code = curl_multi_poll(multi_.get(), nullptr, 0, wait_ms, &ready);
        wait_ms = ready > 0 ? 1 : std::min(2 * wait_ms, kMaxWaitMs);
    }
    int left = 0;
    const CURLMsg* const done = curl_multi_info_read(multi_.get(), &left);
    const CURLcode result = done && code == CURLM_OK ? done->data.result : CURLE_FAILED_INIT;
    curl_multi_remove_handle(multi_.get(), curl_.get());
    return result;
}

FtpReply FtpSession::State::Perform(const std::string& step) {
    // Servers count refused logins, and shut out the address of who repeats them.
    if (!login_refusal_.empty()) RefuseLogin(step);
    CURLcode code = Run();
    if (code == CURLE_SSL_CONNECT_ERROR && !newest_tls_ && sent == 0) {
        newest_tls_ = true;
        SetSecurity();
        code = Run();
    }
    last_code_ = code;
    if (thrown_) std::rethrow_exception(thrown_);
    long status = 0;
    curl_easy_getinfo(curl_.get(), CURLINFO_RESPONSE_CODE, &status);
    FtpReply reply{code == CURLE_OK, static_cast<int>(status), Clean(reply_)};
    if (code != CURLE_OK && !IsRefusal(code, reply.status)) Fail(step, code, reply);
    return reply;
}

void FtpSession::State::RefuseLogin(const std::string& step) const {
    throw vel_err::Error("unauthorized", server, server + ": " + step + ": " + login_refusal_);
}

void FtpSession::State::Fail(const std::string& step, CURLcode code, const FtpReply& reply) {
    const std::string where = server + ": " + step + ": ";
    if (code == CURLE_LOGIN_DENIED && !IsForAMoment(reply)) {
        login_refusal_ = reply.text;
        RefuseLogin(step);
    }
    std::string why = Clean(reason_[0] ? reason_ : curl_easy_strerror(code));
    if (code == CURLE_ABORTED_BY_CALLBACK) why = "hardly a byte came or went for too long";
    if (code == CURLE_SEND_ERROR && source) {
        // libcurl does not wait for the reply that tells why.
        why = "the server broke off the data connection, as when it has no room (" + why + ")";
    }
    if (code == CURLE_USE_SSL_FAILED) why = "the server does not offer TLS: " + why;
    if (code == CURLE_PEER_FAILED_VERIFICATION) {
        why = "the server's certificate cannot be verified (" + why +
              "); add its authority to the system's, or name its file in BACKUP2_CA_FILE";
    }
    if (reply.status >= 400) why += " (" + reply.text + ")";
    throw vel_err::Error("network", server, where + why);
}

/// Servers may repeat what they were sent.
std::string FtpSession::State::Clean(std::string text) const {
    for (char& c : text) {
        if (str::badchars::Controls().find(c) != std::string::npos) c = ' ';
    }
    if (!password_.empty()) text = str::Replace(text, password_, "***");
    return str::Trim(text.substr(0, kMaxText));
}

template <class Step>
bool FtpSession::State::Guard(const Step& step) {
    const auto began = Clock::now();
    try {
        step();
    } catch (...) {
        thrown_ = std::current_exception();
    }
    since_ += Clock::now() - began;  // what the source or the sink took is not the network's time
    return !thrown_;
}

std::size_t FtpSession::State::Give(char* to, std::size_t room) {
    if (source->eof()) return 0;
    source->read(to, static_cast<std::streamsize>(room));
    const auto n = static_cast<std::size_t>(source->gcount());
    if (source->bad() || (n < room && !source->eof()))
        throw vel_err::Error("file", "read_failed", "the bytes to upload break off");
    sent += n;
    return n;
}

/// A reply is "550 text", or "550-text", any lines, "550 text".
void FtpSession::State::TakeReply(std::string_view line) {
    reply_bytes_ += line.size();
    if (reply_bytes_ > kMaxReplies)
        throw vel_err::Error("network", server, server + ": the server's reply does not end");
    if (reply_whole_) reply_.clear();
    if (reply_.size() <= kMaxText) reply_ += line;
    const auto digits = line.find_first_not_of("0123456789");
    reply_whole_ = digits == 3 && line[3] == ' ';
    if (reply_whole_) since_ = Clock::now();
}

/// In active mode anybody could connect to the port that waits for the server.
bool FtpSession::State::IsFromServer(curl_socket_t fd) {
    const char* server_address = nullptr;
    curl_easy_getinfo(curl_.get(), CURLINFO_PRIMARY_IP, &server_address);
    return Guard([&] {
        const std::string peer = PeerAddress(fd);
        if (server_address && peer == server_address) return;
        throw vel_err::Error("network", server,
                             server + ": a data connection came from " + peer + ", not from " +
                                 (server_address ? server_address : "the server"));
    });
}

bool FtpSession::State::Stalled(curl_off_t moved) {
    if (moved < moved_ || moved - moved_ >= kSlowest * timeout_) {
        since_ = Clock::now();
        moved_ = moved;
    }
    return Clock::now() - since_ >= std::chrono::seconds(timeout_);
}

std::size_t FtpSession::State::OnRead(char* to, std::size_t size, std::size_t count, void* self) {
    auto& state = *static_cast<State*>(self);
    std::size_t n = 0;
    return state.Guard([&] { n = state.Give(to, size * count); }) ? n : CURL_READFUNC_ABORT;
}

std::size_t FtpSession::State::OnWrite(const char* data, std::size_t size, std::size_t count,
                                       void* self) {
    auto& state = *static_cast<State*>(self);
    const std::string_view bytes(data, size * count);
    const bool taken = state.Guard([&] {
        if (state.sink) state.sink(bytes);
    });
    return taken ? bytes.size() : 0;
}

std::size_t FtpSession::State::OnReply(const char* data, std::size_t size, std::size_t count,
                                       void* self) {
    auto& state = *static_cast<State*>(self);
    const std::string_view line(data, size * count);
    return state.Guard([&] { state.TakeReply(line); }) ? line.size() : 0;
}

int FtpSession::State::OnProgress(void* self, curl_off_t, curl_off_t down, curl_off_t,
                                  curl_off_t up) {
    return static_cast<State*>(self)->Stalled(down + up) ? 1 : 0;
}

int FtpSession::State::OnSocket(void* self, curl_socket_t fd, curlsocktype purpose) {
    const bool welcome =
        purpose != CURLSOCKTYPE_ACCEPT || static_cast<State*>(self)->IsFromServer(fd);
    return welcome ? CURL_SOCKOPT_OK : CURL_SOCKOPT_ERROR;
}

FtpSession::FtpSession(const std::string& address, const std::string& user,
                       const std::string& password, int timeout)
    : state_(std::make_unique<State>(address, user, password, timeout)) {}

FtpSession::~FtpSession() = default;

void FtpSession::SetActive(bool active) {
    if (active && state_->address.tls == CURLUSESSL_ALL) {
        throw vel_err::Error("storage", "refused",
                             Server() + ": active mode cannot be used with TLS; use passive mode");
    }
    state_->active = active;
}

const std::string& FtpSession::Server() const { return state_->server; }

std::string FtpSession::Home() { return state_->Home(); }

FtpReply FtpSession::Command(const std::string& step, const std::vector<std::string>& commands) {
    state_->Begin("%2F");
    state_->Set(CURLOPT_NOBODY, 1L);
    state_->SetCommands(commands);
    return state_->Perform(step);
}

FtpReply FtpSession::Enter(const std::string& step, const std::string& folder) {
    state_->Begin(state_->FolderUrl(folder));
    state_->Set(CURLOPT_FTP_FILEMETHOD, static_cast<long>(CURLFTPMETHOD_SINGLECWD));
    state_->Set(CURLOPT_NOBODY, 1L);
    return state_->Perform(step);
}

FtpReply FtpSession::List(const std::string& step, const std::string& folder,
                          const std::string& command,
                          const std::function<void(std::string_view)>& take_line, bool& entered) {
    state_->Begin(state_->FolderUrl(folder));
    state_->Set(CURLOPT_FTP_FILEMETHOD, static_cast<long>(CURLFTPMETHOD_SINGLECWD));
    state_->Set(CURLOPT_CUSTOMREQUEST, command.c_str());
    std::string line;
    const auto end_line = [&] {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        take_line(line);
        line.clear();
    };
    state_->sink = [&](std::string_view bytes) {
        for (std::size_t end; (end = bytes.find('\n')) != bytes.npos;
             bytes.remove_prefix(end + 1)) {
            line += bytes.substr(0, end);
            end_line();
        }
        line += bytes;
        if (line.size() > kMaxLine)
            throw vel_err::Error("storage", "refused",
                                 Server() + ": " + step + ": an endless line");
    };
    const FtpReply reply = state_->Perform(step);
    if (!line.empty()) end_line();
    entered = state_->LastCode() != CURLE_REMOTE_ACCESS_DENIED;
    return reply;
}

FtpReply FtpSession::Receive(const std::string& step, const std::string& path, std::ostream& out) {
    state_->Begin(str::url::Encode(path));
    state_->sink = [&](std::string_view bytes) {
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        if (!out) throw vel_err::Error("storage", "sink", "the received data cannot be written");
    };
    return state_->Perform(step);
}

FtpReply FtpSession::Send(const std::string& step, const std::string& path, std::istream& in,
                          const std::vector<std::string>& before, uint64_t& sent) {
    state_->Begin(str::url::Encode(path));
    state_->Set(CURLOPT_UPLOAD, 1L);
    state_->SetCommands(before);
    state_->source = &in;
    const FtpReply reply = state_->Perform(step);
    sent = state_->sent;
    return reply;
}

}  // namespace vel_rpc::detail
