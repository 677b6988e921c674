/// How the database programs are run: credentials in files that only they can read, messages kept
/// apart from data, nothing of the service's own secrets in their environment.
#pragma once

#include <functional>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "vel/res_handle.h"
#include "vel/vel_file.h"

namespace backup2_system {

using Words = std::vector<std::string>;

/// A folder for option and password files, gone with the object.
class Secrets {
public:
    Secrets();
    /// The path of a new file (0600) with this content.
    std::string Add(const std::string& name, const std::string& content);

private:
    vel_file::TmpDir dir_;
};

/// Removes what runs that were killed left of their Secrets.
void SweepSecrets();

struct Job {
    Words program;
    std::map<std::string, std::string> environment;
    std::string input;  ///< given on standard input, or
    std::function<void(std::ostream&)>
        writer;                       ///< writes standard input while the program runs, or
    vel_file::ResHandle input_file;   ///< is standard input
    vel_file::ResHandle output_file;  ///< default: the result of Run
    bool discard_output = false;
};

/// Runs the job and gives its standard output. Throws vel_err::Error("database", what, reason)
/// with the program's own first words about it when it cannot be started, fails or is killed.
std::string Run(const std::string& what, const Job& job);

/// The program, which will read a stranger's dump, under a user id that nobody has, without any
/// capability and unable to gain one: a fault in it gives away neither root's files nor another
/// account's. It cannot read files of Secrets either; a password travels in its environment, which
/// only root and that id can read.
Words Unprivileged(const Words& program);

}  // namespace backup2_system
