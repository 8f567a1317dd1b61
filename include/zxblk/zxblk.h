// zxblk: read the disks of a zxblk backup store from a program.
//
// A store is a folder that `zxblk import` filled: a catalog and, per disk,
// its snapshots (VHD files or a raw image). A Disk presents one snapshot of
// one disk as a byte array: a read recalls the extents it touches from the
// store into a local extent cache, once, and serves later reads from there.
//
// A call that fails throws zxblk::Error, whose message is one line that
// names what failed and why. Store, Disk and LocalExtent are moved, not
// copied; a moved-from one may only be assigned to or destroyed.
//
//     zxblk::Disk disk = zxblk::Disk::open("/backups/store", "web01");
//     std::vector<char> boot(512);
//     disk.read(0, boot.size(), boot.data());
//
// Link with zxblk::zxblk (CMake: find_package(zxblk)) or
// `pkg-config --cflags --libs zxblk`.
#pragma once
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

// The library is built with every other symbol hidden.
#define ZXBLK_API __attribute__((visibility("default")))

namespace zxblk {

// The library's version, "MAJOR.MINOR.PATCH".
ZXBLK_API const char* version();

// Where the library's own log lines go; by default standard error, errors
// only (ZXBLK_LOG_LEVEL=1 in the environment adds the debug lines). A handler
// gets each line's level (-1 error, 0 summary, 1 debug), its source and its
// text, one line at a time from any thread; it must not call the library.
// An empty handler gives the lines back to standard error. What fails a call
// is in the call's Error as well: a handler may drop the lines.
ZXBLK_API void setLogHandler(std::function<void(int level, const std::string& source, const std::string& text)> handler);

// What every call throws when it fails.
class ZXBLK_API Error : public std::runtime_error {
public:
    explicit Error(const std::string& message);
    ~Error() override;
};

enum class SnapshotKind { fixed, dynamic, differencing, raw };
enum class SnapshotStatus {
    ok,       // the file is there and is the one the catalog records
    missing,  // the file is gone
    damaged,  // the file (or its checksums) no longer matches its record: reads of it fail
};
// "fixed VHD", "dynamic VHD", "differencing VHD", "raw"; "ok", "missing", "damaged".
ZXBLK_API const char* kindName(SnapshotKind kind);
ZXBLK_API const char* statusName(SnapshotStatus status);

struct SnapshotInfo {
    int number = 0;  // 0 is the oldest
    SnapshotKind kind = SnapshotKind::raw;
    std::string file;        // in the store, relative to its folder
    uint64_t fileSize = 0;   // bytes, as recorded at import
    std::string importedAt;  // UTC, "2024-05-01T12:00:00Z"
    SnapshotStatus status = SnapshotStatus::ok;
    std::string problem;  // why it is missing or damaged; empty when ok
};

struct DiskInfo {
    std::string name;
    uint64_t size = 0;        // bytes
    uint64_t extentSize = 0;  // bytes recalled at a time
    std::vector<SnapshotInfo> snapshots;  // oldest first
};

struct DiskOptions {
    int snapshot = -1;        // -1: the newest
    std::string cacheDir;     // empty: a folder per store, disk and snapshot under ~/.cache/zxblk
    uint64_t cacheLimit = 0;  // bytes the cache may hold; 0: a quarter of the free space where it lies
    // Extents recalled ahead of a reader that goes through the disk in order
    // (at most a quarter of the cache); 0: none.
    unsigned readaheadMax = 16;
};

class Disk;

// A store, as its catalog was when it was opened.
class ZXBLK_API Store {
public:
    // Throws Error when `path` is not a store or its catalog is unsound.
    static Store open(const std::string& path);
    ~Store();
    Store(Store&& other) noexcept;
    Store& operator=(Store&& other) noexcept;
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    const std::string& path() const;
    // Every disk with its snapshots. Each snapshot file is opened and checked
    // against its catalog record as a read would check it (not its data,
    // block by block: `zxblk verify` does that); a bad file is reported in
    // its SnapshotInfo and does not stop the listing.
    std::vector<DiskInfo> disks() const;
    // One disk; throws Error when the store has none of that name.
    DiskInfo disk(const std::string& name) const;
    // Opens one snapshot of a disk (see Disk::open). Every disk opened from
    // one Store shares its restore service and its connections.
    Disk openDisk(const std::string& name, const DiskOptions& options = DiskOptions()) const;

private:
    struct Impl;
    explicit Store(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> m_impl;
};


// A stretch of the disk, and whether any snapshot holds data there. Where
// none does (data == false) the disk reads as zeros. A stretch with data may
// still read as zeros: the snapshot's file holds zeros there.
struct Range {
    uint64_t offset = 0;
    uint64_t length = 0;
    bool data = false;
};

class LocalExtent;

// One snapshot of one disk. Reads, allocation(), prefetch(), extent() and
// statsText() may be called from any number of threads at once. Any number
// of disks of any number of stores may be open at once in a process; one
// process (and one Disk in it) at a time may use an extent cache.
class ZXBLK_API Disk {
public:
    static Disk open(const std::string& storePath, const std::string& diskName,
                     const DiskOptions& options = DiskOptions());
    ~Disk();
    Disk(Disk&& other) noexcept;
    Disk& operator=(Disk&& other) noexcept;
    Disk(const Disk&) = delete;
    Disk& operator=(const Disk&) = delete;

    const std::string& name() const;
    uint64_t size() const;
    uint64_t extentSize() const;
    uint64_t extentCount() const;
    int snapshot() const;  // the snapshot presented

    // Reads [offset, offset + length); throws Error when the range goes past
    // the end of the disk or a snapshot file cannot serve it.
    void read(uint64_t offset, uint64_t length, void* buffer);
    // [offset, offset + length) covered exactly by ranges in order, neighbours
    // never alike. Answered from the snapshots' block tables, without
    // recalling anything, at the granularity of the smallest VHD block of the
    // snapshots (the extent size when they are all fixed or raw, which hold
    // data everywhere). A range whose snapshot file cannot be read counts as
    // data: reading it then says why.
    std::vector<Range> allocation(uint64_t offset, uint64_t length);
    // Recalls the extents of the range in the background; returns at once.
    void prefetch(uint64_t offset, uint64_t length);
    // The extent `index` made local and held in the cache (see LocalExtent).
    LocalExtent extent(uint64_t index);
    // Drops the extent from the cache unless a LocalExtent holds it: a copy
    // of the whole disk that reads each extent once keeps the cache small.
    void dropExtent(uint64_t index);
    // "key value" lines: the disk, what was recalled, the cache, the restore service.
    std::string statsText();

private:
    friend class LocalExtent;
    friend class Store;
    struct Impl;
    explicit Disk(std::shared_ptr<Impl> impl);
    std::shared_ptr<Impl> m_impl;
};

// An extent of a disk, local and kept in the cache while this object lives:
// its bytes are at positions 0 to length() of fd(), to be read with pread,
// copy_file_range or sendfile. The descriptor belongs to the object; do not
// close it. The disk stays open while any LocalExtent of it does.
class ZXBLK_API LocalExtent {
public:
    ~LocalExtent();
    LocalExtent(LocalExtent&& other) noexcept;
    LocalExtent& operator=(LocalExtent&& other) noexcept;
    LocalExtent(const LocalExtent&) = delete;
    LocalExtent& operator=(const LocalExtent&) = delete;

    uint64_t index() const;
    uint64_t offset() const;  // on the disk: index() * extentSize()
    uint64_t length() const;  // extentSize(), less for the last extent of a disk
    int fd() const;

private:
    friend class Disk;
    struct Impl;
    explicit LocalExtent(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> m_impl;
};

}  // namespace zxblk
