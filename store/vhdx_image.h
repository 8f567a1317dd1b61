// The structure of a VHDX file, read from Microsoft's published format
// (MS-VHDX): which header is current, where the block allocation table and
// the metadata are, the disk's geometry and identity, and what each payload
// block holds. Every field read from the file is checked before it is used;
// a bad file is refused with one line naming the file and the field. What
// it keeps costs memory in proportion to the blocks the file holds, not to
// the size of the disk.
#pragma once
#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace zxblk {

class ObjectReader;

class VhdxLayout {
public:
    using Guid = std::array<uint8_t, 16>;  // in the order its text is written

    // What one payload block gives the disk.
    enum class Held : uint8_t {
        None,     // nothing: the parent's bytes, or zeros in a file without parent
        Zeros,    // zeros that hide the parent (a differencing file's zero, unmapped or undefined block)
        Data,     // the block's bytes, all of them
        Partial,  // the bytes its sector bitmap marks; the parent's elsewhere
    };
    struct Block {
        Held held;
        uint64_t offset;  // in the file, of the block's first byte (Data and Partial)
    };

    // Reads and checks the structure; throws StoreError. A file whose log
    // is not empty is read as the log leaves it: `file` becomes the
    // replaying reader of replayVhdxLog() and `replayNote` says so.
    static VhdxLayout open(std::unique_ptr<ObjectReader>& file, std::string& replayNote);

    uint64_t size() const { return m_size; }
    uint32_t blockSize() const { return m_blockSize; }
    uint32_t logicalSectorSize() const { return m_logicalSector; }
    uint32_t physicalSectorSize() const { return m_physicalSector; }
    uint64_t blocks() const { return m_blocks; }
    bool hasParent() const { return m_hasParent; }
    // Every block allocated up front: a fixed VHDX.
    bool fixed() const { return m_fixed; }
    const Guid& dataWriteGuid() const { return m_dataWriteGuid; }
    const Guid& parentLinkage() const { return m_parentLinkage; }
    // The parent's other possible identity (parent_linkage2); zero when the
    // locator gives none.
    const Guid& parentLinkage2() const { return m_parentLinkage2; }
    const std::string& parentPath() const { return m_parentPath; }
    // What the reader worked around ("header 2 is damaged (...); using
    // header 1"); empty for a sound file.
    const std::string& note() const { return m_note; }

    Block block(uint64_t index) const;
    // The first block from `from` on that holds bytes in the file (Data or
    // Partial), or blocks().
    uint64_t nextWithBytes(uint64_t from) const;
    // Bytes of the disk in the block: the last one of a disk whose size is
    // not a whole number of blocks is shorter.
    uint64_t blockBytes(uint64_t index) const;
    // The block's sector bitmap as a VHD keeps one: a bit per 512-byte
    // sector, most significant bit first, `bytes` long. A 4096-byte logical
    // sector's bit becomes eight. Reads the file for a Partial block only;
    // throws StoreError.
    void bitmap(const ObjectReader& file, uint64_t index, uint8_t* out, size_t bytes) const;
    // Where the file keeps the sector bitmap of a Partial block: (offset, length).
    std::pair<uint64_t, uint64_t> bitmapPlace(uint64_t index) const;

private:
    struct Header;
    // The current header's log: its GUID (zero when there is nothing to
    // replay), offset and length.
    struct Log {
        Guid guid{};
        uint64_t offset = 0, length = 0;
    };
    void readHeaders(uint64_t fileSize, const uint8_t* section, Log& log);
    void readRegions(const uint8_t* section, uint64_t fileSize, uint64_t& batOffset, uint64_t& batLength,
                     uint64_t& metaOffset, uint64_t& metaLength);
    void readMetadata(const ObjectReader& file, uint64_t offset, uint64_t length);
    void readParentLocator(const std::vector<uint8_t>& item);
    void readTable(const ObjectReader& file, uint64_t offset, uint64_t length,
                   std::vector<std::pair<uint64_t, uint64_t>> used);
    [[noreturn]] void fail(const std::string& field, const std::string& why) const;

    std::string m_path;
    std::string m_note;
    uint64_t m_size = 0;
    uint32_t m_blockSize = 0, m_logicalSector = 0, m_physicalSector = 0;
    uint64_t m_blocks = 0, m_chunkRatio = 0;
    bool m_hasParent = false, m_fixed = false;
    Guid m_dataWriteGuid{}, m_parentLinkage{}, m_parentLinkage2{};
    std::string m_parentPath;
    // Blocks that hold anything, as (offset in MiB << 3 | Held): the whole
    // table where that is no larger than the held entries alone, otherwise
    // only the held ones as (block, entry) sorted by block.
    std::vector<uint64_t> m_dense;
    std::vector<std::pair<uint64_t, uint64_t>> m_sparse;
    // Chunks whose sector bitmap block the file holds: (chunk, offset), by chunk.
    std::vector<std::pair<uint64_t, uint64_t>> m_bitmaps;
};

// The file as its log says it is, the log replayed in memory (the file is
// not written); `note` says so. Throws StoreError for a log that cannot be
// replayed.
std::unique_ptr<ObjectReader> replayVhdxLog(std::unique_ptr<ObjectReader> file, const VhdxLayout::Guid& logGuid,
                                            uint64_t logOffset, uint64_t logLength, std::string& note);

// A GUID as the file keeps it (its first three fields little-endian), in
// the order its text is written.
VhdxLayout::Guid vhdxGuid(const uint8_t* p);

// The CRC-32C (Castagnoli) the format's checksums use.
uint32_t crc32c(const uint8_t* data, size_t length, uint32_t crc = 0);

}  // namespace zxblk
