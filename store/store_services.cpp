#include "store/store_services.h"

#include "store/storage.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "framework/ZeroBytes.h"
#include "platform/DMRService/RestoreTarget.h"
#include "platform/Log.h"

namespace zxblk {
namespace {

const char* const kTag = "StoreServices";

bool parseNumber(const std::string& text, bool allowMinus, unsigned long long& out) {
    if (text.empty() || text.size() > 20) return false;
    size_t i = allowMinus && text[0] == '-' ? 1 : 0;
    if (i == text.size()) return false;
    for (size_t k = i; k < text.size(); ++k)
        if (text[k] < '0' || text[k] > '9') return false;
    errno = 0;
    if (i) {
        long long v = std::strtoll(text.c_str(), nullptr, 10);
        if (errno) return false;
        out = static_cast<unsigned long long>(v);
    } else {
        out = std::strtoull(text.c_str(), nullptr, 10);
        if (errno) return false;
    }
    return true;
}

void setBitMsbFirst(std::vector<uint8_t>& bitmap, uint64_t bit) { bitmap[bit / 8] |= static_cast<uint8_t>(0x80u >> (bit % 8)); }
bool bitMsbFirst(const std::vector<uint8_t>& bitmap, uint64_t bit) { return bitmap[bit / 8] & (0x80u >> (bit % 8)); }

}  // namespace

bool parseRecallMetadata(const std::string& text, RecallMetadata& out, std::string& why) {
    std::vector<std::string> fields;
    size_t start = 0;
    for (int i = 0; i < 7; ++i) {
        size_t colon = text.find(':', start);
        if (colon == std::string::npos) return why = "recall metadata '" + text + "' has fewer than eight fields", false;
        fields.push_back(text.substr(start, colon - start));
        start = colon + 1;
    }
    fields.push_back(text.substr(start));
    if (fields[0] != "1" || fields[1] != "2" || fields[2] != "0" || fields[5] != "1")
        return why = "recall metadata '" + text + "' is not an extent recall", false;
    unsigned long long afid, pos, length;
    if (!parseNumber(fields[3], true, afid) || !parseNumber(fields[4], true, pos) || !parseNumber(fields[6], false, length))
        return why = "recall metadata '" + text + "' has a malformed number", false;
    if (length != fields[7].size())
        return why = "recall metadata '" + text + "' gives length " + fields[6] + " for a path of " +
                     std::to_string(fields[7].size()) + " characters", false;
    out.archiveFileId = afid;
    out.position = pos;
    out.extentPath = fields[7];
    return true;
}

std::shared_ptr<StoreServices> StoreServices::open(const std::string& storeDir, Options options) {
    Catalog catalog = Catalog::load(storeDir);
    if (options.workers == 0) options.workers = 1;
    if (options.writeSize < 512) options.writeSize = 512;
    std::shared_ptr<StoreServices> s(new StoreServices(storeDir, std::move(catalog), options));
    return s;
}

StoreServices::StoreServices(const std::string& dir, Catalog catalog, Options options)
    : m_dir(dir), m_catalog(std::move(catalog)), m_options(options) {
    try {
        m_index = std::make_shared<SqliteIndexService>(dir);
    } catch (const StoreError& e) {
        // A store that cannot keep an index still serves its disks.
        LogSink::write(kLevelError, kTag, std::string("no extent index: ") + e.what());
    }
    for (unsigned i = 0; i < m_options.workers; ++i) m_workers.emplace_back(&StoreServices::work, this);
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

void StoreServices::registerWithPlatform() {
    auto self = shared_from_this();
    setExtentLookupService(self);
    setRestoreService(self);
    setRecordsService(self);
    if (m_index) setIndexService(m_index);
}

void StoreServices::unregisterFromPlatform() {
    if (extentLookupService().get() == this) setExtentLookupService(nullptr);
    if (restoreService().get() == this) setRestoreService(nullptr);
    if (recordsService().get() == this) setRecordsService(nullptr);
    if (m_index && indexService() == m_index) setIndexService(nullptr);
}

RestoreStats StoreServices::stats() const {
    RestoreStats s;
    s.jobs = m_jobs;
    s.failures = m_failures;
    s.bytes = m_bytes;
    return s;
}

// A snapshot file must still be the one its record describes: a file
// swapped with another, replaced by its parent, taken from another disk, or a
// record edited afterwards would otherwise serve wrong bytes without a word.
// What an older catalog did not record is checked against the disk and the
// chain alone.
static void checkAgainstRecord(const VhdImage& img, const DiskRecord& disk, size_t index) {
    const CopyRecord& copy = disk.copies[index];
    auto mismatch = [&](const char* field, const std::string& recorded, const std::string& found) {
        if (recorded != found)
            throw StoreError(img.path() + ": " + field + ": the catalog records " + recorded + ", the file has " + found);
    };
    if (copy.type != kTypeRaw) {  // a raw file has no footer: its size is all there is to check
        mismatch("disk type", "type " + std::to_string(copy.type), "type " + std::to_string(typeCode(img.kind())));
        mismatch("unique id", copy.uniqueId, uniqueIdText(img.uniqueId()));
        if (copy.type == kTypeDifferencing)
            mismatch("parent unique id", index ? disk.copies[index - 1].uniqueId : "no parent", uniqueIdText(img.parentUniqueId()));
        mismatch("current size", std::to_string(disk.size) + " bytes", std::to_string(img.virtualSize()) + " bytes");
    }
    // A raw file cut short still serves what is left, as it always has: the
    // reads past the cut fail by themselves. Grown, it is another file.
    bool cutRaw = copy.type == kTypeRaw && img.fileSize() < copy.fileSize;
    if (copy.fileSize && !cutRaw)
        mismatch("file size", std::to_string(copy.fileSize) + " bytes", std::to_string(img.fileSize()) + " bytes");
}

std::shared_ptr<const BlockSums> loadBlockSums(const std::string& storeDir, const CopyRecord& copy, const VhdImage& img) {
    if (copy.sums.empty()) return nullptr;
    std::shared_ptr<Storage> storage = Storage::at(storeDir);
    std::string path = storage->describe(copy.sums), bytes;
    // Never more than a header and one entry per block of the image.
    uint64_t most = 4096 + 64 + 24 * img.sumUnits();
    if (!storage->readWhole(copy.sums, most, bytes)) throw StoreError(path + ": " + std::strerror(ENOENT));
    std::string found = sumText(xxh3(bytes.data(), bytes.size()));
    if (found != copy.sumsChecksum)
        throw StoreError(path + ": checksum: the catalog records " + copy.sumsChecksum + ", the file has " + found);
    auto sums = std::make_shared<BlockSums>(BlockSums::parse(bytes, path));
    std::string base = copy.file.substr(copy.file.rfind('/') + 1);
    if (sums->fileName != base) throw StoreError(path + ": file name: holds the checksums of " + sums->fileName + ", not " + base);
    if (sums->unitBytes != img.sumUnitBytes() || sums->units != img.sumUnits())
        throw StoreError(path + ": block size: " + std::to_string(sums->units) + " blocks of " +
                         std::to_string(sums->unitBytes) + " bytes, but " + img.path() + " has " +
                         std::to_string(img.sumUnits()) + " of " + std::to_string(img.sumUnitBytes()));
    return sums;
}

std::shared_ptr<VhdImage> openCopyImage(const std::string& storeDir, const DiskRecord& disk, size_t index) {
    const CopyRecord& copy = disk.copies.at(index);
    auto img = std::make_shared<VhdImage>(
        VhdImage::open(Storage::at(storeDir)->openReader(copy.file, copy.etag), copy.type == kTypeRaw, disk.size));
    checkAgainstRecord(*img, disk, index);
    // A bad side file fails the recalls of this file, not the lookups that
    // tell which copy holds an extent.
    try {
        img->attachSums(loadBlockSums(storeDir, copy, *img));
    } catch (const StoreError& e) {
        img->attachSums(nullptr, e.what());
    }
    return img;
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
        throw StoreError("no copy with archive file id " + std::to_string(copy.archiveFileId) + " in store " + m_dir);
    // A file replaced or rewritten while it is open is opened and checked again.
    std::lock_guard<std::mutex> lock(m_imagesMutex);
    auto it = m_images.find(copy.archiveFileId);
    if (it != m_images.end() && it->second->current()) return it->second;
    if (it != m_images.end()) m_images.erase(it);
    auto img = openCopyImage(m_dir, *disk, static_cast<size_t>(found - disk->copies.data()));
    m_images[copy.archiveFileId] = img;
    return img;
}

bool StoreServices::open(const SCParams&, const std::string& path, std::string& whyNot) {
    const DiskRecord* disk;
    const CopyRecord* copy;
    if (!m_catalog.findCopy(path, &disk, &copy)) return whyNot = "no copy " + path + " in store " + m_dir, false;
    return true;
}

int StoreServices::lookup(const SCParams&, const std::string& path, unsigned long long extent,
                          unsigned long long& first, unsigned long long& second) {
    const DiskRecord* disk;
    const CopyRecord* copy;
    if (!m_catalog.findCopy(path, &disk, &copy)) {
        LogSink::write(kLevelError, kTag, "extent lookup: no copy " + path);
        return 2;
    }
    uint64_t C = static_cast<uint64_t>(copy->copyExtentLength());
    if (extent >= (disk->size + C - 1) / C) return 1;  // past the end of the disk
    try {
        std::shared_ptr<VhdImage> img = image(*copy);
        for (const Piece& p : img->pieces(extent * C, C))
            if (p.fileOffset >= 0) {
                first = copy->archiveFileId;
                second = static_cast<unsigned long long>(p.fileOffset);
                return 0;
            }
        return 1;
    } catch (const StoreError& e) {
        LogSink::write(kLevelError, kTag, std::string("extent lookup: ") + e.what());
        return 3;
    }
}

bool StoreServices::holdsData(const DiskRecord& disk, int snapshot, uint64_t offset, uint64_t length) {
    try {
        for (int i = std::min<int>(snapshot, static_cast<int>(disk.copies.size()) - 1); i >= 0; --i)
            // Which blocks a file allocates is asked per extent ahead of any
            // recall; the recall itself checks the file again.
            if (image(disk.copies[i], false)->holdsAny(offset, length)) return true;
        return false;
    } catch (const StoreError&) {
        return true;
    }
}

bool StoreServices::submit(const RecallJob& job, std::string& whyNot) {
    if (!job.target || !job.callback) return whyNot = "a recall needs a restore target and a callback", false;
    {
        std::lock_guard<std::mutex> lock(m_queueMutex);
        if (m_stopping) return whyNot = "the restore service of " + m_dir + " is shutting down", false;
        m_queue.push_back(job);
    }
    m_queueCond.notify_one();
    return true;
}

void StoreServices::work() {
    for (;;) {
        RecallJob job;
        {
            std::unique_lock<std::mutex> lock(m_queueMutex);
            m_queueCond.wait(lock, [this] { return m_stopping || !m_queue.empty(); });
            if (m_queue.empty()) return;
            job = std::move(m_queue.front());
            m_queue.pop_front();
            if (m_stopping) {
                // Every accepted recall hears back, also one that never ran.
                lock.unlock();
                DMRestoreCompleted_t done;
                done.requestId = job.requestId;
                done.status = -1;
                done.error = "the restore service stopped before the recall ran";
                ++m_jobs, ++m_failures;
                job.callback(job.context, &done);
                continue;
            }
        }
        run(job);
    }
}

void StoreServices::run(const RecallJob& job) {
    uint64_t bytes = 0;
    std::string error;
    try {
        error = stream(job, bytes);
    } catch (const std::exception& e) {
        error = e.what();
    }
    DMRestoreCompleted_t done;
    done.requestId = job.requestId;
    if (!error.empty()) {
        done.status = -1;
        done.error = error;
        ++m_failures;
        LogSink::write(kLevelError, kTag, "recall " + job.srcPath + " failed: " + error);
    }
    ++m_jobs;
    m_bytes += bytes;
    job.callback(job.context, &done);
}

std::string StoreServices::stream(const RecallJob& job, uint64_t& bytes) {
    RecallMetadata meta;
    std::string why;
    if (!parseRecallMetadata(job.srcPath, meta, why)) return why;
    const DiskRecord* disk;
    const CopyRecord* copy;
    if (!m_catalog.findCopy(meta.archiveFileId, &disk, &copy))
        return "no copy with archive file id " + std::to_string(meta.archiveFileId) + " in store " + m_dir;
    std::string prefix = copy->browsePath + "/Extent";
    unsigned long long k;
    if (meta.extentPath.compare(0, prefix.size(), prefix) != 0 || !parseNumber(meta.extentPath.substr(prefix.size()), false, k))
        return "extent path " + meta.extentPath + " is not an extent of " + copy->browsePath;
    uint64_t C = static_cast<uint64_t>(copy->copyExtentLength());
    if (k >= (disk->size + C - 1) / C) return "extent " + std::to_string(k) + " is past the end of disk " + disk->name;
    std::shared_ptr<VhdImage> img = image(*copy);
    uint64_t offset = k * C;
    std::vector<Piece> pieces = img->pieces(offset, C);
    int64_t firstHeld = -1;
    for (const Piece& p : pieces)
        if (p.fileOffset >= 0) {
            firstHeld = p.fileOffset;
            break;
        }
    if (firstHeld < 0 || static_cast<uint64_t>(firstHeld) != meta.position)
        return "recall metadata position " + std::to_string(meta.position) + " does not match extent " + std::to_string(k) +
               " of " + copy->browsePath;

    // The extent's bytes, zero where the copy holds nothing. Each worker
    // keeps its buffer from one extent to the next and clears only what no
    // piece of the file fills.
    thread_local std::vector<uint8_t> data;
    if (data.size() < C) data.resize(C);
    uint64_t filled = offset;
    auto clear = [&](uint64_t from, uint64_t to) {
        if (to > from) std::memset(data.data() + (from - offset), 0, to - from);
    };
    for (const Piece& p : pieces) {
        clear(filled, p.virtualOffset);
        // Nothing is streamed from a block whose bytes differ from those imported.
        if (p.fileOffset >= 0)
            img->readVerified(p, data.data() + (p.virtualOffset - offset));
        else
            clear(p.virtualOffset, p.virtualOffset + p.length);
        filled = p.virtualOffset + p.length;
    }
    clear(filled, offset + C);
    bool vhd = copy->type == kTypeDynamic || copy->type == kTypeDifferencing;
    std::vector<uint8_t> bitmap(512, 0);
    bool allPresent = true;
    if (vhd) {
        uint64_t perBlock = img->blockSize() / 512;
        std::map<uint64_t, std::vector<uint8_t>> blockBitmaps;
        for (uint64_t s = 0; s < C / 512; ++s) {
            uint64_t sector = offset / 512 + s;
            bool present = false;
            if (sector * 512 < disk->size) {
                uint64_t block = sector / perBlock;
                if (img->isBlockAllocated(block)) {
                    auto it = blockBitmaps.find(block);
                    if (it == blockBitmaps.end()) it = blockBitmaps.emplace(block, img->readBlockBitmap(block)).first;
                    present = bitMsbFirst(it->second, sector % perBlock);
                }
            }
            if (present) setBitMsbFirst(bitmap, s);
            allPresent = allPresent && present;
        }
    }
    bool allZero = IsAllZeroBytes(data.data(), C);

    CRestoreTarget* target = job.target.get();
    CUxError status = target->Open(nullptr);
    if (!status.IsError() && vhd) {
        // Now and then the bitmap comes in two writes, as a service may send it.
        unsigned cut = k % 3 == 1 ? static_cast<unsigned>(1 + (k * 37) % 511) : 512;
        status = target->Write(bitmap.data(), cut);
        if (!status.IsError() && cut < 512) status = target->Write(bitmap.data() + cut, 512 - cut);
    }
    // An extent that is all zeros, with nothing left to a parent, is a hole
    // of the whole extent: written as zeros without sending them.
    if (!status.IsError() && allZero && (copy->type != kTypeDifferencing || allPresent)) {
        status = target->WriteHole(static_cast<unsigned>(C));
    } else {
        uint64_t at = offset;
        auto writeRange = [&](uint64_t from, uint64_t length) {
            for (uint64_t done = 0; done < length && !status.IsError();) {
                unsigned n = static_cast<unsigned>(std::min<uint64_t>(m_options.writeSize, length - done));
                status = target->Write(data.data() + (from - offset) + done, n);
                bytes += n;
                done += n;
            }
        };
        for (const Piece& p : pieces) {
            if (status.IsError()) break;
            if (p.fileOffset >= 0 || !vhd)
                writeRange(p.virtualOffset, p.length);
            else
                status = target->WriteHole(static_cast<unsigned>(p.length));
            at = p.virtualOffset + p.length;
        }
        // Past the end of the disk: zeros for flat images, nothing for VHDs.
        uint64_t rest = offset + C - at;
        if (!status.IsError() && rest) {
            if (vhd)
                status = target->WriteHole(static_cast<unsigned>(rest));
            else
                writeRange(at, rest);
        }
    }
    CUxError flushed = status.IsError() ? status : target->Flush();
    target->Close(false);
    if (status.IsError()) return status.AsString();
    if (flushed.IsError()) return flushed.AsString();
    return std::string();
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
