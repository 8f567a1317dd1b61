// The checksums recorded for a snapshot file at import, kept beside it in a
// side file, since VHD keeps none of its data: read whole, or a range of
// entries at a time where the side file is large and a network away.
#pragma once
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "store/xxh3.h"

namespace zxblk {

// XXH3 of the bytes of one unit of a snapshot: a VHD block's data and its
// sector bitmap, or a chunk of a fixed VHD or raw image (no bitmap: 0).
struct UnitSum {
    uint64_t data = 0, bitmap = 0;
    bool operator==(const UnitSum& o) const { return data == o.data && bitmap == o.bitmap; }
};

class SumsRanges;

// The side file, all numbers little-endian:
//   "ZXBLKSUM", u32 version (1), u32 unit bytes, u64 units of the image,
//   u64 entries, u32 length of the snapshot file's name, the name,
//   then per allocated unit in rising order: u64 unit, u64 data sum, u64 bitmap sum.
struct BlockSums {
    static constexpr uint32_t kVersion = 1;
    static constexpr uint64_t kHeaderBytes = 36;  // up to the snapshot file's name
    static constexpr uint64_t kEntryBytes = 24;
    struct Entry {
        uint64_t unit;
        UnitSum sum;
    };
    std::string fileName;  // of the snapshot file, without its folder
    uint32_t unitBytes = 0;
    uint64_t units = 0;
    std::vector<Entry> entries;
    // Set where the side file is read a range of entries at a time
    // (ranged()): `entries` then names every unit the snapshot file holds,
    // and a unit's sums are filled in when its range is first needed. Such
    // sums are used where ranged() made them, never copied.
    std::shared_ptr<SumsRanges> ranges;

    std::string serialize() const;
    // Checks the layout; `source` names the side file in errors. Throws StoreError.
    static BlockSums parse(const std::string& bytes, const std::string& source);
    // The header alone, from the side file's first bytes (at least up to the
    // end of the name): fills fileName, unitBytes and units, and says how
    // many entries follow and where they start. Throws StoreError.
    static BlockSums parseHeader(const std::string& bytes, const std::string& source, uint64_t& count,
                                 uint64_t& entriesAt);
    // The recorded entry of a unit; null when none is recorded. Where the
    // side file is read by ranges, the unit's range is read first when no
    // recall has needed it yet: that throws StoreError naming the side file
    // when it cannot be read or is not what the snapshot file holds.
    const Entry* entry(uint64_t unit) const;
};

// A sum as text (xxh3() of a side file is what the catalog keeps of it).
std::string sumText(uint64_t sum);  // 16 hex digits

// Where the ranges of a side file come from: a store a network away, and
// the host's metadata cache.
class SumsSource {
public:
    virtual ~SumsSource() = default;
    // `length` bytes of the side file at `offset`; throws StoreError.
    virtual std::string read(uint64_t offset, uint64_t length) = 0;
    // The bytes read at `offset` were found to be what the snapshot file
    // holds: worth keeping for the next open.
    virtual void sound(uint64_t, const std::string&) {}
};

// The sums of a side file too large to fetch whole before the first recall
// can be checked: a recall that needs the sum of a unit reads the entries
// of the kRangeEntries units around it, in one request, once. An entry's
// place in the file is its unit's rank among the units the snapshot file
// holds, and each entry read must name exactly that unit: since a range
// cannot be checked against the catalog's checksum of the whole file, that
// is what tells a range belongs to this snapshot file, and a sum that lies
// inside a well-formed range still fails its block as a checksum mismatch.
class SumsRanges {
public:
    // About 96 KiB of entries: one request's worth on a link a network
    // away, the sums of 8 GiB of 2 MiB blocks.
    static constexpr uint64_t kRangeEntries = 4096;

    // The sums whose header is `header` (the side file's first bytes, at
    // least up to the end of the name; `name` names the side file in
    // errors), for a snapshot file that holds the units `held`, in rising
    // order; ranges are read through `source`. Throws StoreError when the
    // header does not describe one entry per unit held.
    static std::shared_ptr<const BlockSums> open(const std::string& header, const std::string& name,
                                                 const std::vector<uint64_t>& held, std::shared_ptr<SumsSource> source);

    // Reads the range of entry `index` into `entries` unless it was read
    // already; a second reader of a range waits for the first one's read.
    void need(size_t index);

private:
    SumsRanges(std::string name, uint64_t entriesAt, BlockSums::Entry* entries, size_t count,
               std::shared_ptr<SumsSource> source);
    // Why the bytes of range `r` do not hold its entries ("" when they do),
    // and their sums put in place when they do.
    std::string fill(size_t r, const std::string& bytes);

    const std::string m_name;
    const uint64_t m_entriesAt;
    BlockSums::Entry* const m_entries;  // those of the BlockSums made with it
    const size_t m_count;
    const std::shared_ptr<SumsSource> m_source;
    std::unique_ptr<std::atomic<bool>[]> m_filled;  // per range
    std::unique_ptr<std::mutex[]> m_reading;        // per range, held while it is read
    // Why a range is not this snapshot file's (one line, naming the side
    // file), per range, under its m_reading: its recalls fail without
    // asking the store again.
    std::vector<std::string> m_broken;
};

}  // namespace zxblk
