/// The panel's answers: one function a request name, each from parameters to an XML document.
#pragma once

#include <map>
#include <string>

#include "panel/sessions.h"

namespace panel {

using Parameters = std::map<std::string, std::string>;

/// Who asks: root on this machine (the unix socket), or anybody (TCP).
enum class Caller { LocalRoot, Network };

class Requests {
public:
    /// The answer to the request named by the parameter "func". Never throws: what fails becomes
    /// <doc><error type= object=><value/><msg/></error></doc>. From the network only the log-in
    /// requests are answered; while the panel is locked every answer is an error of type "locked".
    std::string Answer(const Parameters& parameters, Caller caller, const std::string& address);

    /// For the page, whose downloads are sessions of this protocol.
    Sessions& OpenSessions() { return sessions_; }

private:
    Sessions sessions_;
};

}  // namespace panel
