// The fuzz target's input: a VHDX file packed small, as a sparse file of
// segments over zeros, read through an ObjectReader, and the checksums of
// its headers and region tables recomputed on request. Written from the
// published format (MS-VHDX), independently of the reader under test;
// included by vhdx_reader_fuzz.cpp alone.
#pragma once
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "store/storage.h"
#include "store/store_error.h"

namespace {

using zxblk::StoreError;

using Bytes = std::vector<uint8_t>;
using Guid = std::array<uint8_t, 16>;

const uint64_t KiB = 1024, MiB = 1024 * 1024;
// Large enough for a block table of millions of entries, small enough that
// reading all of it stays quick.
const uint64_t kMaxFile = 64 * MiB;
const uint64_t kPage = 4096;

#define NO_COVERAGE __attribute__((no_sanitize("coverage")))

void check(bool ok, const char* what) {
    if (!ok) std::fprintf(stderr, "vhdx_reader_fuzz: invariant broken: %s\n", what), std::abort();
}

uint16_t le16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | p[1] << 8); }
uint32_t le32(const uint8_t* p) { return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24; }
uint64_t le64(const uint8_t* p) { return le32(p) | uint64_t(le32(p + 4)) << 32; }

// CRC-32C (Castagnoli): the processor's instruction, which computes just
// that, where there is one; bit by bit elsewhere. Every run checks 136 KiB
// of headers and region tables, so this is much of what a run costs.
#if defined(__x86_64__)
NO_COVERAGE __attribute__((target("sse4.2"))) uint32_t crc32cFast(const uint8_t* p, size_t n) {
    uint64_t c = 0xFFFFFFFFu;
    for (; n >= 8; p += 8, n -= 8) {
        uint64_t v;
        std::memcpy(&v, p, 8);
        c = __builtin_ia32_crc32di(c, v);
    }
    uint32_t c32 = static_cast<uint32_t>(c);
    for (; n; ++p, --n) c32 = __builtin_ia32_crc32qi(c32, *p);
    return ~c32;
}
#endif

NO_COVERAGE uint32_t crc32c(const uint8_t* p, size_t n) {
#if defined(__x86_64__)
    static const bool fast = __builtin_cpu_supports("sse4.2");
    if (fast) return crc32cFast(p, n);
#endif
    uint32_t c = 0xFFFFFFFFu;
    for (size_t i = 0; i < n; ++i)
        for (int k = 0, b = p[i]; k < 8; ++k, b >>= 1) c = (c ^ b) & 1 ? (c >> 1) ^ 0x82F63B78u : c >> 1;
    return ~c;
}

// The CRC-32C of a header or a region table, its checksum field (bytes 4 to
// 7) counted as zero.
NO_COVERAGE uint32_t crcOf(Bytes b) {
    std::memset(b.data() + 4, 0, 4);
    return crc32c(b.data(), b.size());
}

// A GUID as the file stores it (its first three fields little-endian) and
// in the order its text is written (what uniqueId() gives): each is the
// other with these bytes swapped.
Guid swapped(const uint8_t* p) {
    const int order[16] = {3, 2, 1, 0, 5, 4, 7, 6, 8, 9, 10, 11, 12, 13, 14, 15};
    Guid g{};
    for (int i = 0; i < 16; ++i) g[i] = p[order[i]];
    return g;
}
Guid guidBinary(const char* text) {
    Guid g{};
    int k = 0;
    for (const char* c = text; *c && k < 32; ++c) {
        if (*c == '-') continue;
        int v = *c <= '9' ? *c - '0' : (*c | 0x20) - 'a' + 10;
        g[k / 2] = static_cast<uint8_t>(g[k / 2] << 4 | v);
        ++k;
    }
    return swapped(g.data());
}

const Guid kBatRegion = guidBinary("2DC27766-F623-4200-9D64-115E9BFD4A08");
const Guid kMetadataRegion = guidBinary("8B7CA206-4790-4B9A-B8FE-575F050F886E");
const Guid kFileParameters = guidBinary("CAA16737-FA36-4D43-B3B6-33F0AA44E76B");
const Guid kDiskSize = guidBinary("2FA54224-CD1B-4876-B211-5DBED83BF4B8");
const Guid kLogicalSector = guidBinary("8141BF1D-A96F-4709-BA47-F233A8FAAB5F");
const Guid kParentLocator = guidBinary("A8D35F2D-B30B-454D-ABF7-D3D84834AB0C");

// The file an input describes: zeros, but for the pages its segments wrote.
class SparseFile {
public:
    NO_COVERAGE static SparseFile decode(const uint8_t* data, size_t size) {
        SparseFile f;
        if (size < 4) return f;
        f.m_size = std::min<uint64_t>(le32(data), kMaxFile);
        for (size_t at = 4; at + 6 <= size;) {
            uint64_t offset = le32(data + at);
            size_t length = std::min<size_t>(le16(data + at + 4), size - at - 6);
            f.write(offset, data + at + 6, length);
            at += 6 + length;
        }
        return f;
    }
    uint64_t size() const { return m_size; }
    NO_COVERAGE void write(uint64_t offset, const uint8_t* p, size_t n) {
        if (offset >= m_size) return;
        n = static_cast<size_t>(std::min<uint64_t>(n, m_size - offset));
        while (n) {
            uint64_t page = offset / kPage, within = offset % kPage;
            size_t k = static_cast<size_t>(std::min<uint64_t>(n, kPage - within));
            auto& bytes = m_pages[page];
            if (bytes.empty()) bytes.assign(kPage, 0);
            std::memcpy(bytes.data() + within, p, k);
            offset += k, p += k, n -= k;
        }
    }
    // The caller keeps the range inside the file.
    NO_COVERAGE void read(uint64_t offset, uint8_t* out, size_t n) const {
        auto it = m_pages.lower_bound(offset / kPage);
        while (n) {
            uint64_t page = offset / kPage, within = offset % kPage;
            size_t k = static_cast<size_t>(std::min<uint64_t>(n, kPage - within));
            while (it != m_pages.end() && it->first < page) ++it;
            if (it != m_pages.end() && it->first == page) std::memcpy(out, it->second.data() + within, k);
            else std::memset(out, 0, k);
            offset += k, out += k, n -= k;
        }
    }
    Bytes bytes(uint64_t offset, size_t n) const {
        Bytes b(n);
        read(offset, b.data(), n);
        return b;
    }
    bool has(uint64_t offset, uint64_t n) const { return offset <= m_size && m_size - offset >= n; }
    // The pages written, to tell inputs apart.
    NO_COVERAGE uint64_t hash() const {
        uint64_t h = 1469598103934665603ULL ^ m_size;
        for (const auto& p : m_pages) {
            h = (h ^ p.first) * 1099511628211ULL;
            for (uint8_t b : p.second) h = (h ^ b) * 1099511628211ULL;
        }
        return h;
    }
    NO_COVERAGE void writeOut(const char* path) const {
        if (FILE* out = std::fopen(path, "wb")) {
            Bytes all = bytes(0, static_cast<size_t>(m_size));
            std::fwrite(all.data(), 1, all.size(), out);
            std::fclose(out);
        }
    }

private:
    uint64_t m_size = 0;
    std::map<uint64_t, Bytes> m_pages;
};

class SparseReader : public zxblk::ObjectReader {
public:
    explicit SparseReader(const SparseFile& f) : m_file(f) { m_stamp.size = f.size(); }
    const std::string& name() const override { return m_name; }
    uint64_t size() const override { return m_file.size(); }
    const zxblk::FileStamp& stamp() const override { return m_stamp; }
    void readAt(uint64_t offset, void* buffer, size_t length) const override {
        if (!m_file.has(offset, length))
            throw StoreError(m_name + ": short read of " + std::to_string(length) + " bytes at " + std::to_string(offset));
        m_file.read(offset, static_cast<uint8_t*>(buffer), length);
    }
    bool current() const override { return true; }

private:
    const SparseFile& m_file;
    std::string m_name = "fuzz.vhdx";
    zxblk::FileStamp m_stamp;
};

// Recomputes the CRC-32C of both headers (4 KiB at 64 and 128 KiB) and both
// region tables (64 KiB at 192 and 256 KiB), each over its bytes with its
// checksum field counted as zero. Whether any of them changed.
NO_COVERAGE bool fixChecksums(SparseFile& f) {
    bool changed = false;
    const std::pair<uint64_t, size_t> parts[] = {{64 * KiB, 4 * KiB}, {128 * KiB, 4 * KiB}, {192 * KiB, 64 * KiB}, {256 * KiB, 64 * KiB}};
    for (const auto& part : parts) {
        if (!f.has(part.first, part.second)) continue;
        uint32_t c = crcOf(f.bytes(part.first, part.second));
        const uint8_t field[4] = {uint8_t(c), uint8_t(c >> 8), uint8_t(c >> 16), uint8_t(c >> 24)};
        uint8_t old[4];
        f.read(part.first + 4, old, 4);
        if (std::memcmp(old, field, 4) == 0) continue;
        f.write(part.first + 4, field, 4);
        changed = true;
    }
    return changed;
}

}  // namespace
