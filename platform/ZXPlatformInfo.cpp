#include "platform/ZXPlatformInfo.h"

#include <strings.h>
#include <unistd.h>

#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>

#include "platform/Log.h"

namespace {

std::mutex g_configMutex;
std::shared_ptr<boost::property_tree::ptree> g_config;  // null: not loaded yet
std::map<std::pair<std::string, std::string>, std::string> g_hostDefaults;

// Loaded once per process (tests reload explicitly). A missing or unreadable
// file is logged and treated as an empty configuration.
std::shared_ptr<boost::property_tree::ptree> config() {
    std::lock_guard<std::mutex> lock(g_configMutex);
    if (g_config) return g_config;
    auto tree = std::make_shared<boost::property_tree::ptree>();
    const char* path = std::getenv("ZXBLK_CONFIG");
    if (path && *path) {
        try {
            boost::property_tree::ini_parser::read_ini(path, *tree);
        } catch (const boost::property_tree::ini_parser_error& e) {
            if (access(path, F_OK) == 0)
                zxblk::LogSink::write(zxblk::kLevelError, "ZXPlatformInfo",
                                      std::string("cannot read configuration: ") + e.what());
            tree = std::make_shared<boost::property_tree::ptree>();
        }
    }
    g_config = tree;
    return g_config;
}

bool lookup(const char* section, const char* key, std::string* out) {
    auto tree = config();
    auto sec = tree->get_child_optional(boost::property_tree::ptree::path_type(section, '\0'));
    auto value = sec ? sec->get_optional<std::string>(boost::property_tree::ptree::path_type(key, '\0'))
                     : boost::optional<std::string>();
    if (value) {
        *out = *value;
        return true;
    }
    std::lock_guard<std::mutex> lock(g_configMutex);
    auto def = g_hostDefaults.find({section, key});
    if (def == g_hostDefaults.end()) return false;
    *out = def->second;
    return true;
}

}  // namespace

const char* ZXPI_Focus::getFocus() { return "zxblk"; }

ZXPlatformInfo::ZXPlatformInfo() {}
ZXPlatformInfo::~ZXPlatformInfo() {}

void ZXPlatformInfo::Reload() {
    std::lock_guard<std::mutex> lock(g_configMutex);
    g_config.reset();
}

void ZXPlatformInfo::setHostDefault(const char* section, const char* key, const std::string& value) {
    std::lock_guard<std::mutex> lock(g_configMutex);
    g_hostDefaults[{section, key}] = value;
}

bool ZXPlatformInfo::getBoolean(const char* section, const char* key, bool* value) {
    std::string text;
    if (!value || !lookup(section, key, &text)) return false;
    static const char* truths[] = {"true", "1", "yes", "on"};
    static const char* falsities[] = {"false", "0", "no", "off"};
    for (const char* t : truths)
        if (strcasecmp(text.c_str(), t) == 0) return *value = true, true;
    for (const char* f : falsities)
        if (strcasecmp(text.c_str(), f) == 0) return *value = false, true;
    return false;
}

bool ZXPlatformInfo::getString(const char* section, const char* key, std::string* value) {
    return value && lookup(section, key, value);
}

bool ZXPlatformInfo::getInteger(const char* section, const char* key, long long* value) {
    std::string text;
    if (!value || !lookup(section, key, &text) || text.empty()) return false;
    char* end = nullptr;
    long long parsed = std::strtoll(text.c_str(), &end, 0);
    if (end == text.c_str() || *end != '\0') return false;
    *value = parsed;
    return true;
}

void ZXPlatformInfo::setFocus(const char* focus) { m_focus = focus ? focus : ""; }

const char* ZXPlatformInfo::getPhysicalMachine() {
    char name[256] = {0};
    if (gethostname(name, sizeof name - 1) != 0) name[0] = '\0';
    m_machine = name[0] ? name : "localhost";
    return m_machine.c_str();
}
