// zxblk: the disks of a zxblk backup store, for a program.
//
// A store is a folder, or a prefix in an S3 bucket (s3://BUCKET/PREFIX),
// that an import filled: a catalog and, per disk, its snapshots (VHD files
// or a raw image). Disks belong to clients, the virtual machines that were
// backed up. A Disk presents one snapshot of one disk as a byte array: a
// read recalls the extents it touches from the store into a local extent
// cache, once, and serves later reads from there.
//
// A call that fails throws zxblk::Error, whose message is one line that
// names what failed and why (the disk, extent, snapshot file and block where
// they are known), and whose kind() says what sort of failure it was. Store,
// Disk and LocalExtent are moved, not copied; a moved-from one may only be
// assigned to or destroyed.
//
// Threads: the free functions may be called from any thread at any time. A
// Store's calls are safe from any number of threads at once. A Disk's reads,
// allocation(), prefetch(), extent(), dropExtent(), stats() and statsText()
// are safe from any number of threads at once; its phase calls
// (markMountComplete, beginMetadata, endMetadata, prefetchMountExtents) wait
// for the recalls in progress and are safe with them. Moving or destroying
// an object while another thread uses it is not.
//
//     zxblk::Store store = zxblk::Store::open("/backups/store");
//     zxblk::Disk disk = store.openDisk("web01");
//     std::vector<char> boot(512);
//     disk.read(0, boot.size(), boot.data());
//
// Any number of disks of any number of stores may be open at once in one
// process; the disks of one Store share its restore service, and stores on
// one S3 endpoint share their connections.
//
// Link with zxblk::zxblk (CMake: find_package(zxblk)) or
// `pkg-config --cflags --libs zxblk`.
#pragma once
#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "zxblk/error.h"

namespace zxblk {

// The library's version, "MAJOR.MINOR.PATCH".
ZXBLK_API const char* version();

// The error value and its kinds: zxblk/error.h.

// ---------------------------------------------------------------- log and configuration

// The library's own log lines: what it worked around, and detail for
// finding out why something failed. What fails a call is in its Error: a
// program need not look at them. Levels: -1 errors, 0 summaries, 1 and above
// debug detail. By default errors and summaries go to standard error
// (ZXBLK_LOG_LEVEL in the environment sets the level).
//
// Lines above `level` are dropped; -2 drops them all.
ZXBLK_API void setLogLevel(int level);
ZXBLK_API int logLevel();
// Lines go to this file (appended to), or to standard error for "". Throws
// Error when the file cannot be opened.
ZXBLK_API void setLogFile(const std::string& path);
// Lines go to `handler` instead, one at a time, from any thread, with their
// level, source and text; it must not call the library. An empty handler
// gives them back to the file or standard error.
ZXBLK_API void setLogHandler(std::function<void(int level, const std::string& source, const std::string& text)> handler);
// Writes one line of the program's own beside the library's, with the
// same time, thread and level filter.
ZXBLK_API void logLine(int level, const std::string& source, const std::string& text);

// The configuration is one INI file (ZXBLK_CONFIG names it; without it
// nothing is configured): section VirtualServer holds the provider's keys
// bEnableMetadataRestoreOptimization, bIdentifyFSMetadataDuringCI and
// bIdentifyFSMetadataDuringMount, each true or false.
//
// Checks a configuration file as the library reads it: it must exist,
// parse, and name only keys the library knows, with values it takes.
// Throws Error naming the file and line.
ZXBLK_API void checkConfigFile(const std::string& path);
// Checks the file and uses it from now on (disks opened later read it).
ZXBLK_API void useConfigFile(const std::string& path);

// ---------------------------------------------------------------- a store

enum class SnapshotKind { fixed, dynamic, differencing, raw };
enum class SnapshotStatus {
    ok,       // the file is there and is the one the catalog records
    missing,  // the file is gone
    damaged,  // the file (or its checksums) no longer matches its record: reads of it fail
};
// "fixed VHD", "dynamic VHD", "differencing VHD", "raw"; "ok", "missing", "damaged".
ZXBLK_API const char* kindName(SnapshotKind kind);
struct SnapshotInfo;
// The kind with the file's format: "dynamic VHDX", "fixed VHD", "raw", ...
ZXBLK_API std::string kindName(const SnapshotInfo& snapshot);
ZXBLK_API const char* statusName(SnapshotStatus status);

struct SnapshotInfo {
    int number = 0;  // 0 is the oldest
    SnapshotKind kind = SnapshotKind::raw;
    bool vhdx = false;       // a VHDX (or AVHDX) file rather than a VHD
    std::string file;        // in the store, relative to its folder or prefix
    uint64_t fileSize = 0;   // bytes, as recorded at import
    std::string importedAt;  // UTC, "2024-05-01T12:00:00Z"
    SnapshotStatus status = SnapshotStatus::ok;
    std::string problem;  // why it is missing or damaged; empty when ok
};

struct DiskInfo {
    std::string name;
    std::string client;       // the machine it belongs to
    uint64_t size = 0;        // bytes
    uint64_t extentSize = 0;  // bytes recalled at a time
    std::vector<SnapshotInfo> snapshots;  // oldest first
};

// A client of the store: a virtual machine and its disks.
struct ClientInfo {
    std::string name;
    std::vector<std::string> disks;  // in the catalog's order
};

// How the images given to an import are read.
enum class ImageFormat {
    automatic,  // VHD or VHDX; any other file is refused, naming its format when its first bytes declare one
    vhd,        // VHD files, asked for by name
    vhdx,       // VHDX and AVHDX files, asked for by name
    raw,        // every file is a raw disk image, whatever it holds
};

struct ImportOptions {
    std::string client = "localhost";  // the machine the disk belongs to
    uint64_t clientId = 0;  // 0: the id the store knows the client by, or a new one
    std::string subclient = "default";
    uint32_t subclientId = 0;  // 0: the disk's existing subclient, or a new id
    std::string backupSet = "defaultBackupSet";
    std::string instance = "defaultInstance";
    uint64_t extentSize = 1 << 20;  // of a new disk: a power of two from 64 KiB to 2 MiB
    ImageFormat format = ImageFormat::automatic;
    // Called from the importing thread: bytes of the images dealt with so
    // far, and in all.
    std::function<void(uint64_t done, uint64_t total)> progress;
};

// What verify found: a snapshot, or a block of one, that does not match
// what was imported, or a snapshot it could not check.
struct VerifyFinding {
    std::string disk;
    int snapshot = 0;
    std::string file;    // in the store
    int64_t block = -1;  // the checksum block; -1 for the whole snapshot
    // The disk bytes the block stands for (for a differencing snapshot, what
    // is lost with it); 0 and 0 for the whole snapshot.
    uint64_t offset = 0, length = 0;
    std::string text;    // what is wrong, one line
    bool damaged = true;  // false: imported before checksums were kept, so not checked
};

struct VerifyResult {
    uint64_t disks = 0, snapshots = 0, blocks = 0;
    uint64_t damaged = 0;    // blocks, or whole snapshots that could not be checked
    uint64_t unchecked = 0;  // snapshots imported before checksums were kept
};

// One extent the index flags for a disk: recalled while the disk mounted
// ("mount") or while its file-system metadata was identified ("metadata").
struct IndexRow {
    int snapshot = 0;
    std::string kind;
    uint64_t extent = 0;
    uint64_t reports = 0;  // how many times it was reported
    std::string firstSeen, lastSeen;  // UTC, "2024-05-01 12:00:00"
};

struct DiskOptions {
    int snapshot = -1;        // -1: the newest
    std::string cacheDir;     // empty: a folder per store, disk and snapshot under defaultCacheRoot()
    uint64_t cacheLimit = 0;  // bytes the cache may hold; 0: a quarter of the free space where it lies
    // The largest window recalled ahead of a reader that goes through the
    // disk in order, in bytes: whole extents, at most a quarter of the cache;
    // 0: none. The window opens at one extent once a reader has read a whole
    // extent in order, doubles each time it enters the next extent, and
    // closes as soon as its reads go elsewhere; extents that no snapshot
    // holds are never recalled ahead.
    uint64_t readahead = 16 << 20;
    // Track the extents recalled while the disk mounts and while its
    // metadata is identified, for the index (the provider's metadata
    // restore optimization), unless the configuration says otherwise.
    bool trackExtents = false;
    // Metadata extents gathered before they are sent to the index.
    uint64_t flushThreshold = 64;
    // Where the disk is mounted, written into the cache's lock, so that a
    // process refused the cache can say where it is in use.
    std::string mountPoint;
    // Removes the cache folder when the disk closes (not when the process dies).
    bool dropCacheAtEnd = false;
    // Every snapshot the disk reads from is checked as it opens (present,
    // its size, footer and header, its ids against the catalog; no data
    // read), and a disk with one that fails is refused with an Error naming
    // it (notFound when missing, corruption when damaged). With this set the
    // disk opens anyway, notices() says which snapshot is damaged, and the
    // reads that need it fail as they come.
    bool allowDamaged = false;
};

class Disk;

// A store, as its catalog was when it was opened.
class ZXBLK_API Store {
public:
    // Throws Error when `location` is not a store or its catalog is unsound.
    static Store open(const std::string& location);
    // Imports images into the store at `location`, made when missing: a VHD
    // chain base first, or one raw image with ImageFormat::raw, as a new disk
    // or as newer snapshots of a disk already there. Every image is checked
    // before the store changes; a failed import leaves it as it was. Returns
    // one line per snapshot imported (and per file an earlier, killed import
    // left and this one removed).
    static std::vector<std::string> importImages(const std::string& location, const std::string& disk,
                                                 const std::vector<std::string>& images,
                                                 const ImportOptions& options = ImportOptions());
    ~Store();
    Store(Store&& other) noexcept;
    Store& operator=(Store&& other) noexcept;
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    const std::string& path() const;
    // Every disk with its snapshots. Each snapshot file is opened and checked
    // against its catalog record as a read would check it (not its data,
    // block by block: verify() does that); a bad file is reported in its
    // SnapshotInfo and does not stop the listing.
    std::vector<DiskInfo> disks() const;
    // One disk; throws Error when the store has none of that name.
    DiskInfo disk(const std::string& name) const;
    // The store's clients (virtual machines) and their disks.
    std::vector<ClientInfo> clients() const;
    // One client; throws Error when the store has none of that name.
    ClientInfo client(const std::string& name) const;
    // Opens one snapshot of a disk. Every disk opened from one Store shares
    // its restore service.
    Disk openDisk(const std::string& name, const DiskOptions& options = DiskOptions()) const;
    // Reads every block of every snapshot of the store (or of one disk: ""
    // for all) and compares it with the checksum taken at import; each
    // finding is handed to `found` as it is made.
    VerifyResult verify(const std::string& disk, const std::function<void(const VerifyFinding&)>& found) const;
    // The extents the index flags for a disk, of one snapshot (-1: all) and
    // kind ("" both), by snapshot, kind and extent.
    std::vector<IndexRow> indexRows(const std::string& disk, int snapshot = -1, const std::string& kind = "") const;

private:
    friend class Disk;
    struct Impl;
    explicit Store(std::shared_ptr<Impl> impl);
    std::shared_ptr<Impl> m_impl;
};

// A stretch of the disk, and whether any snapshot holds data there. Where
// none does (data == false) the disk reads as zeros. A stretch with data may
// still read as zeros: the snapshot's file holds zeros there.
struct Range {
    uint64_t offset = 0;
    uint64_t length = 0;
    bool data = false;
};

// A stretch of the disk that a salvage read (Disk::readSalvaged) could not
// read and gave as zeros: the snapshot whose block failed its checksum or
// could not be read, its file in the store, the block (-1 when the file
// could not be opened at all) and why, one line.
struct SalvagedRange {
    uint64_t offset = 0;
    uint64_t length = 0;
    int snapshot = 0;
    std::string file;
    int64_t block = -1;
    std::string why;
};

// What a disk has recalled and cached since it was opened.
struct DiskStats {
    uint64_t extentsRecalled = 0, bytesRecalled = 0;
    uint64_t extentsReadAhead = 0;  // of those recalled, how many ahead of a reader
    // Of those read ahead, how many no read has used: evicted or dropped
    // before a read came for them, or still waiting for one.
    uint64_t readAheadUnused = 0;
    uint64_t readErrors = 0, evictions = 0;
    uint64_t cacheExtents = 0, cacheBytes = 0, cacheLimit = 0;
    uint64_t restoreJobs = 0, restoreFailures = 0, restoreBytes = 0;  // the store's restore service
    bool mountComplete = false, metadataPhase = false;
    bool remote = false;  // a store on S3: the figures below count its requests
    uint64_t storeGets = 0, storeGetBytes = 0, storeRetries = 0;
    // The link to the store as its replies measured it (0 before any), and
    // the most bytes fetched from it that were held in memory at once.
    double storeRttSeconds = 0, storeBytesPerSecond = 0;
    uint64_t storeHeldPeak = 0;
};

class LocalExtent;

// One snapshot of one disk. One process (and one Disk in it) at a time may
// use an extent cache.
class ZXBLK_API Disk {
public:
    // Store::open(store).openDisk(disk, options).
    static Disk open(const std::string& store, const std::string& disk, const DiskOptions& options = DiskOptions());
    ~Disk();
    Disk(Disk&& other) noexcept;
    Disk& operator=(Disk&& other) noexcept;
    Disk(const Disk&) = delete;
    Disk& operator=(const Disk&) = delete;

    const std::string& name() const;
    const std::string& client() const;
    uint64_t size() const;
    uint64_t extentSize() const;
    uint64_t extentCount() const;
    int snapshot() const;  // the snapshot presented
    const std::string& cacheDir() const;
    // What its user should hear of how the disk was opened (a cache dropped
    // because it was not closed cleanly, or held another disk), one line each.
    std::vector<std::string> notices() const;

    // Reads [offset, offset + length); throws Error when the range goes past
    // the end of the disk or a snapshot file cannot serve it. Extents that no
    // snapshot holds (allocation() says where) read as zeros and are not
    // recalled.
    void read(uint64_t offset, uint64_t length, void* buffer);
    // Reads [offset, offset + length) past damage: straight from the
    // snapshot files, not through the cache, each block checked against its
    // checksum. What a block that fails (or a file that cannot be opened)
    // would have given reads as zeros and is returned, in order; the rest
    // reads as read() would read it. The range must start on a 512-byte
    // boundary. Throws Error for a range past the end of the disk.
    std::vector<SalvagedRange> readSalvaged(uint64_t offset, uint64_t length, void* buffer);
    // [offset, offset + length) covered exactly by ranges in order, neighbours
    // never alike. Answered from the snapshots' block tables, without
    // recalling anything, at the granularity allocationGranularity() gives. A
    // range whose snapshot file cannot be read counts as data: reading it
    // then says why.
    std::vector<Range> allocation(uint64_t offset, uint64_t length);
    // The smallest VHD block of the snapshots presented (no allocation
    // boundary lies between two multiples of it); the extent size when they
    // are all fixed or raw, which hold data everywhere.
    uint64_t allocationGranularity();
    // Recalls the extents of the range in the background; returns at once.
    void prefetch(uint64_t offset, uint64_t length);
    // The extent `index` made local and held in the cache (see LocalExtent).
    LocalExtent extent(uint64_t index);
    // Drops the extent from the cache unless a LocalExtent holds it: a copy
    // of the whole disk that reads each extent once keeps the cache small.
    void dropExtent(uint64_t index);

    // The phases of a disk that a file system is mounted from: the extents
    // recalled until markMountComplete() are reported to the index as mount
    // extents, those between beginMetadata() and endMetadata() as metadata
    // extents (with DiskOptions::trackExtents). Each throws Error when the
    // index could not be told.
    void markMountComplete();
    void beginMetadata();
    void endMetadata();
    // Recalls in the background the extents the index flags as mount
    // extents of this disk and snapshot, ahead of the reads that a mount
    // will make; returns how many.
    size_t prefetchMountExtents();

    DiskStats stats();
    // The same as "key value" lines: disk_bytes, extent_size,
    // extents_recalled, bytes_recalled, extents_read_ahead,
    // read_ahead_unused, read_errors, evictions, cache_extents, cache_bytes,
    // cache_limit, restore_jobs, restore_failures, restore_bytes,
    // mount_complete, metadata_phase, and for a store on S3 store_gets,
    // store_get_bytes and store_retries.
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

// ---------------------------------------------------------------- differencing snapshots

struct DifferencingStats {
    uint64_t sectorsChanged = 0;
    uint64_t blocksAllocated = 0;
};
// Writes `childVhd`, a differencing VHD whose parent is `parentVhd` (it
// names the parent's unique id, size and file name) and that holds exactly
// the sectors in which the raw image `newerRaw` differs from `olderRaw`,
// what the parent presents: a snapshot made from two raw images, for
// samples and tests. Throws Error.
ZXBLK_API DifferencingStats writeDifferencingVhd(const std::string& parentVhd, const std::string& olderRaw,
                                                 const std::string& newerRaw, const std::string& childVhd);

// ---------------------------------------------------------------- extent caches

// The process that uses a cache, as the cache's lock tells.
struct ZXBLK_API CacheUser {
    bool inUse = false;
    long pid = 0;            // 0 when the lock names none
    std::string mountPoint;  // where the disk is mounted, when a mount holds it
    bool stopping = false;   // it is closing the cache
    bool removing = false;   // it is removing the cache
    // "pid 1234, mounted on /mnt/x"
    std::string describe() const;
};

struct CacheInfo {
    std::string folder;
    std::string store, disk;  // as the cache records them; empty when it records nothing
    int snapshot = -1;
    uint64_t bytes = 0;  // allocated, as du counts them
    std::time_t lastUse = 0;
    CacheUser user;
};

// $XDG_CACHE_HOME/zxblk, or ~/.cache/zxblk: where default caches live.
ZXBLK_API std::string defaultCacheRoot();
// The default cache of a store's disk and snapshot.
ZXBLK_API std::string defaultCacheDir(const std::string& store, const std::string& disk, int snapshot);
// A store's location as caches record it: a folder by its real path, a
// store on S3 by its URL.
ZXBLK_API std::string canonicalStoreLocation(const std::string& store);
// The caches under `root`, by store, disk and snapshot; folders there that
// are not caches are left out.
ZXBLK_API std::vector<CacheInfo> listCaches(const std::string& root);
// Who uses a cache now, without taking it.
ZXBLK_API CacheUser cacheUser(const std::string& folder);
// Removes what a cache holds and then its folder, if nothing else is in it,
// unless a process uses the cache: then it returns false, touches nothing
// and tells who in `user`. Throws Error when it cannot remove it.
ZXBLK_API bool removeCache(const std::string& folder, CacheUser* user = nullptr);

}  // namespace zxblk
