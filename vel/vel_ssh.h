/// Host keys of the servers that this service reaches by ssh.
///
/// The library must tell ssh to take any key. Programs that call PinHostKeys put their own ssh and
/// scp before the system's, for themselves and their children: the key of the first contact is
/// recorded, and every later connection is refused to a server that shows another one.
#pragma once

#include <string>
#include <vector>

namespace vel_ssh {

/// In ssh's own format, below the install root; 0600.
constexpr char kKnownHosts[] = "var/backup2_cp.known_hosts";

/// Throws vel_err::Error("sys", ...) when the install root lacks the programs for it. A second call
/// changes nothing.
void PinHostKeys();

/// "SHA256:... (ED25519)" for each recorded key of the server, as its administrator can compare it.
/// `host` as in an address, also with "user@" and "[...]"; `port` "" is 22.
std::vector<std::string> Fingerprints(const std::string& host, const std::string& port);
/// The next contact counts as the first.
void ForgetHost(const std::string& host, const std::string& port);

}  // namespace vel_ssh
