// The host's recalls ahead of its readers: an explicit window (export), the
// readahead of sequential readers (mount) and the prefetch of a list of
// extents (the index's mount extents).
#include <algorithm>

#include "host/disk_host.h"
#include "platform/Log.h"

namespace zxblk {
namespace {

const char* const kTag = "DiskHost";
// Extents waiting for a readahead worker; older requests give way to newer.
const size_t kQueuedAhead = 64;
// How far a read may start from where a sequential reader would read next
// and still count as its: the kernel hands a file's readahead to several
// threads, which come in slightly out of order.
const uint64_t kStreamSlack = 4ull << 20;
const size_t kStreams = 8;

}  // namespace

void DiskHost::readahead(uint64_t first, uint64_t count) {
    if (m_stopping || first >= m_extentCount) return;
    uint64_t last = std::min(m_extentCount, first + std::min(count, m_extentCount));
    {
        std::lock_guard<std::mutex> lock(m_aheadMutex);
        for (uint64_t e = first; e < last; ++e) {
            // Nothing to gain from recalling what no snapshot holds ahead of time.
            if (m_aheadQueued.count(e) || m_cache->hasExtent(static_cast<long long>(e)) || !holdsData(e)) continue;
            m_aheadQueue.push_back(e);
            m_aheadQueued.insert(e);
        }
        while (m_aheadQueue.size() > kQueuedAhead) {
            m_aheadQueued.erase(m_aheadQueue.front());
            m_aheadQueue.pop_front();
        }
    }
    m_aheadCond.notify_all();
}

void DiskHost::readaheadWorker() {
    for (;;) {
        uint64_t extent;
        {
            std::unique_lock<std::mutex> lock(m_aheadMutex);
            m_aheadCond.wait(lock, [this] { return m_stopping || !m_aheadQueue.empty(); });
            if (m_stopping) return;
            extent = m_aheadQueue.front();
            m_aheadQueue.pop_front();
            m_aheadQueued.erase(extent);
        }
        try {
            ensureExtent(extent, true);
        } catch (const StoreError& err) {
            // The reader that comes for it tries again and hears why.
            LogSink::write(kLevelError, kTag, std::string("readahead: ") + err.what());
        }
    }
}

// Spots sequential readers and recalls ahead of them: the window starts at
// two extents once a reader has read a whole extent in order, doubles with
// each extent it enters, up to readaheadMax, and ends with the reader (a
// read that follows no stream starts a new one, with no readahead yet).
void DiskHost::noteRead(uint64_t offset, uint64_t length) {
    const uint64_t E = static_cast<uint64_t>(m_extentSize);
    uint64_t end = offset + length;
    uint64_t from = 0, count = 0;
    {
        std::lock_guard<std::mutex> lock(m_streamMutex);
        if (m_streams.empty()) m_streams.resize(kStreams);
        ++m_streamClock;
        Stream* s = nullptr;
        for (Stream& c : m_streams)
            if (c.lastUse && offset + kStreamSlack >= c.next && offset <= c.next + kStreamSlack) s = &c;
        if (!s) {
            s = &*std::min_element(m_streams.begin(), m_streams.end(),
                                   [](const Stream& a, const Stream& b) { return a.lastUse < b.lastUse; });
            *s = Stream();
            s->start = offset;
            s->next = end;
            s->aheadUntil = (end - 1) / E + 1;
            s->lastUse = m_streamClock;
            return;
        }
        s->lastUse = m_streamClock;
        s->next = std::max(s->next, end);
        // A file read in a few pieces is no stream yet: readahead starts
        // once a reader has gone through a whole extent in order.
        if (s->next - s->start < E) return;
        uint64_t current = (end - 1) / E;
        s->window = s->window ? std::min<unsigned>(s->window * 2, m_readaheadMax) : std::min(2u, m_readaheadMax);
        uint64_t until = std::min(m_extentCount, current + 1 + s->window);
        if (until > s->aheadUntil) {
            from = std::max(s->aheadUntil, current + 1);
            count = until > from ? until - from : 0;
            s->aheadUntil = until;
        }
    }
    if (count) readahead(from, count);
}

void DiskHost::prefetch(std::vector<uint64_t> extents) {
    if (m_prefetch.joinable()) m_prefetch.join();
    m_prefetch = std::thread([this, extents] {
        for (uint64_t e : extents) {
            if (m_stopping) return;
            if (e >= m_extentCount) continue;
            try {
                ensureExtent(e);
            } catch (const StoreError& err) {
                LogSink::write(kLevelError, kTag, std::string("prefetch: ") + err.what());
            }
        }
    });
}

}  // namespace zxblk
