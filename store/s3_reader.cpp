#include "store/s3_reader.h"

#include <algorithm>
#include <cstring>
#include <chrono>
#include <exception>
#include <system_error>

namespace zxblk {

S3Reader::S3Reader(std::shared_ptr<S3Client> client, std::shared_ptr<S3MetadataCache> cache,
                   std::shared_ptr<FetchBudget> budget, std::string key, std::string url, std::string etag,
                   uint64_t size, Stretches opening, bool saved)
    : m_client(std::move(client)),
      m_cache(std::move(cache)),
      m_budget(std::move(budget)),
      m_key(std::move(key)),
      m_url(std::move(url)),
      m_etag(std::move(etag)),
      m_opening(std::move(opening)),
      m_saved(saved) {
    m_stamp.size = size;
}

bool S3Reader::fromKept(uint64_t offset, void* buffer, size_t length) const {
    for (const auto& s : m_opening)
        if (offset >= s.first && offset + length <= s.first + s.second.size()) {
            std::memcpy(buffer, s.second.data() + (offset - s.first), length);
            return true;
        }
    for (auto it = m_kept.begin(); it != m_kept.end(); ++it)
        if ((*it)->holds(offset, length)) {
            std::memcpy(buffer, (*it)->bytes.get() + (offset - (*it)->offset), length);
            m_kept.splice(m_kept.begin(), m_kept, it);
            return true;
        }
    return false;
}

uint64_t S3Reader::fetchEnd(uint64_t offset, uint64_t length) const {
    // A read that begins where another ended is a reader going through the
    // object in order: what follows is fetched with it, in one GET.
    bool inOrder = offset == m_lastEnd;
    uint64_t nextComing = UINT64_MAX;
    for (const StretchPtr& s : m_fetching) {
        inOrder = inOrder || s->end() == offset;
        if (s->offset >= offset + length) nextComing = std::min(nextComing, s->offset);
    }
    for (const StretchPtr& s : m_kept) inOrder = inOrder || s->end() == offset;
    uint64_t end = offset + length;
    if (inOrder) {
        // As far as the link wants in flight, and the store's readers have
        // room for once this reader's older stretches make way; in whole
        // multiples of the read (reads of one object are mostly of one
        // size, a block and its bitmap), so that the next read finds all
        // its bytes in one stretch rather than half of them.
        uint64_t ahead = std::min(kFollowOn, m_client->link().inFlight);
        makeRoom(ahead);
        ahead = std::min(ahead, m_budget->room());
        if (ahead >= 2 * length) end = std::min(m_stamp.size, offset + ahead / length * length);
    }
    // ...but not what is on its way already.
    return std::min(end, std::max(offset + length, nextComing));
}

void S3Reader::makeRoom(uint64_t coming) const {
    while (m_kept.size() > 1 && m_budget->held() + coming > FetchBudget::kBytes) {
        m_budget->give(m_kept.back()->size);
        m_kept.pop_back();
    }
}

S3Reader::StretchPtr S3Reader::fetching(uint64_t offset, uint64_t length) const {
    auto s = std::make_shared<Stretch>(offset, length);
    m_budget->take(length);
    m_fetching.push_back(s);
    return s;
}

void S3Reader::readAt(uint64_t offset, void* buffer, size_t length) const {
    if (offset > m_stamp.size || length > m_stamp.size - offset)
        throw StoreError(m_url + ": data at offset " + std::to_string(offset) + ": past the end of the object (" +
                         std::to_string(m_stamp.size) + " bytes)");
    if (!length) return;
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        if (fromKept(offset, buffer, length)) return;
        auto coming = std::find_if(m_fetching.begin(), m_fetching.end(),
                                   [&](const StretchPtr& s) { return s->holds(offset, length); });
        if (coming == m_fetching.end()) break;
        // On its way: wait for it. A fetch that failed is not kept, and the
        // read then asks for its bytes itself.
        StretchPtr s = *coming;
        m_fetched.wait(lock, [&] { return s->done; });
    }
    // Small reads (headers, tables, bitmaps) are not worth keeping, unless
    // the opener is still reading what it needs at once.
    if (length < kSmall) {
        lock.unlock();
        m_client->getRange(m_key, offset, length, buffer, m_etag);
        lock.lock();
        if (!m_saved) m_opening.emplace_back(offset, std::string(static_cast<const char*>(buffer), length));
        return;
    }
    const uint64_t end = fetchEnd(offset, length);
    StretchPtr s = fetching(offset, end - offset);
    m_lastEnd = offset + length;
    std::exception_ptr failed;
    try {
        fetch(s, lock);
    } catch (...) {
        failed = std::current_exception();
    }
    if (failed) std::rethrow_exception(failed);
    std::memcpy(buffer, s->bytes.get(), length);
}

void S3Reader::fetch(const StretchPtr& s, std::unique_lock<std::mutex>& lock) const {
    lock.unlock();
    std::exception_ptr failed;
    try {
        m_client->getRange(m_key, s->offset, s->size, s->bytes.get(), m_etag);
    } catch (...) {
        failed = std::current_exception();
    }
    lock.lock();
    m_fetching.erase(std::find(m_fetching.begin(), m_fetching.end(), s));
    s->done = true;
    if (failed) {
        m_budget->give(s->size);
    } else {
        m_kept.push_front(s);
        makeRoom(0);
    }
    m_fetched.notify_all();
    if (failed) std::rethrow_exception(failed);
}

void S3Reader::prefetch(uint64_t offset, uint64_t length) const {
    if (offset >= m_stamp.size || length < kSmall) return;
    length = std::min(length, m_stamp.size - offset);
    std::unique_lock<std::mutex> lock(m_mutex);
    for (const StretchPtr& s : m_kept)
        if (s->holds(offset, length)) return;
    for (const StretchPtr& s : m_fetching)
        if (s->holds(offset, length)) return;
    m_prefetches.erase(std::remove_if(m_prefetches.begin(), m_prefetches.end(),
                                      [](const std::future<void>& f) {
                                          return f.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
                                      }),
                       m_prefetches.end());
    if (m_prefetches.size() >= kMostPrefetches) return;
    // Fetched ahead only where the store's readers have room for it.
    makeRoom(length);
    if (m_budget->room() < length) return;
    StretchPtr s = fetching(offset, length);
    try {
        m_prefetches.push_back(std::async(std::launch::async, [this, s] {
            std::unique_lock<std::mutex> held(m_mutex);
            try {
                fetch(s, held);
            } catch (const std::exception&) {
                // Not kept: the read that needs the bytes asks for them itself.
            }
        }));
    } catch (const std::system_error&) {
        m_fetching.pop_back();  // no thread to be had: the read fetches it
        m_budget->give(length);
    }
}

S3Reader::~S3Reader() {
    // The fetches ahead use this reader: they end first.
    std::vector<std::future<void>> pending;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        pending.swap(m_prefetches);
    }
    for (std::future<void>& f : pending) f.wait();
    for (const StretchPtr& s : m_kept) m_budget->give(s->size);
}

void S3Reader::opened() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_saved || !m_cache || m_etag.empty()) return;
    m_saved = true;
    m_cache->put(openingKey(m_key), m_etag, packStretches(m_opening));
}

}  // namespace zxblk
