// The services of one backup store, as the platform reaches them through its
// router: extent lookup (which copy holds an extent), the restore service
// that streams extents into restore targets on worker threads of its own,
// the application records and the extent index. One object per open store,
// shared by every disk of it that is open in the process.
#pragma once
#include <atomic>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/ZxServices.h"
#include "store/catalog.h"
#include "store/index_service.h"
#include "store/vhd_image.h"

namespace zxblk {

class S3MetadataCache;

struct RestoreStats {
    uint64_t jobs = 0;       // recalls completed, failed or not
    uint64_t failures = 0;   // recalls that completed with an error
    uint64_t bytes = 0;      // bytes of extent data streamed
};

// A snapshot of a chain that failed the checks of its open, and why.
struct ChainDamage {
    int snapshot = 0;
    std::string file;     // as the catalog names it
    bool missing = false;  // no such file or object
    // Why, without the file's path in front: "file size: the catalog records
    // 8392704 bytes, the file has 4096 bytes".
    std::string reason;
    ErrorKind kind = ErrorKind::corruption;
};

class StoreServices : public ExtentLookupService, public RestoreService, public RecordsService,
                      public std::enable_shared_from_this<StoreServices> {
public:
    struct Options {
        unsigned workers = 4;
        // Bytes per Write call: a piece of a block goes whole, so the file
        // layer hands it to the kernel without copying it first.
        unsigned writeSize = 1 << 20;
    };
    // Loads and checks the catalog and attaches the services to the
    // platform's router; throws StoreError.
    static std::shared_ptr<StoreServices> open(std::shared_ptr<const Storage> storage, Options options);
    static std::shared_ptr<StoreServices> open(std::shared_ptr<const Storage> storage) {
        return open(std::move(storage), Options());
    }
    // The same, with the catalog its opener has loaded already.
    static std::shared_ptr<StoreServices> open(std::shared_ptr<const Storage> storage, Catalog catalog,
                                               Options options);
    static std::shared_ptr<StoreServices> open(std::shared_ptr<const Storage> storage, Catalog catalog) {
        return open(std::move(storage), std::move(catalog), Options());
    }
    ~StoreServices() override;

    // Stops the workers; queued recalls complete with an error, and new
    // ones are refused. The services leave the router when they go.
    void shutdown();
    // Every disk object of the disks open on this store may have a recall
    // in flight: a disk reserves workers for its objects (the store runs at
    // least as many as are reserved, at most 64) and gives them back.
    void reserveWorkers(unsigned count);
    void releaseWorkers(unsigned count);
    // Waits until no recall submitted with this callback context is queued
    // or running: a disk object must not go while one may still call it
    // back. Its queued recalls complete at once, with an error.
    void forget(const void* context);

    const Catalog& catalog() const { return m_catalog; }
    const Storage& storage() const { return *m_storage; }
    const std::string& location() const { return m_storage->location(); }
    RestoreStats stats() const;
    // The store's extent index, or null when it could not be opened.
    std::shared_ptr<SqliteIndexService> index() const { return m_index; }
    // The browse path under which the provider reaches a copy, and the
    // subclient id it is given for a disk: the store's own, routed.
    std::string routedPath(const CopyRecord& copy) const;
    uint32_t routedAppId(const DiskRecord& disk) const;

    // Opens the disk's snapshots up to `snapshot` (those not open yet) all
    // at once: a store a network away answers them in one round trip, not
    // one or more per snapshot in turn. The checks are the cheap ones of an
    // open (present, size, footer, header, ids against the catalog; no data
    // read). Returns those that failed, oldest first; they stay closed, and
    // a recall that needs one tries again and says why not.
    std::vector<ChainDamage> openChain(const DiskRecord& disk, int snapshot);
    // Whether any snapshot of the disk up to `snapshot` keeps a byte of
    // [offset, offset + length) in its file; where none does, the disk
    // reads as zeros. True when a file cannot be read: the recall then
    // says why.
    bool holdsData(const DiskRecord& disk, int snapshot, uint64_t offset, uint64_t length);
    // How finely holdsData tells data from zeros: the smallest VHD block
    // among the disk's snapshots up to `snapshot` (for a dynamic or
    // differencing VHDX, at most an extent); 0 when all are fixed or raw
    // (or cannot be read).
    uint64_t allocationGranularity(const DiskRecord& disk, int snapshot);
    // Why the last recall of disk extent `extent` failed, as the lookup or
    // the restore that failed said it; nothing when neither said anything.
    // Each cause is told once.
    std::optional<StoreError> takeFailure(const DiskRecord& disk, int snapshot, uint64_t extent);

    // A stretch of a salvage read that no snapshot could give: zeros stand
    // in for it. The snapshot whose block failed, its file and block (-1
    // when the file could not be opened at all) and why.
    struct Gap {
        uint64_t offset = 0, length = 0;
        int snapshot = 0;
        std::string file;
        int64_t block = -1;
        std::string why;
    };
    // Reads [offset, offset + length) of the disk as `snapshot` presents it
    // straight from the snapshot files, each block checked against its
    // checksum, into `out`. What a block that fails its check (or a file
    // that cannot be opened) would have given is zeros, and is returned;
    // everything around it is read as usual.
    std::vector<Gap> salvageRead(const DiskRecord& disk, int snapshot, uint64_t offset, uint64_t length, uint8_t* out);

    // ExtentLookupService
    bool open(const SCParams& params, const std::string& path, std::string& whyNot) override;
    int lookup(const SCParams& params, const std::string& path, unsigned long long extent,
               unsigned long long& first, unsigned long long& second) override;
    // RestoreService
    bool submit(const RecallJob& job, std::string& whyNot) override;
    // RecordsService
    bool subclient(uint32_t appId, AppIdInfo& info) override;
    bool clientName(uint64_t id, std::string& name) override;
    bool instanceName(uint64_t id, std::string& name) override;
    bool backupSetName(uint64_t id, std::string& name) override;

private:
    StoreServices(std::shared_ptr<const Storage> storage, Catalog catalog, Options options);
    // The copy's open image, checked against its catalog record once, and
    // again whenever its file has changed since; `recheck` false takes one
    // already open without asking whether its file changed. Throws StoreError.
    std::shared_ptr<VhdImage> image(const CopyRecord& copy, bool recheck = true);
    // The store's own path for a routed one.
    std::string localPath(const std::string& routed) const;
    void work();
    void run(const RecallJob& job);
    // Completes a recall that will not run with an error.
    void cancel(const RecallJob& job, const std::string& why);
    // Streams one copy extent into the job's target; returns "" or why not.
    std::string stream(const RecallJob& job, uint64_t& bytes);
    void noteFailure(const std::string& extentPath, const StoreError& cause);

    std::shared_ptr<const Storage> m_storage;
    Catalog m_catalog;
    Options m_options;
    std::shared_ptr<ServiceRoute> m_route;
    std::shared_ptr<SqliteIndexService> m_index;
    std::mutex m_imagesMutex;
    std::map<uint64_t, std::shared_ptr<VhdImage>> m_images;
    // Blocks read last, for the other extents that lie in them: a few
    // blocks of the usual 2 MiB, whatever the number of disks open (fewer
    // on S3, whose readers keep what they fetched as well).
    UnitCache m_units;
    std::mutex m_queueMutex;
    std::condition_variable m_queueCond;
    std::deque<RecallJob> m_queue;   // recalls ahead of readers
    std::deque<RecallJob> m_urgent;  // recalls a reader waits on: run first
    std::map<const void*, unsigned> m_running;  // recalls running, by callback context
    bool m_stopping = false;
    unsigned m_reserved = 0;
    std::vector<std::thread> m_workers;
    std::atomic<uint64_t> m_jobs{0}, m_failures{0}, m_bytes{0};
    // Why recalls failed, by the store's own extent path
    // ("/client/subclient/disk/snapN/ExtentK"), oldest first, a bounded few.
    std::mutex m_failuresMutex;
    std::deque<std::pair<std::string, StoreError>> m_failureNotes;
};

// The checksums recorded for a copy's file at import, checked against the
// catalog's record of the side file; null for a copy imported before they
// were kept. Throws StoreError naming the side file.
std::shared_ptr<const BlockSums> loadBlockSums(const Storage& storage, const CopyRecord& copy, const VhdImage& img);
// Opens snapshot `index` of the disk, checks the file against its catalog
// record and attaches its checksums (or why they cannot be used, which then
// fails every verification). A large side file on a store a network away is
// read a range at a time as recalls need them, and what is read of it is
// kept in `kept`, when given, for the next open. Throws StoreError.
std::shared_ptr<VhdImage> openCopyImage(const Storage& storage, const DiskRecord& disk, size_t index,
                                        const std::shared_ptr<S3MetadataCache>& kept = nullptr);

// Parts of a recall metadata string "1:2:0:<afid>:<pos>:1:<len>:<path>".
struct RecallMetadata {
    uint64_t archiveFileId = 0;
    uint64_t position = 0;
    std::string extentPath;
};
// False (with the reason) when the string is not one.
bool parseRecallMetadata(const std::string& text, RecallMetadata& out, std::string& why);

}  // namespace zxblk
