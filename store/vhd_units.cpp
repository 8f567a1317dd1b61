// The checksum units of a snapshot file: which the file holds, their sums,
// the reads checked against the sums recorded at import, and whole units
// read once and shared by the checksum check and the stream of every
// extent that lies in them.
#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <utility>
#include <vector>

#include "store/vhd_image.h"

namespace zxblk {
namespace {

// A unit up to this size is read whole; a larger one (a VHD of 256 MiB
// blocks) is read piece by piece (readVerified).
const uint64_t kWholeUnitBytes = (8u << 20) + 4096;

const uint64_t kPage = 4096, kHugePage = 2u << 20;

// Unit buffers let go of and kept for the next read: two, as a unit read
// usually replaces one that goes.
struct IdleBuffers {
    std::mutex mutex;
    std::vector<std::pair<uint64_t, uint8_t*>> buffers;  // capacity, bytes
};

// Never destroyed: a unit may be let go of while the process exits.
IdleBuffers& idleBuffers() {
    static IdleBuffers* idle = new IdleBuffers;
    return *idle;
}

}  // namespace

UnitBuffers::Buffer UnitBuffers::take(uint64_t size) {
    IdleBuffers& idle = idleBuffers();
    {
        std::lock_guard<std::mutex> lock(idle.mutex);
        // The smallest that fits, and not one of twice the size or more.
        auto best = idle.buffers.end();
        for (auto it = idle.buffers.begin(); it != idle.buffers.end(); ++it)
            if (it->first >= size && it->first / 2 < size && (best == idle.buffers.end() || it->first < best->first))
                best = it;
        if (best != idle.buffers.end()) {
            Buffer buffer(best->second, Return{best->first});
            idle.buffers.erase(best);
            return buffer;
        }
    }
    // Mapped on their own, at a multiple of 2 MiB, and where the system
    // allows, backed by huge pages: a block of 8 MiB is then faulted in
    // four times rather than 2048.
    const uint64_t capacity = (size + kPage - 1) / kPage * kPage, span = capacity + kHugePage;
    void* mapped = ::mmap(nullptr, span, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped == MAP_FAILED) return Buffer();
    const uintptr_t at = reinterpret_cast<uintptr_t>(mapped), start = (at + kHugePage - 1) / kHugePage * kHugePage;
    if (start > at) ::munmap(mapped, start - at);
    if (span - (start - at) > capacity) ::munmap(reinterpret_cast<void*>(start + capacity), span - (start - at) - capacity);
    if (capacity >= kHugePage) ::madvise(reinterpret_cast<void*>(start), capacity / kHugePage * kHugePage, MADV_HUGEPAGE);
    return Buffer(reinterpret_cast<uint8_t*>(start), Return{capacity});
}

void UnitBuffers::Return::operator()(uint8_t* bytes) const {
    IdleBuffers& idle = idleBuffers();
    {
        std::lock_guard<std::mutex> lock(idle.mutex);
        if (idle.buffers.size() < 2) {
            idle.buffers.emplace_back(capacity, bytes);
            return;
        }
    }
    ::munmap(bytes, capacity);
}

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
    read->bytes = UnitBuffers::take(read->size);
    if (!read->bytes)
        throw StoreError(m_path + ": block " + std::to_string(unit) + ": out of memory for its " +
                         std::to_string(read->size) + " bytes");
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
    while (m_entries.size() > std::max<size_t>(m_keep, 1) && m_bytes > m_budget) {
        m_bytes -= m_entries.back().bytes->size;
        m_entries.pop_back();
    }
    return read;
}

uint32_t VhdImage::sumUnitBytes() const {
    return m_kind == ImageKind::Raw || m_kind == ImageKind::Fixed ? kSumChunk : m_blockSize;
}

uint64_t VhdImage::sumUnits() const {
    return m_kind == ImageKind::Raw || m_kind == ImageKind::Fixed ? (m_size + kSumChunk - 1) / kSumChunk : m_blocks;
}

bool VhdImage::unitHeld(uint64_t unit) const { return unit < sumUnits() && isBlockAllocated(unit); }

uint64_t VhdImage::nextHeldUnit(uint64_t from) const {
    const uint64_t units = sumUnits();
    if (from >= units || m_kind == ImageKind::Raw || m_kind == ImageKind::Fixed) return std::min(from, units);
    if (m_vhdx) return m_vhdx->nextWithBytes(from);
    if (m_dense.empty()) {  // walks what is allocated, never the whole table of a huge sparse disk
        auto it = std::lower_bound(m_sparse.begin(), m_sparse.end(), from,
                                   [](const Allocation& e, uint64_t b) { return e.first < b; });
        return it == m_sparse.end() ? units : it->first;
    }
    while (from < units && m_dense[from] == kUnallocated) ++from;
    return from;
}

namespace {
const uint64_t kSlice = (4u << 20) + 4096;
}  // namespace

UnitSum VhdImage::sumOf(uint64_t unit, uint64_t copyFrom, uint64_t copyLength, uint8_t* copyTo) const {
    UnitSum sum;
    const UnitPlace place = placeOf(unit);
    // A slice at a time: a block may be as large as 256 MiB.
    thread_local std::vector<uint8_t> buffer;
    if (place.bitmap) {
        // The bitmap and the data that follows it in one read where they fit
        // in a slice: one request to a store on S3, not two.
        if (place.size <= kSlice && !m_vhdx) {
            buffer.resize(static_cast<size_t>(place.size));
            readAt(place.at, buffer.data(), buffer.size());
            sum = sumOfWhole(buffer.data(), place);
            const uint8_t* data = buffer.data() + place.bitmap;
            uint64_t to = std::min<uint64_t>(copyFrom + copyLength, m_blockSize);
            if (copyTo && copyFrom < to) std::memcpy(copyTo, data + copyFrom, to - copyFrom);
            return sum;
        }
        std::vector<uint8_t> bitmap(place.bitmap);
        if (m_vhdx)
            bitmap = readBlockBitmap(unit);
        else
            readAt(place.at, bitmap.data(), bitmap.size());
        sum.bitmap = xxh3(bitmap.data(), bitmap.size());
    }
    const uint64_t at = place.dataAt, length = place.size - place.bitmap;
    buffer.resize(std::min<uint64_t>(length, kSlice));
    Xxh3Stream state;
    for (uint64_t done = 0; done < length;) {
        size_t n = static_cast<size_t>(std::min<uint64_t>(buffer.size(), length - done));
        readSkippingHoles(at + done, buffer.data(), n);
        state.update(buffer.data(), n);
        uint64_t from = std::max(done, copyFrom), to = std::min(done + n, copyFrom + copyLength);
        if (copyTo && from < to) std::memcpy(copyTo + (from - copyFrom), buffer.data() + (from - done), to - from);
        done += n;
    }
    sum.data = state.digest();
    return sum;
}

bool VhdImage::checkUnit(const BlockSums& sums, uint64_t unit, std::string& why, uint64_t copyFrom,
                         uint64_t copyLength, uint8_t* copyTo) const {
    const BlockSums::Entry* entry = sums.entry(unit);
    // A unit with no sum recorded is not read.
    return matchesRecorded(entry, entry ? sumOf(unit, copyFrom, copyLength, copyTo) : UnitSum(), why);
}

bool VhdImage::matchesRecorded(const BlockSums::Entry* entry, const UnitSum& found, std::string& why) {
    if (!entry) return why = "checksum mismatch (the block holds data, but none was recorded for it)", false;
    const UnitSum& recorded = entry->sum;
    if (found.data != recorded.data)
        why = "checksum mismatch in its data (recorded " + sumText(recorded.data) + ", read " + sumText(found.data) + ")";
    else if (found.bitmap != recorded.bitmap)
        why = "checksum mismatch in its sector bitmap (recorded " + sumText(recorded.bitmap) + ", read " +
              sumText(found.bitmap) + ")";
    else
        return true;
    return false;
}

void VhdImage::attachSums(std::shared_ptr<const BlockSums> sums, std::string error) {
    m_sums = std::move(sums);
    m_sumsError = std::move(error);
    size_t words = m_sums ? (m_sums->entries.size() + 63) / 64 : 0;
    m_verified.reset(words ? new std::atomic<uint64_t>[words] : nullptr);
    for (size_t i = 0; i < words; ++i) m_verified[i] = 0;
    m_verifyLocks.reset(new std::mutex[kVerifyStripes]);
}

void VhdImage::attachSumsLater(std::function<std::shared_ptr<const BlockSums>()> load) {
    attachSums(nullptr);
    m_sumsLoader.reset(new SumsLoader{std::move(load), {}});
}

const std::string& VhdImage::sumsError() const {
    if (m_sumsLoader)
        std::call_once(m_sumsLoader->once, [this] {
            // Loaded once, by whichever reader comes first; the others wait.
            auto* self = const_cast<VhdImage*>(this);
            try {
                self->attachSums(m_sumsLoader->load());
            } catch (const StoreError& e) {
                self->attachSums(nullptr, e.what());
            }
        });
    return m_sumsError;
}

void VhdImage::readVerified(const Piece& piece, uint8_t* into) const {
    if (!sumsError().empty()) throw StoreError(ErrorKind::corruption, m_sumsError);
    if (!m_sums) return readAt(static_cast<uint64_t>(piece.fileOffset), into, piece.length);
    const uint64_t unitBytes = sumUnitBytes(), end = piece.virtualOffset + piece.length;
    for (uint64_t at = piece.virtualOffset; at < end;) {
        uint64_t unit = at / unitBytes, within = at % unitBytes, n = std::min(end - at, unitBytes - within);
        uint8_t* to = into + (at - piece.virtualOffset);
        uint64_t fileAt = static_cast<uint64_t>(piece.fileOffset) + (at - piece.virtualOffset);
        at += n;
        const SoundMark sound = soundMark(m_sums->entry(unit));
        if (sound.isSet()) {
            readAt(fileAt, to, n);
            continue;
        }
        std::lock_guard<std::mutex> lock(m_verifyLocks[sound.index % kVerifyStripes]);
        if (sound.isSet()) {
            readAt(fileAt, to, n);
            continue;
        }
        std::string why;
        if (!checkUnit(*m_sums, unit, why, within, n, to))
            throw StoreError(ErrorKind::corruption, m_path + ": block " + std::to_string(unit) + ": " + why);
        sound.set();
    }
}

}  // namespace zxblk
