// The nbdkit plugin before it serves, driven as nbdkit drives it: loaded,
// configured, get_ready, after_fork, cleanup. Between get_ready and
// after_fork nbdkit may fork into the background, and it closes stdin and
// stdout and reopens /dev/null in their place, sure that it runs alone and
// gets the two lowest descriptors: nothing of the plugin may run or hold a
// file then. Nor may a thread of the plugin outlive cleanup or an after_fork
// that fails, into nbdkit's exit, and a connection that nbdkit starts after
// cleanup is refused, quietly. Each case runs in a process of its own,
// as the plugin keeps its configuration for the life of the process.
#define NBDKIT_API_VERSION 2
#include <dirent.h>
#include <dlfcn.h>
#include <nbdkit-plugin.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/vhd_writer.h"

namespace {
std::string g_lastError;
}

// What nbdkit gives a plugin, as much as this one asks for before it serves.
extern "C" {
void nbdkit_error(const char* fmt, ...) {
    char text[1024];
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(text, sizeof text, fmt, args);
    va_end(args);
    g_lastError = text;
}
void nbdkit_debug(const char*, ...) {}
char* nbdkit_absolute_path(const char* path) {
    if (path[0] == '/') return ::strdup(path);
    char* cwd = ::getcwd(nullptr, 0);
    std::string whole = std::string(cwd) + "/" + path;
    std::free(cwd);
    return ::strdup(whole.c_str());
}
int64_t nbdkit_parse_size(const char* text) {
    char* end = nullptr;
    long long n = std::strtoll(text, &end, 10);
    const std::string units = "kmgt";
    size_t unit = *end ? units.find(static_cast<char>(std::tolower(*end))) : std::string::npos;
    if (end == text || n < 0 || (*end && (unit == std::string::npos || end[1]))) {
        nbdkit_error("could not parse size string (%s)", text);
        return -1;
    }
    return *end ? n << (10 * (unit + 1)) : n;
}
int nbdkit_parse_bool(const char* text) {
    for (const char* yes : {"1", "true", "yes", "on"})
        if (!strcasecmp(text, yes)) return 1;
    for (const char* no : {"0", "false", "no", "off"})
        if (!strcasecmp(text, no)) return 0;
    nbdkit_error("could not decipher boolean (%s)", text);
    return -1;
}
int nbdkit_add_export(struct nbdkit_exports*, const char*, const char*) { return 0; }
int nbdkit_add_extent(struct nbdkit_extents*, uint64_t, uint64_t, uint32_t) { return 0; }
const char* nbdkit_export_name(void) { return "d"; }  // what the clients ask for
void nbdkit_set_error(int) {}
}

namespace {

size_t entries(const char* dir) {
    size_t n = 0;
    if (DIR* d = ::opendir(dir)) {
        while (const dirent* e = ::readdir(d)) n += e->d_name[0] != '.';
        ::closedir(d);
    }
    return n;
}

// The plugin's steps with their return codes and, where nothing of the
// plugin may be left, how many threads and descriptors it added.
std::string runPlugin(const std::vector<std::pair<std::string, std::string>>& parameters) {
    // Socket-activated, as zxblk serve starts nbdkit: it does not fork, and
    // still reopens stdin and stdout between get_ready and after_fork.
    ::setenv("LISTEN_FDS", "1", 1);
    ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
    void* so = ::dlopen(ZXBLK_PLUGIN, RTLD_NOW | RTLD_LOCAL);
    if (!so) return std::string("dlopen: ") + ::dlerror();
    auto init = reinterpret_cast<nbdkit_plugin* (*)()>(::dlsym(so, "plugin_init"));
    nbdkit_plugin* p = init();
    if (p->load) p->load();
    for (const auto& [key, value] : parameters)
        if (p->config(key.c_str(), value.c_str()) != 0) return "config " + key + ": " + g_lastError;
    if (p->config_complete() != 0) return "config_complete: " + g_lastError;
    const size_t threads = entries("/proc/self/task"), fds = entries("/proc/self/fd");
    auto left = [&] {
        return " threads+" + std::to_string(entries("/proc/self/task") - threads) + " fds+" +
               std::to_string(entries("/proc/self/fd") - fds);
    };
    int rc = p->get_ready();
    std::string report = "get_ready " + std::to_string(rc) + left();
    if (rc != 0) return report + ": " + g_lastError;
    rc = p->after_fork();
    if (rc != 0) return report + "; after_fork " + std::to_string(rc) + left() + ": " + g_lastError;
    void* h = p->open(1);
    report += h ? "; after_fork 0; open" : "; after_fork 0; open: " + g_lastError;
    if (h) p->close(h);
    p->cleanup();
    report += "; cleanup" + left();
    // A connection nbdkit accepted as it stopped may still reach open.
    g_lastError.clear();
    h = p->open(1);
    return report + (h ? "; served after cleanup" : g_lastError.empty() ? "; then refused" : "; then: " + g_lastError);
}

// runPlugin in a child process; what it said.
std::string inChild(const std::vector<std::pair<std::string, std::string>>& parameters) {
    int out[2];
    if (::pipe(out) != 0) return "pipe";
    pid_t pid = ::fork();
    if (pid == 0) {
        std::string report = runPlugin(parameters);
        ssize_t n = ::write(out[1], report.data(), report.size());
        _exit(n == static_cast<ssize_t>(report.size()) ? 0 : 1);
    }
    ::close(out[1]);
    std::string report;
    char buf[4096];
    for (ssize_t n; (n = ::read(out[0], buf, sizeof buf)) > 0;) report.append(buf, static_cast<size_t>(n));
    ::close(out[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? report : report + " (the child died)";
}

TEST(PluginLifecycle, NothingRunsOrStaysOpenWhereNbdkitExpectsToBeAlone) {
    char dir[] = "/tmp/zxblk-plugin-XXXXXX";
    ASSERT_TRUE(::mkdtemp(dir));
    const std::string work = dir, store = work + "/store";
    vhdtest::ChainPlan plan;
    plan.children = 1;
    std::vector<vhdtest::Snapshot> chain = vhdtest::writeChain(work, plan);
    const std::string import = std::string(ZXBLK_TOOL) + " import -q --store " + store + " --disk d " +
                               chain[0].vhd + " " + chain[1].vhd + " >/dev/null";
    ASSERT_EQ(std::system(import.c_str()), 0);

    const std::vector<std::pair<std::string, std::string>> served = {
        {"store", store}, {"disk", "d"}, {"cache", work + "/cache"}, {"control", work + "/c.sock"}};
    struct Case {
        const char* what;
        std::vector<std::pair<std::string, std::string>> parameters;
        std::string steps, says;  // the steps' report, and what its error says
    } cases[] = {
        {"a disk that opens and is served", served,
         "get_ready 0 threads+0 fds+0; after_fork 0; open; cleanup threads+0 fds+0; then refused", ""},
        {"a disk the store lacks", {{"store", store}, {"disk", "nosuch"}}, "get_ready -1 threads+0 fds+0: ",
         "no disk named 'nosuch'"},
        {"a control socket that cannot be made",
         {{"store", store}, {"disk", "d"}, {"cache", work + "/cache"}, {"control", work + "/none/c.sock"}},
         "get_ready 0 threads+0 fds+0; after_fork -1 threads+0 fds+0: ", "none/c.sock: No such file or directory"},
    };
    for (const Case& c : cases) {
        std::string report = inChild(c.parameters);
        EXPECT_EQ(report.substr(0, c.steps.size()), c.steps) << c.what << ": " << report;
        EXPECT_NE(report.find(c.says, c.steps.size()), std::string::npos) << c.what << ": " << report;
    }
    EXPECT_EQ(std::system(("rm -rf " + work).c_str()), 0);
}

}  // namespace
