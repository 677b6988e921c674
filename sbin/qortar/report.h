/// What went wrong with single entries while the rest went on.
#pragma once

#include <cstdint>
#include <exception>
#include <mutex>
#include <set>
#include <string>

namespace qortar {

/// The reason without the name of its class, for a line that already names the object.
std::string Reason(const std::exception& error);

/// Collects and prints failing names, "name TAB reason" (or JSON) lines on standard output, a name
/// in EncodeFileName form and once only. Safe to call from several threads.
class Report {
public:
    explicit Report(bool json) : json_(json) {}
    void Fail(const std::string& name, const std::string& reason);
    /// The same line for what is only worth a notice: it does not count as a failure.
    void Warn(const std::string& name, const std::string& reason);
    /// A line "action TAB name" of a dry run.
    void Action(const std::string& action, const std::string& name);
    uint64_t Failures() const { return failures_; }
    /// The exit status; failures are summed up by one line on standard error.
    int Finish(const std::string& what) const;

private:
    void Line(const std::string& name, const std::string& key, const std::string& reason);
    mutable std::mutex mutex_;
    bool json_;
    uint64_t failures_ = 0, warnings_ = 0;
    std::string first_;
    std::set<std::string> seen_;
};

/// One JSON object a line: names that are not UTF-8 get "?" for the wrong bytes and the exact bytes
/// as hex in a second field "<key>_hex".
void PutJsonText(std::string& line, const std::string& key, const std::string& value);

}  // namespace qortar
