#include "cli_util.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <vector>

#include "commands.h"
#include "zxblk/zxblk.h"

namespace zxblk {

uint64_t parseSize(const std::string& text, uint64_t min, uint64_t max) {
    // CLI11's own size transform: a number, optionally followed by a unit
    // of powers of 1024 (k, kb, kib, ... case aside).
    static const CLI::AsSizeValue units(false);
    std::string value = text;
    if (value.find_first_of("-+") != std::string::npos)
        throw CLI::ValidationError("'" + text + "' is not a size: give a whole number of bytes or one with K, M, G, T");
    std::string error;
    try {
        error = units(value);
    } catch (const CLI::ValidationError& e) {
        error = e.what();
    }
    // The transform leaves a number without a unit as it was; its own
    // conversion saturates on overflow rather than failing, so the result
    // is read strictly here.
    uint64_t n = 0;
    auto parsed = std::from_chars(value.data(), value.data() + value.size(), n);
    if (!error.empty() || value.empty() || parsed.ec != std::errc() || parsed.ptr != value.data() + value.size())
        throw CLI::ValidationError("'" + text + "' is not a size: give a whole number of bytes or one with K, M, G, T" +
                                   (error.empty() ? std::string() : " (" + error + ")"));
    if (n < min || n > max)
        throw CLI::ValidationError(text + " is out of range: give " + humanSize(min) + " to " +
                                   (max == std::numeric_limits<uint64_t>::max() ? std::string("any size") : humanSize(max)));
    return n;
}

CLI::Option* addSizeOption(CLI::App* cmd, const std::string& name, uint64_t& target, const std::string& description,
                           uint64_t min, uint64_t max) {
    auto* opt = cmd->add_option_function<std::string>(
        name, [&target, min, max](const std::string& text) { target = parseSize(text, min, max); }, description);
    opt->type_name("SIZE");
    // Checked as the command line is read, so a bad size is a usage error.
    opt->check(CLI::Validator(
        [min, max](std::string& text) {
            try {
                parseSize(text, min, max);
            } catch (const CLI::ValidationError& e) {
                return std::string(e.what());
            }
            return std::string();
        },
        ""));
    return opt;
}

CLI::Validator decimalNumber(bool negativeAllowed) {
    return CLI::Validator(
        [negativeAllowed](std::string& text) {
            std::string digits = negativeAllowed && !text.empty() && text[0] == '-' ? text.substr(1) : text;
            if (digits.empty() || digits.find_first_not_of("0123456789") != std::string::npos)
                return "'" + text + "' is not a whole number" + (negativeAllowed ? "" : " of 0 or more");
            return digits.size() > 1 && digits[0] == '0' ? "'" + text + "': give it without leading zeros" : std::string();
        },
        "");
}

CLI::Option* addAllowDamagedOption(CLI::App* cmd, bool& target) {
    return cmd->add_flag("--allow-damaged", target,
                         "present the disk even when a snapshot it reads from is missing, cut short or not the file "
                         "the catalog records (said in one line); the reads that need that snapshot fail");
}

std::string humanSize(uint64_t bytes) {
    static const char* const units[] = {"bytes", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    if (bytes < 1024) return std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
    int u = 0;
    double v = static_cast<double>(bytes);
    while (v >= 1024 && u < 6) v /= 1024, ++u;
    char text[32];
    // Whole numbers are shown whole (256 MiB), others to one place (1.5 GiB).
    if (bytes % (uint64_t(1) << (10 * u)) == 0)
        std::snprintf(text, sizeof text, "%.0f %s", v, units[u]);
    else
        std::snprintf(text, sizeof text, "%.1f %s", v, units[u]);
    return text;
}

bool quiet() { return commonOptions().verbosity < 0; }

bool progressWanted() {
    const CommonOptions& o = commonOptions();
    if (o.progress) return true;
    return !quiet() && ::isatty(2);
}

Progress::Progress(std::string label, uint64_t total)
    : m_label(std::move(label)), m_total(total), m_enabled(progressWanted()), m_start(std::chrono::steady_clock::now()) {}

Progress::~Progress() { finish(); }

void Progress::update(uint64_t done) {
    if (!m_enabled) return;
    auto now = std::chrono::steady_clock::now();
    if (m_drawn && now - m_lastDraw < std::chrono::milliseconds(200) && done < m_total) return;
    m_lastDraw = now;
    draw(done);
}

void Progress::draw(uint64_t done) {
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - m_start).count();
    std::string line = m_label + ": " + humanSize(done) + " of " + humanSize(m_total);
    if (m_total) line += " (" + std::to_string(done * 100 / m_total) + "%)";
    if (seconds > 0.5) line += ", " + humanSize(static_cast<uint64_t>(static_cast<double>(done) / seconds)) + "/s";
    // A terminal redraws one line; a log or pipe gets one line per report.
    if (::isatty(2))
        std::fprintf(stderr, "\r\033[K%s", line.c_str());
    else
        std::fprintf(stderr, "%s\n", line.c_str());
    std::fflush(stderr);
    m_drawn = true;
}

void Progress::finish() {
    if (m_enabled && m_drawn && ::isatty(2)) std::fprintf(stderr, "\r\033[K");
    m_enabled = false;
}

std::string failureLine(const std::exception& e) {
    std::string said = e.what();
    auto* error = dynamic_cast<const Error*>(&e);
    if (error && error->kind() == ErrorKind::busy && said.rfind("the extent cache ", 0) == 0) said += " (--cache DIR)";
    return said;
}

void sayNotices(const std::vector<std::string>& notices) {
    for (const std::string& notice : notices) std::fprintf(stderr, "zxblk: note: %s\n", notice.c_str());
}

namespace {

volatile sig_atomic_t g_stopSignal = 0;
struct sigaction g_previous[2];
const int kStopSignals[2] = {SIGINT, SIGTERM};

void askToStop(int signo) {
    g_stopSignal = signo;
    // A second signal is not asked again: it ends the process.
    struct sigaction plain = {};
    plain.sa_handler = SIG_DFL;
    for (int s : kStopSignals) ::sigaction(s, &plain, nullptr);
}

}  // namespace

StopSignals::StopSignals() {
    g_stopSignal = 0;
    struct sigaction ask = {};
    ask.sa_handler = askToStop;
    // The library's waits and the copies go on where a signal broke in;
    // the command looks at the flag between its steps.
    ask.sa_flags = SA_RESTART;
    sigemptyset(&ask.sa_mask);
    for (int s : kStopSignals) sigaddset(&ask.sa_mask, s);
    // Installed even where the signal was ignored (a shell starts background
    // jobs with SIGINT ignored): a stop asked for is a stop, as for mount.
    for (int i = 0; i < 2; ++i) ::sigaction(kStopSignals[i], &ask, &g_previous[i]);
}

StopSignals::~StopSignals() {
    for (int i = 0; i < 2; ++i) ::sigaction(kStopSignals[i], &g_previous[i], nullptr);
}

int StopSignals::received() const { return g_stopSignal; }

std::string StopSignals::name() const {
    return received() == SIGINT ? "SIGINT" : received() == SIGTERM ? "SIGTERM" : "signal " + std::to_string(received());
}

void StopSignals::check() const {
    if (received()) throw Error("stopped by " + name(), ErrorKind::unavailable);
}

void StopSignals::end(const std::string& line) {
    const int signo = received() ? received() : SIGTERM;
    std::fprintf(stderr, "zxblk: %s\n", line.c_str());
    std::fflush(nullptr);
    struct sigaction plain = {};
    plain.sa_handler = SIG_DFL;
    ::sigaction(signo, &plain, nullptr);
    sigset_t only;
    sigemptyset(&only);
    sigaddset(&only, signo);
    ::pthread_sigmask(SIG_UNBLOCK, &only, nullptr);
    ::raise(signo);
    // Not reached unless something blocks the signal in this thread.
    ::_exit(128 + signo);
}

std::string absolutePath(const std::string& path) {
    if (path.empty()) return path;
    std::error_code ec;
    std::string out = std::filesystem::absolute(path, ec).lexically_normal().string();
    if (ec) out = path;
    while (out.size() > 1 && out.back() == '/') out.pop_back();
    return out;
}

size_t editDistance(const std::string& a, const std::string& b) {
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            size_t next = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
            diagonal = row[j];
            row[j] = next;
        }
    }
    return row[b.size()];
}

namespace {

// What is wrong with an s3://BUCKET/PREFIX URL, or "" when nothing is: a
// bucket name as S3 allows them, checked here so that a typo is a usage
// error before anything is asked of the network.
std::string s3UrlProblem(const std::string& url) {
    std::string rest = url.substr(5);
    std::string bucket = rest.substr(0, rest.find('/'));
    if (bucket.empty()) return url + ": names no bucket (s3://BUCKET/PREFIX)";
    bool ok = bucket.size() >= 3 && bucket.size() <= 63 && bucket.find("..") == std::string::npos;
    for (char c : bucket) ok = ok && ((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' || c == '-');
    ok = ok && std::isalnum(static_cast<unsigned char>(bucket.front())) &&
         std::isalnum(static_cast<unsigned char>(bucket.back()));
    if (!ok)
        return url + ": '" + bucket +
               "' is not a valid bucket name (3 to 63 lower-case letters, digits, dots and hyphens, beginning and "
               "ending with a letter or digit)";
    for (char c : rest)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) return url + ": the prefix holds a control character";
    return std::string();
}

}  // namespace

CLI::Option* addStoreOption(CLI::App* cmd, std::string& target, bool existing) {
    auto* opt = cmd->add_option("--store", target,
                                existing ? "the store: a directory, or s3://BUCKET/PREFIX"
                                         : "the store: a directory (made if missing), or s3://BUCKET/PREFIX");
    opt->required()->type_name("DIR|s3://BUCKET/PREFIX");
    opt->transform(CLI::Validator(
        [existing](std::string& value) -> std::string {
            if (value.compare(0, 5, "s3://") == 0) return s3UrlProblem(value);
            if (!existing) return std::string();
            std::string bad = CLI::ExistingDirectory(value);
            if (!bad.empty()) return bad;
            value = absolutePath(value);
            return std::string();
        },
        ""));
    return opt;
}

}  // namespace zxblk
