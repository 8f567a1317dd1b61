// Reads fixed, dynamic and differencing VHD files and raw images. Every
// field read from a file is checked before it is used; a bad file is refused
// with one line naming the file and the field.
#pragma once
#include <sys/stat.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "store/block_sums.h"
#include "store/storage.h"
#include "store/store_error.h"
#include "store/vhdx_image.h"

namespace zxblk {

enum class ImageKind { Raw, Fixed, Dynamic, Differencing };
const char* kindName(ImageKind kind);
// How a snapshot file lays out its disk. A VHDX opens as a dynamic or a
// differencing image (a fixed VHDX too: its blocks lie where its table
// says, not in the disk's order) and is read through the same calls as a
// VHD, so nothing above the reader tells the two apart.
enum class FileFormat { Vhd, Vhdx, Raw };

using UniqueId = std::array<uint8_t, 16>;
std::string uniqueIdText(const UniqueId& id);

// A stretch of the virtual disk and where it lies in the file. `fileOffset`
// is -1 when no block holds it (it reads from the parent, or as zeros), and
// kZeroHeld where a differencing VHDX holds it as zeros that hide the parent.
constexpr int64_t kZeroHeld = -2;
struct Piece {
    uint64_t virtualOffset;
    uint64_t length;
    int64_t fileOffset;
    uint64_t block;
};

// Buffers for units read whole, mapped on their own (not from the heap,
// whatever its thresholds) and used again rather than freed: a new one of
// several MiB is faulted in, which cost more than the read into it. Two
// are kept between uses.
class UnitBuffers {
public:
    struct Return {
        uint64_t capacity = 0;
        void operator()(uint8_t* bytes) const;
    };
    using Buffer = std::unique_ptr<uint8_t[], Return>;
    // A buffer of at least `size` bytes, its contents undefined; null when
    // the system has no memory for it.
    static Buffer take(uint64_t size);
};

// One unit of a snapshot file as read whole: a VHD block's sector bitmap
// (none for raw and fixed) followed by its data.
struct UnitBytes {
    UnitBuffers::Buffer bytes;
    uint64_t size = 0, bitmap = 0;
    const uint8_t* data() const { return bytes.get() + bitmap; }
};

class VhdImage {
public:
    // Opens and validates the whole file; throws StoreError. A raw image's
    // size is its file's, or `rawSize` when given (the size recorded at
    // import): a raw file cut short afterwards then fails only the reads
    // past its end.
    static VhdImage open(const std::string& path, FileFormat format, uint64_t rawSize = 0);
    // The same, of an object already opened (a store's, perhaps on S3).
    static VhdImage open(std::unique_ptr<ObjectReader> reader, FileFormat format, uint64_t rawSize = 0);
    static VhdImage open(const std::string& path, bool raw = false, uint64_t rawSize = 0) {
        return open(path, raw ? FileFormat::Raw : FileFormat::Vhd, rawSize);
    }
    static VhdImage open(std::unique_ptr<ObjectReader> reader, bool raw = false, uint64_t rawSize = 0) {
        return open(std::move(reader), raw ? FileFormat::Raw : FileFormat::Vhd, rawSize);
    }
    VhdImage(VhdImage&& other) noexcept;
    VhdImage& operator=(VhdImage&& other) noexcept;
    ~VhdImage();

    const std::string& path() const { return m_path; }
    ImageKind kind() const { return m_kind; }
    FileFormat format() const { return m_format; }
    // "dynamic VHD", "fixed VHDX", "raw", ... as a user knows the file.
    std::string kindText() const;
    bool isFixedVhdx() const { return m_vhdx && m_vhdx->fixed(); }
    // The disk's sector size as the file declares it (a VHD's is 512).
    uint32_t logicalSectorSize() const { return m_vhdx ? m_vhdx->logicalSectorSize() : 512; }
    uint64_t virtualSize() const { return m_size; }
    uint64_t fileSize() const { return m_stamp.size; }
    // The file as it was when it was opened and checked.
    const FileStamp& stamp() const { return m_stamp; }
    // What the reader worked around to open the file, for its user to hear
    // ("the footer copy at offset 0 is damaged (...); using the footer at
    // the end"); empty for a sound file.
    const std::string& note() const { return m_note; }
    // Whether the name still refers to the object opened (see ObjectReader).
    bool current() const { return m_reader->current(); }
    uint32_t blockSize() const { return m_blockSize; }  // 0 for raw and fixed
    uint32_t bitmapBytes() const { return m_bitmapBytes; }
    const UniqueId& uniqueId() const { return m_uniqueId; }
    const UniqueId& parentUniqueId() const { return m_parentId; }
    // Whether the file names as its parent the file of this unique id (a
    // VHDX may name its parent by either of two GUIDs).
    bool namesParent(const std::string& id) const {
        return uniqueIdText(m_parentId) == id ||
               (m_vhdx && m_vhdx->parentLinkage2() != UniqueId{} && uniqueIdText(m_vhdx->parentLinkage2()) == id);
    }
    const std::string& parentName() const { return m_parentName; }
    uint32_t blockCount() const { return m_blocks; }
    bool isBlockAllocated(uint64_t block) const;
    // File offset of the block's first data sector (after its bitmap).
    uint64_t blockDataOffset(uint64_t block) const;
    // The block's sector bitmap, bitmapBytes() long, most significant bit first.
    std::vector<uint8_t> readBlockBitmap(uint64_t block) const;
    // Reads exactly `length` bytes at a file offset; a short read (a file cut
    // after it was checked) throws.
    void readAt(uint64_t fileOffset, void* buffer, size_t length) const;
    // The pieces of [offset, offset + length) of the virtual disk, in order;
    // the range is clipped to the disk's size.
    std::vector<Piece> pieces(uint64_t offset, uint64_t length) const;
    // The file's bytes that reads of [offset, offset + length) of the disk
    // will need (whole blocks, with their bitmaps), asked for ahead.
    void prefetch(uint64_t offset, uint64_t length) const;
    // Whether any byte of the range lies in the file (always for raw/fixed).
    bool holdsAny(uint64_t offset, uint64_t length) const;
    // Whether the file holds the whole range as zeros that hide its parent.
    bool hidesAll(uint64_t offset, uint64_t length) const;
    // Where a recall of the range starts: the file offset of its first byte
    // the file holds, or, for a range held only as zeros, the disk offset of
    // the first of them; -1 when the file holds none of it.
    int64_t holdingPosition(uint64_t offset, uint64_t length) const;
    // The same, of the pieces of a range already worked out.
    static int64_t holdingPosition(const std::vector<Piece>& pieces);

    // Checksum units: the blocks of a dynamic or differencing VHD, chunks of
    // kSumChunk bytes of the disk of a fixed VHD or raw image.
    static constexpr uint32_t kSumChunk = 2u << 20;
    uint32_t sumUnitBytes() const;
    uint64_t sumUnits() const;
    bool unitHeld(uint64_t unit) const;
    // The first unit from `from` on that the file holds, or sumUnits().
    uint64_t nextHeldUnit(uint64_t from) const;
    // Reads the unit whole and hashes it; throws StoreError on a read error.
    // `copyLength` bytes from `copyFrom` within the unit's data are also
    // copied to `copyTo` from that same read.
    UnitSum sumOf(uint64_t unit, uint64_t copyFrom = 0, uint64_t copyLength = 0, uint8_t* copyTo = nullptr) const;
    // Compares the unit with its recorded sum; false with the reason when
    // they differ. Throws StoreError on a read error. Copies as sumOf does.
    bool checkUnit(const BlockSums& sums, uint64_t unit, std::string& why, uint64_t copyFrom = 0,
                   uint64_t copyLength = 0, uint8_t* copyTo = nullptr) const;
    // Sums recorded for this file, or why they could not be used (then
    // every verification fails with that reason). Set before the image is
    // shared between threads.
    void attachSums(std::shared_ptr<const BlockSums> sums, std::string error = std::string());
    // The same, loaded by `load` when first needed (by a verified read, or
    // sumsError()), which throws StoreError for a side file it cannot use.
    void attachSumsLater(std::function<std::shared_ptr<const BlockSums>()> load);
    // Why the recorded sums cannot be used ("" when they can, or when none
    // were recorded); loads them first where they are attached for later.
    const std::string& sumsError() const;
    bool hasSums() const { return m_sums || !m_sumsError.empty() || m_sumsLoader; }
    // Reads a piece that lies in the file into `into`. With sums attached,
    // each unit it touches is checked whole the first time (once per open
    // image), the piece's bytes taken from that same read; a mismatch
    // throws StoreError naming the file and the block.
    void readVerified(const Piece& piece, uint8_t* into) const;

    // Whether units are small enough to be read whole (readUnit()).
    bool unitsFitInMemory() const;
    // The unit `unit` (held by the file) read whole in one pass and, with
    // sums attached, checked the first time it is read since the file was
    // opened: the stream of an extent and the checksum share that one read.
    // Throws StoreError.
    std::shared_ptr<const UnitBytes> readUnit(uint64_t unit) const;

private:
    struct Footer;
    using Allocation = std::pair<uint32_t, uint32_t>;  // (block, its first sector in the file)
    VhdImage() = default;
    [[noreturn]] void fail(const std::string& field, const std::string& why) const;
    // Reads as readAt does, but zeros the file's holes instead of reading them.
    void readSkippingHoles(uint64_t offset, uint8_t* buffer, size_t length) const;
    // The pieces of [at, at + length) of a block every sector of which the
    // file holds from `file` on: its data, and its holes as zeros.
    void fullBlockPieces(uint64_t at, uint64_t length, uint64_t file, uint64_t block, std::vector<Piece>& out) const;
    // False, with the reason, when a unit's sums differ from those recorded
    // (`recorded`: none when no sum was recorded for it).
    static bool matchesRecorded(const BlockSums::Entry* recorded, const UnitSum& found, std::string& why);
    // Where a unit lies in the file: from `at`, its sector bitmap of `bitmap`
    // bytes (none for raw and fixed), then its data, `size` bytes in all.
    // Fails for a unit past the disk or not allocated.
    struct UnitPlace {
        uint64_t at, bitmap, size;
        uint64_t dataAt;  // at + bitmap in a VHD; a VHDX keeps its bitmaps apart
    };
    UnitPlace placeOf(uint64_t unit) const;
    // The sums of a unit read whole, laid out as placeOf() says.
    static UnitSum sumOfWhole(const uint8_t* bytes, const UnitPlace& place);
    // The bit of m_verified that notes a recorded unit found sound since the
    // file was opened; no word for a unit with no sum recorded.
    struct SoundMark {
        std::atomic<uint64_t>* word;
        uint64_t bit;
        size_t index;  // of the unit among the recorded sums
        bool isSet() const { return word && (word->load(std::memory_order_acquire) & bit); }
        void set() const { word->fetch_or(bit, std::memory_order_release); }
    };
    SoundMark soundMark(const BlockSums::Entry* recorded) const;
    Footer chooseFooter(std::string& note) const;
    void readDynamic(uint64_t headerOffset);
    void openVhdx();
    void readTable(uint64_t tableOffset, uint64_t tableBytes, uint64_t headerOffset,
                   const std::vector<std::pair<uint64_t, uint64_t>>& locators);
    // The block's first sector in the file, or kUnallocated.
    static constexpr uint32_t kUnallocated = 0xFFFFFFFFu;
    uint32_t sectorOf(uint64_t block) const;

    std::string m_path;
    std::unique_ptr<ObjectReader> m_reader;
    FileStamp m_stamp;
    std::string m_note;
    ImageKind m_kind = ImageKind::Raw;
    FileFormat m_format = FileFormat::Raw;
    std::unique_ptr<VhdxLayout> m_vhdx;
    uint64_t m_size = 0;
    uint32_t m_blockSize = 0;
    uint32_t m_bitmapBytes = 0;
    uint32_t m_blocks = 0;
    UniqueId m_uniqueId{};
    UniqueId m_parentId{};
    std::string m_parentName;
    // The block table: whole (sector per block) when that is no larger than
    // the allocated entries alone, otherwise only the allocated entries as
    // (block, sector) sorted by block. A sparse table of a huge disk then
    // costs what it holds, not what it could hold.
    std::vector<uint32_t> m_dense;
    std::vector<Allocation> m_sparse;
    std::shared_ptr<const BlockSums> m_sums;
    std::string m_sumsError;
    struct SumsLoader {
        std::function<std::shared_ptr<const BlockSums>()> load;
        std::once_flag once;
    };
    std::unique_ptr<SumsLoader> m_sumsLoader;
    // One bit per recorded unit found sound since the file was opened, so a
    // block is hashed once however many extents read it. Extents of one
    // block are often recalled at once: a striped lock makes the second
    // wait for the first one's answer instead of hashing the block again.
    mutable std::unique_ptr<std::atomic<uint64_t>[]> m_verified;
    static constexpr size_t kVerifyStripes = 16;
    mutable std::unique_ptr<std::mutex[]> m_verifyLocks;
};

// The units read last, of any image of a store, within a budget of bytes:
// the extents of one block are usually recalled one after the other, or at
// once on two workers, and the second then takes what the first read (a
// second reader of a unit waits for the first one's read). At least `keep`
// units stay, whatever their size: with two, workers on the extents at the
// end of one block and the start of the next do not push out each other's
// block before its last extent is streamed (an 8 MiB VHDX block has eight;
// it was read up to three times with one). An entry keeps its image, so an
// image that goes and another that takes its address never share one.
class UnitCache {
public:
    UnitCache(uint64_t budget, size_t keep) : m_budget(budget), m_keep(keep) {}
    // The unit, from the cache or read (readUnit); throws StoreError.
    std::shared_ptr<const UnitBytes> get(const std::shared_ptr<const VhdImage>& image, uint64_t unit);

private:
    struct Entry {
        std::shared_ptr<const VhdImage> image;
        uint64_t unit;
        std::shared_ptr<const UnitBytes> bytes;
    };
    std::shared_ptr<const UnitBytes> find(const VhdImage* image, uint64_t unit);
    const uint64_t m_budget;
    const size_t m_keep;
    std::mutex m_mutex;
    std::deque<Entry> m_entries;  // the most recent first
    uint64_t m_bytes = 0;
    std::mutex m_reading[16];
};

}  // namespace zxblk
