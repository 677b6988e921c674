/// Access to clouds that outlives a process.
#pragma once

#include <string>

namespace vel_rpc {

/// From now on this process keeps what providers gave in exchange for a credential in a folder
/// (0700, made when needed; files 0600), and begins with it the next time it is given the same
/// credential. Some providers end a refresh token with its first use: without this the next process
/// would be locked out. Processes that use the same folder renew one after the other. "": nothing
/// is kept, as at the start.
void KeepTokensIn(const std::string& folder);

}  // namespace vel_rpc
