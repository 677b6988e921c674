/// The sockets that the panel listens on, as servers of the HTTP library. Both read the head of a
/// request whole before the library sees it, within a time and a size that are the door's; bodies
/// may have 64 KiB.
#pragma once

#include <memory>
#include <string>

namespace httplib {
class Server;
}

namespace panel {

/// The unix socket at `path`, mode 0600: one request a connection, from root only. The caller has
/// seen to it that nothing is there. Throws vel_err::Error "sys" when it cannot be made.
std::unique_ptr<httplib::Server> LocalDoor(const std::string& path);

/// TLS 1.2 and newer at ADDR:PORT or [IPV6]:PORT, with a certificate and its key (PEM files).
/// An address (of IPv6 a network of 64 bits) gets a thread only while more are free than it holds
/// already: whoever holds many leaves as many to others. Throws vel_err::Error("panel", "tls", ...)
/// when it cannot be opened.
std::unique_ptr<httplib::Server> TlsDoor(const std::string& address, const std::string& certificate,
                                         const std::string& key);

}  // namespace panel
