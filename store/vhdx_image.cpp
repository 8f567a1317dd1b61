#include "store/vhdx_image.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <memory>

#include "store/little_endian.h"
#include "store/storage.h"
#include "store/vhd_image.h"
#include "store/store_error.h"

namespace zxblk {
namespace {

const uint64_t KiB = 1024, MiB = 1024 * 1024;
const uint64_t kMaxVirtualSize = 64ULL << 40;  // the largest disk the format describes
const uint64_t kHeaderSection = MiB;
const uint64_t kSectionRead = 320 * KiB;  // to the end of region table 2
const uint64_t kTableSlice = 65536;            // table entries read at a time
const uint64_t kDenseTableBytes = 4u << 20;    // a whole table this small is kept as it is
// Zero blocks of a differencing file cost memory but no room in the file:
// this many is 256 MiB of table, far past any file a writer makes.
const uint64_t kMostZeroBlocks = 1u << 24;

using Guid = VhdxLayout::Guid;

// "83ed0ec3-24c8-49a6-a959-5e4bf1288bfb", with or without braces, any case.
bool parseGuid(std::string text, Guid& out) {
    if (text.size() == 38 && text.front() == '{' && text.back() == '}') text = text.substr(1, 36);
    if (text.size() != 36) return false;
    size_t k = 0;
    for (size_t i = 0; i < 36; ++i) {
        if (i == 8 || i == 13 || i == 18 || i == 23) {
            if (text[i] != '-') return false;
            continue;
        }
        const char c = static_cast<char>(std::tolower(static_cast<unsigned char>(text[i])));
        const int v = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
        if (v < 0) return false;
        if (k % 2 == 0) out[k / 2] = static_cast<uint8_t>(v << 4);
        else out[k / 2] |= static_cast<uint8_t>(v);
        ++k;
    }
    return true;
}

Guid known(const char* text) {
    Guid g{};
    parseGuid(text, g);
    return g;
}

const Guid kBatRegion = known("2DC27766-F623-4200-9D64-115E9BFD4A08");
const Guid kMetadataRegion = known("8B7CA206-4790-4B9A-B8FE-575F050F886E");
const Guid kFileParameters = known("CAA16737-FA36-4D43-B3B6-33F0AA44E76B");
const Guid kVirtualDiskSize = known("2FA54224-CD1B-4876-B211-5DBED83BF4B8");
const Guid kVirtualDiskId = known("BECA12AB-B2E6-4523-93EF-C309E000C746");
const Guid kLogicalSectorSize = known("8141BF1D-A96F-4709-BA47-F233A8FAAB5F");
const Guid kPhysicalSectorSize = known("CDA348C7-445D-4471-9CC9-E9885251C556");
const Guid kParentLocator = known("A8D35F2D-B30B-454D-ABF7-D3D84834AB0C");
const Guid kVhdxLocatorType = known("B04AEFB7-D19E-4A81-B789-25B8E9445913");

std::string utf16leToUtf8(const uint8_t* p, size_t n) {
    std::string out;
    for (size_t i = 0; i + 1 < n; i += 2) {
        uint32_t c = le16(p + i);
        if (c >= 0xD800 && c < 0xDC00 && i + 3 < n && le16(p + i + 2) >= 0xDC00 && le16(p + i + 2) < 0xE000) {
            c = 0x10000 + ((c - 0xD800) << 10) + (le16(p + i + 2) - 0xDC00);
            i += 2;
        }
        if (c < 0x80) {
            out += char(c);
        } else if (c < 0x800) {
            out += char(0xC0 | c >> 6);
            out += char(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            out += char(0xE0 | c >> 12);
            out += char(0x80 | ((c >> 6) & 0x3F));
            out += char(0x80 | (c & 0x3F));
        } else {
            out += char(0xF0 | c >> 18);
            out += char(0x80 | ((c >> 12) & 0x3F));
            out += char(0x80 | ((c >> 6) & 0x3F));
            out += char(0x80 | (c & 0x3F));
        }
    }
    return out;
}

// A string from the file as a one-line message may quote it: control
// characters shown as '?', cut after `most` characters.
std::string printable(const std::string& text, size_t most) {
    std::string out = text.substr(0, most);
    for (char& c : out)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = '?';
    return text.size() > most ? out + "..." : out;
}

// The CRC of a structure whose checksum field, at `at`, counts as zero.
uint32_t crcWithout(const uint8_t* p, size_t n, size_t at) {
    static const uint8_t zeros[4] = {0, 0, 0, 0};
    uint32_t crc = crc32c(p, at);
    crc = crc32c(zeros, 4, crc);
    return crc32c(p + at + 4, n - at - 4, crc);
}

bool overlaps(uint64_t a, uint64_t aLength, uint64_t b, uint64_t bLength) { return a < b + bLength && b < a + aLength; }

// An entry of the table as kept: the offset in MiB and what the block holds.
uint64_t packed(uint64_t offsetMiB, VhdxLayout::Held held) { return offsetMiB << 3 | static_cast<uint64_t>(held); }

}  // namespace

Guid vhdxGuid(const uint8_t* p) {
    static const int order[16] = {3, 2, 1, 0, 5, 4, 7, 6, 8, 9, 10, 11, 12, 13, 14, 15};
    Guid g;
    for (int i = 0; i < 16; ++i) g[i] = p[order[i]];
    return g;
}

namespace {

uint32_t crc32cTable(const uint8_t* data, size_t length, uint32_t crc) {
    static const auto table = [] {
        std::array<uint32_t, 256> t{};
        for (uint32_t i = 0; i < 256; ++i) {
            uint32_t c = i;
            for (int k = 0; k < 8; ++k) c = c & 1 ? (c >> 1) ^ 0x82F63B78u : c >> 1;
            t[i] = c;
        }
        return t;
    }();
    for (size_t i = 0; i < length; ++i) crc = table[(crc ^ data[i]) & 0xFF] ^ (crc >> 8);
    return crc;
}

#if defined(__x86_64__)
// The processor's own CRC-32C instruction: every open checks two headers
// and two 64 KiB region tables, and the table loop is most of an open's time.
__attribute__((target("sse4.2"))) uint32_t crc32cHardware(const uint8_t* data, size_t length, uint32_t crc) {
    uint64_t c = crc;
    for (; length >= 8; data += 8, length -= 8) {
        uint64_t word;
        std::memcpy(&word, data, 8);
        c = __builtin_ia32_crc32di(c, word);
    }
    auto c32 = static_cast<uint32_t>(c);
    for (; length > 0; ++data, --length) c32 = __builtin_ia32_crc32qi(c32, *data);
    return c32;
}
#endif

}  // namespace

uint32_t crc32c(const uint8_t* data, size_t length, uint32_t crc) {
#if defined(__x86_64__)
    static const bool hardware = __builtin_cpu_supports("sse4.2");
    if (hardware) return ~crc32cHardware(data, length, ~crc);
#endif
    return ~crc32cTable(data, length, ~crc);
}

void VhdxLayout::fail(const std::string& field, const std::string& why) const {
    throw StoreError(ErrorKind::corruption, m_path + ": " + field + ": " + why);
}

struct VhdxLayout::Header {
    bool valid = false;
    std::string why;
    uint64_t sequence = 0;
    const uint8_t* bytes = nullptr;
};

VhdxLayout VhdxLayout::open(std::unique_ptr<ObjectReader>& file, std::string& replayNote) {
    VhdxLayout x;
    x.m_path = file->name();
    if (file->size() < kHeaderSection)
        x.fail("header section", "file of " + std::to_string(file->size()) + " bytes is too short for it (1 MiB)");
    // The identifier, both headers and both region tables, in one read.
    std::unique_ptr<uint8_t[]> section(new uint8_t[kSectionRead]);
    file->readAt(0, section.get(), kSectionRead);
    if (std::memcmp(section.get(), "vhdxfile", 8) != 0) x.fail("file type identifier", "not a VHDX file (no \"vhdxfile\" signature)");
    Log log;
    x.readHeaders(file->size(), section.get(), log);
    if (log.guid != Guid{}) {
        // A file not closed cleanly is read as its log says it is, all of
        // it: what the log rewrote, wherever it lies, is read again.
        file = replayVhdxLog(std::move(file), log.guid, log.offset, log.length, replayNote);
        file->readAt(0, section.get(), kSectionRead);
        x = VhdxLayout();
        x.m_path = file->name();
        x.readHeaders(file->size(), section.get(), log);
    }
    const uint64_t fileSize = file->size();
    uint64_t batOffset = 0, batLength = 0, metaOffset = 0, metaLength = 0;
    const uint64_t logOffset = log.offset, logLength = log.length;
    x.readRegions(section.get(), fileSize, batOffset, batLength, metaOffset, metaLength);
    section.reset();
    if (logLength && (overlaps(logOffset, logLength, batOffset, batLength) || overlaps(logOffset, logLength, metaOffset, metaLength)))
        x.fail("log offset", "the log at " + std::to_string(logOffset) + " overlaps a region");
    x.readMetadata(*file, metaOffset, metaLength);
    std::vector<std::pair<uint64_t, uint64_t>> used = {{0, kHeaderSection}, {batOffset, batLength}, {metaOffset, metaLength}};
    if (logLength) used.emplace_back(logOffset, logLength);
    x.readTable(*file, batOffset, batLength, std::move(used));
    return x;
}

void VhdxLayout::readHeaders(uint64_t fileSize, const uint8_t* section, Log& log) {
    Header h[2];
    for (int i = 0; i < 2; ++i) {
        const uint8_t* p = section + (i + 1) * 64 * KiB;
        h[i].bytes = p;
        if (std::memcmp(p, "head", 4) != 0)
            h[i].why = "no \"head\" signature";
        else if (le32(p + 4) != crcWithout(p, 4 * KiB, 4))
            h[i].why = "checksum does not match";
        else
            h[i].valid = true;
        h[i].sequence = le64(p + 8);
    }
    if (!h[0].valid && !h[1].valid) fail("headers", "both are damaged (header 1: " + h[0].why + "; header 2: " + h[1].why + ")");
    int current;
    if (h[0].valid && h[1].valid) {
        if (h[0].sequence == h[1].sequence && std::memcmp(h[0].bytes, h[1].bytes, 4 * KiB) != 0)
            fail("headers", "both have sequence number " + std::to_string(h[0].sequence) + " but differ: neither is current");
        current = h[1].sequence > h[0].sequence ? 1 : 0;
    } else {
        current = h[0].valid ? 0 : 1;
        m_note = "header " + std::to_string(2 - current) + " is damaged (" + h[1 - current].why + "); using header " +
                 std::to_string(current + 1);
    }
    const uint8_t* p = h[current].bytes;
    const std::string field = "header " + std::to_string(current + 1);
    m_dataWriteGuid = vhdxGuid(p + 32);
    log.guid = vhdxGuid(p + 48);
    const uint16_t logVersion = le16(p + 64), version = le16(p + 66);
    uint64_t& logLength = log.length;
    uint64_t& logOffset = log.offset;
    logLength = le32(p + 68);
    logOffset = le64(p + 72);
    if (version != 1) fail(field + " version", std::to_string(version) + " is not 1, the only version this reader knows");
    if (log.guid != Guid{} && logVersion != 0)
        fail(field + " log version", std::to_string(logVersion) + " is not 0, the only log this reader can replay");
    const std::string what = "a log of " + std::to_string(logLength) + " bytes at " + std::to_string(logOffset);
    if (logLength % MiB || logOffset % MiB) fail(field + " log offset", what + " is not 1 MiB aligned");
    if (logLength && logOffset < kHeaderSection) fail(field + " log offset", what + " lies in the header section");
    if (logOffset > fileSize || fileSize - logOffset < logLength)
        fail(field + " log offset", what + " runs past the end of the file (" + std::to_string(fileSize) + " bytes)");
}

void VhdxLayout::readRegions(const uint8_t* section, uint64_t fileSize, uint64_t& batOffset, uint64_t& batLength,
                             uint64_t& metaOffset, uint64_t& metaLength) {
    auto damage = [](const uint8_t* t) -> std::string {
        if (std::memcmp(t, "regi", 4) != 0) return "no \"regi\" signature";
        if (le32(t + 4) != crcWithout(t, 64 * KiB, 4)) return "checksum does not match";
        if (le32(t + 8) > 2047) return "entry count " + std::to_string(le32(t + 8)) + " is over 2047";
        return "";
    };
    const uint8_t* table = section + 192 * KiB;
    std::string why1 = damage(table);
    std::string field = "region table 1";
    if (!why1.empty()) {
        std::string why2 = damage(section + 256 * KiB);
        if (!why2.empty()) fail("region tables", "both are damaged (table 1: " + why1 + "; table 2: " + why2 + ")");
        table = section + 256 * KiB;
        field = "region table 2";
        if (m_note.empty()) m_note = "region table 1 is damaged (" + why1 + "); using table 2";
        else m_note += "; region table 1 is damaged (" + why1 + "); using table 2";
    }
    const uint32_t count = le32(table + 8);
    std::vector<std::pair<uint64_t, uint64_t>> regions;
    bool bat = false, meta = false;
    for (uint32_t i = 0; i < count; ++i) {
        const uint8_t* e = table + 16 + 32 * i;
        const Guid id = vhdxGuid(e);
        const uint64_t offset = le64(e + 16), length = le32(e + 24);
        const bool required = le32(e + 28) & 1;
        const std::string where = field + " entry " + std::to_string(i);
        const bool isBat = id == kBatRegion, isMeta = id == kMetadataRegion;
        if (!isBat && !isMeta) {
            if (required) fail(where, "region " + uniqueIdText(id) + " is required but not one this reader knows");
            continue;
        }
        if ((isBat && bat) || (isMeta && meta)) fail(where, "the " + std::string(isBat ? "BAT" : "metadata") + " region is listed twice");
        const std::string region = "region at " + std::to_string(offset) + " of " + std::to_string(length) + " bytes";
        if (length == 0) fail(where, region + " is empty");
        if (offset % MiB || length % MiB) fail(where, region + " is not 1 MiB aligned");
        if (offset < kHeaderSection) fail(where, region + " lies in the header section");
        if (offset > fileSize || fileSize - offset < length)
            fail(where, "region at " + std::to_string(offset) + " of " + std::to_string(length) +
                            " bytes runs past the end of the file (" + std::to_string(fileSize) + " bytes)");
        for (const auto& r : regions)
            if (overlaps(offset, length, r.first, r.second)) fail(where, "region overlaps another region");
        regions.emplace_back(offset, length);
        (isBat ? batOffset : metaOffset) = offset;
        (isBat ? batLength : metaLength) = length;
        (isBat ? bat : meta) = true;
    }
    if (!bat) fail(field, "no BAT region");
    if (!meta) fail(field, "no metadata region");
}

void VhdxLayout::readMetadata(const ObjectReader& file, uint64_t offset, uint64_t length) {
    std::vector<uint8_t> table(64 * KiB);
    file.readAt(offset, table.data(), table.size());
    if (std::memcmp(table.data(), "metadata", 8) != 0) fail("metadata table", "no \"metadata\" signature");
    const uint16_t count = le16(table.data() + 10);
    if (count > 2047) fail("metadata table", "entry count " + std::to_string(count) + " is over 2047");
    struct Item {
        uint64_t offset, length;
    };
    const Guid* knownIds[] = {&kFileParameters, &kVirtualDiskSize, &kVirtualDiskId, &kLogicalSectorSize,
                              &kPhysicalSectorSize, &kParentLocator};
    const char* names[] = {"file parameters", "virtual disk size", "virtual disk id", "logical sector size",
                           "physical sector size", "parent locator"};
    const uint64_t least[] = {8, 8, 16, 4, 4, 20};
    Item items[6] = {};
    bool found[6] = {};
    std::vector<std::pair<uint64_t, uint64_t>> spans;
    for (uint16_t i = 0; i < count; ++i) {
        const uint8_t* e = table.data() + 32 + 32 * i;
        const Guid id = vhdxGuid(e);
        const uint64_t at = le32(e + 16), n = le32(e + 20);
        const uint32_t flags = le32(e + 24);
        const bool user = flags & 1, required = flags & 4;
        const std::string where = "metadata entry " + std::to_string(i);
        if (n > MiB) fail(where, "item of " + std::to_string(n) + " bytes is larger than 1 MiB");
        if (n == 0 && at != 0) fail(where, "an empty item must have offset 0, not " + std::to_string(at));
        if (n && (at < 64 * KiB || at > length || length - at < n))
            fail(where, "item at " + std::to_string(at) + " of " + std::to_string(n) + " bytes is not inside the metadata region");
        for (const auto& s : spans)
            if (n && overlaps(at, n, s.first, s.second)) fail(where, "item overlaps another item");
        if (n) spans.emplace_back(at, n);
        int k = -1;
        for (int j = 0; j < 6 && !user; ++j)
            if (id == *knownIds[j]) k = j;
        if (k < 0) {
            if (required) fail(where, "item " + uniqueIdText(id) + " is required but not one this reader knows");
            continue;
        }
        if (found[k]) fail(where, std::string("the ") + names[k] + " item is listed twice");
        if (n < least[k]) fail(where, std::string("the ") + names[k] + " item of " + std::to_string(n) + " bytes is too short");
        found[k] = true;
        items[k] = {at, n};
    }
    for (int k = 0; k < 5; ++k)
        if (!found[k]) fail("metadata table", std::string("no ") + names[k] + " item");
    auto readItem = [&](int k) {
        std::vector<uint8_t> bytes(static_cast<size_t>(items[k].length));
        file.readAt(offset + items[k].offset, bytes.data(), bytes.size());
        return bytes;
    };
    std::vector<uint8_t> params = readItem(0), size = readItem(1), logical = readItem(3), physical = readItem(4);
    m_blockSize = le32(params.data());
    const uint32_t flags = le32(params.data() + 4);
    m_hasParent = flags & 2;
    m_fixed = (flags & 1) && !m_hasParent;
    m_size = le64(size.data());
    m_logicalSector = le32(logical.data());
    m_physicalSector = le32(physical.data());
    if (m_blockSize < MiB || m_blockSize > 256 * MiB || (m_blockSize & (m_blockSize - 1)))
        fail("block size", std::to_string(m_blockSize) + " is not a power of two from 1 MiB to 256 MiB");
    if (m_logicalSector != 512 && m_logicalSector != 4096)
        fail("logical sector size", std::to_string(m_logicalSector) + " is neither 512 nor 4096");
    if (m_physicalSector != 512 && m_physicalSector != 4096)
        fail("physical sector size", std::to_string(m_physicalSector) + " is neither 512 nor 4096");
    if (m_size == 0 || m_size % m_logicalSector || m_size > kMaxVirtualSize)
        fail("virtual disk size", std::to_string(m_size) + " bytes is not a disk size this format allows with " +
                                      std::to_string(m_logicalSector) + "-byte sectors");
    if (m_hasParent) {
        if (!found[5]) fail("metadata table", "a differencing file without a parent locator item");
        readParentLocator(readItem(5));
    }
}

void VhdxLayout::readParentLocator(const std::vector<uint8_t>& item) {
    const Guid type = vhdxGuid(item.data());
    if (type != kVhdxLocatorType) fail("parent locator", "type " + uniqueIdText(type) + " is not a VHDX parent");
    const uint16_t count = le16(item.data() + 18);
    if (20 + uint64_t(count) * 12 > item.size())
        fail("parent locator", std::to_string(count) + " entries do not fit in an item of " + std::to_string(item.size()) + " bytes");
    bool linkage = false, linkage2 = false;
    std::string relative, absolute, volume;
    for (uint16_t i = 0; i < count; ++i) {
        const uint8_t* e = item.data() + 20 + 12 * i;
        const uint64_t keyAt = le32(e), valueAt = le32(e + 4), keyLength = le16(e + 8), valueLength = le16(e + 10);
        const std::string where = "parent locator entry " + std::to_string(i);
        for (auto span : {std::make_pair(keyAt, keyLength), std::make_pair(valueAt, valueLength)})
            if (span.first == 0 || span.second == 0 || span.second % 2 || span.first > item.size() ||
                item.size() - span.first < span.second)
                fail(where, "a key or value of " + std::to_string(span.second) + " bytes at " + std::to_string(span.first) +
                                " is not inside the item");
        const std::string key = utf16leToUtf8(item.data() + keyAt, keyLength);
        const std::string value = utf16leToUtf8(item.data() + valueAt, valueLength);
        if (key == "parent_linkage" || key == "parent_linkage2") {
            // Keys are unique: a second one would leave the reader to pick
            // which parent the file names.
            const bool second = key == "parent_linkage2";
            if (second ? linkage2 : linkage) fail(where, key + " is given twice");
            if (!parseGuid(value, second ? m_parentLinkage2 : m_parentLinkage))
                fail(where, key + " '" + printable(value, 80) + "' is not a GUID");
            (second ? linkage2 : linkage) = true;
        } else if (key == "relative_path") {
            relative = value;
        } else if (key == "absolute_win32_path") {
            absolute = value;
        } else if (key == "volume_path") {
            volume = value;
        }
    }
    if (!linkage) fail("parent locator", "no parent_linkage entry");
    // Shown to users, on one line.
    m_parentPath = printable(!relative.empty() ? relative : !absolute.empty() ? absolute : volume, SIZE_MAX);
}

// Reads the table a slice at a time, keeping only the blocks that hold
// something, so that a huge table that holds little costs little, and one
// that claims more blocks than the file has room for is refused as soon as
// it does.
void VhdxLayout::readTable(const ObjectReader& file, uint64_t batOffset, uint64_t batLength,
                           std::vector<std::pair<uint64_t, uint64_t>> used) {
    const uint64_t fileSize = file.size();
    m_chunkRatio = (uint64_t(1) << 23) * m_logicalSector / m_blockSize;
    m_blocks = (m_size + m_blockSize - 1) / m_blockSize;
    const uint64_t chunks = (m_blocks + m_chunkRatio - 1) / m_chunkRatio;
    const uint64_t entries = m_hasParent ? chunks * (m_chunkRatio + 1) : m_blocks + (m_blocks - 1) / m_chunkRatio;
    if (batLength / 8 < entries)
        fail("BAT region", std::to_string(batLength) + " bytes cannot hold the " + std::to_string(entries) +
                               " entries of a disk of " + std::to_string(m_size) + " bytes");
    // Every block takes at least 1 MiB of the file.
    const uint64_t room = fileSize / MiB;
    std::vector<std::pair<uint64_t, uint64_t>> held;  // (block, packed entry)
    uint64_t allocated = 0;
    std::vector<uint64_t> partialChunks;
    std::vector<uint8_t> slice;
    for (uint64_t first = 0; first < entries; first += kTableSlice) {
        const uint64_t n = std::min(kTableSlice, entries - first);
        slice.resize(static_cast<size_t>(n * 8));
        file.readAt(batOffset + first * 8, slice.data(), slice.size());
        for (uint64_t k = 0; k < n; ++k) {
            const uint64_t i = first + k, e = le64(slice.data() + k * 8), state = e & 7, offsetMiB = e >> 20;
            const uint64_t group = i / (m_chunkRatio + 1), within = i % (m_chunkRatio + 1);
            // Named only when refused: a table may have millions of entries.
            auto where = [i] { return "BAT entry " + std::to_string(i); };
            if (within == m_chunkRatio) {  // the sector bitmap block of a chunk
                // A file without parent never reads its bitmaps: what those
                // entries say does not matter.
                if (!m_hasParent || state == 0) continue;
                if (state != 6) fail(where(), "sector bitmap state " + std::to_string(state) + " is reserved");
                // Checked in MiB first: 44 bits of MiB overflow 64 bits of bytes.
                const uint64_t at = offsetMiB * MiB;
                if (offsetMiB == 0) fail(where(), "sector bitmap block at 0 lies in the header section");
                if (offsetMiB > fileSize / MiB || fileSize - at < MiB)
                    fail(where(), "sector bitmap block at " + std::to_string(at) + " is not inside the file (" +
                                    std::to_string(fileSize) + " bytes)");
                m_bitmaps.emplace_back(group, at);
                used.emplace_back(at, MiB);
                continue;
            }
            const uint64_t b = group * m_chunkRatio + within;
            if (b >= m_blocks) continue;  // the rest of a differencing file's last chunk
            Held what;
            switch (state) {
                case 0: continue;
                case 1:
                case 2:
                case 3:
                    if (!m_hasParent) continue;  // zeros, as a block never written reads
                    what = Held::Zeros;
                    break;
                case 6: what = Held::Data; break;
                case 7:
                    if (!m_hasParent) fail(where(), "a partially present block in a file without parent");
                    what = Held::Partial;
                    partialChunks.push_back(group);
                    break;
                default: fail(where(), "payload block state " + std::to_string(state) + " is reserved");
            }
            if (what != Held::Zeros && ++allocated + m_bitmaps.size() > room)
                fail(where(), "more blocks than a file of " + std::to_string(fileSize) + " bytes can hold");
            if (what == Held::Zeros && held.size() - allocated >= kMostZeroBlocks)
                fail(where(), "more than " + std::to_string(kMostZeroBlocks) + " zero blocks, the most a file here may have");
            if (what != Held::Zeros) {
                const uint64_t at = offsetMiB * MiB, length = blockBytes(b);
                if (offsetMiB == 0) fail(where(), "block at 0 lies in the header section");
                if (offsetMiB > fileSize / MiB || fileSize - at < length)
                    fail(where(), "block at " + std::to_string(at) + " of " + std::to_string(length) +
                                    " bytes is not inside the file (" + std::to_string(fileSize) + " bytes)");
                used.emplace_back(at, length);
            }
            held.emplace_back(b, packed(what == Held::Zeros ? 0 : offsetMiB, what));
        }
    }
    for (uint64_t chunk : partialChunks)
        if (!std::binary_search(m_bitmaps.begin(), m_bitmaps.end(), std::make_pair(chunk, uint64_t(0)),
                                [](const std::pair<uint64_t, uint64_t>& a, const std::pair<uint64_t, uint64_t>& b) {
                                    return a.first < b.first;
                                }))
            fail("BAT chunk " + std::to_string(chunk), "a block is partially present but the chunk has no sector bitmap block");
    // Nothing the file holds may lie over anything else: the header section,
    // the log, the regions, the blocks.
    std::sort(used.begin(), used.end());
    for (size_t i = 1; i < used.size(); ++i)
        if (used[i].first < used[i - 1].first + used[i - 1].second)
            fail("BAT", "a block at " + std::to_string(used[i].first) + " overlaps the header section, the log, a region or another block");
    const uint64_t denseBytes = m_blocks * sizeof(uint64_t);
    if (denseBytes <= std::max<uint64_t>(kDenseTableBytes, held.size() * sizeof(held[0]))) {
        m_dense.assign(static_cast<size_t>(m_blocks), packed(0, Held::None));
        for (const auto& h : held) m_dense[static_cast<size_t>(h.first)] = h.second;
    } else {
        held.shrink_to_fit();
        m_sparse = std::move(held);
    }
}

VhdxLayout::Block VhdxLayout::block(uint64_t index) const {
    uint64_t e = packed(0, Held::None);
    if (index < m_blocks) {
        if (!m_dense.empty()) {
            e = m_dense[static_cast<size_t>(index)];
        } else {
            auto it = std::lower_bound(m_sparse.begin(), m_sparse.end(), index,
                                       [](const std::pair<uint64_t, uint64_t>& a, uint64_t b) { return a.first < b; });
            if (it != m_sparse.end() && it->first == index) e = it->second;
        }
    }
    return {static_cast<Held>(e & 7), (e >> 3) * MiB};
}

uint64_t VhdxLayout::nextWithBytes(uint64_t from) const {
    auto bytes = [](uint64_t e) {
        Held h = static_cast<Held>(e & 7);
        return h == Held::Data || h == Held::Partial;
    };
    if (!m_dense.empty()) {
        while (from < m_blocks && !bytes(m_dense[static_cast<size_t>(from)])) ++from;
        return std::min(from, m_blocks);
    }
    auto it = std::lower_bound(m_sparse.begin(), m_sparse.end(), from,
                               [](const std::pair<uint64_t, uint64_t>& a, uint64_t b) { return a.first < b; });
    while (it != m_sparse.end() && !bytes(it->second)) ++it;
    return it == m_sparse.end() ? m_blocks : it->first;
}

uint64_t VhdxLayout::blockBytes(uint64_t index) const {
    const uint64_t start = index * m_blockSize;
    return start >= m_size ? 0 : std::min<uint64_t>(m_blockSize, m_size - start);
}

std::pair<uint64_t, uint64_t> VhdxLayout::bitmapPlace(uint64_t index) const {
    const uint64_t chunk = index / m_chunkRatio, sectors = m_blockSize / m_logicalSector;
    auto it = std::lower_bound(m_bitmaps.begin(), m_bitmaps.end(), chunk,
                               [](const std::pair<uint64_t, uint64_t>& a, uint64_t c) { return a.first < c; });
    if (it == m_bitmaps.end() || it->first != chunk) fail("block " + std::to_string(index), "no sector bitmap block");
    return {it->second + (index % m_chunkRatio) * sectors / 8, sectors / 8};
}

void VhdxLayout::bitmap(const ObjectReader& file, uint64_t index, uint8_t* out, size_t bytes) const {
    const Block b = block(index);
    const uint64_t sectors = m_blockSize / 512;
    std::memset(out, 0, bytes);
    if (b.held == Held::None) return;
    if (b.held != Held::Partial) {
        std::memset(out, 0xFF, static_cast<size_t>(std::min<uint64_t>(bytes, sectors / 8)));
        return;
    }
    const auto place = bitmapPlace(index);
    std::vector<uint8_t> in(static_cast<size_t>(place.second));
    file.readAt(place.first, in.data(), in.size());
    if (m_logicalSector == 512) {
        // Bit 0 of a byte is its first sector here, its most significant bit in a VHD's bitmap.
        static const auto reversed = [] {
            std::array<uint8_t, 256> t{};
            for (int v = 0; v < 256; ++v)
                for (int k = 0; k < 8; ++k)
                    if (v & (1 << k)) t[v] |= static_cast<uint8_t>(0x80 >> k);
            return t;
        }();
        for (size_t i = 0; i < in.size() && i < bytes; ++i) out[i] = reversed[in[i]];
    } else {
        for (size_t s = 0; s < in.size() * 8 && s < bytes; ++s)
            if (in[s / 8] & (1u << (s % 8))) out[s] = 0xFF;
    }
}

}  // namespace zxblk
