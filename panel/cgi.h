/// Runs the programs of velcgi/ for those who name one: /velcgi/NAME, the interface is CGI/1.1.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace httplib {
class Server;
struct Request;
struct Response;
}  // namespace httplib

namespace panel {

/// A program runs as root, in the install root, and knows nothing but the request: the variables of
/// CGI/1.1 (of the headers only Range and If-Range), VEL_ROOT, a fixed PATH, what the administrator
/// set for all programs (VEL_LOG_LEVEL, BACKUP2_CA_FILE); a body of at most 64 KiB on its standard
/// input. Its CPU time, memory and descriptors are limited. It ends when it was silent for five
/// minutes (VEL_CGI_WAIT: other seconds), after a day, when its client goes, and when the panel
/// does.
///
/// It must answer with a head of at most 8 KiB that holds a Content-Type and no header that the
/// panel does not know. With a Content-Length so many bytes pass as they come; when there are less,
/// the connection is cut. Without one the body is collected and must be smaller than 1 MiB.
/// Anything else makes the answer a 502. No request's address is logged: it may hold a session.
///
/// 32 run at once, of them four of a user (who is known by the parameter "auth", a session of the
/// panel's protocol), or of an address that brings none. Nobody gets another while he has as many
/// as are free. Who gets none is answered 503.
class Cgi {
public:
    /// `user_of`: whose session that is, "" for none.
    explicit Cgi(std::function<std::string(const std::string& session)> user_of)
        : user_of_(std::move(user_of)) {}
    /// GET, HEAD and POST of /velcgi/... at this door. Before any other route of POST.
    void Route(httplib::Server& server, bool tls);
    /// From now on nothing is waited for: doors that close do not have to wait for programs.
    void Stop() { stopping_ = true; }

    /// The connection that the calling thread serves: its programs end when that does.
    static void SetConnection(int socket);

private:
    std::string GuestOf(const httplib::Request& in) const;
    std::shared_ptr<void> TakePlace(const std::string& guest);
    void Answer(const httplib::Request& in, httplib::Response& out, bool tls);
    void Serve(const httplib::Request& in, httplib::Response& out, bool tls);

    const std::function<std::string(const std::string&)> user_of_;
    std::atomic<bool> stopping_ = false;
    std::mutex mutex_;
    std::map<std::string, unsigned> places_;  // taken, by guest
    unsigned taken_ = 0;
};

}  // namespace panel
