// Configuration and machine identity. Configuration is one INI file named by
// ZXBLK_CONFIG (unset or missing: nothing is configured).
#pragma once
#include <string>

class ZXPI_Focus {
public:
    static const char* getFocus();
};

class ZXPlatformInfo {
public:
    ZXPlatformInfo();
    ~ZXPlatformInfo();
    // Writes the configured value through `value`; leaves it unchanged when
    // the key is not configured (or not a boolean). True when it was set.
    bool getBoolean(const char* section, const char* key, bool* value);
    bool getString(const char* section, const char* key, std::string* value);
    bool getInteger(const char* section, const char* key, long long* value);
    void setFocus(const char* focus);
    const char* getPhysicalMachine();

    // Re-reads ZXBLK_CONFIG on the next construction, for when it is pointed
    // at another file after the configuration was first read (--config).
    static void Reload();
    // A value the host process supplies for a key that the configuration
    // file leaves unset; the file always wins.
    static void setHostDefault(const char* section, const char* key, const std::string& value);

private:
    std::string m_focus;
    std::string m_machine;
};
