// Where a store keeps its catalog, snapshot files and checksum files: a
// folder, or a bucket and prefix on S3 ("s3://BUCKET/PREFIX"). Everything
// above store/ names a store by that one string; the store reaches its
// objects through Storage and does not care which kind it is. Object names
// are relative: "catalog.json", "snapshots/web01-snap0.vhd".
#pragma once
#include <sys/stat.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "store/store_error.h"

namespace zxblk {

// What tells one state of a file from another: a file renamed over it, a
// rewrite, a change of size.
struct FileStamp {
    uint64_t device = 0, inode = 0, size = 0;
    int64_t mtimeNs = 0;
    static FileStamp of(const struct stat& st);
    bool operator==(const FileStamp& o) const {
        return device == o.device && inode == o.inode && size == o.size && mtimeNs == o.mtimeNs;
    }
    bool operator!=(const FileStamp& o) const { return !(*this == o); }
};

// One object opened for reading, as it was when it was opened.
class ObjectReader {
public:
    virtual ~ObjectReader() = default;
    // The path or URL, for messages.
    virtual const std::string& name() const = 0;
    virtual uint64_t size() const = 0;
    // A local file's identity (device, inode, size, time); on S3 only the size.
    virtual const FileStamp& stamp() const = 0;
    // Reads exactly `length` bytes at `offset`; throws StoreError naming the
    // object (a short read: the object was cut after it was opened).
    virtual void readAt(uint64_t offset, void* buffer, size_t length) const = 0;
    // False once the name refers to another object than the one opened (a
    // file replaced or rewritten). On S3 every read asks for the version
    // opened, so a replaced object fails its reads instead.
    virtual bool current() const = 0;
};

struct ObjectInfo {
    bool exists = false;
    uint64_t size = 0;
    std::string etag;  // S3's; empty for a file
};

// Counters of what the storage did, for the statistics of a disk.
struct StorageStats {
    uint64_t gets = 0, getBytes = 0, puts = 0, putBytes = 0, retries = 0;
};

class Storage {
public:
    // The storage of a store location: a folder path or s3://BUCKET/PREFIX.
    // One object per location per process (S3's connections are shared).
    // Throws StoreError for a malformed URL or missing S3 credentials.
    static std::shared_ptr<Storage> at(const std::string& location);
    static bool isRemote(const std::string& location);

    virtual ~Storage() = default;
    const std::string& location() const { return m_location; }
    // The full name of an object, for messages: "DIR/NAME" or "s3://B/P/NAME".
    std::string describe(const std::string& name) const;
    virtual bool remote() const = 0;

    // Opens an object; throws StoreError (ENOENT-like: "...: no such file").
    // `expectedEtag`, when not empty, is what the catalog recorded at import:
    // another ETag is refused at once.
    virtual std::unique_ptr<ObjectReader> openReader(const std::string& name,
                                                     const std::string& expectedEtag = std::string()) const = 0;
    virtual ObjectInfo stat(const std::string& name) const = 0;
    // The whole object, refused when larger than `most` bytes; false when it
    // does not exist.
    virtual bool readWhole(const std::string& name, uint64_t most, std::string& out) const = 0;
    // Creates or replaces the object whole: a reader sees the old bytes or
    // the new ones, never a mix. `beforeReplace` runs once the new bytes are
    // stored and before they replace the old (a test's crash point).
    virtual void replace(const std::string& name, const std::string& data,
                         const std::function<void()>& beforeReplace = nullptr) const = 0;
    // Stores the local file `path` under `name` (on S3 in parts, several in
    // flight, with nothing left behind when it fails); returns its ETag ("" for
    // a folder). `progress` gets the bytes stored so far.
    virtual std::string upload(const std::string& name, const std::string& path,
                               const std::function<void(uint64_t)>& progress = nullptr) const = 0;
    virtual void remove(const std::string& name) const = 0;
    // Every object name under the prefix.
    virtual std::vector<std::string> list(const std::string& prefix) const = 0;
    virtual StorageStats stats() const = 0;

    // Held while the catalog is read, changed and replaced, so that two
    // writers never lose each other's snapshots.
    class Lock {
    public:
        virtual ~Lock() = default;
    };
    virtual std::unique_ptr<Lock> lock() const = 0;

protected:
    explicit Storage(std::string location) : m_location(std::move(location)) {}

private:
    std::string m_location;
};

// A local file, opened for reading.
std::unique_ptr<ObjectReader> openLocalFile(const std::string& path);

}  // namespace zxblk
