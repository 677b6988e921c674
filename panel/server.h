/// The panel's two doors: the unix socket for root's programs, and TLS for log-ins from elsewhere.
#pragma once

#include <string>

namespace panel {

constexpr char kSocketPath[] = "var/run/qorvel.sock";

struct ServeOptions {
    std::string tls_address;  ///< ADDR:PORT or [IPV6]:PORT; "" = no TCP
    std::string certificate, key;
};

/// Answers until SIGTERM or SIGINT, then ends open requests, removes the socket and returns. Prints
/// "ready" when requests are taken. Throws vel_err::Error("panel", "busy") when a live process
/// holds the socket; a dead one's is replaced.
void Serve(const ServeOptions& options);

}  // namespace panel
