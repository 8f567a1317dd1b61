#include "store/s3_metadata.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "store/fd_io.h"
#include "store/store_error.h"
#include "store/vhd_image.h"

namespace zxblk {
namespace {

const char kMagic[] = "zxblk-s3-metadata 1\n";
// Memory is spent on the entries of the disks a program has open; past
// this it starts again from nothing rather than grow.
const uint64_t kMostInMemory = 256ull << 20;

bool takeLine(const std::string& text, size_t& at, std::string& line) {
    size_t end = text.find('\n', at);
    if (end == std::string::npos) return false;
    line = text.substr(at, end - at);
    at = end + 1;
    return true;
}

bool readFile(const std::string& path, std::string& out) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    out.clear();
    char buf[1 << 16];
    for (;;) {
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            ::close(fd);
            return n == 0;
        }
        out.append(buf, static_cast<size_t>(n));
    }
}

}  // namespace

S3MetadataCache::S3MetadataCache(std::string dir) : m_dir(std::move(dir)) {}

std::string S3MetadataCache::fileOf(const std::string& key) const {
    return m_dir + "/" + sumText(xxh3(key.data(), key.size()));
}

std::optional<S3MetadataCache::Entry> S3MetadataCache::get(const std::string& key, bool inMemory) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_memory.find(key);
        if (it != m_memory.end()) return it->second;
    }
    if (m_dir.empty()) return std::nullopt;
    const std::string path = fileOf(key);
    std::string text, storedKey, sum;
    if (!readFile(path, text)) return std::nullopt;
    Entry e;
    size_t at = 0;
    bool sound = text.compare(0, sizeof kMagic - 1, kMagic) == 0 && (at = sizeof kMagic - 1, true) &&
                 takeLine(text, at, storedKey) && storedKey == key && takeLine(text, at, e.version) &&
                 takeLine(text, at, sum) && sum == sumText(xxh3(text.data() + at, text.size() - at));
    if (!sound) {
        // Torn, damaged, or another key's file under the same name: gone,
        // and read from the store again.
        ::unlink(path.c_str());
        return std::nullopt;
    }
    e.bytes = text.substr(at);
    std::lock_guard<std::mutex> lock(m_mutex);
    if (inMemory && m_memoryBytes + e.bytes.size() <= kMostInMemory) {
        m_memoryBytes += e.bytes.size();
        m_memory[key] = e;
    }
    return e;
}

void S3MetadataCache::put(const std::string& key, const std::string& version, const std::string& bytes,
                          bool inMemory) {
    inMemory = inMemory || m_dir.empty();  // where there is no disk, memory is all there is
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_memory.find(key);
        if (it != m_memory.end()) m_memoryBytes -= it->second.bytes.size(), m_memory.erase(it);
        if (inMemory && m_memoryBytes + bytes.size() > kMostInMemory) m_memory.clear(), m_memoryBytes = 0;
        if (inMemory && bytes.size() <= kMostInMemory) {
            m_memoryBytes += bytes.size();
            m_memory[key] = Entry{version, bytes};
        }
    }
    if (m_dir.empty() || key.find('\n') != std::string::npos || version.find('\n') != std::string::npos) return;
    std::error_code ec;
    std::filesystem::create_directories(m_dir, ec);
    const std::string path = fileOf(key);
    std::string temp = path + ".XXXXXX";
    int fd = ::mkstemp(&temp[0]);
    if (fd < 0) return;
    const std::string head = std::string(kMagic) + key + "\n" + version + "\n" +
                             sumText(xxh3(bytes.data(), bytes.size())) + "\n";
    bool written = true;
    try {
        writeFully(fd, head.data(), head.size(), 0, temp);
        writeFully(fd, bytes.data(), bytes.size(), head.size(), temp);
    } catch (const StoreError&) {
        written = false;
    }
    ::close(fd);
    // A reader finds the old entry or the new one whole, never a part.
    if (!written || ::rename(temp.c_str(), path.c_str()) != 0) ::unlink(temp.c_str());
}

std::string packStretches(const Stretches& stretches) {
    std::string out;
    auto u64 = [&out](uint64_t v) {
        for (int i = 0; i < 8; ++i) out.push_back(static_cast<char>(v >> (8 * i)));
    };
    u64(stretches.size());
    for (const auto& s : stretches) {
        u64(s.first);
        u64(s.second.size());
        out += s.second;
    }
    return out;
}

bool unpackStretches(const std::string& bytes, Stretches& out) {
    size_t at = 0;
    auto u64 = [&](uint64_t& v) {
        if (bytes.size() - at < 8) return false;
        v = 0;
        for (int i = 0; i < 8; ++i) v |= static_cast<uint64_t>(static_cast<uint8_t>(bytes[at + i])) << (8 * i);
        at += 8;
        return true;
    };
    uint64_t count = 0;
    if (!u64(count) || count > bytes.size() / 16) return false;
    out.clear();
    for (uint64_t i = 0; i < count; ++i) {
        uint64_t offset = 0, length = 0;
        if (!u64(offset) || !u64(length) || length > bytes.size() - at) return false;
        out.emplace_back(offset, bytes.substr(at, static_cast<size_t>(length)));
        at += static_cast<size_t>(length);
    }
    return at == bytes.size();
}

}  // namespace zxblk
