// An independent model of how a restore target lays a stream into its file:
// byte by byte, with plain arrays, sharing no code with the target. Used by
// the randomized test and the fuzz target.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace model {

struct Call {
    bool hole = false;
    std::vector<uint8_t> data;  // a write
    uint32_t length = 0;        // a hole
};

struct Setup {
    uint32_t extentSize = 4096, sectorSize = 512;
    bool bitmapInExtent = false, skipBitmap = false, hasSectorsToWrite = false;
    std::vector<bool> sectorsToWrite;  // one per sector of the extent
    bool toExisting = false;           // the file exists and the extent starts at existingOffset
    uint64_t existingOffset = 0;
    std::vector<uint8_t> initialFile;  // when toExisting
};

struct Outcome {
    std::vector<uint8_t> file;
    bool parentMade = false;
    std::vector<bool> parent;  // one per sector
    uint32_t offset = 0;
    std::string summary;
};

inline Outcome run(const Setup& s, const std::vector<Call>& calls) {
    Outcome o;
    o.file = s.toExisting ? s.initialFile : std::vector<uint8_t>();
    uint32_t sectors = s.extentSize / s.sectorSize, gathered = 0;
    o.parent.assign(sectors, false);
    std::vector<bool> holeBits(8 * s.sectorSize, false);
    std::string kinds;  // per content byte: D data, S skip, H hole, Z zero
    auto wanted = [&](uint32_t p) { return !s.hasSectorsToWrite || s.sectorsToWrite[p / s.sectorSize]; };
    auto put = [&](uint32_t p, uint8_t b, char kind) {
        uint64_t at = s.existingOffset + p;
        if (o.file.size() <= at) o.file.resize(at + 1, 0);
        o.file[at] = b;
        kinds.push_back(kind);
    };
    auto hole = [&](uint32_t p, bool full) {
        if (!wanted(p)) return kinds.push_back('S');
        if (full) return put(p, 0, 'Z');
        o.parentMade = true;
        if (p / s.sectorSize < 8 * (sectors / 8)) o.parent[p / s.sectorSize] = true;
        kinds.push_back('H');
    };
    for (const Call& c : calls) {
        if (c.hole) {
            for (uint32_t i = 0; i < c.length; ++i) hole(o.offset + i, c.length == s.extentSize);
            o.offset += c.length;
            continue;
        }
        size_t i = 0;
        for (; s.bitmapInExtent && i < c.data.size() && gathered < s.sectorSize; ++i, ++gathered)
            for (int bit = 0; bit < 8; ++bit) holeBits[gathered * 8 + bit] = (c.data[i] >> (7 - bit)) & 1;
        for (; i < c.data.size(); ++i, ++o.offset) {
            // A dropped byte is a hole of at most a sector, never a whole
            // extent (extents here have at least two sectors).
            if (s.bitmapInExtent && !s.skipBitmap && !holeBits[o.offset / s.sectorSize]) hole(o.offset, false);
            else if (wanted(o.offset)) put(o.offset, c.data[i], 'D');
            else kinds.push_back('S');
        }
    }
    // Holes seek without writing: the file ends with its last written byte
    // (or keeps its size when it existed).
    for (size_t i = 0, j; i < kinds.size(); i = j) {
        for (j = i; j < kinds.size() && kinds[j] == kinds[i];) ++j;
        const char* name = kinds[i] == 'D' ? "DATA" : kinds[i] == 'S' ? "SKIP" : kinds[i] == 'H' ? "HOLE" : "ZERO";
        o.summary += "|--" + std::string(name) + "(" + std::to_string(j - i) + ")--|";
    }
    if (!o.parentMade) o.parent.clear();
    return o;
}

}  // namespace model
