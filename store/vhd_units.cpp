// Whole units of a snapshot file, read once and shared by the checksum
// check and the stream of every extent that lies in them.
#include <algorithm>

#include "store/vhd_image.h"

namespace zxblk {
namespace {

// A unit up to this size is read whole; a larger one (a VHD of 256 MiB
// blocks) is read piece by piece (readVerified).
const uint64_t kWholeUnitBytes = (8u << 20) + 4096;

}  // namespace

bool VhdImage::unitsFitInMemory() const { return uint64_t(sumUnitBytes()) + m_bitmapBytes <= kWholeUnitBytes; }

std::shared_ptr<const UnitBytes> VhdImage::readUnit(uint64_t unit) const {
    if (!unitHeld(unit)) fail("block " + std::to_string(unit), "not held by the file");
    if (!unitsFitInMemory()) fail("block " + std::to_string(unit), "too large to be read whole");
    if (!sumsError().empty()) throw StoreError(ErrorKind::corruption, m_sumsError);
    auto read = std::make_shared<UnitBytes>();
    uint64_t at;
    if (m_kind == ImageKind::Raw || m_kind == ImageKind::Fixed) {
        at = unit * kSumChunk;
        read->size = std::min<uint64_t>(kSumChunk, m_size - at);
    } else {
        at = uint64_t(sectorOf(unit)) * 512;
        read->bitmap = m_bitmapBytes;
        read->size = uint64_t(m_bitmapBytes) + m_blockSize;
    }
    // Not zeroed first: every byte is read over at once.
    read->bytes.reset(new uint8_t[read->size]);
    readAt(at, read->bytes.get(), read->size);
    if (!m_sums) return read;
    const BlockSums::Entry* recorded = m_sums->entry(unit);
    size_t index = recorded ? static_cast<size_t>(recorded - m_sums->entries.data()) : 0;
    uint64_t bit = uint64_t(1) << (index % 64);
    // A unit found sound once since the file was opened is not hashed again.
    if (recorded && (m_verified[index / 64].load(std::memory_order_acquire) & bit)) return read;
    std::string why = "checksum mismatch (the block holds data, but none was recorded for it)";
    UnitSum found;
    found.bitmap = read->bitmap ? xxh3(read->bytes.get(), read->bitmap) : 0;
    found.data = xxh3(read->data(), read->size - read->bitmap);
    if (!recorded || !matchesRecorded(recorded->sum, found, why))
        throw StoreError(ErrorKind::corruption, m_path + ": block " + std::to_string(unit) + ": " + why);
    m_verified[index / 64].fetch_or(bit, std::memory_order_release);
    return read;
}

std::shared_ptr<const UnitBytes> UnitCache::find(const VhdImage* image, uint64_t unit) {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (auto it = m_entries.begin(); it != m_entries.end(); ++it)
        if (it->image.get() == image && it->unit == unit) {
            if (it != m_entries.begin()) {
                Entry e = std::move(*it);
                m_entries.erase(it);
                m_entries.push_front(std::move(e));
            }
            return m_entries.front().bytes;
        }
    return nullptr;
}

std::shared_ptr<const UnitBytes> UnitCache::get(const std::shared_ptr<const VhdImage>& image, uint64_t unit) {
    if (auto found = find(image.get(), unit)) return found;
    size_t stripe = (std::hash<const void*>()(image.get()) + unit) % (sizeof m_reading / sizeof m_reading[0]);
    std::lock_guard<std::mutex> reading(m_reading[stripe]);
    if (auto found = find(image.get(), unit)) return found;
    std::shared_ptr<const UnitBytes> read = image->readUnit(unit);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_entries.push_front({image, unit, read});
    m_bytes += read->size;
    while (m_entries.size() > 1 && m_bytes > m_budget) {
        m_bytes -= m_entries.back().bytes->size;
        m_entries.pop_back();
    }
    return read;
}

}  // namespace zxblk
