#include "store/store_services.h"

#include <algorithm>
#include <cstring>

#include "platform/Log.h"
#include "store/at_once.h"
#include "store/storage.h"

namespace zxblk {
namespace {

const char* const kTag = "StoreServices";
// Causes of failed recalls kept for their readers to take; a reader takes
// its own at once, so only a few are ever waiting.
const size_t kFailureNotes = 256;
const unsigned kMostWorkers = 64;

}  // namespace

std::shared_ptr<StoreServices> StoreServices::open(std::shared_ptr<const Storage> storage, Options options) {
    Catalog catalog = Catalog::load(*storage);
    return open(std::move(storage), std::move(catalog), options);
}

std::shared_ptr<StoreServices> StoreServices::open(std::shared_ptr<const Storage> storage, Catalog catalog,
                                                   Options options) {
    if (options.workers == 0) options.workers = 1;
    if (options.writeSize < 512) options.writeSize = 512;
    std::shared_ptr<StoreServices> s(new StoreServices(std::move(storage), std::move(catalog), options));
    ServiceSet set;
    set.lookup = s;
    set.restore = s;
    set.records = s;
    set.index = s->m_index;
    s->m_route = ServiceRouter::instance().attach(set);
    // Workers read the route: they start once it is there.
    s->reserveWorkers(0);
    return s;
}

StoreServices::StoreServices(std::shared_ptr<const Storage> storage, Catalog catalog, Options options)
    : m_storage(std::move(storage)),
      m_catalog(std::move(catalog)),
      m_options(options),
      m_units(m_storage->remote() ? 4u << 20 : 8u << 20, 2) {
    try {
        m_index = std::make_shared<SqliteIndexService>(*m_storage);
    } catch (const StoreError& e) {
        // A store that cannot keep an index still serves its disks.
        LogSink::write(kLevelError, kTag, std::string("no extent index: ") + e.what());
    }
}

StoreServices::~StoreServices() { shutdown(); }

void StoreServices::shutdown() {
    {
        std::lock_guard<std::mutex> lock(m_queueMutex);
        if (m_stopping && m_workers.empty()) return;
        m_stopping = true;
    }
    m_queueCond.notify_all();
    for (auto& t : m_workers) t.join();
    m_workers.clear();
}

void StoreServices::reserveWorkers(unsigned count) {
    std::lock_guard<std::mutex> lock(m_queueMutex);
    m_reserved += count;
    if (m_stopping) return;
    const unsigned wanted = std::min(std::max(m_options.workers, m_reserved), kMostWorkers);
    while (m_workers.size() < wanted) m_workers.emplace_back(&StoreServices::work, this);
}

// Workers stay: another disk may soon reserve them again.
void StoreServices::releaseWorkers(unsigned count) {
    std::lock_guard<std::mutex> lock(m_queueMutex);
    m_reserved -= std::min(count, m_reserved);
}

void StoreServices::forget(const void* context) {
    std::vector<RecallJob> dropped;
    {
        std::unique_lock<std::mutex> lock(m_queueMutex);
        for (std::deque<RecallJob>* queue : {&m_urgent, &m_queue})
            for (auto it = queue->begin(); it != queue->end();) {
                if (it->context == context) {
                    dropped.push_back(std::move(*it));
                    it = queue->erase(it);
                } else {
                    ++it;
                }
            }
        m_queueCond.wait(lock, [&] { return !m_running.count(context); });
    }
    for (RecallJob& job : dropped) cancel(job, "the recall was cancelled: its disk was closed");
}

// Every accepted recall hears back, also one that never ran.
void StoreServices::cancel(const RecallJob& job, const std::string& why) {
    DMRestoreCompleted_t done;
    done.requestId = job.requestId;
    done.status = -1;
    done.error = why;
    ++m_jobs, ++m_failures;
    job.callback(job.context, &done);
}

RestoreStats StoreServices::stats() const {
    RestoreStats s;
    s.jobs = m_jobs;
    s.failures = m_failures;
    s.bytes = m_bytes;
    return s;
}

std::string StoreServices::routedPath(const CopyRecord& copy) const {
    return (m_route ? m_route->prefix() : std::string()) + copy.browsePath;
}

uint32_t StoreServices::routedAppId(const DiskRecord& disk) const {
    return m_route ? m_route->appId(disk.subclientId) : disk.subclientId;
}

std::string StoreServices::localPath(const std::string& routed) const {
    std::string local = m_route ? m_route->localPath(routed) : std::string();
    return local.empty() ? routed : local;
}

std::shared_ptr<VhdImage> StoreServices::image(const CopyRecord& copy, bool recheck) {
    if (!recheck) {
        std::lock_guard<std::mutex> lock(m_imagesMutex);
        auto it = m_images.find(copy.archiveFileId);
        if (it != m_images.end()) return it->second;
    }
    const DiskRecord* disk;
    const CopyRecord* found;
    if (!m_catalog.findCopy(copy.archiveFileId, &disk, &found))
        throw StoreError(ErrorKind::notFound, "no copy with archive file id " + std::to_string(copy.archiveFileId) +
                                                  " in store " + location());
    // A file replaced or rewritten while it is open is opened and checked again.
    std::lock_guard<std::mutex> lock(m_imagesMutex);
    auto it = m_images.find(copy.archiveFileId);
    if (it != m_images.end() && it->second->current()) return it->second;
    if (it != m_images.end()) m_images.erase(it);
    auto img = openCopyImage(*m_storage, *disk, static_cast<size_t>(found - disk->copies.data()));
    m_images[copy.archiveFileId] = img;
    return img;
}

std::vector<ChainDamage> StoreServices::openChain(const DiskRecord& disk, int snapshot) {
    std::vector<size_t> wanted;
    {
        std::lock_guard<std::mutex> lock(m_imagesMutex);
        for (size_t i = 0; i < disk.copies.size() && static_cast<int>(i) <= snapshot; ++i)
            if (!m_images.count(disk.copies[i].archiveFileId)) wanted.push_back(i);
    }
    std::vector<std::shared_ptr<VhdImage>> opened(wanted.size());
    std::vector<std::optional<ChainDamage>> failed(wanted.size());
    runAtOnce(wanted.size(), [&](size_t k) {
        const CopyRecord& copy = disk.copies[wanted[k]];
        ErrorKind kind = ErrorKind::io;
        std::string why;
        try {
            opened[k] = openCopyImage(*m_storage, disk, wanted[k]);
            return;
        } catch (const StoreError& e) {
            kind = e.kind(), why = e.what();
        } catch (const std::exception& e) {
            why = e.what();
        }
        ChainDamage d;
        d.snapshot = static_cast<int>(wanted[k]);
        d.file = copy.file;
        d.kind = kind;
        // Opened without asking first whether it is there: only a failed
        // open asks.
        try {
            d.missing = kind == ErrorKind::notFound && !m_storage->stat(copy.file).exists;
        } catch (const StoreError&) {
            // The store stopped answering: the open's own cause stands.
        }
        // The snapshot is named by its caller, with the catalog's name of
        // the file: the store's full path in front of the reason is noise.
        const std::string path = m_storage->describe(copy.file) + ": ";
        d.reason = d.missing ? "no such file" : why.compare(0, path.size(), path) == 0 ? why.substr(path.size()) : why;
        failed[k] = std::move(d);
    });
    std::vector<ChainDamage> damage;
    std::lock_guard<std::mutex> lock(m_imagesMutex);
    for (size_t k = 0; k < wanted.size(); ++k) {
        if (opened[k]) m_images.emplace(disk.copies[wanted[k]].archiveFileId, opened[k]);
        if (failed[k]) damage.push_back(std::move(*failed[k]));
    }
    return damage;
}

bool StoreServices::open(const SCParams&, const std::string& path, std::string& whyNot) {
    const DiskRecord* disk;
    const CopyRecord* copy;
    if (!m_catalog.findCopy(localPath(path), &disk, &copy)) return whyNot = "no copy " + path + " in store " + location(), false;
    return true;
}

int StoreServices::lookup(const SCParams&, const std::string& path, unsigned long long extent,
                          unsigned long long& first, unsigned long long& second) {
    const DiskRecord* disk;
    const CopyRecord* copy;
    const std::string local = localPath(path);
    if (!m_catalog.findCopy(local, &disk, &copy)) {
        // Said to the reader as well: the log is seen only with -v.
        noteFailure(local + "/Extent" + std::to_string(extent),
                    StoreError(ErrorKind::notFound, "no copy " + path + " in store " + location()));
        LogSink::write(kLevelError, kTag, "extent lookup: no copy " + path);
        return 2;
    }
    uint64_t C = static_cast<uint64_t>(copy->copyExtentLength());
    if (extent >= (disk->size + C - 1) / C) return 1;  // past the end of the disk
    try {
        const int64_t position = image(*copy)->holdingPosition(extent * C, C);
        if (position < 0) return 1;
        first = copy->archiveFileId;
        second = static_cast<unsigned long long>(position);
        return 0;
    } catch (const StoreError& e) {
        noteFailure(local + "/Extent" + std::to_string(extent), e);
        LogSink::write(kLevelError, kTag, std::string("extent lookup: ") + e.what());
        return 3;
    }
}

bool StoreServices::holdsData(const DiskRecord& disk, int snapshot, uint64_t offset, uint64_t length) {
    try {
        for (int i = std::min<int>(snapshot, static_cast<int>(disk.copies.size()) - 1); i >= 0; --i) {
            // Which blocks a file allocates is asked per extent ahead of any
            // recall; the recall itself checks the file again.
            std::shared_ptr<VhdImage> img = image(disk.copies[i], false);
            if (img->holdsAny(offset, length)) return true;
            // Zeros that hide whatever the older snapshots hold there.
            if (img->hidesAll(offset, length)) return false;
        }
        return false;
    } catch (const StoreError&) {
        return true;
    }
}

uint64_t StoreServices::allocationGranularity(const DiskRecord& disk, int snapshot) {
    uint64_t smallest = 0;
    for (int i = 0; i <= snapshot && i < static_cast<int>(disk.copies.size()); ++i) {
        const CopyRecord& c = disk.copies[static_cast<size_t>(i)];
        if (c.type != kTypeDynamic && c.type != kTypeDifferencing) continue;
        try {
            std::shared_ptr<VhdImage> img = image(c, false);
            uint64_t block = img->blockSize();
            // What a VHDX block never had written is often a hole in the
            // file, which holds nothing: its data starts and stops at any
            // extent, not only at block boundaries.
            if (img->format() == FileFormat::Vhdx)
                block = std::min<uint64_t>(block, static_cast<uint64_t>(disk.extentSize));
            if (block && (!smallest || block < smallest)) smallest = block;
        } catch (const StoreError&) {
            // holdsData counts a file it cannot read as data throughout.
        }
    }
    return smallest;
}

void StoreServices::noteFailure(const std::string& extentPath, const StoreError& cause) {
    std::lock_guard<std::mutex> lock(m_failuresMutex);
    m_failureNotes.emplace_back(extentPath, cause);
    if (m_failureNotes.size() > kFailureNotes) m_failureNotes.pop_front();
}

// The read of a disk extent walks the copies newest first, each over the
// copy extents that make up the disk extent; the first that failed ended it.
std::optional<StoreError> StoreServices::takeFailure(const DiskRecord& disk, int snapshot, uint64_t extent) {
    const uint64_t E = static_cast<uint64_t>(disk.extentSize);
    std::lock_guard<std::mutex> lock(m_failuresMutex);
    for (int i = std::min<int>(snapshot, static_cast<int>(disk.copies.size()) - 1); i >= 0; --i) {
        const CopyRecord& c = disk.copies[static_cast<size_t>(i)];
        const uint64_t C = static_cast<uint64_t>(c.copyExtentLength());
        if (!C) continue;
        for (uint64_t k = extent * E / C; k <= ((extent + 1) * E - 1) / C; ++k) {
            const std::string key = c.browsePath + "/Extent" + std::to_string(k);
            for (auto it = m_failureNotes.rbegin(); it != m_failureNotes.rend(); ++it)
                if (it->first == key) {
                    StoreError cause = it->second;
                    m_failureNotes.erase(std::next(it).base());
                    return cause;
                }
        }
    }
    return std::nullopt;
}

bool StoreServices::submit(const RecallJob& job, std::string& whyNot) {
    if (!job.target || !job.callback) return whyNot = "a recall needs a restore target and a callback", false;
    {
        std::lock_guard<std::mutex> lock(m_queueMutex);
        if (m_stopping) return whyNot = "the restore service of " + location() + " is shutting down", false;
        (recallsAhead() ? m_queue : m_urgent).push_back(job);
    }
    m_queueCond.notify_one();
    return true;
}

void StoreServices::work() {
    for (;;) {
        RecallJob job;
        {
            std::unique_lock<std::mutex> lock(m_queueMutex);
            m_queueCond.wait(lock, [this] { return m_stopping || !m_urgent.empty() || !m_queue.empty(); });
            std::deque<RecallJob>& queue = m_urgent.empty() ? m_queue : m_urgent;
            if (queue.empty()) return;
            job = std::move(queue.front());
            queue.pop_front();
            if (m_stopping) {
                lock.unlock();
                cancel(job, "the restore service stopped before the recall ran");
                continue;
            }
            ++m_running[job.context];
        }
        run(job);
        {
            std::lock_guard<std::mutex> lock(m_queueMutex);
            if (--m_running[job.context] == 0) m_running.erase(job.context);
        }
        // forget() may be waiting for this context.
        m_queueCond.notify_all();
    }
}

void StoreServices::run(const RecallJob& job) {
    uint64_t bytes = 0;
    std::string error;
    ErrorKind kind = ErrorKind::io;
    try {
        error = stream(job, bytes);
    } catch (const StoreError& e) {
        error = e.what(), kind = e.kind();
    } catch (const std::exception& e) {
        error = e.what();
    }
    DMRestoreCompleted_t done;
    done.requestId = job.requestId;
    if (!error.empty()) {
        done.status = -1;
        done.error = error;
        ++m_failures;
        RecallMetadata meta;
        std::string why;
        if (parseRecallMetadata(job.srcPath, meta, why)) noteFailure(localPath(meta.extentPath), StoreError(kind, error));
        LogSink::write(kLevelError, kTag, "recall " + job.srcPath + " failed: " + error);
    }
    ++m_jobs;
    m_bytes += bytes;
    job.callback(job.context, &done);
}

bool StoreServices::subclient(uint32_t appId, AppIdInfo& info) {
    auto it = m_catalog.subclients.find(appId);
    if (it == m_catalog.subclients.end()) return false;
    info.appId = appId;
    info.clientId = it->second.clientId;
    info.appType = it->second.appType;
    info.instanceId = it->second.instanceId;
    info.backupSetId = it->second.backupSetId;
    return true;
}

static bool nameOf(const std::map<uint64_t, std::string>& names, uint64_t id, std::string& out) {
    auto it = names.find(id);
    if (it == names.end()) return false;
    out = it->second;
    return true;
}

bool StoreServices::clientName(uint64_t id, std::string& name) { return nameOf(m_catalog.clients, id, name); }
bool StoreServices::instanceName(uint64_t id, std::string& name) { return nameOf(m_catalog.instances, id, name); }
bool StoreServices::backupSetName(uint64_t id, std::string& name) { return nameOf(m_catalog.backupSets, id, name); }

}  // namespace zxblk

namespace zxblk {

std::vector<StoreServices::Gap> StoreServices::salvageRead(const DiskRecord& disk, int snapshot, uint64_t offset,
                                                           uint64_t length, uint8_t* out) {
    // Sector by sector, the newest snapshot that holds one gives it; a
    // failed block costs only the sectors it would have given.
    const uint64_t S = 512, first = offset / S, sectors = (length + S - 1) / S;
    std::memset(out, 0, length);
    std::vector<bool> settled(sectors, false);
    std::vector<Gap> gaps;
    auto fill = [&](uint64_t from, uint64_t to, int i, int64_t block, const std::string& why) {
        for (uint64_t s = from; s < to; ++s) {
            if (settled[s]) continue;
            settled[s] = true;
            const uint64_t at = (first + s) * S, n = std::min(S, offset + length - at);
            if (!gaps.empty() && gaps.back().offset + gaps.back().length == at && gaps.back().snapshot == i &&
                gaps.back().block == block) {
                gaps.back().length += n;
                continue;
            }
            gaps.push_back({at, n, i, disk.copies[static_cast<size_t>(i)].file, block, why});
        }
    };
    std::vector<uint8_t> buffer;
    for (int i = std::min<int>(snapshot, static_cast<int>(disk.copies.size()) - 1); i >= 0; --i) {
        const CopyRecord& copy = disk.copies[static_cast<size_t>(i)];
        std::shared_ptr<VhdImage> img;
        try {
            img = image(copy);
        } catch (const StoreError& e) {
            // Nothing tells which sectors it holds: whatever is left is lost.
            fill(0, sectors, i, -1, e.what());
            break;
        }
        const bool differencing = img->kind() == ImageKind::Differencing;
        // A piece of a raw or fixed snapshot spans its checksum units: cut
        // at them, so that a failed one costs only itself and is named.
        std::vector<Piece> units;
        const uint64_t U = img->sumUnitBytes();
        for (const Piece& p : img->pieces(offset, length))
            for (uint64_t at = p.virtualOffset, end = p.virtualOffset + p.length; at < end;) {
                const uint64_t n = std::min(end - at, U - at % U);
                units.push_back({at, n, p.fileOffset < 0 ? p.fileOffset : p.fileOffset + int64_t(at - p.virtualOffset), at / U});
                at += n;
            }
        for (const Piece& p : units) {
            if (p.fileOffset == kZeroHeld)  // zeros that hide the older snapshots
                for (uint64_t s = (p.virtualOffset - offset) / S; s < (p.virtualOffset + p.length - offset + S - 1) / S; ++s)
                    settled[s] = true;
            if (p.fileOffset < 0) continue;
            const uint64_t from = (p.virtualOffset - offset) / S, to = (p.virtualOffset + p.length - offset + S - 1) / S;
            buffer.resize(p.length);
            std::vector<uint8_t> bitmap;
            try {
                img->readVerified(p, buffer.data());
                if (differencing) bitmap = img->readBlockBitmap(p.block);
            } catch (const StoreError& e) {
                fill(from, to, i, static_cast<int64_t>(p.block), e.what());
                continue;
            }
            const uint64_t perBlock = differencing ? img->blockSize() / S : 0;
            for (uint64_t s = from; s < to; ++s) {
                if (settled[s]) continue;
                if (differencing) {
                    const uint64_t bit = (first + s) % perBlock;
                    // Left to a parent.
                    if (!(bitmap[bit / 8] & (0x80u >> (bit % 8)))) continue;
                }
                settled[s] = true;
                const uint64_t at = (first + s) * S, n = std::min(S, offset + length - at);
                std::memcpy(out + (at - offset), buffer.data() + (at - p.virtualOffset), n);
            }
        }
        if (!differencing) break;
    }
    return gaps;
}

}  // namespace zxblk
