#pragma once

// Starting programs as a user, waiting for them, and small descriptor and pid-file helpers.
// Stateless; callable from any service thread. Everything a child needs (argument and environment vectors,
// supplementary groups, output file, user record) is prepared before fork(): between fork() and execve() the
// child makes only async-signal-safe calls and ends in _exit() on failure. It does not log: it reports its
// steps through a close-on-exec channel, and the parent logs them once the child has made its exec.

#include <filesystem>
#include <future>
#include <list>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

#include "accounts.h"
#include "events.h"

namespace Vexa::Utils {

// Starts `path` with `args` and the environment list `envs` (NAME=value entries overriding inherited ones),
// as `user` when that names a known user (else as the caller), its output to `logfile` or to the user's
// output log. Returns the child's pid once the child has made its execve (or after 2 s at most); the caller
// reaps it. Throws vexa_error("runChildProcess").
pid_t runChildProcess(const std::filesystem::path& path, const std::list<std::string>& args,
                      const std::list<std::string>& envs, const char* user, const char* logfile);

// runChildProcess, then waits for the child; false when it could not be started.
bool runChildProcessWait(const std::filesystem::path& path, const std::list<std::string>& args,
                         const std::list<std::string>& envs, const char* user, const char* logfile);

// runChildProcess in the calling thread (its exceptions reach the caller), then a task that reaps the child
// and yields its raw wait status. Keep the future: like every std::async future, its destructor waits for the
// task, i.e. for the child to end.
std::future<int> runChildProcessBack(const std::filesystem::path& path, const std::list<std::string>& args,
                                     const std::list<std::string>& envs, const char* user, const char* logfile);

// Waits for a child without time limit, resuming after signals: its raw wait status, -1 when it cannot be
// waited for.
int waitStatus(pid_t pid);

// The task that reaps a started child and yields its raw wait status.
std::future<int> waitChildBack(pid_t pid);

// A future that is ready (with -1: the status is its parent's to know) once the process behind `pidfd` has
// ended; for a process that is not our child, e.g. a session manager started by an earlier run of the daemon.
std::future<int> waitProcessEnd(pid_t pid, UniqueFd pidfd);

// Runs in a freshly forked child: drops to `user`, redirects output, execs. Never returns. Builds its vectors
// and logs its steps itself, so it is for a child that may allocate (one that forked on its own, not right
// after a fork of the multi-threaded service); runChildProcess uses the same steps without that.
[[noreturn]] void runOwnerCommand(const std::filesystem::path& path, const std::list<std::string>& args,
                                  const std::list<std::string>& envs, const UserInfo* user, const char* logfile);

// The program's standard output, one trailing newline removed. Runs it directly (never through a shell).
// Throws vexa_error("runStdoutCommand").
std::string runStdoutCommand(const std::filesystem::path& path, const std::list<std::string>& args);

// Groups, directory, gid, uid in this fixed order, then USER, LOGNAME, HOME, SHELL and TERM. True when the
// process now runs as the user (or needed no switch). A user with no supplementary groups keeps its primary
// group only, never the caller's groups. Sets the environment: for a process of its own (a forked child).
bool switchToUser(const UserInfo& user);

// Pointers into the caller's strings, which must outlive the execve: path, args..., null.
std::vector<const char*> createARGV(const char* path, const std::list<std::string>& args);
// The inherited environment minus every entry whose name is a byte prefix of some list entry, then the list,
// then null. Pointers into the process environment and into `envs`.
std::vector<const char*> createENVP(const std::list<std::string>& envs);

// Standard output and error to `file` (created 0640, truncated), or to /dev/null when it cannot be opened.
void redirectOutputsFdTo(const char* file);

// The per-user output log of a program: <home>/.vexa/<name>.log, or /tmp/.vexa_<user>/<name>.log when the
// home is not a directory; <name> is the program's file name with its extension replaced.
std::filesystem::path userOutputLog(const UserInfo& user, const std::filesystem::path& program);

// Logs a raw wait status at debug level.
void syslogWaitStatus(int status, const char* func, pid_t pid);

// Whether a socket exists at `path`.
bool isSocket(const std::filesystem::path& path);
// True as soon as a socket exists at `path`, false once more than `seconds` have passed.
bool waitSocketSec(const std::filesystem::path& path, unsigned seconds);

// Readable input within the time-out / unread bytes on the descriptor; throw vexa_error on failure.
bool hasInput(int fd, int timeoutMs);
bool hasData(int fd);

// Per-user pid files $HOME/.vexa/<name>, for programs that run as the user.
void saveSessionPidFor(std::string_view name);
bool waitSessionPidFor(std::string_view name);
void removeSessionPidFor(std::string_view name);

} // namespace Vexa::Utils

namespace Vexa {

// Rewrites argument slots 1 and 2 of the service's own argument vector (what process listings show):
// each slot is blanked and the new text copied in, cut to the slot's length.
void changeProcessArgs(std::string_view first, std::string_view second);

} // namespace Vexa
