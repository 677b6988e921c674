/// The page's JSON interface, below /api/. Who asks is known from his cookie only; an administrator
/// may name another user. Every value is held to its grammar before it becomes an argument.
#pragma once

#include <memory>

#include "panel/sessions.h"

namespace httplib {
struct Request;
struct Response;
}  // namespace httplib

namespace panel {

class Api {
public:
    /// `protocol`: the sessions of the panel's protocol. They count failed log-ins of both doors,
    /// and a download at the page is one of them.
    explicit Api(Sessions& protocol);
    ~Api();  ///< ends the jobs that run

    /// Answers any request below /api/ with JSON. Never throws: what fails has a status of 400 and
    /// above, and the body {"error": {"code": ..., "message": ...}}.
    void Answer(const httplib::Request& request, httplib::Response& response);

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace panel
