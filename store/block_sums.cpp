#include "store/block_sums.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "store/store_error.h"

namespace zxblk {

std::string sumText(uint64_t sum) {
    char text[17];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(sum));
    return text;
}

namespace {

void putLe(std::string& out, uint64_t v, int bytes) {
    for (int i = 0; i < bytes; ++i) out += static_cast<char>(v >> (8 * i));
}

uint64_t getLe(const uint8_t* p, int bytes) {
    uint64_t v = 0;
    for (int i = bytes - 1; i >= 0; --i) v = v << 8 | p[i];
    return v;
}

BlockSums::Entry entryAt(const uint8_t* e) { return {getLe(e, 8), {getLe(e + 8, 8), getLe(e + 16, 8)}}; }

}  // namespace

std::string BlockSums::serialize() const {
    std::string out = "ZXBLKSUM";
    putLe(out, kVersion, 4);
    putLe(out, unitBytes, 4);
    putLe(out, units, 8);
    putLe(out, entries.size(), 8);
    putLe(out, fileName.size(), 4);
    out += fileName;
    for (const Entry& e : entries) {
        putLe(out, e.unit, 8);
        putLe(out, e.sum.data, 8);
        putLe(out, e.sum.bitmap, 8);
    }
    return out;
}

BlockSums BlockSums::parseHeader(const std::string& bytes, const std::string& source, uint64_t& count,
                                 uint64_t& entriesAt) {
    auto fail = [&](const std::string& field, const std::string& why) {
        throw StoreError(ErrorKind::corruption, source + ": " + field + ": " + why);
    };
    const uint8_t* p = reinterpret_cast<const uint8_t*>(bytes.data());
    if (bytes.size() < kHeaderBytes || std::memcmp(p, "ZXBLKSUM", 8) != 0) fail("header", "not a checksum file");
    if (getLe(p + 8, 4) != kVersion) fail("version", std::to_string(getLe(p + 8, 4)) + " is not " + std::to_string(kVersion));
    BlockSums s;
    s.unitBytes = static_cast<uint32_t>(getLe(p + 12, 4));
    s.units = getLe(p + 16, 8);
    count = getLe(p + 24, 8);
    const uint64_t nameLength = getLe(p + 32, 4);
    if (nameLength > bytes.size() - kHeaderBytes) fail("file name", "runs past the end of the file");
    s.fileName = bytes.substr(kHeaderBytes, nameLength);
    entriesAt = kHeaderBytes + nameLength;
    if (count > s.units)
        fail("entries", std::to_string(count) + " entries for " + std::to_string(s.units) + " blocks");
    return s;
}

BlockSums BlockSums::parse(const std::string& bytes, const std::string& source) {
    uint64_t count = 0, at = 0;
    BlockSums s = parseHeader(bytes, source, count, at);
    const uint64_t rest = bytes.size() - at;
    if (rest % kEntryBytes || rest / kEntryBytes != count)
        throw StoreError(ErrorKind::corruption, source + ": entries: " + std::to_string(count) + " entries of " +
                                                    std::to_string(s.units) + " blocks do not fill the " +
                                                    std::to_string(rest) + " bytes after the header");
    s.entries.reserve(count);
    const uint8_t* p = reinterpret_cast<const uint8_t*>(bytes.data());
    for (const uint8_t* e = p + at; e < p + bytes.size(); e += kEntryBytes) {
        Entry entry = entryAt(e);
        if (entry.unit >= s.units || (!s.entries.empty() && entry.unit <= s.entries.back().unit))
            throw StoreError(ErrorKind::corruption, source + ": entry " + std::to_string(s.entries.size()) + ": block " +
                                                        std::to_string(entry.unit) +
                                                        " is out of order or past the last block");
        s.entries.push_back(entry);
    }
    return s;
}

const BlockSums::Entry* BlockSums::entry(uint64_t unit) const {
    auto it = std::lower_bound(entries.begin(), entries.end(), unit, [](const Entry& e, uint64_t u) { return e.unit < u; });
    if (it == entries.end() || it->unit != unit) return nullptr;
    if (ranges) ranges->need(static_cast<size_t>(it - entries.begin()));
    return &*it;
}

std::shared_ptr<const BlockSums> SumsRanges::open(const std::string& header, const std::string& name,
                                                  const std::vector<uint64_t>& held, std::shared_ptr<SumsSource> source) {
    uint64_t count = 0, at = 0;
    auto sums = std::make_shared<BlockSums>(BlockSums::parseHeader(header, name, count, at));
    // Ranks stand in for the units the entries name only where there is
    // one entry per unit held, as an import writes.
    if (count != held.size())
        throw StoreError(ErrorKind::corruption, name + ": entries: " + std::to_string(count) + " entries, but the file holds " +
                                                    std::to_string(held.size()) + " blocks");
    sums->entries.reserve(held.size());
    for (uint64_t unit : held) sums->entries.push_back({unit, UnitSum()});
    sums->ranges.reset(new SumsRanges(name, at, sums->entries.data(), sums->entries.size(), std::move(source)));
    return sums;
}

SumsRanges::SumsRanges(std::string name, uint64_t entriesAt, BlockSums::Entry* entries, size_t count,
                       std::shared_ptr<SumsSource> source)
    : m_name(std::move(name)), m_entriesAt(entriesAt), m_entries(entries), m_count(count), m_source(std::move(source)) {
    const size_t ranges = (count + kRangeEntries - 1) / kRangeEntries;
    m_filled.reset(new std::atomic<bool>[ranges]);
    for (size_t r = 0; r < ranges; ++r) m_filled[r] = false;
    m_reading.reset(new std::mutex[ranges]);
    m_broken.resize(ranges);
}

void SumsRanges::need(size_t index) {
    const size_t r = index / kRangeEntries;
    if (m_filled[r].load(std::memory_order_acquire)) return;
    std::lock_guard<std::mutex> reading(m_reading[r]);
    if (m_filled[r].load(std::memory_order_acquire)) return;
    if (!m_broken[r].empty()) throw StoreError(ErrorKind::corruption, m_broken[r]);
    const size_t first = r * kRangeEntries, n = std::min<size_t>(kRangeEntries, m_count - first);
    // A read that fails (the store not answering) is tried again by the
    // next recall that needs the range.
    const std::string bytes = m_source->read(m_entriesAt + first * BlockSums::kEntryBytes, n * BlockSums::kEntryBytes);
    m_broken[r] = fill(r, bytes);
    if (!m_broken[r].empty()) throw StoreError(ErrorKind::corruption, m_broken[r]);
    m_filled[r].store(true, std::memory_order_release);
    m_source->sound(m_entriesAt + first * BlockSums::kEntryBytes, bytes);
}

std::string SumsRanges::fill(size_t r, const std::string& bytes) {
    const size_t first = r * kRangeEntries, n = std::min<size_t>(kRangeEntries, m_count - first);
    if (bytes.size() != n * BlockSums::kEntryBytes)
        return m_name + ": entries " + std::to_string(first) + " to " + std::to_string(first + n - 1) + ": " +
               std::to_string(bytes.size()) + " bytes read, not " + std::to_string(n * BlockSums::kEntryBytes);
    const uint8_t* p = reinterpret_cast<const uint8_t*>(bytes.data());
    for (size_t k = 0; k < n; ++k) {
        const uint64_t unit = entryAt(p + k * BlockSums::kEntryBytes).unit;
        if (unit != m_entries[first + k].unit)
            return m_name + ": entry " + std::to_string(first + k) + ": names block " + std::to_string(unit) +
                   ", not block " + std::to_string(m_entries[first + k].unit) +
                   " (the entries follow the blocks the file holds, in order)";
    }
    for (size_t k = 0; k < n; ++k) m_entries[first + k].sum = entryAt(p + k * BlockSums::kEntryBytes).sum;
    return std::string();
}

}  // namespace zxblk
