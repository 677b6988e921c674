#include "panel/server.h"

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

#include <httplib.h>
#include <netdb.h>

#include "vel/res_handle.h"
#include "vel/str.h"
#include "vel/vel_err.h"
#include "vel/vel_file.h"
#include "vel/vel_log.h"
#include "vel/vel_proc.h"

#include "panel/cgi.h"
#include "panel/page.h"
#include "panel/requests.h"

namespace panel {
namespace {

const vel_log::Module logger("panel");

constexpr int kIoTimeoutMs = 10000;
constexpr int kAnyPort = 1;      // the library wants a port even for a unix socket
constexpr int kTlsThreads = 64;  // a download holds one as long as it lasts
constexpr int kTlsThreadsOfAddress = 48;
constexpr std::size_t kMaxReceived = 1 << 20;  // over one connection, which serves five requests
constexpr int kTlsWriteSeconds = 60;

bool PeerIsRoot(int fd) {
    ucred peer{};
    socklen_t size = sizeof(peer);
    return ::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.uid == 0;
}

/// The library's own stream class is not public; this is what it needs of one connection.
class SocketStream final : public httplib::Stream {
public:
    explicit SocketStream(int fd) : fd_(fd) {}
    bool is_readable() const override { return Wait(POLLIN); }
    bool is_writable() const override { return Wait(POLLOUT); }
    ssize_t read(char* bytes, std::size_t size) override {
        return is_readable() ? ::recv(fd_, bytes, size, 0) : -1;
    }
    ssize_t write(const char* bytes, std::size_t size) override {
        return is_writable() ? ::send(fd_, bytes, size, MSG_NOSIGNAL) : -1;
    }
    void get_remote_ip_and_port(std::string& ip, int& port) const override {
        ip = "local";
        port = 0;
    }
    void get_local_ip_and_port(std::string& ip, int& port) const override {
        get_remote_ip_and_port(ip, port);
    }
    socket_t socket() const override { return fd_; }

private:
    bool Wait(short events) const {
        pollfd poll{fd_, events, 0};
        int ready = 0;
        do ready = ::poll(&poll, 1, kIoTimeoutMs);
        while (ready < 0 && errno == EINTR);
        return ready > 0;
    }
    int fd_;
};

/// One request a connection, from root only: the socket's mode keeps others out already, the
/// kernel's word about the peer holds even if somebody loosens it.
class LocalServer final : public httplib::Server {
public:
    /// The library lets five clients wait; on a unix socket the next one is refused at once.
    bool LetManyWait() { return ::listen(svr_sock_, SOMAXCONN) == 0; }

private:
    bool process_and_close_socket(socket_t socket) override {
        const vel_file::ResHandle fd(socket);
        if (!PeerIsRoot(fd)) {
            logger.Write(4, "Refused a connection that is not root's");
            return false;
        }
        Cgi::SetConnection(fd);
        SocketStream stream(fd);
        bool closed = false;
        const bool done = process_request(stream, true, closed, [](httplib::Request&) {});
        ::shutdown(fd, SHUT_RDWR);
        return done;
    }
};

/// Parameters of the body (and of the address); of equal names the first counts.
Parameters Collect(const httplib::Request& request) {
    Parameters parameters;
    for (const auto& [name, value] : request.params) parameters.emplace(name, value);
    return parameters;
}

void Route(httplib::Server& server, Requests& requests, Caller caller) {
    server.set_payload_max_length(64 * 1024);
    // The library would unpack the one and collect the other, whatever they grow to.
    server.set_pre_routing_handler([](const httplib::Request& in, httplib::Response& out) {
        if (!in.has_header("Content-Encoding") && !in.has_header("Transfer-Encoding"))
            return httplib::Server::HandlerResponse::Unhandled;
        out.status = 415;
        out.set_header("Connection", "close");
        return httplib::Server::HandlerResponse::Handled;
    });
    server.Post(".*", [&requests, caller](const httplib::Request& in, httplib::Response& out) {
        out.set_content(requests.Answer(Collect(in), caller, in.remote_addr), "text/xml");
    });
}

bool SomebodyListens(const std::string& path) {
    const vel_file::ResHandle fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    return fd >= 0 &&
           ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

/// The socket file, from before the bind until the end; the lock beside it keeps a second panel
/// out between its look and its bind.
class SocketFile {
public:
    SocketFile() {
        vel_file::MkDir(vel_file::SplitPath(kSocketPath).dir, vel_file::Attrs(0700));
        try {
            lock_.DoLock(std::string(kSocketPath) + ".lock", true);
        } catch (const vel_err::Error& e) {
            if (e.type() == "lock") throw vel_err::Error("panel", "busy", kSocketPath);
            throw;
        }
        if (SomebodyListens(kSocketPath)) throw vel_err::Error("panel", "busy", kSocketPath);
        ::unlink(kSocketPath);  // a dead process's; when there is none, so much the better
        owned_ = true;
    }
    ~SocketFile() {
        if (owned_) ::unlink(kSocketPath);
    }
    SocketFile(const SocketFile&) = delete;
    SocketFile& operator=(const SocketFile&) = delete;

private:
    vel_file::Lock lock_;
    bool owned_ = false;
};

/// A bound server and the thread that runs it.
class Door {
public:
    Door(std::unique_ptr<httplib::Server> server, std::atomic<bool>& failed)
        : server_(std::move(server)), thread_([this, &failed] {
              if (server_->listen_after_bind()) return;
              failed = true;
              ::kill(::getpid(), SIGTERM);  // the main thread waits for nothing else
          }) {
        while (!server_->is_running() && !failed) vel_proc::Sleep(1);
    }
    ~Door() {
        server_->stop();
        thread_.join();
    }
    Door(const Door&) = delete;
    Door& operator=(const Door&) = delete;

private:
    std::unique_ptr<httplib::Server> server_;
    std::thread thread_;
};

std::unique_ptr<httplib::Server> BindLocal() {
    auto server = std::make_unique<LocalServer>();
    server->set_address_family(AF_UNIX);
    if (!server->bind_to_port(kSocketPath, kAnyPort))
        vel_err::RaiseErrno("bind", kSocketPath, errno);
    if (!server->LetManyWait()) vel_err::RaiseErrno("listen", kSocketPath, errno);
    if (::chmod(kSocketPath, 0600) != 0) vel_err::RaiseErrno("chmod", kSocketPath, errno);
    return server;
}

/// Counts the connections of each address, so that nobody keeps others out by holding all threads
/// with requests that never end; and what comes over each, as the library would keep heads, and
/// bodies in chunks, of any size.
class Guests {
public:
    /// False when the address of `fd` holds its share. What is counted is so until `ssl` is freed.
    static bool Welcome(SSL* ssl, int fd) {
        if (::SSL_get_ex_data(ssl, Place()) != nullptr) return true;  // a later handshake
        auto guest = std::make_unique<Guest>(Guest{AddressOf(fd)});
        const std::lock_guard lock(Mutex());
        int& count = Counts()[guest->address];
        if (count >= kTlsThreadsOfAddress || ::SSL_set_ex_data(ssl, Place(), guest.get()) != 1)
            return false;
        guest.release();
        ++count;
        return true;
    }
    /// False when more has come by now than all requests of a connection can need.
    static bool Receive(const SSL* ssl, std::size_t bytes) {
        auto* guest = static_cast<Guest*>(::SSL_get_ex_data(ssl, Place()));
        return guest == nullptr || (guest->received += bytes) <= kMaxReceived;
    }

private:
    struct Guest {
        std::string address;
        std::size_t received = 0;
    };
    static int Place() {
        static const int place = ::SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, &Leave);
        return place;
    }
    static std::string AddressOf(int fd) {
        sockaddr_storage peer{};
        socklen_t size = sizeof(peer);
        char text[NI_MAXHOST] = "";
        auto* address = reinterpret_cast<sockaddr*>(&peer);
        if (::getpeername(fd, address, &size) == 0)
            ::getnameinfo(address, size, text, sizeof(text), nullptr, 0, NI_NUMERICHOST);
        return text;
    }
    static void Leave(void*, void* noted, CRYPTO_EX_DATA*, int, long, void*) {
        if (noted == nullptr) return;
        const std::unique_ptr<Guest> guest(static_cast<Guest*>(noted));
        const std::lock_guard lock(Mutex());
        if (--Counts()[guest->address] == 0) Counts().erase(guest->address);
    }
    static std::mutex& Mutex() {
        static std::mutex mutex;
        return mutex;
    }
    static std::map<std::string, int>& Counts() {
        static std::map<std::string, int> counts;
        return counts;
    }
};

/// A connection is served by the thread that shakes hands with it, from then to its end.
void NoteConnection(const SSL* ssl, int where, int) {
    if ((where & SSL_CB_HANDSHAKE_START) == 0) return;
    const int fd = ::SSL_get_fd(ssl);
    Cgi::SetConnection(fd);
    if (!Guests::Welcome(const_cast<SSL*>(ssl), fd)) ::shutdown(fd, SHUT_RDWR);
}

/// Sees the head of every record: its last two bytes are the length of what follows.
void NoteRecord(int sent, int, int type, const void* bytes, std::size_t size, SSL* ssl, void*) {
    if (sent != 0 || type != SSL3_RT_HEADER || size < SSL3_RT_HEADER_LENGTH) return;
    const auto* head = static_cast<const unsigned char*>(bytes);
    const std::size_t length = std::size_t{head[3]} << 8 | head[4];
    if (!Guests::Receive(ssl, length)) ::shutdown(::SSL_get_fd(ssl), SHUT_RDWR);
}

std::unique_ptr<httplib::Server> BindTls(const ServeOptions& options) {
    auto server =
        std::make_unique<httplib::SSLServer>(options.certificate.c_str(), options.key.c_str());
    if (!server->is_valid())
        throw vel_err::Error("panel", "tls", "cannot use " + options.certificate + " and its key");
    ::SSL_CTX_set_min_proto_version(server->ssl_context(), TLS1_2_VERSION);
    ::SSL_CTX_set_info_callback(server->ssl_context(), NoteConnection);
    ::SSL_CTX_set_msg_callback(server->ssl_context(), NoteRecord);
    server->new_task_queue = [] { return new httplib::ThreadPool(kTlsThreads); };
    server->set_write_timeout(kTlsWriteSeconds);
    std::string host = options.tls_address;
    const std::string port = str::RGetWord(host, ":");
    if (host.size() > 2 && host.front() == '[') host = host.substr(1, host.size() - 2);
    const int number = str::Int(port);
    if (host.empty() || number < 1 || number > 65535 || !server->bind_to_port(host, number))
        throw vel_err::Error("panel", "tls", "cannot listen on " + options.tls_address);
    return server;
}

sigset_t BlockEndSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    ::pthread_sigmask(SIG_BLOCK, &set, nullptr);  // before any thread: they all inherit it
    return set;
}

}  // namespace

void Serve(const ServeOptions& options) {
    const sigset_t end_signals = BlockEndSignals();
    Requests requests;
    Cgi cgi;
    std::atomic<bool> failed = false;
    const SocketFile socket_file;
    Page page(requests.OpenSessions());
    auto local = BindLocal();
    cgi.Route(*local, false);
    Route(*local, requests, Caller::LocalRoot);
    std::unique_ptr<httplib::Server> tls;
    if (!options.tls_address.empty()) {
        tls = BindTls(options);
        page.Register(*tls);
        cgi.Route(*tls, true);
        Route(*tls, requests, Caller::Network);
    }
    {
        const Door local_door(std::move(local), failed);
        const auto tls_door = tls ? std::make_unique<Door>(std::move(tls), failed) : nullptr;
        std::cout << "ready" << std::endl;
        int signal = 0;
        ::sigwait(&end_signals, &signal);
        cgi.Stop();
    }
    if (failed) throw vel_err::Error("panel", "listen", "a listening socket broke");
}

}  // namespace panel
