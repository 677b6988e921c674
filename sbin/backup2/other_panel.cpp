#include "sbin/backup2/other_panel.h"

#include <algorithm>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>

#include "vel/str.h"
#include "vel/vel_err.h"
#include "vel/vel_log.h"
#include "vel/vel_rpc/fetch_file.h"
#include "vel/vel_tool.h"
#include "vel/vel_xml.h"

#include "backup_common/backup2_misc.h"

#include "sbin/backup2/job.h"

namespace backup2_admin {
namespace {

constexpr char kDownload[] = "/velcgi/backup2_download";
constexpr char kSchemeEnd[] = "://";
constexpr std::size_t kMaxStatus = 1024;
constexpr long kStatusSeconds = 3600;
const std::string kOk = "ok", kError = "ERR ";

/// Hears what the library logs about a refusal: it tells its caller only that there was one.
class Refusals {
public:
    Refusals() {
        vel_log::SetObserver([lines = lines_](int level, std::string_view, std::string_view text) {
            if (level <= 4) lines->emplace_back(text);
        });
    }
    Refusals(const Refusals&) = delete;
    Refusals& operator=(const Refusals&) = delete;
    ~Refusals() { vel_log::SetObserver({}); }

    bool Tell(const std::string& beginning) const {
        return std::any_of(lines_->begin(), lines_->end(), [&](const std::string& line) {
            return str::StartsWith(line, beginning);
        });
    }
    std::string Last() const { return lines_->empty() ? "" : lines_->back(); }

private:
    std::shared_ptr<std::vector<std::string>> lines_ = std::make_shared<std::vector<std::string>>();
};

/// Words for what the download there answers to the question whether it would serve it.
std::string Words(const std::string& status, const std::string& user) {
    static const std::map<std::string, std::string> kWords = {
        {"missed", "there is no complete backup of "},
        {"backup2_invalid_password",
         "the storage there has another password now than the newest backup of "},
    };
    const auto found = kWords.find(status.substr(std::min(status.size(), kError.size())));
    return found == kWords.end() ? "it says \"" + status + "\"" : found->second + user;
}

/// Which of the steps of the log-in was refused.
[[noreturn]] void ThrowRefused(const Refusals& refusals, const std::string& host,
                               const std::string& admin, const std::string& user) {
    if (refusals.Tell("Cant authorize admin"))
        throw std::runtime_error(host + ": the log-in of " + admin +
                                 " is refused: wrong name or password, or too many tries");
    throw std::runtime_error(host + ": there is no user " + user + ", or " + admin +
                             " may not act for him");
}

/// Scheme, host and port.
std::string BaseOf(std::string url) {
    const std::string scheme = str::GetWord(url, kSchemeEnd);
    return scheme + kSchemeEnd + str::GetWord(url, '/');
}

}  // namespace

void CheckPanelAddress(const std::string& url, bool insecure) {
    std::string host = url;
    const std::string scheme = str::GetWord(host, kSchemeEnd);
    host = str::GetWord(host, '/');
    const bool clean = url.find_first_of(str::badchars::Controls() + " \\@?#") == url.npos;
    if ((scheme != "https" && scheme != "http") || host.empty() || !clean)
        throw vel_tool::UsageError("'" + url + "' is no address like https://host:port");
    if (scheme == "http" && !insecure)
        throw vel_tool::UsageError("without TLS everybody could read the password: use https://");
}

OtherPanel::OtherPanel(std::string url, std::string admin, std::string password, std::string user)
    : url_(std::move(url)),
      admin_(std::move(admin)),
      password_(std::move(password)),
      user_(std::move(user)) {
    host_ = url_;
    str::GetWord(host_, kSchemeEnd);
    host_ = str::GetWord(host_, '/');
}

std::string OtherPanel::Session() const {
    const Refusals refusals;
    const std::string session = backup2::Authorize(url_, admin_, password_, user_);
    if (session.empty()) ThrowRefused(refusals, host_, admin_, user_);
    return session;
}

void OtherPanel::FetchArchive(const std::string& path) const {
    const Refusals refusals;
    try {
        if (!backup2::FetchRemoteManager(url_, admin_, password_, user_, path))
            ThrowRefused(refusals, host_, admin_, user_);
    } catch (const vel_err::Error& error) {
        if (error.object() != "fetch_failed") throw;
        throw std::runtime_error(host_ + ": the download failed: " + refusals.Last());
    }
}

/// "" for an answer that is none: of a panel that does not know the question.
std::string OtherPanel::AskStatus(const std::string& part) const {
    vel_rpc::HttpQuery query;
    query.SetMaxSize(kMaxStatus);
    query.SetTimeout(kStatusSeconds);
    query.AcceptAnyResponse();
    std::ostringstream answer;
    query.Post(BaseOf(url_) + kDownload,
               "nodownload=on&part=" + part + "&auth=" + str::url::Encode(Session()), answer);
    try {
        return vel_xml::Xml::FromStranger(answer.str()).GetNode("/doc/status").Str();
    } catch (const vel_err::Error&) {
        return "";
    }
}

bool OtherPanel::FetchPart(const std::string& part, const std::string& path) const {
    const std::string status = AskStatus(part);
    if (status.empty() || status == kError + "part" || status == kError + "request") return false;
    if (status != kOk) throw std::runtime_error(host_ + ": " + Words(status, user_));
    const std::string address = BaseOf(url_) + kDownload + "?part=" + part + "&auth=" + Session();
    const Refusals refusals;
    if (!vel_rpc::FetchFile(address, path, 0))
        throw std::runtime_error(host_ + ": the download failed: " + refusals.Last());
    return true;
}

}  // namespace backup2_admin
