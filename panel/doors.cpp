#include "panel/doors.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include <httplib.h>
#include <netdb.h>

#include "vel/res_handle.h"
#include "vel/str.h"
#include "vel/vel_err.h"
#include "vel/vel_log.h"

#include "panel/cgi.h"

namespace panel {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

const vel_log::Module logger("panel");

constexpr int kAnyPort = 1;    // the library wants a port even for a unix socket
constexpr int kThreads = 256;  // a download holds one as long as it lasts
constexpr int kRequestsOfConnection = 5;
// A request has to come whole, whatever comes of it meanwhile.
constexpr seconds kHandshakeTime{10}, kRequestTime{15}, kIdleTime{5}, kWriteTime{60};
constexpr std::size_t kMaxHead = 64 << 10, kMaxReceived = 1 << 20;  // of a request, a connection
constexpr int kMostBody = 64 << 10;
constexpr milliseconds kLookAround{250};  // how soon a door that closes is noticed

// ---- The head of a request ----------------------------------------------------------------------

/// A number that the library can read and that lies behind every end when the one given does; ""
/// for what is none.
std::string Capped(const std::string& digits) {
    constexpr std::size_t kMostDigits = 18;
    if (digits.find_first_not_of("0123456789") != std::string::npos) return "";
    const std::size_t first = std::min(digits.find_first_not_of('0'), digits.size());
    const std::string number = digits.substr(first);
    if (number.size() > kMostDigits) return std::string(kMostDigits, '9');
    return number.empty() && !digits.empty() ? "0" : number;
}

/// One range of bytes, or "" for what has to be ignored, and for several ranges, which may be.
std::string UsableRange(const std::string& header) {
    std::string last = str::Trim(header);
    if (str::Lower(str::GetWord(last, '=')) != "bytes" || last.find('-') == std::string::npos)
        return "";
    std::string first = str::GetWord(last, '-');
    const std::string from = Capped(first), to = Capped(last);
    if ((from.empty() && !first.empty()) || (to.empty() && !last.empty())) return "";
    if (from.empty() && to.empty()) return "";
    const bool backwards = !from.empty() && !to.empty() && str::Int64(to) < str::Int64(from);
    return backwards ? "" : "bytes=" + from + "-" + to;
}

/// The library answers 416 to every Range that it does not understand; such a header counts for
/// nothing, as do two of them.
std::string WithUsableRange(std::string head) {
    std::string kept, range;
    int ranges = 0;
    while (head.size() > 2) {
        std::string line = str::GetWord(head, '\n');
        std::string value = line;
        if (str::Lower(str::GetWord(value, ':')) != "range") {
            kept += line + "\n";
        } else if (++ranges == 1) {
            range = UsableRange(value);
        }
    }
    if (ranges == 1 && !range.empty()) kept += "Range: " + range + "\r\n";
    return kept + head;
}

// ---- Connections --------------------------------------------------------------------------------

struct Peer {
    std::string ip;
    int port = 0;
};

Peer PeerOf(const sockaddr_storage& address, socklen_t size) {
    char ip[NI_MAXHOST] = "", port[NI_MAXSERV] = "";
    ::getnameinfo(reinterpret_cast<const sockaddr*>(&address), size, ip, sizeof ip, port,
                  sizeof port, NI_NUMERICHOST | NI_NUMERICSERV);
    return {ip, str::Int(port)};
}

/// What the library reads from and writes to. Heads are read ahead; after the last byte of a head
/// comes what the client sends next.
class Connection : public httplib::Stream {
public:
    Connection(int fd, const std::atomic<socket_t>& door) : fd_(fd), door_(door) {}

    /// False when no request came whole and in time. Its body has to come by the same time.
    bool ReadHead() {
        const bool idle = std::exchange(used_, true) && ahead_.empty();
        until_ = Clock::now() + (idle ? kIdleTime : kRequestTime);
        std::size_t end;
        while ((end = ahead_.find("\n\r\n")) == std::string::npos) {
            const bool first = ahead_.empty();
            char block[4096];
            const ssize_t got = ahead_.size() < kMaxHead ? Receive(block, sizeof block) : -1;
            if (got <= 0) return false;
            ahead_.append(block, static_cast<std::size_t>(got));
            if (first) until_ = Clock::now() + kRequestTime;
        }
        const std::string body = ahead_.substr(end + 3);
        ahead_ = WithUsableRange(ahead_.substr(0, end + 3)) + body;
        return true;
    }

    bool is_readable() const override { return !ahead_.empty() || Wait(POLLIN, until_); }
    bool is_writable() const override { return Wait(POLLOUT, Clock::now() + kWriteTime); }
    ssize_t read(char* bytes, std::size_t size) override {
        if (ahead_.empty()) return Receive(bytes, size);
        size = std::min(size, ahead_.size());
        ahead_.copy(bytes, size);
        ahead_.erase(0, size);
        return static_cast<ssize_t>(size);
    }
    socket_t socket() const override { return fd_; }

protected:
    /// Gives up at `until`, and when the door closes.
    bool Wait(short events, Clock::time_point until) const {
        while (door_ != INVALID_SOCKET) {
            const auto left = std::chrono::ceil<milliseconds>(until - Clock::now());
            if (left <= milliseconds(0)) return false;
            pollfd poll{fd_, events, 0};
            const int ready =
                ::poll(&poll, 1, static_cast<int>(std::min(left, kLookAround).count()));
            if (ready > 0) return true;
            if (ready < 0 && errno != EINTR) return false;
        }
        return false;
    }
    /// 0 at the end, -1 on failure and after `until`.
    virtual ssize_t ReceiveSome(char* bytes, std::size_t size, Clock::time_point until) = 0;

private:
    ssize_t Receive(char* bytes, std::size_t size) {
        const ssize_t got = ReceiveSome(bytes, size, until_);
        if (got > 0) received_ += static_cast<std::size_t>(got);
        return received_ > kMaxReceived ? -1 : got;
    }

    const int fd_;
    const std::atomic<socket_t>& door_;
    std::string ahead_;
    bool used_ = false;
    Clock::time_point until_;
    std::size_t received_ = 0;
};

class LocalConnection final : public Connection {
public:
    using Connection::Connection;
    using Connection::write;
    ssize_t write(const char* bytes, std::size_t size) override {
        return is_writable() ? ::send(socket(), bytes, size, MSG_NOSIGNAL) : -1;
    }
    void get_remote_ip_and_port(std::string& ip, int& port) const override {
        ip = "local";
        port = 0;
    }
    void get_local_ip_and_port(std::string& ip, int& port) const override {
        get_remote_ip_and_port(ip, port);
    }

private:
    ssize_t ReceiveSome(char* bytes, std::size_t size, Clock::time_point until) override {
        return Wait(POLLIN, until) ? ::recv(socket(), bytes, size, 0) : -1;
    }
};

class TlsConnection final : public Connection {
public:
    using Connection::write;
    TlsConnection(int fd, const std::atomic<socket_t>& door, SSL_CTX* context)
        : Connection(fd, door), ssl_(::SSL_new(context), &::SSL_free) {
        ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
        if (!ssl_ || ::SSL_set_fd(ssl_.get(), fd) != 1) throw vel_err::Error("panel", "tls", "");
    }
    bool ShakeHands() {
        const auto until = Clock::now() + kHandshakeTime;
        return Repeat([this] { return ::SSL_accept(ssl_.get()); }, [until] { return until; }) > 0;
    }
    /// Tells the client that nothing is missing.
    void End() { ::SSL_shutdown(ssl_.get()); }

    ssize_t write(const char* bytes, std::size_t size) override {
        const int part = static_cast<int>(std::min<std::size_t>(size, 1 << 20));
        return Repeat([&] { return ::SSL_write(ssl_.get(), bytes, part); },
                      [] { return Clock::now() + kWriteTime; });
    }
    void get_remote_ip_and_port(std::string& ip, int& port) const override {
        Tell(&::getpeername, ip, port);
    }
    void get_local_ip_and_port(std::string& ip, int& port) const override {
        Tell(&::getsockname, ip, port);
    }

private:
    ssize_t ReceiveSome(char* bytes, std::size_t size, Clock::time_point until) override {
        const int part = static_cast<int>(std::min<std::size_t>(size, 1 << 20));
        return Repeat([&] { return ::SSL_read(ssl_.get(), bytes, part); },
                      [until] { return until; });
    }
    /// Calls again what has to wait for the client, at most until then each time.
    template <typename Call, typename Until>
    int Repeat(const Call& call, const Until& until) {
        for (;;) {
            ::ERR_clear_error();  // of what another connection of this thread left
            const int done = call();
            if (done > 0) return done;
            const int why = ::SSL_get_error(ssl_.get(), done);
            if (why != SSL_ERROR_WANT_READ && why != SSL_ERROR_WANT_WRITE) return -1;
            if (!Wait(why == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT, until())) return -1;
        }
    }
    template <typename Ask>
    void Tell(const Ask& ask, std::string& ip, int& port) const {
        sockaddr_storage address{};
        socklen_t size = sizeof address;
        if (ask(socket(), reinterpret_cast<sockaddr*>(&address), &size) != 0) return;
        const Peer peer = PeerOf(address, size);
        ip = peer.ip;
        port = peer.port;
    }

    std::unique_ptr<SSL, decltype(&::SSL_free)> ssl_;
};

// ---- Who gets a thread --------------------------------------------------------------------------

/// Counts the connections of each address.
class Guests {
public:
    /// Null when this address holds as many as are free; else counted until it is dropped.
    std::shared_ptr<void> Enter(const std::string& address) {
        const std::lock_guard lock(mutex_);
        const auto own = counts_.find(address);
        if (own != counts_.end() && own->second >= kThreads - all_) return nullptr;
        ++all_;
        ++counts_[address];
        return {this, [address](Guests* guests) { guests->Leave(address); }};
    }

private:
    void Leave(const std::string& address) {
        const std::lock_guard lock(mutex_);
        --all_;
        if (--counts_[address] == 0) counts_.erase(address);
    }

    std::mutex mutex_;
    std::map<std::string, int> counts_;
    int all_ = 0;
};

/// Of IPv6 the network: who has one address there has them all.
std::string GuestOf(int fd) {
    sockaddr_storage address{};
    socklen_t size = sizeof address;
    if (::getpeername(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) return "";
    auto* six = reinterpret_cast<sockaddr_in6*>(&address);
    if (address.ss_family == AF_INET6 && !IN6_IS_ADDR_V4MAPPED(&six->sin6_addr))
        std::memset(six->sin6_addr.s6_addr + 8, 0, 8);
    return PeerOf(address, size).ip;
}

bool PeerIsRoot(int fd) {
    ucred peer{};
    socklen_t size = sizeof(peer);
    return ::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.uid == 0;
}

/// Programs cut their answers themselves, and nothing else is asked for in parts.
void TakeRangesAway(httplib::Request& request) { request.ranges.clear(); }

/// False when the library leaves the body unread, or may take another length than somebody before
/// it did: what comes behind such a request must not count as the next one.
bool BodyIsRead(const httplib::Request& request) {
    if (request.has_header("Transfer-Encoding") || request.has_header("Content-Encoding"))
        return false;
    if (!request.has_header("Content-Length")) return true;
    const std::string length = request.get_header_value("Content-Length");
    const bool number = !length.empty() && length.size() < 10 &&
                        length.find_first_not_of("0123456789") == std::string::npos;
    return number && request.get_header_value_count("Content-Length") == 1 &&
           (length == "0" || (request.method == "POST" && str::Int(length) <= kMostBody));
}

// ---- The servers --------------------------------------------------------------------------------

class LocalServer final : public httplib::Server {
public:
    /// The library lets five clients wait; on a unix socket the next one is refused at once.
    bool LetManyWait() { return ::listen(svr_sock_, SOMAXCONN) == 0; }

private:
    /// The socket's mode keeps others out already, the kernel's word about the peer holds even if
    /// somebody loosens it.
    bool process_and_close_socket(socket_t socket) override {
        const vel_file::ResHandle fd(socket);
        if (!PeerIsRoot(fd)) {
            logger.Write(4, "Refused a connection that is not root's");
            return false;
        }
        Cgi::SetConnection(fd);
        LocalConnection connection(fd, open_);
        bool closed = false;
        const bool done =
            connection.ReadHead() && process_request(connection, true, closed, TakeRangesAway);
        ::shutdown(fd, SHUT_RDWR);
        return done;
    }

    /// What a program of this machine has asked is answered also by a panel that ends.
    const std::atomic<socket_t> open_ = 0;
};

class TlsServer final : public httplib::Server {
public:
    TlsServer(const std::string& certificate, const std::string& key)
        : context_(::SSL_CTX_new(::TLS_server_method()), &::SSL_CTX_free) {
        usable_ =
            context_ && ::SSL_CTX_set_min_proto_version(context_.get(), TLS1_2_VERSION) == 1 &&
            ::SSL_CTX_use_certificate_chain_file(context_.get(), certificate.c_str()) == 1 &&
            ::SSL_CTX_use_PrivateKey_file(context_.get(), key.c_str(), SSL_FILETYPE_PEM) == 1 &&
            ::SSL_CTX_check_private_key(context_.get()) == 1;
        if (!usable_) return;
        ::SSL_CTX_set_options(context_.get(), SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION);
        new_task_queue = [] { return new httplib::ThreadPool(kThreads); };
        // The library would let two panels share the port, and none begin where connections of
        // another server have just ended.
        set_socket_options([](socket_t socket) {
            const int yes = 1;
            ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        });
    }
    bool is_valid() const override { return usable_; }
    bool LetManyWait() { return ::listen(svr_sock_, SOMAXCONN) == 0; }

private:
    bool process_and_close_socket(socket_t socket) override try {
        const vel_file::ResHandle fd(socket);
        const auto place = guests_.Enter(GuestOf(fd));
        if (!place) return false;
        Cgi::SetConnection(fd);
        TlsConnection connection(fd, svr_sock_, context_.get());
        const bool done = connection.ShakeHands() && Talk(connection);
        if (done) connection.End();
        ::shutdown(fd, SHUT_RDWR);
        return done;
    } catch (const std::exception& error) {
        logger.Write(4, "A connection ended: %s", error.what());
        return false;
    }
    bool Talk(TlsConnection& connection) {
        bool closed = false;
        for (int left = kRequestsOfConnection; left > 0 && !closed && connection.ReadHead();
             --left) {
            bool clean = false;  // as long as there is no request that could be read
            const auto prepare = [&clean](httplib::Request& request) {
                TakeRangesAway(request);
                clean = BodyIsRead(request);
            };
            if (!process_request(connection, left == 1, closed, prepare)) return false;
            closed |= !clean;
        }
        return true;
    }

    std::unique_ptr<SSL_CTX, decltype(&::SSL_CTX_free)> context_;
    bool usable_ = false;
    Guests guests_;
};

}  // namespace

std::unique_ptr<httplib::Server> LocalDoor(const std::string& path) {
    auto server = std::make_unique<LocalServer>();
    server->set_payload_max_length(kMostBody);
    server->set_address_family(AF_UNIX);
    if (!server->bind_to_port(path, kAnyPort)) vel_err::RaiseErrno("bind", path, errno);
    if (!server->LetManyWait()) vel_err::RaiseErrno("listen", path, errno);
    if (::chmod(path.c_str(), 0600) != 0) vel_err::RaiseErrno("chmod", path, errno);
    return server;
}

std::unique_ptr<httplib::Server> TlsDoor(const std::string& address, const std::string& certificate,
                                         const std::string& key) {
    auto server = std::make_unique<TlsServer>(certificate, key);
    if (!server->is_valid())
        throw vel_err::Error("panel", "tls", "cannot use " + certificate + " and its key");
    server->set_payload_max_length(kMostBody);
    std::string host = address;
    const std::string port = str::RGetWord(host, ":");
    if (host.size() > 2 && host.front() == '[') host = host.substr(1, host.size() - 2);
    const int number = str::Int(port);
    if (host.empty() || number < 1 || number > 65535 || !server->bind_to_port(host, number) ||
        !server->LetManyWait())
        throw vel_err::Error("panel", "tls", "cannot listen on " + address);
    return server;
}

}  // namespace panel
