// nbdkit as `zxblk serve` runs it: found, started with the listening socket
// (socket activation), watched until it serves or ends, stopped, and its
// messages told in one line when it could not start.
#pragma once
#include <sys/types.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "serve_net.h"

namespace zxblk {

// nbdkit on the PATH; throws Error when there is none.
std::string findNbdkit();
// What `nbdkit --version` says after "nbdkit ": "1.32.5", or "" when it
// says nothing of the kind.
std::string nbdkitVersion();
// The plugin beside an installed zxblk, else the one of the build tree this
// zxblk comes from; ZXBLK_NBDKIT_PLUGIN names another. Throws Error.
std::string findPlugin();

// Starts nbdkit with `args`, the listening socket as descriptor 3 and its
// standard error on `stderrFd` (-1: this process's).
pid_t startNbdkit(const std::vector<std::string>& args, const Listener& listener, int stderrFd);
// SIGTERM to this process stops nbdkit, and with `interactive` SIGINT and
// SIGHUP do too.
void watchSignals(pid_t nbdkit, bool interactive = true);
// Waits until nbdkit serves (true) or has ended (false, with its status).
bool waitReady(pid_t nbdkit, const Listener& listener, int* status);
// Waits for nbdkit to end; true when it ended because it was asked to
// (a signal), which is a clean end however it went.
bool waitEnd(pid_t nbdkit, const Listener& listener, int* status);
// Asks nbdkit to stop and waits for it; it is killed when it takes too long.
void stopNbdkit(pid_t nbdkit, const Listener& listener, int* status);

std::string statusText(int status);
int exitCodeOf(int status);
// Of nbdkit's message lines, the one that says why it failed, without
// nbdkit's prefix ("nbdkit: zxblk[1]: error: "); "" when there is none.
std::string causeOf(const std::vector<std::string>& lines);

// nbdkit's standard error on its way to this process's: held back until it
// serves, so that a server that cannot start is told in one line (the cause),
// then passed on as it comes (a failed read's line, for one).
class Relay {
public:
    Relay();
    ~Relay();
    Relay(const Relay&) = delete;
    Relay& operator=(const Relay&) = delete;
    // For startNbdkit.
    int writeEnd() const { return m_fds[1]; }
    // Once nbdkit has started: reads its messages until it ends.
    void start();
    // nbdkit serves: what it said so far, and says from now on, goes out.
    void pass();
    // nbdkit has ended before it served: why.
    std::string cause();
    // The text of the last error line nbdkit wrote ("read of ... could not
    // be recalled: ..."), or "": what a client saw only as an errno.
    std::string lastError();

private:
    void run();
    void closeWriteEnd();
    int m_fds[2] = {-1, -1};
    std::thread m_thread;
    std::mutex m_mutex;
    bool m_passing = false;
    std::vector<std::string> m_held;
    std::string m_lastError;
};

}  // namespace zxblk
