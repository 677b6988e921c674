#include "panel/server.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <iostream>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

#include <httplib.h>

#include "vel/res_handle.h"
#include "vel/vel_err.h"
#include "vel/vel_file.h"
#include "vel/vel_proc.h"

#include "panel/cgi.h"
#include "panel/doors.h"
#include "panel/page.h"
#include "panel/requests.h"
#include "panel/store.h"

namespace panel {
namespace {

/// Parameters of the body (and of the address); of equal names the first counts.
Parameters Collect(const httplib::Request& request) {
    Parameters parameters;
    for (const auto& [name, value] : request.params) parameters.emplace(name, value);
    return parameters;
}

void Route(httplib::Server& server, Requests& requests, Caller caller) {
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
    Cgi cgi([&requests](const std::string& session) {
        Store store;
        const auto user = requests.OpenSessions().Holder(session, store);
        return user ? user->name : "";
    });
    std::atomic<bool> failed = false;
    const SocketFile socket_file;
    Page page(requests.OpenSessions());
    auto local = LocalDoor(kSocketPath);
    cgi.Route(*local, false);
    Route(*local, requests, Caller::LocalRoot);
    std::unique_ptr<httplib::Server> tls;
    if (!options.tls_address.empty()) {
        tls = TlsDoor(options.tls_address, options.certificate, options.key);
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
