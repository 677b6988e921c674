#include "sbin/backup2/secret.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <iostream>
#include <stdexcept>

#include <termios.h>

#include "vel/res_handle.h"
#include "vel/vel_tool.h"

namespace backup2_admin {
namespace {

/// A terminal that does not show what is typed, and signals that wait until it does again.
class Silence {
public:
    Silence() {
        sigemptyset(&signals_);
        for (const int number : {SIGINT, SIGTERM, SIGQUIT, SIGHUP, SIGTSTP}) {
            sigaddset(&signals_, number);
        }
        ::pthread_sigmask(SIG_BLOCK, &signals_, &before_);
        ::tcgetattr(STDIN_FILENO, &shown_);
        termios silent = shown_;
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent);
    }
    ~Silence() {
        ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &shown_);
        std::cerr << std::endl;
        ::pthread_sigmask(SIG_SETMASK, &before_, nullptr);  // what waited comes now
    }
    Silence(const Silence&) = delete;
    Silence& operator=(const Silence&) = delete;

    /// False when a signal came first.
    bool WaitForLine() const {
        const vel_file::ResHandle arrived(::signalfd(-1, &signals_, SFD_CLOEXEC));
        pollfd ends[] = {{STDIN_FILENO, POLLIN, 0}, {int{arrived}, POLLIN, 0}};
        while (::poll(ends, 2, -1) < 0) {
        }
        return ends[1].revents == 0;
    }

private:
    sigset_t signals_{}, before_{};
    termios shown_{};
};

}  // namespace

std::string AskSecret(const std::string& what) {
    std::string line;
    bool read = true;
    if (::isatty(STDIN_FILENO) == 1) {
        std::cerr << what << ": " << std::flush;
        const Silence silence;
        read = silence.WaitForLine() && std::getline(std::cin, line);
    } else {
        read = static_cast<bool>(std::getline(std::cin, line));
    }
    if (!read) throw vel_tool::UsageError(what + " is missing on standard input");
    return line;
}

std::string AskNewSecret(const std::string& what) {
    std::string secret = AskSecret(what);
    if (::isatty(STDIN_FILENO) == 1 && AskSecret(what + ", again") != secret) {
        throw std::runtime_error("the two differ: nothing was changed");
    }
    return secret;
}

}  // namespace backup2_admin
