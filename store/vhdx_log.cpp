// The log of a VHDX file that was not closed cleanly, replayed in memory: a
// backup's file is never written, so its reader sees the file as the log
// says it is, through a reader that lays the logged sectors over it.
#include <algorithm>
#include <cstring>
#include <map>

#include "store/little_endian.h"
#include "store/storage.h"
#include "store/store_error.h"
#include "store/vhdx_image.h"

namespace zxblk {
namespace {

const uint64_t kSector = 4096, MiB = 1 << 20;
// The default log is 1 MiB; a log is read whole, and one larger than this
// is no log a writer keeps.
const uint64_t kMostLogBytes = 32 * MiB;

// The sectors an entry's `count` descriptors take: 126 after the header in
// the first, 128 in each one after.
uint64_t descriptorSectorsOf(uint64_t count) { return count <= 126 ? 1 : 1 + (count - 126 + 127) / 128; }

// One entry of the log, checked whole.
struct Entry {
    uint64_t at = 0, length = 0, tail = 0, sequence = 0;
    uint64_t flushedFileOffset = 0, lastFileOffset = 0;
};

// The file as replayed: logged sectors and zeroed ranges over its bytes.
class ReplayedFile : public ObjectReader {
public:
    ReplayedFile(std::unique_ptr<ObjectReader> file, std::map<uint64_t, std::vector<uint8_t>> sectors,
                 std::vector<std::pair<uint64_t, uint64_t>> zeros, uint64_t size)
        : m_file(std::move(file)), m_sectors(std::move(sectors)), m_zeros(std::move(zeros)), m_size(size) {}
    const std::string& name() const override { return m_file->name(); }
    uint64_t size() const override { return m_size; }
    const FileStamp& stamp() const override { return m_file->stamp(); }
    bool current() const override { return m_file->current(); }
    void opened() const override { m_file->opened(); }
    void prefetch(uint64_t offset, uint64_t length) const override { m_file->prefetch(offset, length); }
    void readAt(uint64_t offset, void* buffer, size_t length) const override {
        uint8_t* out = static_cast<uint8_t*>(buffer);
        const uint64_t real = m_file->size(), end = offset + length;
        if (end > m_size || end < offset)
            throw StoreError(ErrorKind::io, name() + ": read of " + std::to_string(length) + " bytes at " +
                                                std::to_string(offset) + " past the end of the replayed file");
        // Past the file's own end lies what the log grew it by: zeros.
        const uint64_t fromFile = offset < real ? std::min<uint64_t>(length, real - offset) : 0;
        if (fromFile) m_file->readAt(offset, out, static_cast<size_t>(fromFile));
        std::memset(out + fromFile, 0, static_cast<size_t>(length - fromFile));
        for (const auto& z : m_zeros) {
            const uint64_t a = std::max(offset, z.first), b = std::min(end, z.first + z.second);
            if (a < b) std::memset(out + (a - offset), 0, static_cast<size_t>(b - a));
        }
        for (auto it = m_sectors.lower_bound(offset / kSector * kSector); it != m_sectors.end() && it->first < end; ++it) {
            const uint64_t a = std::max(offset, it->first), b = std::min(end, it->first + kSector);
            std::memcpy(out + (a - offset), it->second.data() + (a - it->first), static_cast<size_t>(b - a));
        }
    }

private:
    std::unique_ptr<ObjectReader> m_file;
    std::map<uint64_t, std::vector<uint8_t>> m_sectors;  // by file offset, 4 KiB each
    std::vector<std::pair<uint64_t, uint64_t>> m_zeros;  // (offset, length), before any sector
    uint64_t m_size;
};

class Log {
public:
    Log(std::vector<uint8_t> bytes, const VhdxLayout::Guid& guid)
        : m_log(std::move(bytes)), m_guid(guid), m_checked(m_log.size() / kSector, 0), m_entries(m_log.size() / kSector) {}

    // entryAt(), remembered: a scan from every possible tail asks for the
    // same entries again and again.
    bool soundEntryAt(uint64_t at, Entry& e) const {
        const size_t i = static_cast<size_t>(at / kSector);
        if (!m_checked[i]) m_checked[i] = entryAt(at, m_entries[i]) ? 1 : 2;
        e = m_entries[i];
        return m_checked[i] == 1;
    }

    // The sector `index` of the entry at `at`, the log being a ring.
    const uint8_t* sector(uint64_t at, uint64_t index) const { return m_log.data() + (at + index * kSector) % m_log.size(); }

    // The entry at `at` when it is whole and sound: header, descriptors,
    // data sectors and checksum.
    bool entryAt(uint64_t at, Entry& e) const {
        const uint8_t* h = sector(at, 0);
        if (std::memcmp(h, "loge", 4) != 0) return false;
        e.at = at;
        e.length = le32(h + 8);
        e.tail = le32(h + 12);
        e.sequence = le64(h + 16);
        const uint64_t count = le32(h + 24);
        e.flushedFileOffset = le64(h + 48);
        e.lastFileOffset = le64(h + 56);
        if (e.length == 0 || e.length % kSector || e.length > m_log.size() || e.tail % kSector || e.tail >= m_log.size() ||
            e.sequence == 0 || vhdxGuid(h + 32) != m_guid)
            return false;
        const uint64_t sectors = e.length / kSector, descriptorSectors = descriptorSectorsOf(count);
        if (descriptorSectors > sectors) return false;
        uint64_t data = 0;
        for (uint64_t i = 0; i < count; ++i) {
            const uint8_t* d = descriptor(at, i);
            const bool isData = std::memcmp(d, "desc", 4) == 0;
            if ((!isData && std::memcmp(d, "zero", 4) != 0) || le64(d + 24) != e.sequence || le64(d + 16) % kSector) return false;
            if (!isData) {
                if (le64(d + 8) % kSector) return false;
                continue;
            }
            if (descriptorSectors + data >= sectors) return false;
            const uint8_t* s = sector(at, descriptorSectors + data++);
            if (std::memcmp(s, "data", 4) != 0 || le32(s + 4) != uint32_t(e.sequence >> 32) ||
                le32(s + 4092) != uint32_t(e.sequence))
                return false;
        }
        if (descriptorSectors + data != sectors) return false;
        uint32_t crc = 0;
        static const uint8_t zeros[4] = {0, 0, 0, 0};
        for (uint64_t i = 0; i < sectors; ++i) {
            const uint8_t* s = sector(at, i);
            if (i == 0) {
                crc = crc32c(s, 4, crc);
                crc = crc32c(zeros, 4, crc);
                crc = crc32c(s + 8, kSector - 8, crc);
            } else {
                crc = crc32c(s, kSector, crc);
            }
        }
        return crc == le32(h + 4);
    }

    // The newest whole sequence of entries, tail first, found as the
    // format describes: from every possible tail, the longest run of sound
    // entries with consecutive sequence numbers, valid when the last one's
    // tail lies within it.
    std::vector<Entry> activeSequence() const {
        std::vector<Entry> best;
        uint64_t tail = 0;
        for (;;) {
            std::vector<Entry> run;
            uint64_t head = tail, spanned = 0;
            Entry e;
            while (spanned < m_log.size() && soundEntryAt(head, e) && (run.empty() || e.sequence == run.back().sequence + 1)) {
                run.push_back(e);
                spanned += e.length;
                head = (head + e.length) % m_log.size();
            }
            bool valid = false;
            size_t from = 0;
            for (size_t i = 0; i < run.size() && !valid; ++i)
                if (run[i].at == run.back().tail) valid = true, from = i;
            if (valid && (best.empty() || run.back().sequence > best.back().sequence))
                best.assign(run.begin() + static_cast<std::ptrdiff_t>(from), run.end());
            // On from the run's head, or the next sector; round to the start
            // again, every tail has been tried.
            const uint64_t next = valid ? head : (tail + kSector) % m_log.size();
            if (next <= tail) break;
            tail = next;
        }
        return best;
    }

    const uint8_t* descriptor(uint64_t at, uint64_t i) const {
        // 126 after the header in the first sector, 128 in each one after.
        return i < 126 ? sector(at, 0) + 64 + 32 * i : sector(at, 1 + (i - 126) / 128) + 32 * ((i - 126) % 128);
    }

private:
    std::vector<uint8_t> m_log;
    VhdxLayout::Guid m_guid;
    mutable std::vector<uint8_t> m_checked;  // per sector: 0 not yet, 1 a sound entry starts there, 2 none
    mutable std::vector<Entry> m_entries;
};

}  // namespace

std::unique_ptr<ObjectReader> replayVhdxLog(std::unique_ptr<ObjectReader> file, const VhdxLayout::Guid& logGuid,
                                            uint64_t logOffset, uint64_t logLength, std::string& note) {
    const std::string path = file->name();
    auto fail = [&](const std::string& why) { throw StoreError(ErrorKind::corruption, path + ": log: " + why); };
    if (logLength == 0) fail("the header names a log to replay but the log is empty");
    if (logLength > kMostLogBytes) fail(std::to_string(logLength) + " bytes is larger than any log a writer keeps");
    std::vector<uint8_t> bytes(static_cast<size_t>(logLength));
    file->readAt(logOffset, bytes.data(), bytes.size());
    Log log(std::move(bytes), logGuid);
    const std::vector<Entry> active = log.activeSequence();
    if (active.empty()) fail("the header names a log to replay, but it holds no whole sequence of entries");
    const Entry& head = active.back();
    if (file->size() < head.flushedFileOffset)
        fail("the file is " + std::to_string(file->size()) + " bytes, shorter than the " +
             std::to_string(head.flushedFileOffset) + " the log says it had: it was cut short");
    std::map<uint64_t, std::vector<uint8_t>> sectors;
    std::vector<std::pair<uint64_t, uint64_t>> zeros;
    uint64_t size = std::max(file->size(), head.lastFileOffset);
    for (const Entry& e : active) {
        const uint8_t* h = log.sector(e.at, 0);
        const uint64_t count = le32(h + 24), descriptorSectors = descriptorSectorsOf(count);
        uint64_t data = 0;
        for (uint64_t i = 0; i < count; ++i) {
            const uint8_t* d = log.descriptor(e.at, i);
            const uint64_t at = le64(d + 16);
            if (std::memcmp(d, "zero", 4) == 0) {
                const uint64_t length = le64(d + 8);
                if (at + length < at) fail("a zero descriptor runs past the largest file offset");
                sectors.erase(sectors.lower_bound(at), sectors.lower_bound(at + length));
                zeros.emplace_back(at, length);
                size = std::max(size, at + length);
                continue;
            }
            // The sector's first 8 and last 4 bytes travel in its descriptor.
            const uint8_t* s = log.sector(e.at, descriptorSectors + data++);
            std::vector<uint8_t> sector(kSector);
            std::memcpy(sector.data(), d + 8, 8);
            std::memcpy(sector.data() + 8, s + 8, kSector - 12);
            std::memcpy(sector.data() + kSector - 4, d + 4, 4);
            if (at + kSector < at) fail("a data descriptor lies past the largest file offset");
            sectors[at] = std::move(sector);
            size = std::max(size, at + kSector);
        }
    }
    note = "its log (" + std::to_string(active.size()) + " entr" + (active.size() == 1 ? "y" : "ies") +
           ") was replayed in memory; the file was not changed";
    return std::unique_ptr<ObjectReader>(new ReplayedFile(std::move(file), std::move(sectors), std::move(zeros), size));
}

}  // namespace zxblk
