// zxblk: put backed-up disks into a store and read them back through the
// provider, extent by extent.
#include <malloc.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>
#include <exception>

#include "commands.h"
#include "zxblk/zxblk.h"

namespace zxblk {

CommonOptions& commonOptions() {
    static CommonOptions options;
    return options;
}

void addCommonOptions(CLI::App* command) {
    CommonOptions& o = commonOptions();
    command->add_option("--config", o.config, "INI configuration file (sets ZXBLK_CONFIG); checked before use");
    command->add_option_function<int>(
        "--log-level", [](const int& level) { commonOptions().logLevel = level, commonOptions().logLevelSet = true; },
        "library log lines up to this level to standard error (-1: errors, 0: and extent summaries, 1 to 9: "
        "more detail; default: none, a failure is told in one line of its own)")
        ->check(CLI::Range(-2, 9));
    command->add_flag_function(
        "-v,--verbose", [](std::int64_t n) { commonOptions().verbosity += static_cast<int>(n); },
        "the library's log lines too: errors and extent summaries (-vv: debug lines, -vvv: more still)");
    command->add_flag_function(
        "-q,--quiet", [](std::int64_t n) { commonOptions().verbosity -= static_cast<int>(n); },
        "errors only: no progress, no extent summaries");
}

void addProgressOption(CLI::App* command) {
    command->add_flag("-p,--progress", commonOptions().progress,
                      "report progress on standard error (default: when it is a terminal, unless -q)");
}

void addJsonOption(CLI::App* command) {
    command->add_flag("--json", commonOptions().json, "print the result as JSON");
}

void applyCommonOptions() {
    CommonOptions& o = commonOptions();
    if (!o.config.empty())
        useConfigFile(o.config);
    else if (const char* env = std::getenv("ZXBLK_CONFIG"); env && *env)
        checkConfigFile(env);
    // What fails a command reaches the user in its own one line; the
    // library's log lines on the way are for -v (-2 drops them all).
    setLogLevel(o.logLevelSet ? o.logLevel : o.verbosity > 0 ? o.verbosity - 1 : -2);
}

namespace {

// The closest of `names` to `typed`, when it is close enough to be a typo.
std::string closest(const std::string& typed, const std::vector<std::string>& names) {
    std::string best;
    size_t bestDistance = std::max<size_t>(2, typed.size() / 3) + 1;
    for (const std::string& n : names) {
        size_t d = editDistance(typed, n);
        if (d < bestDistance) best = n, bestDistance = d;
    }
    return best;
}

// A usage error as one line, with a suggestion where the user mistyped a
// subcommand or an option.
std::string usageLine(const CLI::App& app, const CLI::ParseError& e, int argc, char** argv) {
    const CLI::App* where = &app;
    // The innermost command given ("zxblk cache purge").
    std::string who = "zxblk";
    for (bool deeper = true; deeper;) {
        deeper = false;
        for (const CLI::App* sub : where->get_subcommands())
            if (sub->parsed()) {
                where = sub, who += " " + sub->get_name(), deeper = true;
                break;
            }
    }
    std::vector<std::string> commands;
    for (const CLI::App* sub : where->get_subcommands({})) commands.push_back(sub->get_name());
    if (!commands.empty()) {
        // A command that takes commands got none it knows: the first word
        // after it that is not an option is a mistyped one, or none was given.
        std::vector<std::string> words(argv + 1, argv + argc);
        size_t depth = 0;
        for (size_t i = 0; i < words.size(); ++i) {
            if (words[i].empty() || words[i][0] == '-') continue;
            if (depth++ < static_cast<size_t>(std::count(who.begin(), who.end(), ' '))) continue;
            std::string guess = closest(words[i], commands);
            return who + ": unknown command '" + words[i] + "'" +
                   (guess.empty() ? "" : "; did you mean '" + guess + "'?") + " (" + who + " --help lists them)";
        }
        return who + ": a command is required (" + who + " --help lists them)";
    }
    // An option the command does not know is the cause even when CLI11
    // complains first about a required one it then missed.
    std::vector<std::string> names;
    for (const CLI::Option* opt : where->get_options())
        for (const std::string& l : opt->get_lnames()) names.push_back("--" + l);
    for (const std::string& extra : where->remaining(false)) {
        if (extra.size() < 2 || extra[0] != '-') continue;
        std::string typed = extra.substr(0, extra.find('='));
        std::string guess = closest(typed, names);
        return who + ": unknown option " + typed + (guess.empty() ? "" : "; did you mean " + guess + "?") + " (" + who +
               " --help)";
    }
    return who + ": " + e.what() + " (" + who + " --help)";
}

}  // namespace

}  // namespace zxblk

int main(int argc, char** argv) {
    // Blocks of a few MiB come and go by the thousand while a disk is read
    // from a store; glibc would otherwise raise its mmap threshold after the
    // first is freed and keep every later one in its heaps, so that the
    // resident size grows to several times what is ever in use at once.
    ::mallopt(M_MMAP_THRESHOLD, 1 << 20);
    // Named as the user types it, not by the path it was started from.
    CLI::App app{"zxblk: present backed-up virtual disks without restoring them first", "zxblk"};
    app.require_subcommand(1);
    app.set_version_flag("--version", std::string("zxblk ") + ZXBLK_VERSION);
    app.footer("Exit codes: 0 success; 1 failure, with one line on standard error saying why; 2 usage error; "
               "3 an export --on-error zero that filled damaged ranges with zeros.");
    zxblk::registerImportCommand(app);
    zxblk::registerListCommand(app);
    zxblk::registerExportCommand(app);
    zxblk::registerReadCommand(app);
    zxblk::registerMountCommand(app);
    zxblk::registerServeCommand(app);
    zxblk::registerControlCommand(app);
    zxblk::registerBootCommand(app);
    zxblk::registerIndexCommand(app);
    zxblk::registerDemoCommand(app);
    zxblk::registerVerifyCommand(app);
    zxblk::registerCacheCommand(app);
    zxblk::registerStatsCommand(app);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        // --help and --version end parsing with success.
        if (e.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) return app.exit(e);
        std::fprintf(stderr, "%s\n", zxblk::usageLine(app, e, argc, argv).c_str());
        return zxblk::kExitUsage;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "zxblk: %s\n", zxblk::failureLine(e).c_str());
        return zxblk::kExitFailure;
    }
    return zxblk::kExitOk;
}
