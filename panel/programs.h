/// Runs the program backup2 for the page: short questions here, long work in panel/jobs.h.
#pragma once

#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace panel {

/// The command line of the program with `words` behind its name: a vector, no shell sees it.
std::vector<std::string> Backup2(const std::vector<std::string>& words);

/// Short questions to backup2, a few at a time in all and for one caller: who asks faster waits.
class Programs {
public:
    /// The standard output of "backup2 WORDS", asked for by `caller`. Throws vel_err::Error:
    /// "program" with the program's last line when it failed, "busy" when no turn came in ten
    /// seconds, "too_long" for an answer of more than 64 MiB.
    std::string Ask(const std::string& caller, const std::vector<std::string>& words);

private:
    class Turn;
    std::mutex mutex_;
    std::condition_variable freed_;
    int running_ = 0;
    std::map<std::string, int> of_caller_;
};

/// The program's last word in a text that it printed: the last line that is not empty, without the
/// name of the program and of the install root.
std::string LastWord(const std::string& output);

}  // namespace panel
