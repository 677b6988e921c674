/// Child processes: the only place that forks.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <initializer_list>
#include <istream>
#include <memory>
#include <string>
#include <vector>

#include "vel/res_handle.h"

namespace vel_proc {

/// One word of the POSIX shell. Words of [A-Za-z0-9_@%+=:,./-] stay bare, so that the result can
/// also stand in an argument vector; "" gives ''.
std::string Escape(const std::string& text);
void Sleep(int milliseconds);

/// A pipe (1 MiB when the system allows), both ends close-on-exec.
class Pipe {
public:
    Pipe();
    vel_file::ResHandle In() const { return in_; }    ///< the read side
    vel_file::ResHandle Out() const { return out_; }  ///< the write side

private:
    vel_file::ResHandle in_, out_;
};

/// Bits of a run mode. Standard output is captured unless inherited or redirected. Standard error
/// that is not joined goes to a bounded tail, which is logged at level 6 when the child failed.
enum Mode : int {
    kInheritOutput = 0x01,  ///< the child writes to this process's standard output
    kStream = 0x02,         ///< the output is read through Out()
    kJoinErrors = 0x80      ///< standard error goes where standard output goes
};

/// One run of a program. Lazy: the child starts on the first Run, Out, Str or Result.
/// Standard input is /dev/null unless In or RedirectInTo was used. The child gets no descriptor
/// but 0, 1 and 2, default signal handlers and an empty signal mask. A program name with a "/" is
/// taken relative to the working directory, others are looked up in PATH.
/// The child gets TERM when the thread that started it ends, also by kill -9 of this process: no
/// program works on for somebody who is dead.
class Execute {
public:
    Execute();
    Execute(std::vector<std::string> argv, int mode);
    /// So that two braced literals are words, and not the ends of one shell command.
    Execute(std::initializer_list<std::string> argv, int mode)
        : Execute(std::vector<std::string>(argv), mode) {}
    Execute(const std::string& shell_command, int mode);  ///< {"/bin/sh", "-c", text}
    Execute(Execute&&) noexcept;
    Execute& operator=(Execute&&) noexcept;
    ~Execute();  ///< ends the child (TERM, then KILL) and reaps it

    Execute& SetEnv(const std::string& name, const std::string& value);
    Execute& UnsetEnv(const std::string& name);
    /// The child's RLIMIT_..., soft and hard. One that the system refuses ends the child with 127.
    Execute& SetLimit(int resource, uint64_t value);
    Execute& In(const std::string& bytes);  ///< adds to what the child will read
    Execute& CloseIn();                     ///< nothing more comes; Str and Result imply it
    /// The descriptor is copied by the call, so the caller may close its own at once; the copy goes
    /// when the child has started or could not be.
    Execute& RedirectInTo(vel_file::ResHandle fd);
    Execute& RedirectOutTo(vel_file::ResHandle fd);

    /// Both end the child (TERM, then KILL) while Str, Out or Result wait for it: so many seconds
    /// after its start, or when it has read and written less than 16 bytes a second for so long. 0:
    /// no limit.
    Execute& EndAfter(int seconds);
    Execute& EndWhenStalled(int seconds);
    bool WasEnded() const;  ///< by one of these

    /// Starts the child, gives it what its input takes without waiting, and returns: a child with a
    /// short input whose output was redirected works on by itself.
    /// Throws vel_err::Error "sys" when no process can be made.
    Execute& Run();
    /// The output while it is produced. Gives a plain end of file when the child ends, however it
    /// ended: ask Result() for the status.
    std::istream& Out();
    std::string Str();  ///< the whole captured output
    /// Drains unread output, waits, and gives the exit status: 127 the program could not be
    /// started, 128+n ended by signal n. Later calls give the same.
    int Result();
    pid_t Pid() const;  ///< -1 before Run and after the child was reaped

private:
    struct Impl;
    class OutputBuffer;
    std::unique_ptr<Impl> impl_;
};

}  // namespace vel_proc
