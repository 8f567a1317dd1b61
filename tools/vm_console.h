// A VM's serial console on its way between qemu and the user. qemu writes
// it to its standard output, a pipe to this process, which puts it on the
// terminal or in a log file and hands each line to a watcher; with a
// terminal, what the user types goes back to qemu (the terminal in raw mode
// for the while, except that Ctrl-C still signals zxblk, which powers the
// VM down). qemu itself never touches the terminal.
#pragma once
#include <termios.h>

#include <functional>
#include <string>
#include <thread>

namespace zxblk {

class ConsoleRelay {
public:
    // `out`: where the console goes (a terminal, a log file); `typed`: the
    // descriptor read for the VM's input, -1 for none.
    ConsoleRelay(int out, int typed);
    // Stops the relay and puts the terminal back as it was.
    ~ConsoleRelay();
    ConsoleRelay(const ConsoleRelay&) = delete;
    ConsoleRelay& operator=(const ConsoleRelay&) = delete;

    // For qemu's child process: its standard input and output.
    int childInput() const { return m_toQemu[0]; }
    int childOutput() const { return m_fromQemu[1]; }
    // Called on the relay's thread with each line of the console (without
    // its line end), and with an unfinished last line (a prompt) as it
    // stands after each read, so perhaps more than once; set before start().
    void watch(std::function<void(const std::string&)> watcher) { m_watcher = std::move(watcher); }
    // Once qemu runs: closes the child's ends here and relays until qemu
    // closes its output.
    void start();
    // Waits until qemu's output has ended (qemu has exited) and stops.
    void finish();

private:
    void run();
    void restoreTerminal();

    int m_out, m_typed;
    int m_toQemu[2] = {-1, -1}, m_fromQemu[2] = {-1, -1}, m_wake[2] = {-1, -1};
    std::function<void(const std::string&)> m_watcher;
    std::thread m_thread;
    bool m_rawTerminal = false;
    termios m_saved{};
};

}  // namespace zxblk
