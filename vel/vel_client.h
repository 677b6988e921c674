/// Clients of the panel's API: "func=..." requests, answered by XML documents.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "vel/vel_xml.h"

namespace vel_client {

/// An answer document.
class Result {
public:
    Result() = default;
    explicit Result(vel_xml::Xml xml) : xml_(std::move(xml)) {}
    std::string value(const std::string& name) const;  ///< text of the first /doc/<name>, else ""
    operator vel_xml::Xml() const { return xml_; }     // NOLINT: an answer is a document
    vel_xml::XmlNode GetRoot() const { return xml_.GetRoot(); }
    vel_xml::XmlNode GetNode(const std::string& xpath) const { return xml_.GetNode(xpath); }
    vel_xml::XmlNodes GetNodes(const std::string& xpath) const { return xml_.GetNodes(xpath); }

private:
    vel_xml::Xml xml_;
};

/// The panel of this machine, over the unix socket var/run/<panel>.sock below the working
/// directory. Requests travel in the POST body, never in an URL. A panel that answers with
/// <error type= object=><value>/<msg> becomes vel_err::Error(type, object, value); one that is
/// not there (for VEL_PANEL_WAIT seconds, default 0) or does not answer within ten minutes
/// vel_err::Error("panel", "unreachable", "<panel>: <reason>"); an answer that is no document, over
/// 64 MiB or of another HTTP status than 200 vel_err::Error("panel", "bad_answer", "<panel>:
/// <reason>").
class Local {
public:
    /// `name` is what the panel sees as the caller ("backup2").
    Local(std::string panel, std::string name);
    /// True: an answer of error type "locked" is asked again every second, for VEL_LOCK_WAIT
    /// seconds at most (default 600).
    Local& WaitLocked(bool wait);
    /// The "?" of the request take the values in order, URL-encoded.
    Result Query(const std::string& request);
    Result Query(const std::string& request, const std::string& a);
    Result Query(const std::string& request, const std::string& a, const std::string& b);
    Result Query(const std::string& request, const std::string& a, const std::string& b,
                 const std::string& c);

private:
    Result Ask(std::string request, const std::vector<std::string>& values);
    std::string panel_, name_;
    bool wait_locked_ = false;
};

/// A panel anywhere, by its address (http or https; vel_rpc::TrustPanels says whose certificates
/// count). The request and its parameters travel as a form in the POST body, never in the URL.
class Remote {
public:
    explicit Remote(std::string url) : url_(std::move(url)) {}
    void AddParam(const std::string& name, const std::string& value);  ///< of equal names the last
    void ClearParams() { params_.clear(); }
    /// Gives whatever document came, also one that tells of an error and under whatever HTTP
    /// status. Throws vel_err::Error("network", host, reason) when none came within ten minutes,
    /// "storage" for one over 1 MiB, ("panel", "bad_answer", host: ...) for what is none. No error
    /// holds anything of the request or the answer.
    vel_xml::Xml Query(const std::string& request);

private:
    std::string url_;
    std::vector<std::pair<std::string, std::string>> params_;  // in the order of their coming
};

}  // namespace vel_client
