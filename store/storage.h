// Where a store keeps its catalog, snapshot files and checksum files: a
// folder, or a bucket and prefix on S3 ("s3://BUCKET/PREFIX"). The store's
// catalog, services and importer are given its Storage and reach every
// object through it, whichever kind it is. Object names are relative:
// "catalog.json", "snapshots/web01-snap0.vhd".
#pragma once
#include <sys/stat.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "store/store_error.h"

namespace zxblk {

class S3MetadataCache;

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
    // Whoever opened it has read what it needed at once (a snapshot's
    // footer, header and block table). On S3 those bytes are kept on local
    // disk, so that the next open of the same object reads none of them
    // again.
    virtual void opened() const {}
    // Bytes a read is soon to ask for: a store a network away starts
    // fetching them now, a file has the kernel read them ahead.
    virtual void prefetch(uint64_t, uint64_t) const {}
    // The first stretch [start, end) of [offset, offset + length) that may
    // hold data; (offset + length, offset + length) when all of it is a hole
    // of the file, which reads as zeros. What cannot tell holes from data
    // (an object on S3, a file system without holes) holds data throughout.
    virtual std::pair<uint64_t, uint64_t> dataIn(uint64_t offset, uint64_t length) const {
        return {offset, offset + length};
    }
};

// What the opener of an object knows of it before asking the store.
struct OpenHints {
    // What the catalog recorded at import; another ETag is refused at once.
    std::string etag;
    // The object's size as the catalog recorded it; 0: not known.
    uint64_t size = 0;
    // Stretches (offset, length) the opener reads first. On S3, with the
    // ETag and size known, they are fetched all at once instead of the
    // object's head: an open costs one round trip however many it reads.
    std::vector<std::pair<uint64_t, uint64_t>> ranges;
};

struct ObjectInfo {
    bool exists = false;
    uint64_t size = 0;
    std::string etag;  // S3's; empty for a file
};

// Counters of what the storage did, for the statistics of a disk.
struct StorageStats {
    uint64_t gets = 0, getBytes = 0, puts = 0, putBytes = 0, retries = 0;
    // A store a network away: the link as its replies measured it (0: not
    // yet), and the most bytes its readers held at once of what they
    // fetched (kept, or on its way).
    double rttSeconds = 0, bytesPerSecond = 0;
    uint64_t heldPeak = 0;
};

class Storage {
public:
    // Whether a store location names S3 (s3://BUCKET/PREFIX) rather than a folder.
    static bool isRemote(const std::string& location);

    virtual ~Storage() = default;
    const std::string& location() const { return m_location; }
    // The full name of an object, for messages: "DIR/NAME" or "s3://B/P/NAME".
    std::string describe(const std::string& name) const;
    virtual bool remote() const = 0;
    // Where a store a network away keeps what its readers fetched, on local
    // disk, for the next program that opens it; null for a folder.
    virtual std::shared_ptr<S3MetadataCache> metadataCache() const { return nullptr; }

    // Opens an object; throws StoreError (ENOENT-like: "...: no such file").
    virtual std::unique_ptr<ObjectReader> openReader(const std::string& name, const OpenHints& hints) const = 0;
    std::unique_ptr<ObjectReader> openReader(const std::string& name, const std::string& expectedEtag = std::string()) const {
        OpenHints hints;
        hints.etag = expectedEtag;
        return openReader(name, hints);
    }
    virtual ObjectInfo stat(const std::string& name) const = 0;
    // The whole object, refused when larger than `most` bytes; false when it
    // does not exist. On S3 an object read before is kept on local disk and
    // asked for again only if it changed (one conditional request); where
    // `known` tells good bytes from bad (a checksum the catalog recorded),
    // kept bytes it takes are used without asking at all.
    virtual bool readWhole(const std::string& name, uint64_t most, std::string& out,
                           const std::function<bool(const std::string&)>& known = nullptr) const = 0;
    // What tells one object from another whatever its name is spelled
    // like: a file's device and inode (a hard link is the same file), an
    // object's key. Empty when there is no such file (an object's key is
    // its identity whether or not it exists).
    virtual std::string identity(const std::string& name) const;
    // Creates or replaces the object whole: a reader sees the old bytes or
    // the new ones, never a mix.
    virtual void replace(const std::string& name, const std::string& data) const = 0;
    virtual void remove(const std::string& name) const = 0;
    // Every object name under the prefix.
    virtual std::vector<std::string> list(const std::string& prefix) const = 0;
    virtual StorageStats stats() const = 0;

    // The new objects of an import. Each is written to a local file that
    // the staging names, then published under its name (a folder renames
    // it into place, S3 uploads it). Until keep(), dropping the staging
    // removes every object it wrote or published, and a store folder it
    // had to make when nothing made it a store meanwhile: a failed import
    // leaves nothing that the catalog does not name.
    class Staging {
    public:
        virtual ~Staging() = default;
        // The local file to write object `name` into; its folder exists.
        virtual std::string pathFor(const std::string& name) = 0;
        // Where the bytes of an object go as an import copies them, in
        // rising order.
        class Sink {
        public:
            virtual ~Sink() = default;
            // Bytes [at, at + length) of the local file `fd`, to the same
            // place in the object; what lies between them is zeros. False
            // when the file ends before them.
            virtual bool copy(int fd, uint64_t at, uint64_t length) = 0;
            // The object ends at `size`; it can be published once this returns.
            virtual void finish(uint64_t size) = 0;
        };
        // A sink of its own for object `name` of `size` bytes, or null for
        // the file pathFor(name). On S3 the object is uploaded as its bytes
        // come, so that an import needs no local copy of it; publish() then
        // only says what it uploaded.
        virtual std::unique_ptr<Sink> sink(const std::string&, uint64_t) { return nullptr; }
        // Puts the file written for `name` in place; returns its ETag ("" for
        // a file). An object of that name already there is refused.
        virtual std::string publish(const std::string& name) = 0;
        // Makes what was published durable, before a catalog names it.
        virtual void commit() = 0;
        // The import succeeded: what was published stays.
        virtual void keep() = 0;
    };
    // Makes the store's place where it is missing (a folder and its
    // subfolders); throws StoreError.
    virtual std::unique_ptr<Staging> stage() const = 0;

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

class S3Connections;
// A store kept in a folder.
std::shared_ptr<Storage> openFolderStorage(const std::string& dir);
// The storage of a store location, a folder or s3://BUCKET/PREFIX; stores on
// S3 reach it through `connections`, whose pools are shared by every store
// on one endpoint. Throws StoreError for a malformed URL or missing S3
// credentials. A store on S3 keeps what its readers fetched of its catalog
// and snapshots' metadata in a folder of its own under `metadataRoot` (""
// keeps it in memory only).
std::shared_ptr<Storage> openStorage(const std::string& location, const std::shared_ptr<S3Connections>& connections,
                                     const std::string& metadataRoot = std::string());

}  // namespace zxblk
