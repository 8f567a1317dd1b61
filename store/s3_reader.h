// An object on S3 read with range GETs, as a snapshot's recalls read it.
//
// What its opener read first (a snapshot's footer, header and block table)
// is kept while the reader lives, and on local disk for the next reader of
// the same object. Larger reads (a block and its bitmap, which a recall
// checks whole against its checksum) are fetched as stretches that later
// reads of the same bytes share: a read that finds its bytes on their way
// waits for them rather than asking again, and a read that carries on where
// an earlier one ended fetches what follows too, up to a few MiB in one
// GET, so that a reader going through the object in order has a link a
// network away full instead of paying a round trip per block. How far it
// fetches ahead follows what the link carries (LinkGauge), and what the
// readers of one store hold at once, kept or on its way, has one bound.
#pragma once
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <future>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "store/s3_client.h"
#include "store/s3_metadata.h"
#include "store/storage.h"

namespace zxblk {

// The bytes that the readers of one store hold of what they fetched, kept
// or on its way: a chain of many snapshots read at once costs what one
// does. A read always gets the bytes it asks for; what is fetched beyond
// them, and kept for later reads, stays within kBytes.
class FetchBudget {
public:
    static constexpr uint64_t kBytes = 16 << 20;
    void take(uint64_t n) {
        const uint64_t now = m_held.fetch_add(n) + n;
        uint64_t peak = m_peak.load();
        while (now > peak && !m_peak.compare_exchange_weak(peak, now)) {
        }
    }
    void give(uint64_t n) { m_held.fetch_sub(n); }
    uint64_t held() const { return m_held.load(); }
    uint64_t room() const {
        const uint64_t h = held();
        return h < kBytes ? kBytes - h : 0;
    }
    // The most held at once so far.
    uint64_t peak() const { return m_peak.load(); }

private:
    std::atomic<uint64_t> m_held{0}, m_peak{0};
};

class S3Reader : public ObjectReader {
public:
    // `opening`: stretches fetched (or kept from an earlier open) for the
    // opener; `saved` says they are on local disk already. `budget` is
    // shared by the readers of one store.
    S3Reader(std::shared_ptr<S3Client> client, std::shared_ptr<S3MetadataCache> cache,
             std::shared_ptr<FetchBudget> budget, std::string key, std::string url, std::string etag, uint64_t size,
             Stretches opening, bool saved);
    const std::string& name() const override { return m_url; }
    uint64_t size() const override { return m_stamp.size; }
    const FileStamp& stamp() const override { return m_stamp; }
    void readAt(uint64_t offset, void* buffer, size_t length) const override;
    // Every GET asks for the version opened (If-Match), so a replaced
    // object fails its reads rather than serving other bytes.
    bool current() const override { return true; }
    void opened() const override;
    // Fetches the range on a thread of its own (a few at most at once),
    // unless its bytes are here or on their way; a read of them waits.
    void prefetch(uint64_t offset, uint64_t length) const override;
    ~S3Reader() override;
    // The cache entry of an object's opening stretches.
    static std::string openingKey(const std::string& key) { return "opening " + key; }

    // Reads below this are not kept (but for the opener's); a stretch
    // fetched for a reader in order is at most kFollowOn long, and no
    // longer than what the link wants in flight.
    static constexpr uint64_t kSmall = 64 << 10, kFollowOn = 8 << 20;

private:
    struct Stretch {
        uint64_t offset = 0, size = 0;
        // Not cleared first: pages of a stretch on its way are taken only
        // as its bytes arrive.
        std::unique_ptr<uint8_t[]> bytes;
        bool done = false;
        Stretch(uint64_t at, uint64_t length) : offset(at), size(length), bytes(new uint8_t[length]) {}
        uint64_t end() const { return offset + size; }
        bool holds(uint64_t at, uint64_t length) const { return at >= offset && at + length <= end(); }
    };
    using StretchPtr = std::shared_ptr<Stretch>;
    // Copies from a stretch kept or fetched for the opener; caller holds m_mutex.
    bool fromKept(uint64_t offset, void* buffer, size_t length) const;
    // How far a fetch from `offset` of `length` bytes goes; caller holds m_mutex.
    uint64_t fetchEnd(uint64_t offset, uint64_t length) const;
    // Drops the least recently used kept stretches, but the newest, while
    // the store's readers hold more than their budget with `coming` more;
    // caller holds m_mutex.
    void makeRoom(uint64_t coming) const;
    // Registers a stretch to fetch in m_fetching, its bytes in the budget.
    StretchPtr fetching(uint64_t offset, uint64_t length) const;

    std::shared_ptr<S3Client> m_client;
    std::shared_ptr<S3MetadataCache> m_cache;
    std::shared_ptr<FetchBudget> m_budget;
    std::string m_key, m_url, m_etag;
    FileStamp m_stamp;
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_fetched;
    mutable Stretches m_opening;
    mutable bool m_saved;
    mutable std::list<StretchPtr> m_kept;  // fetched, most recently used first
    mutable std::vector<StretchPtr> m_fetching;
    mutable uint64_t m_lastEnd = UINT64_MAX;  // where the last large read ended
    mutable std::vector<std::future<void>> m_prefetches;
    static constexpr size_t kMostPrefetches = 4;
    // Fetches `s` (registered in m_fetching) with `lock` released, and
    // keeps it; throws what the GET threw.
    void fetch(const StretchPtr& s, std::unique_lock<std::mutex>& lock) const;
};

}  // namespace zxblk
