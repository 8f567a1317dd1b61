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

VhdImage::UnitPlace VhdImage::placeOf(uint64_t unit) const {
    if (m_kind == ImageKind::Raw || m_kind == ImageKind::Fixed) {
        const uint64_t at = unit * kSumChunk;
        if (at >= m_size) fail("block " + std::to_string(unit), "past the end of the disk");
        return {at, 0, std::min<uint64_t>(kSumChunk, m_size - at), at};
    }
    if (m_vhdx) {
        if (!isBlockAllocated(unit)) fail("block " + std::to_string(unit), "not allocated");
        // Only a differencing file's blocks carry a bitmap; the data is the
        // disk's bytes in the block, the last one shorter.
        const uint64_t bitmap = m_kind == ImageKind::Differencing ? m_bitmapBytes : 0;
        return {0, bitmap, bitmap + m_vhdx->blockBytes(unit), m_vhdx->block(unit).offset};
    }
    const uint32_t sector = sectorOf(unit);
    if (sector == kUnallocated) fail("block " + std::to_string(unit), "not allocated");
    return {uint64_t(sector) * 512, m_bitmapBytes, uint64_t(m_bitmapBytes) + m_blockSize,
            uint64_t(sector) * 512 + m_bitmapBytes};
}

UnitSum VhdImage::sumOfWhole(const uint8_t* bytes, const UnitPlace& place) {
    UnitSum sum;
    sum.bitmap = place.bitmap ? xxh3(bytes, place.bitmap) : 0;
    sum.data = xxh3(bytes + place.bitmap, place.size - place.bitmap);
    return sum;
}

VhdImage::SoundMark VhdImage::soundMark(const BlockSums::Entry* recorded) const {
    if (!recorded) return {nullptr, 0, 0};
    const size_t index = static_cast<size_t>(recorded - m_sums->entries.data());
    return {&m_verified[index / 64], uint64_t(1) << (index % 64), index};
}

std::shared_ptr<const UnitBytes> VhdImage::readUnit(uint64_t unit) const {
    if (!unitHeld(unit)) fail("block " + std::to_string(unit), "not held by the file");
    if (!unitsFitInMemory()) fail("block " + std::to_string(unit), "too large to be read whole");
    if (!sumsError().empty()) throw StoreError(ErrorKind::corruption, m_sumsError);
    const UnitPlace place = placeOf(unit);
    auto read = std::make_shared<UnitBytes>();
    read->bitmap = place.bitmap;
    read->size = place.size;
    // Not zeroed first: every byte is read over at once (the file's holes
    // zeroed instead of read).
    read->bytes.reset(new uint8_t[read->size]);
    if (m_vhdx) {
        if (place.bitmap) m_vhdx->bitmap(*m_reader, unit, read->bytes.get(), place.bitmap);
        readSkippingHoles(place.dataAt, read->bytes.get() + place.bitmap, place.size - place.bitmap);
    } else {
        readSkippingHoles(place.at, read->bytes.get(), read->size);
    }
    if (!m_sums) return read;
    const BlockSums::Entry* recorded = m_sums->entry(unit);
    const SoundMark sound = soundMark(recorded);
    // A unit found sound once since the file was opened is not hashed again.
    if (sound.isSet()) return read;
    std::string why;
    if (!matchesRecorded(recorded, sumOfWhole(read->bytes.get(), place), why))
        throw StoreError(ErrorKind::corruption, m_path + ": block " + std::to_string(unit) + ": " + why);
    sound.set();
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
