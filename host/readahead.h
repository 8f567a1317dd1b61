// The host's recalls ahead of its readers: an explicit window (export), the
// readahead of sequential readers (mount) and the prefetch of a list of
// extents (the index's mount extents). Its workers and its prefetch thread
// recall through the pool; they end with it.
//
// While the cache's file system is short of space (the backing store says
// so) nothing is recalled ahead: the readers' recalls need that room.
//
// Lock order: m_prefetchMutex may be held while the prefetch thread is
// joined; that thread takes m_mutex, never m_prefetchMutex. m_mutex is a
// leaf: the cache and the pool are called with neither lock held.
#pragma once
#include <cstdint>
#include <deque>
#include <thread>
#include <unordered_set>
#include <utility>
#include <vector>

#include "framework/ThreadAnnotations.h"
#include "host/disk_pool.h"
#include "host/extent_cache.h"

namespace zxblk {

class Readahead {
public:
    // `maxWindow`: the largest window of a sequential reader, in extents (0:
    // reads never recall ahead by themselves); `workers` threads recall the
    // queued extents.
    Readahead(ExtentCache& cache, DiskPool& pool, uint64_t extentSize, uint64_t extentCount, unsigned maxWindow,
              unsigned workers);
    // Stops the workers and the prefetch, each after the recall it is in.
    ~Readahead();
    Readahead(const Readahead&) = delete;
    Readahead& operator=(const Readahead&) = delete;

    // Recalls [first, first + count) (clipped to the disk) in the background;
    // extents already local, on their way or holding no data are skipped.
    void request(uint64_t first, uint64_t count) EXCLUDES(m_mutex);
    // A read of the disk, for the readahead of sequential readers (see
    // readahead.cpp for how the window grows and closes).
    void noteRead(uint64_t offset, uint64_t length) EXCLUDES(m_mutex);
    // Recalls these extents on a thread of its own, as a reader would.
    void prefetch(std::vector<uint64_t> extents) EXCLUDES(m_prefetchMutex);
    // Extents recalled by the workers.
    uint64_t recalled() const EXCLUDES(m_mutex);

private:
    void worker() EXCLUDES(m_mutex);
    // Takes back every queued extent no worker has started: the cache's
    // file system is short of space.
    void dropQueue() EXCLUDES(m_mutex);
    bool stopping() const EXCLUDES(m_mutex);

    ExtentCache& m_cache;
    DiskPool& m_pool;
    const uint64_t m_extentSize;
    const uint64_t m_extentCount;
    const unsigned m_maxWindow;

    mutable Mutex m_mutex;
    CondVar m_queued;
    bool m_stopping GUARDED_BY(m_mutex) = false;
    std::deque<uint64_t> m_queue GUARDED_BY(m_mutex);
    std::unordered_set<uint64_t> m_inQueue GUARDED_BY(m_mutex);
    uint64_t m_recalled GUARDED_BY(m_mutex) = 0;
    // Sequential readers seen lately: where each would read next and its window.
    struct Stream {
        uint64_t start = 0;       // where the reader began reading in order
        uint64_t next = 0;        // the end of its furthest read
        uint64_t current = 0;     // the furthest extent the reader has entered
        uint64_t aheadUntil = 0;  // first extent not yet asked for
        unsigned window = 0;
        uint64_t lastUse = 0;
        // Its last few reads, [begin, end) each.
        std::pair<uint64_t, uint64_t> recent[4] = {};
        unsigned recentAt = 0;
        bool fits(uint64_t offset, uint64_t end) const {
            for (const auto& r : recent)
                if (r.second && (offset == r.second || end == r.first)) return true;
            return false;
        }
        void remember(uint64_t offset, uint64_t end) { recent[recentAt++ % 4] = {offset, end}; }
    };
    // Closes the stream's window and takes back what it queued that no
    // worker has started.
    void closeLocked(Stream& s) REQUIRES(m_mutex);
    std::vector<Stream> m_streams GUARDED_BY(m_mutex);
    uint64_t m_streamClock GUARDED_BY(m_mutex) = 0;

    std::vector<std::thread> m_workers;  // started by the constructor, joined by the destructor
    Mutex m_prefetchMutex;
    std::thread m_prefetch GUARDED_BY(m_prefetchMutex);
};

}  // namespace zxblk
