// What every zxblk subcommand shares: exit codes, sizes with units, numbers
// with ranges, progress on standard error and JSON on standard output.
#pragma once
#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdint>
#include <limits>
#include <exception>
#include <string>
#include <vector>

namespace zxblk {

// The tool's exit codes (documented in --help and the README).
enum ExitCode { kExitOk = 0, kExitFailure = 1, kExitUsage = 2 };

// A size option: a number of bytes or one with a unit (K, M, G, T, P, KiB,
// KB, ... all powers of 1024), refused outside [min, max] with the range in
// the message.
CLI::Option* addSizeOption(CLI::App* cmd, const std::string& name, uint64_t& target, const std::string& description,
                           uint64_t min = 0, uint64_t max = std::numeric_limits<uint64_t>::max());
// Parses a size as addSizeOption does; throws CLI::ValidationError.
uint64_t parseSize(const std::string& text, uint64_t min = 0, uint64_t max = std::numeric_limits<uint64_t>::max());
// Refuses what is not a plain decimal whole number ("-" first only where
// negative numbers are allowed). CLI11 converts with strtoull/strtoll, which
// take "-1" as the largest unsigned number and "010" as eight.
CLI::Validator decimalNumber(bool negativeAllowed);
// A whole-number option refused outside [min, max].
template <class T>
CLI::Option* addNumberOption(CLI::App* cmd, const std::string& name, T& target, const std::string& description, T min,
                             T max = std::numeric_limits<T>::max()) {
    return cmd->add_option(name, target, description)
        ->check(decimalNumber(std::numeric_limits<T>::is_signed))
        ->check(CLI::Range(min, max));
}

// --store: a folder, or s3://BUCKET/PREFIX. `existing`: the folder must be
// there, and is made absolute (a server or mount runs from "/"); import
// makes it, and list says itself that a folder is not a store.
CLI::Option* addStoreOption(CLI::App* cmd, std::string& target, bool existing = true);

// --allow-damaged: present a chain with a snapshot that fails the checks of
// its open, rather than refuse it.
CLI::Option* addAllowDamagedOption(CLI::App* cmd, bool& target);

// "512 bytes", "64 KiB", "1.5 GiB".
std::string humanSize(uint64_t bytes);

// -q, -v, -p: how chatty a command is.
bool quiet();
// A terminal gets progress by default; -p forces it, -q silences it.
bool progressWanted();

// A one-line progress report on standard error, redrawn at most a few times
// a second and cleared when done: "import disk.vhd: 1.2 GiB of 4.0 GiB (30%),
// 310 MiB/s". Silent unless progressWanted().
class Progress {
public:
    Progress(std::string label, uint64_t total);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    void update(uint64_t done);
    // Clears the line; later updates are ignored.
    void finish();

private:
    void draw(uint64_t done);
    std::string m_label;
    uint64_t m_total;
    bool m_enabled;
    bool m_drawn = false;
    std::chrono::steady_clock::time_point m_start, m_lastDraw;
};

// How a disk was opened, as Disk::notices() tells it (a cache dropped, and
// why), each as a line "zxblk: note: ..." on standard error.
void sayNotices(const std::vector<std::string>& notices);
// What a failure says on the command line: the error's text, with the
// option that answers it where the library could not name one (a cache
// in use is answered by --cache DIR).
std::string failureLine(const std::exception& e);

// SIGINT and SIGTERM while a command that makes files runs (export,
// import). The first only raises a flag, which the command looks at between
// steps: it stops there, its objects remove what they made as they go, and
// end() then says so and ends the process as the signal would have. A
// second signal ends it at once, as a kill would.
// One per process at a time: a signal handler has nowhere else to write.
class StopSignals {
public:
    StopSignals();
    // Puts back the handlers there were before.
    ~StopSignals();
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;
    // The signal that asked to stop, or 0.
    int received() const;
    // "SIGINT", "SIGTERM".
    std::string name() const;
    // Throws zxblk::Error once a signal asked to stop.
    void check() const;
    // Says `line` ("zxblk: " first) and dies of the signal received, so that
    // a calling shell sees it (exit status 128 + its number).
    [[noreturn]] void end(const std::string& line);
};

// A path made absolute and plain ("a/../b/" is "/cwd/b"): a server or a
// mount runs from "/".
std::string absolutePath(const std::string& path);

// The edit distance used to suggest a subcommand or option for a typo.
size_t editDistance(const std::string& a, const std::string& b);

}  // namespace zxblk
