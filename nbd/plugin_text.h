// Small text helpers of the plugin: numbers it is given, sizes and names
// it shows.
#pragma once
#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

namespace zxblk_plugin {

// Plain decimal only: "-1" and "010" are not snapshot numbers.
inline bool parseSnapshot(const std::string& text, int* out) {
    const char* begin = text.data();
    const char* end = begin + text.size();
    auto r = std::from_chars(begin, end, *out);
    return !text.empty() && r.ec == std::errc() && r.ptr == end && (text[0] != '0' || text.size() == 1) && *out >= 0;
}

// "512 bytes", "1.5 GiB".
inline std::string sizeText(uint64_t bytes) {
    const char* units[] = {"bytes", "KiB", "MiB", "GiB", "TiB", "PiB"};
    double n = static_cast<double>(bytes);
    size_t u = 0;
    for (; n >= 1024 && u + 1 < sizeof units / sizeof *units; ++u) n /= 1024;
    char text[32];
    if (u == 0)
        std::snprintf(text, sizeof text, "%llu bytes", static_cast<unsigned long long>(bytes));
    else
        std::snprintf(text, sizeof text, "%.1f %s", n, units[u]);
    return text;
}

// The name as a client sent it, safe for one log line.
inline std::string printable(const char* name) {
    std::string out(name, std::min<size_t>(std::strlen(name), 200));
    for (char& c : out)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
    return out;
}

}  // namespace zxblk_plugin
