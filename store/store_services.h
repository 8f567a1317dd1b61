// The services of a backup store, as the platform reaches them: extent
// lookup (which copy holds an extent), the restore service that streams
// extents into restore targets on worker threads of its own, and the
// application records.
#pragma once
#include <atomic>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/ZxServices.h"
#include "store/catalog.h"
#include "store/index_service.h"
#include "store/vhd_image.h"

namespace zxblk {

struct RestoreStats {
    uint64_t jobs = 0;       // recalls completed, failed or not
    uint64_t failures = 0;   // recalls that completed with an error
    uint64_t bytes = 0;      // bytes of extent data streamed
};

class StoreServices : public ExtentLookupService, public RestoreService, public RecordsService,
                      public std::enable_shared_from_this<StoreServices> {
public:
    struct Options {
        unsigned workers = 4;
        unsigned writeSize = 64 * 1024;  // bytes per Write call
    };
    // Loads and checks the catalog; throws StoreError.
    static std::shared_ptr<StoreServices> open(const std::string& storeDir, Options options);
    static std::shared_ptr<StoreServices> open(const std::string& storeDir) { return open(storeDir, Options()); }
    ~StoreServices() override;

    // Puts these services in the platform's registry slots (and takes them
    // out again). Only one store is registered at a time.
    void registerWithPlatform();
    void unregisterFromPlatform();
    // Stops the workers; queued recalls complete with an error.
    void shutdown();

    const Catalog& catalog() const { return m_catalog; }
    const std::string& directory() const { return m_dir; }
    RestoreStats stats() const;
    // The store's extent index, or null when it could not be opened.
    std::shared_ptr<SqliteIndexService> index() const { return m_index; }

    // Whether any snapshot of the disk up to `snapshot` keeps a byte of
    // [offset, offset + length) in its file; where none does, the disk
    // reads as zeros. True when a file cannot be read: the recall then
    // says why.
    bool holdsData(const DiskRecord& disk, int snapshot, uint64_t offset, uint64_t length);

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
    StoreServices(const std::string& dir, Catalog catalog, Options options);
    // The copy's file, opened and checked against its catalog record once,
    // and again whenever the file has changed since; throws StoreError.
    // The copy's open image, checked against its record; `recheck` false
    // takes one already open without asking whether its file changed.
    std::shared_ptr<VhdImage> image(const CopyRecord& copy, bool recheck = true);
    void work();
    void run(const RecallJob& job);
    // Streams one copy extent into the job's target; returns "" or why not.
    std::string stream(const RecallJob& job, uint64_t& bytes);

    std::string m_dir;
    Catalog m_catalog;
    Options m_options;
    std::shared_ptr<SqliteIndexService> m_index;
    std::mutex m_imagesMutex;
    std::map<uint64_t, std::shared_ptr<VhdImage>> m_images;
    std::mutex m_queueMutex;
    std::condition_variable m_queueCond;
    std::deque<RecallJob> m_queue;
    bool m_stopping = false;
    std::vector<std::thread> m_workers;
    std::atomic<uint64_t> m_jobs{0}, m_failures{0}, m_bytes{0};
};

// The checksums recorded for a copy's file at import, checked against the
// catalog's record of the side file; null for a copy imported before they
// were kept. Throws StoreError naming the side file.
std::shared_ptr<const BlockSums> loadBlockSums(const std::string& storeDir, const CopyRecord& copy, const VhdImage& img);
// Opens snapshot `index` of the disk, checks the file against its catalog
// record and attaches its checksums (or why they cannot be used, which then
// fails every verification). Throws StoreError.
std::shared_ptr<VhdImage> openCopyImage(const std::string& storeDir, const DiskRecord& disk, size_t index);

// Parts of a recall metadata string "1:2:0:<afid>:<pos>:1:<len>:<path>".
struct RecallMetadata {
    uint64_t archiveFileId = 0;
    uint64_t position = 0;
    std::string extentPath;
};
// False (with the reason) when the string is not one.
bool parseRecallMetadata(const std::string& text, RecallMetadata& out, std::string& why);

}  // namespace zxblk
