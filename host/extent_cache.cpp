#include "host/extent_cache.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <atomic>
#include <filesystem>
#include <mutex>
#include <set>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/Log.h"
#include "store/store_error.h"

namespace zxblk {
namespace {

const char* const kTag = "DiskHost";
// Open extent files kept beyond those in use; more are closed, least
// recently used first.
const size_t kOpenFiles = 256;
// Forgotten extents remembered; a readahead is never queued for long.
const size_t kForgotten = 256;
// Threads that wait for the extent files' syncs at a clean close.
const size_t kSyncThreads = 8;

std::string absolutePath(const std::string& path) {
    std::error_code ec;
    std::filesystem::path p = std::filesystem::absolute(path, ec);
    return ec ? path : p.lexically_normal().string();
}

}  // namespace

ExtentCache::ExtentCache(const std::string& dir, const CacheIdentity& identity, const Options& options)
    : m_dir(absolutePath(dir)), m_mountPoint(options.mountPoint), m_dropAtEnd(options.dropAtEnd) {
    const unsigned long long E = options.extentSize;
    std::error_code ec;
    std::filesystem::create_directories(m_dir, ec);
    if (ec) throw StoreError(m_dir + ": cannot make the extent cache: " + ec.message());
    lockFolder();  // before anything in the folder is touched
    m_store.reset(new ZxBlkBackingStore(m_dir, 0));
    if (::access((m_dir + "/tmp").c_str(), W_OK) != 0)
        throw StoreError(m_dir + ": cannot use it as the extent cache: " + std::strerror(errno));
    m_store->clearTemporaries();  // left by a run that did not end cleanly
    m_store->setExtentSize(E);
    m_store->setKeeper(this);
    // Extent files are not synced one by one: a run that did not stop
    // cleanly may have left files whose bytes never reached the disk.
    if (::access((m_dir + "/dirty").c_str(), F_OK) == 0) {
        {
            MutexLock lock(m_mutex);
            m_dirty = true;
        }
        drop("extent cache " + m_dir + " was not closed cleanly; its extents were dropped");
    }
    checkIdentity(identity);

    unsigned long long limit = options.limit;
    if (!limit) {
        struct statvfs fs;
        unsigned long long avail = ::statvfs(m_dir.c_str(), &fs) == 0 ? fs.f_bavail * fs.f_frsize : 0;
        limit = std::max((avail + usedBytes()) / 4, 8 * E);
    }
    MutexLock lock(m_mutex);
    m_capacity = limit;
    // What a previous run left is used oldest first, as it was moved in.
    std::vector<std::pair<time_t, uint64_t>> found;
    for (const auto& e : m_entries) {
        struct stat st;
        found.emplace_back(::stat(m_store->extentPath(static_cast<long long>(e.first)).c_str(), &st) == 0 ? st.st_mtime : 0,
                           e.first);
    }
    std::sort(found.begin(), found.end());
    for (const auto& f : found) touchLocked(m_entries[f.second]);
    if (m_used > m_capacity) evictLocked(m_used - m_capacity, false);  // a smaller limit than last time
}

// One process per cache: a second would clear the first one's temporary
// files and race it over the extent files. The lock goes with the process,
// so a crashed run never leaves the cache locked.
void ExtentCache::lockFolder() {
    std::string path = m_dir + "/lock";
    for (int attempt = 0;; ++attempt) {
        m_lock.reset(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
        if (!m_lock.is_valid()) {
            // The folder went (zxblk cache purge) after it was made.
            if (errno != ENOENT || attempt == 3) throw StoreError(path + ": " + std::strerror(errno));
        } else {
            // Waited for: a process that is stopping (syncing the cache after
            // an unmount: a mount right after an unmount is the common case)
            // or removing the cache, and one that only looks at it (the note
            // then names a process that is gone).
            auto passing = [this] {
                CacheHolder h = readLockNote(m_lock.get());
                return h.state == "stopping" || h.state == "removing" ||
                       (h.pid > 0 && ::kill(h.pid, 0) != 0 && errno == ESRCH);
            };
            for (int waited = 0; ::flock(m_lock.get(), LOCK_EX | LOCK_NB) != 0 && waited < 600 && passing(); ++waited)
                ::usleep(50000);
            if (::flock(m_lock.get(), LOCK_EX | LOCK_NB) != 0) {
                CacheHolder h = readLockNote(m_lock.get());
                m_lock.reset();
                throw StoreError(ErrorKind::busy, "the extent cache " + m_dir + " is in use by another zxblk process" +
                                                      (h.pid > 0 ? " (" + h.describe() + ")" : std::string()) +
                                                      "; open the disk with a cache folder of its own");
            }
            // A cache removed while this process waited for it: its lock
            // went with it.
            struct stat st;
            if (::fstat(m_lock.get(), &st) != 0 || st.st_nlink > 0 || attempt == 3) break;
            m_lock.reset();
        }
        std::error_code ec;
        std::filesystem::create_directories(m_dir, ec);
        if (ec) throw StoreError(m_dir + ": cannot make the extent cache: " + ec.message());
    }
    writeLockNote(m_lock.get(), lockNote("", m_mountPoint));
}

void ExtentCache::noteStopping() { writeLockNote(m_lock.get(), lockNote("stopping", m_mountPoint)); }

// An extent that cannot be dropped would be served as the bytes of another
// disk: the cache is refused instead.
void ExtentCache::drop(const std::string& why) {
    MutexLock lock(m_mutex);
    if (!m_entries.empty()) m_notices.push_back(why);
    std::vector<uint64_t> all;
    for (const auto& e : m_entries) all.push_back(e.first);
    for (uint64_t e : all) {
        CUxError status = m_store->deleteExtentFile(static_cast<long long>(e));
        if (status.IsError()) throw StoreError(m_dir + ": cannot drop its extents: " + status.AsString());
        eraseLocked(e);
    }
}

// The cache belongs to one store, disk and list of snapshots: when that
// changes (a snapshot added or re-imported, another disk in the same
// folder), what it holds is dropped rather than served.
void ExtentCache::checkIdentity(const CacheIdentity& identity) {
    const std::string text = identity.text();
    std::string path = m_dir + "/identity";
    std::string old;
    if (FILE* f = std::fopen(path.c_str(), "r")) {
        char buf[4096];
        size_t n;
        while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) old.append(buf, n);
        std::fclose(f);
    }
    if (old == text) return;
    drop("extent cache " + m_dir + " held another disk or snapshot list; its extents were dropped");
    std::string temp = path + ".new";
    FILE* f = std::fopen(temp.c_str(), "w");
    bool written = f && std::fwrite(text.data(), 1, text.size(), f) == text.size();
    if (f && std::fclose(f) != 0) written = false;
    if (!written || ::rename(temp.c_str(), path.c_str()) != 0) {
        int err = errno;
        ::unlink(temp.c_str());
        throw StoreError(path + ": cannot record what the cache holds: " + std::strerror(err));
    }
}

// The mark goes down, durably, before the first extent file of this run is
// moved in; a clean stop syncs the cache's file system once and takes it
// away. A run that ends any other way leaves it for the next one to find.
void ExtentCache::markDirty() {
    MutexLock lock(m_mutex);
    if (m_dirty) return;
    std::string path = m_dir + "/dirty";
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    int dir = fd >= 0 ? ::open(m_dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC) : -1;
    bool durable = dir >= 0 && ::fsync(dir) == 0;
    int err = errno;
    if (fd >= 0) ::close(fd);
    if (dir >= 0) ::close(dir);
    if (!durable) throw StoreError(path + ": cannot mark the extent cache in use: " + std::strerror(err));
    m_dirty = true;
}

ExtentCache::~ExtentCache() {
    std::vector<uint64_t> unsynced;
    bool dirty;
    {
        MutexLock lock(m_mutex);
        m_files.clear();
        unsynced.assign(m_unsynced.begin(), m_unsynced.end());
        dirty = m_dirty;
    }
    if (m_dropAtEnd) {
        // Nothing to make durable in a cache that goes.
        try {
            removeCacheFiles(m_dir);
        } catch (const StoreError& e) {
            LogSink::write(kLevelError, kTag, e.what());
        }
        return;
    }
    std::string why = syncExtents(unsynced);
    if (!why.empty()) LogSink::write(kLevelError, kTag, m_dir + ": cannot sync the extent cache: " + why);
    if (why.empty() && dirty) ::unlink((m_dir + "/dirty").c_str());
}

// What this run moved in is made durable, and nothing else: a sync of the
// whole file system would also write out every other file there, such as
// the image a copy of the disk has just written. The files' writes are all
// started first, then waited for from several threads at once: each wait
// ends in a flush of the disk's cache, and flushes asked for together are
// done as one, where one after another they took seconds for a thousand
// files. The folders that name the files follow. Returns "" or why not.
std::string ExtentCache::syncExtents(const std::vector<uint64_t>& extents) {
    std::vector<std::pair<int, std::string>> files;
    std::set<std::string> folders;
    std::string why;
    std::mutex whyMutex;
    auto fail = [&](const std::string& what, int err) {
        std::lock_guard<std::mutex> lock(whyMutex);
        if (why.empty()) why = what + ": " + std::strerror(err);
    };
    for (uint64_t e : extents) {
        std::string path = m_store->extentPath(static_cast<long long>(e));
        int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            if (errno != ENOENT) fail(path, errno);
            continue;  // one removed since is nothing to keep
        }
        ::sync_file_range(fd, 0, 0, SYNC_FILE_RANGE_WRITE);
        for (std::string f = path.substr(0, path.rfind('/')); f.size() >= m_dir.size(); f = f.substr(0, f.rfind('/')))
            folders.insert(f);
        files.emplace_back(fd, std::move(path));
    }
    std::atomic<size_t> next{0};
    auto wait = [&] {
        for (size_t i; (i = next++) < files.size();)
            if (::fdatasync(files[i].first) != 0) fail(files[i].second, errno);
    };
    std::vector<std::thread> waiters;
    try {
        for (size_t t = 1; t < std::min(kSyncThreads, files.size()); ++t) waiters.emplace_back(wait);
    } catch (const std::system_error&) {
        // No thread to spare: this one waits for the rest.
    }
    wait();
    for (std::thread& w : waiters) w.join();
    for (const auto& f : files) ::close(f.first);
    for (const std::string& f : folders) {
        int fd = ::open(f.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fd < 0 || ::fsync(fd) != 0) fail(f, errno);
        if (fd >= 0) ::close(fd);
    }
    return why;
}

std::shared_ptr<ExtentFile> ExtentCache::pinAndOpen(uint64_t extent) {
    MutexLock lock(m_mutex);
    ++m_pins[extent];
    try {
        return openLocked(extent);
    } catch (...) {
        if (--m_pins[extent] <= 0) m_pins.erase(extent);
        throw;
    }
}

std::shared_ptr<ExtentFile> ExtentCache::open(uint64_t extent) {
    MutexLock lock(m_mutex);
    return openLocked(extent);
}

// The extent's file is opened once while the cache keeps it.
std::shared_ptr<ExtentFile> ExtentCache::openLocked(uint64_t extent) {
    auto entry = m_entries.find(extent);
    if (entry == m_entries.end()) return nullptr;
    useLocked(entry->second);
    auto it = m_files.find(extent);
    if (it != m_files.end()) return it->second;
    std::string path = m_store->extentPath(static_cast<long long>(extent));
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) throw StoreError(path + ": " + std::strerror(errno));
    auto file = std::make_shared<ExtentFile>(fd);
    m_files[extent] = file;
    for (auto old = m_useOrder.rbegin(); m_files.size() > kOpenFiles && old != m_useOrder.rend(); ++old)
        if (*old != extent && !m_pins.count(*old)) m_files.erase(*old);
    return file;
}

void ExtentCache::unpin(uint64_t extent) {
    MutexLock lock(m_mutex);
    auto it = m_pins.find(extent);
    if (it != m_pins.end() && --it->second <= 0) m_pins.erase(it);
}

bool ExtentCache::local(uint64_t extent, bool use) {
    MutexLock lock(m_mutex);
    auto it = m_entries.find(extent);
    if (it == m_entries.end()) return false;
    if (use) useLocked(it->second);
    return true;
}

// An extent whose file cannot be removed stays, as it is still there.
void ExtentCache::forget(uint64_t extent) {
    MutexLock lock(m_mutex);
    if (m_pins.count(extent)) return;
    if (m_entries.count(extent) && removeFileLocked(extent, true)) eraseLocked(extent);
    if (m_forgotten.insert(extent).second) m_forgottenOrder.push_back(extent);
    while (m_forgottenOrder.size() > kForgotten) {
        m_forgotten.erase(m_forgottenOrder.front());
        m_forgottenOrder.pop_front();
    }
}

bool ExtentCache::mayRecall(uint64_t extent, bool ahead) {
    MutexLock lock(m_mutex);
    if (ahead) {
        if (m_forgotten.count(extent)) return false;
        m_aheadComing.insert(extent);
        return true;
    }
    m_forgotten.erase(extent);  // stale entries in the order are harmless
    return true;
}

bool ExtentCache::takeArrival(uint64_t extent) {
    MutexLock lock(m_mutex);
    m_aheadComing.erase(extent);
    return m_arrived.erase(extent) != 0;
}

void ExtentCache::touchLocked(Entry& entry) { m_useOrder.splice(m_useOrder.begin(), m_useOrder, entry.use); }

void ExtentCache::useLocked(Entry& entry) {
    touchLocked(entry);
    if (entry.unreadAhead) {
        entry.unreadAhead = false;
        --m_unreadAhead;
    }
}

void ExtentCache::insertLocked(uint64_t extent, unsigned long long bytes) {
    auto it = m_entries.find(extent);
    if (it == m_entries.end()) {
        m_useOrder.push_front(extent);
        m_entries[extent] = Entry{bytes, m_useOrder.begin()};
    } else {
        m_used -= it->second.bytes;
        it->second.bytes = bytes;
        touchLocked(it->second);
    }
    m_used += bytes;
}

// A reader that still holds the file keeps reading it: the descriptor
// outlives the name.
void ExtentCache::eraseLocked(uint64_t extent) {
    m_files.erase(extent);
    m_unsynced.erase(extent);
    auto it = m_entries.find(extent);
    if (it == m_entries.end()) return;
    m_used -= it->second.bytes;
    if (it->second.unreadAhead) {
        --m_unreadAhead;
        ++m_aheadWasted;
    }
    m_useOrder.erase(it->second.use);
    m_entries.erase(it);
}

// The least recently used extents that no read is using go until the bytes
// are free. The pin check and the removal happen under one lock, so a reader
// that pinned an extent either keeps it or finds it gone and recalls it.
// A file a reader still holds open is only removed: it keeps reading the
// bytes it opened, which a recall into the same file would overwrite.
bool ExtentCache::removeFileLocked(uint64_t extent, bool keep) {
    const long long n = static_cast<long long>(extent);
    auto file = m_files.find(extent);
    if (keep && (file == m_files.end() || file->second.use_count() == 1))
        return !m_store->recycleExtentFile(n).IsError();
    return !m_store->deleteExtentFile(n).IsError();
}

// On a full file system what was read ahead and never read goes before
// anything a reader used: a reader must not fail for the readahead's sake.
unsigned long long ExtentCache::evictLocked(unsigned long long bytes, bool keep) {
    std::vector<uint64_t> victims;
    unsigned long long planned = 0;
    for (int pass = keep ? 1 : 0; pass < 2; ++pass)
        for (auto it = m_useOrder.rbegin(); planned < bytes && it != m_useOrder.rend(); ++it) {
            const Entry& entry = m_entries[*it];
            if (m_pins.count(*it) || (!keep && entry.unreadAhead != (pass == 0))) continue;
            planned += entry.bytes;
            victims.push_back(*it);
        }
    unsigned long long freed = 0;
    for (uint64_t e : victims) {
        unsigned long long size = m_entries[e].bytes;
        // One that cannot be removed still takes its room; the next
        // eviction tries it again.
        if (!removeFileLocked(e, keep)) continue;
        eraseLocked(e);
        freed += size;
        ++m_evictions;
    }
    return freed;
}

unsigned long long ExtentCache::excessLocked(uint64_t extent, unsigned long long bytes) {
    auto it = m_entries.find(extent);
    unsigned long long after = m_used + m_reserved - (it == m_entries.end() ? 0 : it->second.bytes) + bytes;
    return m_capacity && after > m_capacity ? after - m_capacity : 0;
}

void ExtentCache::found(long long extent, unsigned long long bytes) {
    MutexLock lock(m_mutex);
    insertLocked(static_cast<uint64_t>(extent), bytes);
}

// Room is made and set aside under one lock: a move-in under way on another
// thread can neither take it nor be counted twice.
bool ExtentCache::reserve(long long extent, unsigned long long bytes) {
    MutexLock lock(m_mutex);
    const uint64_t e = static_cast<uint64_t>(extent);
    while (unsigned long long need = excessLocked(e, bytes))
        if (!evictLocked(need, true)) break;
    if (excessLocked(e, bytes)) return false;
    m_reserved += bytes;
    return true;
}

void ExtentCache::settle(long long extent, unsigned long long bytes, bool movedIn) {
    MutexLock lock(m_mutex);
    m_reserved -= bytes;
    if (!movedIn) return;
    const uint64_t e = static_cast<uint64_t>(extent);
    m_files.erase(e);  // a replaced file: readers that hold the old one keep it
    insertLocked(e, bytes);
    Entry& entry = m_entries[e];
    if (m_aheadComing.count(e) && !entry.unreadAhead) {
        entry.unreadAhead = true;
        ++m_unreadAhead;
    }
    m_arrived.insert(e);
    m_unsynced.insert(e);
}

unsigned long long ExtentCache::freeSpace(unsigned long long bytes) {
    MutexLock lock(m_mutex);
    return evictLocked(bytes, false);
}

void ExtentCache::removed(long long extent) {
    MutexLock lock(m_mutex);
    eraseLocked(static_cast<uint64_t>(extent));
}

bool ExtentCache::holds(long long extent) {
    MutexLock lock(m_mutex);
    return m_entries.count(static_cast<uint64_t>(extent)) != 0;
}

std::vector<long long> ExtentCache::held() {
    std::vector<long long> out;
    {
        MutexLock lock(m_mutex);
        for (const auto& e : m_entries) out.push_back(static_cast<long long>(e.first));
    }
    std::sort(out.begin(), out.end());
    return out;
}

unsigned long long ExtentCache::fileSize(long long extent) {
    MutexLock lock(m_mutex);
    auto it = m_entries.find(static_cast<uint64_t>(extent));
    return it == m_entries.end() ? 0 : it->second.bytes;
}

unsigned long long ExtentCache::usedBytes() {
    MutexLock lock(m_mutex);
    return m_used;
}

unsigned long long ExtentCache::capacity() {
    MutexLock lock(m_mutex);
    return m_capacity;
}

void ExtentCache::setCapacity(unsigned long long bytes) {
    MutexLock lock(m_mutex);
    m_capacity = bytes;
}

size_t ExtentCache::count() {
    MutexLock lock(m_mutex);
    return m_entries.size();
}

uint64_t ExtentCache::evictions() {
    MutexLock lock(m_mutex);
    return m_evictions;
}

uint64_t ExtentCache::unusedAhead() {
    MutexLock lock(m_mutex);
    return m_unreadAhead + m_aheadWasted;
}

}  // namespace zxblk
