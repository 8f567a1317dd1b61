// What a program keeps on local disk of a store on S3, so that opening the
// same disk again costs one round trip to the store rather than a dozen:
// the catalog, each snapshot's footer, header and block table, and the
// checksum side files. Every entry is kept with the ETag it was read at and
// a checksum of its own bytes; an entry that fails its checksum (a torn
// write, a disk error) is dropped and read from the store again, and the
// store's ETag decides whether an entry is still the object's.
#pragma once
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace zxblk {

class S3MetadataCache {
public:
    // Entries go to files in `dir` (made when first needed); "" keeps them
    // in memory only, for the life of the process.
    explicit S3MetadataCache(std::string dir);
    S3MetadataCache(const S3MetadataCache&) = delete;
    S3MetadataCache& operator=(const S3MetadataCache&) = delete;

    struct Entry {
        std::string version;  // the object's ETag when it was read
        std::string bytes;
    };
    // What is kept under `key`, if anything sound is; `inMemory` false
    // leaves what is read from disk out of memory (see put()).
    std::optional<Entry> get(const std::string& key, bool inMemory = true);
    // Keeps `bytes` under `key`, replacing what was there. A cache that
    // cannot be written is no error: the next open asks the store again.
    // `inMemory` false keeps them on disk only (a cache with a folder), for
    // entries their reader keeps in memory itself as long as it needs them.
    void put(const std::string& key, const std::string& version, const std::string& bytes, bool inMemory = true);

    const std::string& dir() const { return m_dir; }

private:
    std::string fileOf(const std::string& key) const;
    std::string m_dir;
    std::mutex m_mutex;
    std::map<std::string, Entry> m_memory;
    uint64_t m_memoryBytes = 0;
};

// Stretches of an object (offset, bytes), as one cache entry.
using Stretches = std::vector<std::pair<uint64_t, std::string>>;
std::string packStretches(const Stretches& stretches);
// False when `bytes` is not a packing of stretches.
bool unpackStretches(const std::string& bytes, Stretches& out);

}  // namespace zxblk
