/// What goes to standard output: a head, and then at most the bytes it promised.
#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace backup2_download {

class Answer {
public:
    /// `body`: false for HEAD, whose heads promise what does not come.
    explicit Answer(bool body) : body_(body) {}

    /// The head of a stream; it leaves with the first Begin or Write, so that what fails before can
    /// still be told in another answer.
    void Promise(int status, const std::map<std::string, std::string>& headers);
    void Begin();
    void Write(const char* data, std::size_t size);
    /// True when it is too late for another answer.
    bool Begun() const { return begun_; }

    /// A whole answer at once.
    void Send(int status, const std::string& type, const std::string& text);
    /// The panel's page about a failed download. `word` says why in one word; `what` is the error's
    /// own text, of which the reader learns nothing.
    void SendError(int status, const std::string& word, const std::string& what);

private:
    bool body_, begun_ = false;
    std::string head_;
};

}  // namespace backup2_download
