/// The page for administrators and users: its files (panel/web, built into the program) and its
/// JSON interface, both on the TLS door.
#pragma once

#include "panel/api.h"

namespace httplib {
class Server;
}

namespace panel {

class Page {
public:
    explicit Page(Sessions& protocol) : api_(protocol) {}
    /// Lets the server answer "/", "/assets/..." and "/api/..."; the page must outlive it.
    void Register(httplib::Server& server);

private:
    Api api_;
};

}  // namespace panel
