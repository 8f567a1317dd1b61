// The library's own calls: its version, its error value, its log and its
// configuration.
#include <strings.h>

#include <boost/property_tree/ini_parser.hpp>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <set>

#include "api/guarded.h"
#include "platform/Log.h"
#include "platform/ZXPlatformInfo.h"
#include "store/vhd_diff_writer.h"

namespace zxblk {

const char* version() { return ZXBLK_VERSION; }

Error::Error(const std::string& message, ErrorKind kind) : std::runtime_error(message), m_kind(kind) {}
Error::~Error() = default;

void setLogLevel(int level) { LogSink::setLevel(level); }
int logLevel() { return LogSink::level(); }

void setLogFile(const std::string& path) {
    if (!LogSink::setFile(path)) throw Error(path + ": cannot write the log there: " + std::strerror(errno), ErrorKind::io);
}

void setLogHandler(std::function<void(int, const std::string&, const std::string&)> handler) {
    LogSink::setHandler(std::move(handler));
}

void logLine(int level, const std::string& source, const std::string& text) { LogSink::write(level, source.c_str(), text); }

DifferencingStats writeDifferencingVhd(const std::string& parentVhd, const std::string& olderRaw, const std::string& newerRaw,
                                       const std::string& childVhd) {
    return guarded([&] {
        DiffStats d = zxblk::writeDifferencingVhd(parentVhd, olderRaw, newerRaw, childVhd, 2u << 20);
        DifferencingStats out;
        out.sectorsChanged = d.sectorsChanged;
        out.blocksAllocated = d.blocksAllocated;
        return out;
    });
}

namespace {

// The keys the library reads, by section. A key outside this list is a typo
// that would otherwise be ignored without a word.
const std::map<std::string, std::set<std::string>>& knownKeys() {
    static const std::map<std::string, std::set<std::string>> keys = {
        {"VirtualServer",
         {"bEnableMetadataRestoreOptimization", "bIdentifyFSMetadataDuringCI", "bIdentifyFSMetadataDuringMount"}},
    };
    return keys;
}

std::string trimmed(const std::string& s) {
    size_t b = s.find_first_not_of(" \t\r"), e = s.find_last_not_of(" \t\r");
    return b == std::string::npos ? std::string() : s.substr(b, e - b + 1);
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

}  // namespace

void checkConfigFile(const std::string& path) {
    std::ifstream in(path);
    auto fail = [&](unsigned line, const std::string& why) {
        throw Error(path + (line ? ":" + std::to_string(line) : std::string()) + ": " + why, ErrorKind::invalidArgument);
    };
    if (!in) throw Error(path + ": cannot read the configuration file: " + std::strerror(errno), ErrorKind::notFound);
    try {
        boost::property_tree::ptree tree;
        boost::property_tree::ini_parser::read_ini(in, tree);
    } catch (const boost::property_tree::ini_parser_error& e) {
        fail(static_cast<unsigned>(e.line()), e.message());
    }
    // The parser has accepted the file: every line is a comment, a section
    // or a key = value pair.
    in.clear();
    in.seekg(0);
    std::string line, section;
    for (unsigned number = 1; std::getline(in, line); ++number) {
        line = trimmed(line);
        if (line.empty() || line[0] == ';' || line[0] == '#') continue;
        if (line[0] == '[') {
            section = trimmed(line.substr(1, line.find(']') - 1));
            if (!knownKeys().count(section)) fail(number, "unknown section [" + section + "]");
            continue;
        }
        std::string key = trimmed(line.substr(0, line.find('=')));
        std::string value = trimmed(line.substr(line.find('=') + 1));
        auto keys = knownKeys().find(section);
        if (keys == knownKeys().end() || !keys->second.count(key)) {
            std::string hint;
            if (keys != knownKeys().end())
                for (const std::string& k : keys->second)
                    if (editDistance(k, key) <= 3) hint = "; did you mean " + k + "?";
            fail(number, "unknown key '" + key + "'" +
                             (section.empty() ? std::string(" outside any section") : " in [" + section + "]") + hint);
        }
        // Every key the library knows is a boolean.
        static const char* const booleans[] = {"true", "false", "1", "0", "yes", "no", "on", "off"};
        bool known = false;
        for (const char* b : booleans) known = known || strcasecmp(value.c_str(), b) == 0;
        if (!known) fail(number, key + " = " + value + ": give true or false");
    }
}

void useConfigFile(const std::string& path) {
    checkConfigFile(path);
    ::setenv("ZXBLK_CONFIG", path.c_str(), 1);
    ZXPlatformInfo::Reload();
}

}  // namespace zxblk
