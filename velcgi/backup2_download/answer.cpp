#include "velcgi/backup2_download/answer.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>

#include "vel/str.h"
#include "vel/stream.h"
#include "vel/vel_err.h"

#include "backup_common/backup2_misc.h"

namespace backup2_download {
namespace {

void WriteOut(const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t done = vel_file::WriteQuietly(STDOUT_FILENO, data, size);
        if (done < 0) vel_err::RaiseErrno("write", "the answer", errno);
        data += done;
        size -= static_cast<std::size_t>(done);
    }
}

const char* Words(const std::string& word) {
    static const std::map<std::string, const char*> kWords = {
        {"request", "The request is not understood."},
        {"auth", "The session has ended. Log in and start the download again."},
        {"missed", "There is no complete backup to download."},
        {"part", "The backup has no such part."},
        {"locked", "The panel is locked just now. Try again later."},
        {"backup2_invalid_password", "The backup was made with another password than is set now."},
    };
    const auto found = kWords.find(word);
    return found == kWords.end() ? "The download could not be created." : found->second;
}

}  // namespace

void Answer::Promise(int status, const std::map<std::string, std::string>& headers) {
    head_ = "Status: " + std::to_string(status) + "\n";
    for (const auto& [name, value] : headers) head_ += name + ": " + value + "\n";
    head_ += "Cache-Control: no-store\nReferrer-Policy: no-referrer\n";
    head_ += "X-Content-Type-Options: nosniff\n\n";
}

void Answer::Begin() {
    if (begun_) return;
    begun_ = true;
    WriteOut(head_.data(), head_.size());
}

void Answer::Write(const char* data, std::size_t size) {
    Begin();
    if (body_) WriteOut(data, size);
}

void Answer::Send(int status, const std::string& type, const std::string& text) {
    Promise(status, {{"Content-Type", type},
                     {"Content-Length", std::to_string(text.size())},
                     {"Content-Security-Policy", "default-src 'none'"}});
    Write(text.data(), text.size());
}

void Answer::SendError(int status, const std::string& word, const std::string& what) {
    std::string query;
    for (const auto& [name, value] : backup2::FillDownloadError(what))
        str::Append(query, str::url::Encode(name) + "=" + str::url::Encode(value), "&amp;");
    Send(status, "text/html; charset=utf-8",
         std::string("<!doctype html><html lang=\"en\"><title>Download</title><p>") + Words(word) +
             "</p><p><a href=\"/?" + query + "\">Back to the panel</a></p></html>\n");
}

}  // namespace backup2_download
