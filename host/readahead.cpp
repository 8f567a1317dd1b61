#include "host/readahead.h"

#include <algorithm>
#include <atomic>
#include <system_error>

#include "platform/Log.h"
#include "store/store_error.h"

namespace zxblk {
namespace {

const char* const kTag = "DiskHost";
// Extents waiting for a readahead worker; older requests give way to newer.
const size_t kQueuedAhead = 64;
const size_t kStreams = 8;

}  // namespace

Readahead::Readahead(ExtentCache& cache, DiskPool& pool, uint64_t extentSize, uint64_t extentCount, unsigned maxWindow,
                     unsigned workers)
    : m_cache(cache), m_pool(pool), m_extentSize(extentSize), m_extentCount(extentCount), m_maxWindow(maxWindow) {
    {
        MutexLock lock(m_mutex);
        m_streams.resize(kStreams);
    }
    for (unsigned i = 0; i < workers; ++i) m_workers.emplace_back(&Readahead::worker, this);
}

Readahead::~Readahead() {
    {
        MutexLock lock(m_mutex);
        m_stopping = true;
        m_queue.clear();
        m_inQueue.clear();
    }
    m_queued.notifyAll();
    for (std::thread& t : m_workers) t.join();
    MutexLock lock(m_prefetchMutex);
    if (m_prefetch.joinable()) m_prefetch.join();
}

bool Readahead::stopping() const {
    MutexLock lock(m_mutex);
    return m_stopping;
}

uint64_t Readahead::recalled() const {
    MutexLock lock(m_mutex);
    return m_recalled;
}

// The cache and the store are asked before the queue is locked: a store on
// S3 may take a while to say whether an extent holds data.
void Readahead::request(uint64_t first, uint64_t count) {
    if (first >= m_extentCount || stopping()) return;
    if (m_cache.store().shortOfSpace()) {
        dropQueue();
        return;
    }
    uint64_t last = std::min(m_extentCount, first + std::min(count, m_extentCount));
    std::vector<uint64_t> wanted;
    for (uint64_t e = first; e < last; ++e)
        // Nothing to gain from recalling what no snapshot holds ahead of time.
        if (!m_cache.local(e, false) && m_pool.holdsData(e)) wanted.push_back(e);
    if (wanted.empty()) return;
    {
        MutexLock lock(m_mutex);
        for (uint64_t e : wanted)
            if (m_inQueue.insert(e).second) m_queue.push_back(e);
        while (m_queue.size() > kQueuedAhead) {
            m_inQueue.erase(m_queue.front());
            m_queue.pop_front();
        }
    }
    m_queued.notifyAll();
}

void Readahead::worker() {
    for (;;) {
        uint64_t extent;
        {
            MutexLock lock(m_mutex);
            while (!m_stopping && m_queue.empty()) m_queued.wait(m_mutex);
            if (m_stopping) return;
            extent = m_queue.front();
            m_queue.pop_front();
            m_inQueue.erase(extent);
        }
        // The readers' recalls need the room of the cache's file system
        // more than this one: what is queued waits for the readers.
        if (m_cache.store().shortOfSpace()) {
            dropQueue();
            continue;
        }
        try {
            if (m_pool.ensure(extent, true)) {
                MutexLock lock(m_mutex);
                ++m_recalled;
            }
        } catch (const StoreError& err) {
            // The reader that comes for it tries again and hears why. One
            // that gave way to the readers is no error.
            const bool gaveWay = m_cache.store().shortOfSpace();
            if (gaveWay) dropQueue();
            LogSink::write(gaveWay ? kLevelDebug : kLevelError, kTag, std::string("readahead: ") + err.what());
        }
    }
}

// Spots sequential readers and recalls ahead of them. A read continues a
// stream when it starts where one of the stream's last few reads ended, or
// ends where one began: the kernel hands a file's readahead to several
// threads, whose reads come in slightly out of order but always fit end to
// start. Reads that only land near one another, as a file system's scattered
// metadata does, are no stream. The window opens at one extent once the
// reader has read a whole extent in order and doubles each time it enters
// the next extent, up to the largest window. A read that continues no stream
// starts one, with no readahead yet, and closes the window of the stream read
// last: its reader has most likely turned elsewhere, and what was queued for
// it and not yet started is taken back. Extents that no snapshot holds are
// never asked for.
void Readahead::noteRead(uint64_t offset, uint64_t length) {
    if (!m_maxWindow || !length) return;
    const uint64_t E = m_extentSize;
    uint64_t end = offset + length;
    uint64_t from = 0, count = 0;
    {
        MutexLock lock(m_mutex);
        ++m_streamClock;
        Stream* s = nullptr;
        for (Stream& c : m_streams)
            if (c.lastUse && c.fits(offset, end)) s = &c;
        if (!s) {
            auto last = std::max_element(m_streams.begin(), m_streams.end(),
                                         [](const Stream& a, const Stream& b) { return a.lastUse < b.lastUse; });
            if (last->lastUse && last->window) closeLocked(*last);
            s = &*std::min_element(m_streams.begin(), m_streams.end(),
                                   [](const Stream& a, const Stream& b) { return a.lastUse < b.lastUse; });
            *s = Stream();
            s->start = offset;
            s->next = end;
            s->current = (end - 1) / E;
            s->aheadUntil = s->current + 1;
            s->remember(offset, end);
            s->lastUse = m_streamClock;
            return;
        }
        s->lastUse = m_streamClock;
        s->remember(offset, end);
        s->start = std::min(s->start, offset);
        s->next = std::max(s->next, end);
        // A file read in a few pieces is no stream yet: readahead starts
        // once a reader has gone through a whole extent in order.
        if (s->next - s->start < E) return;
        const uint64_t current = (s->next - 1) / E;
        if (!s->window)
            s->window = 1;
        else if (current > s->current)
            s->window = std::min(s->window * 2, m_maxWindow);
        s->current = current;
        uint64_t until = std::min(m_extentCount, current + 1 + s->window);
        if (until > s->aheadUntil) {
            from = std::max(s->aheadUntil, current + 1);
            count = until > from ? until - from : 0;
            s->aheadUntil = until;
        }
    }
    if (count) request(from, count);
}

void Readahead::closeLocked(Stream& s) {
    const uint64_t first = s.current + 1, last = s.aheadUntil;
    s.window = 0;
    s.aheadUntil = first;
    std::deque<uint64_t> kept;
    for (uint64_t e : m_queue)
        if (e >= first && e < last)
            m_inQueue.erase(e);
        else
            kept.push_back(e);
    m_queue.swap(kept);
}

void Readahead::dropQueue() {
    MutexLock lock(m_mutex);
    m_queue.clear();
    m_inQueue.clear();
}

// The extents are recalled several at once, as many as the readahead has
// workers: one after another, each a round trip to a store a network away,
// a prefetch of a boot's extents fell behind the guest that asked for them.
// They are recalls ahead: a reader's recall still goes first, and a disk
// object is left to the readers.
void Readahead::prefetch(std::vector<uint64_t> extents) {
    MutexLock lock(m_prefetchMutex);
    if (m_prefetch.joinable()) m_prefetch.join();
    const size_t lanes = std::max<size_t>(1, std::min(m_workers.size(), extents.size()));
    m_prefetch = std::thread([this, extents, lanes] {
        std::atomic<size_t> next{0};
        auto lane = [&] {
            for (size_t i; (i = next++) < extents.size();) {
                if (stopping()) return;
                const uint64_t e = extents[i];
                // Skipped while the readers need the file system's room; a
                // reader recalls them when it comes for them.
                if (e >= m_extentCount || m_cache.store().shortOfSpace()) continue;
                try {
                    // A recorded extent that no snapshot holds reads as zeros
                    // without a recall; recalling it would only fill the cache.
                    if (m_pool.holdsData(e)) m_pool.ensure(e, true);
                } catch (const StoreError& err) {
                    LogSink::write(kLevelError, kTag, std::string("prefetch: ") + err.what());
                }
            }
        };
        std::vector<std::thread> others;
        try {
            for (size_t k = 1; k < lanes; ++k) others.emplace_back(lane);
        } catch (const std::system_error&) {
            // No thread to spare: the lanes there are do the rest.
        }
        lane();
        for (std::thread& t : others) t.join();
    });
}

}  // namespace zxblk
