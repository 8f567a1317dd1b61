#include "support/vhd_writer.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <map>
#include <stdexcept>

namespace vhdtest {
namespace {

void put32(uint8_t* p, uint32_t v) {
    p[0] = v >> 24, p[1] = v >> 16, p[2] = v >> 8, p[3] = v;
}
void put64(uint8_t* p, uint64_t v) {
    put32(p, static_cast<uint32_t>(v >> 32));
    put32(p + 4, static_cast<uint32_t>(v));
}
uint32_t checksum(const uint8_t* p, size_t n) {
    uint32_t sum = 0;
    for (size_t i = 0; i < n; ++i) sum += p[i];
    return ~sum;
}

// The CHS geometry the format derives from a size.
uint32_t geometry(uint64_t size) {
    uint64_t sectors = std::min<uint64_t>(size / 512, 65535ULL * 16 * 255);
    uint64_t spt, heads, cyl;
    if (sectors >= 65535ULL * 16 * 63) {
        spt = 255, heads = 16, cyl = sectors / (spt * heads);
    } else {
        spt = 17;
        cyl = sectors / spt;
        heads = (cyl + 1023) / 1024;
        if (heads < 4) heads = 4;
        if (cyl >= heads * 1024 || heads > 16) spt = 31, heads = 16, cyl = sectors / spt;
        if (cyl >= heads * 1024) spt = 63, heads = 16, cyl = sectors / spt;
        cyl /= heads;
    }
    return static_cast<uint32_t>(cyl << 16 | heads << 8 | spt);
}

struct Image {
    uint32_t type;  // 3 dynamic, 4 differencing
    uint8_t id[16];
    uint8_t parentId[16];
    std::string parentName;
    std::map<uint64_t, Bytes> bitmaps;  // block -> MSB-first sector bitmap
    std::map<uint64_t, Bytes> data;     // block -> block data
};

void writeImage(const std::string& path, const Image& img, const ChainPlan& plan, std::mt19937& rng) {
    uint64_t blocks = (plan.size + plan.blockSize - 1) / plan.blockSize;
    uint32_t bitmapBytes = static_cast<uint32_t>(((plan.blockSize / 512 + 7) / 8 + 511) / 512 * 512);
    uint64_t batBytes = (blocks * 4 + 511) / 512 * 512;
    uint8_t footer[512] = {0};
    std::memcpy(footer, "conectix", 8);
    put32(footer + 8, 2);
    put32(footer + 12, 0x00010000);
    put64(footer + 16, 512);
    std::memcpy(footer + 28, "zxbt", 4);
    put32(footer + 32, 0x00010000);
    std::memcpy(footer + 36, "Wi2k", 4);
    put64(footer + 40, plan.size);
    put64(footer + 48, plan.size);
    put32(footer + 56, geometry(plan.size));
    put32(footer + 60, img.type);
    std::memcpy(footer + 68, img.id, 16);
    put32(footer + 64, checksum(footer, 512));

    uint8_t header[1024] = {0};
    std::memcpy(header, "cxsparse", 8);
    put64(header + 8, ~0ULL);
    put64(header + 16, 1536);
    put32(header + 24, 0x00010000);
    put32(header + 28, static_cast<uint32_t>(blocks));
    put32(header + 32, plan.blockSize);
    Bytes locator;
    if (img.type == 4) {
        std::memcpy(header + 40, img.parentId, 16);
        for (size_t i = 0; i < img.parentName.size() && i < 256; ++i) header[64 + 2 * i + 1] = static_cast<uint8_t>(img.parentName[i]);
        // One relative locator, ".\name", UTF-16LE in a sector of its own.
        std::string rel = ".\\" + img.parentName;
        for (char c : rel) locator.push_back(static_cast<uint8_t>(c)), locator.push_back(0);
    }
    uint64_t next = 1536 + batBytes;
    uint64_t locatorAt = 0;
    if (!locator.empty()) {
        locatorAt = next;
        std::memcpy(header + 576, "W2ru", 4);
        put32(header + 580, 512);
        put32(header + 584, static_cast<uint32_t>(locator.size()));
        put64(header + 592, locatorAt);
        next += 512;
    }
    put32(header + 36, checksum(header, 1024));

    // Blocks go into the file in a shuffled order.
    std::vector<uint64_t> order;
    for (auto& b : img.data) order.push_back(b.first);
    std::shuffle(order.begin(), order.end(), rng);
    Bytes bat(batBytes, 0xFF);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    auto at = [&](uint64_t offset, const void* p, size_t n) {
        out.seekp(static_cast<std::streamoff>(offset));
        out.write(static_cast<const char*>(p), static_cast<std::streamsize>(n));
    };
    for (uint64_t b : order) {
        put32(bat.data() + b * 4, static_cast<uint32_t>(next / 512));
        Bytes bitmap(bitmapBytes, 0);
        std::copy(img.bitmaps.at(b).begin(), img.bitmaps.at(b).end(), bitmap.begin());
        at(next, bitmap.data(), bitmap.size());
        at(next + bitmapBytes, img.data.at(b).data(), plan.blockSize);
        next += bitmapBytes + plan.blockSize;
    }
    at(0, footer, 512);
    at(512, header, 1024);
    at(1536, bat.data(), bat.size());
    if (locatorAt) {
        Bytes sector(512, 0);
        std::copy(locator.begin(), locator.end(), sector.begin());
        at(locatorAt, sector.data(), 512);
    }
    at(next, footer, 512);
    if (!out) throw std::runtime_error("cannot write " + path);
}

Bytes randomBytes(std::mt19937& rng, size_t n) {
    Bytes b(n);
    for (auto& c : b) c = static_cast<uint8_t>(rng() % 255 + 1);
    return b;
}

}  // namespace

std::vector<Snapshot> writeChain(const std::string& dir, const ChainPlan& plan) {
    std::mt19937 rng(plan.seed);
    const uint64_t sectors = plan.size / 512, perBlock = plan.blockSize / 512;
    const uint64_t blocks = (plan.size + plan.blockSize - 1) / plan.blockSize;
    std::vector<Snapshot> out;
    Bytes merged(plan.size, 0);
    Image previous;
    for (int level = 0; level <= plan.children; ++level) {
        Image img;
        img.type = level == 0 ? 3 : 4;
        for (auto& b : img.id) b = static_cast<uint8_t>(rng());
        std::string name = "snap" + std::to_string(level) + ".vhd";
        if (level > 0) {
            std::memcpy(img.parentId, previous.id, 16);
            img.parentName = "snap" + std::to_string(level - 1) + ".vhd";
        }
        auto touch = [&](uint64_t block) {
            if (!img.data.count(block)) {
                // Sectors the child does not hold still carry junk.
                img.data[block] = randomBytes(rng, plan.blockSize);
                img.bitmaps[block] = Bytes((perBlock + 7) / 8, 0);
            }
        };
        auto setSector = [&](uint64_t s) {
            if (s >= sectors) return;
            uint64_t block = s / perBlock, within = s % perBlock;
            touch(block);
            Bytes sector = randomBytes(rng, 512);
            if (rng() % 8 == 0) sector.assign(512, 0);  // a written sector of zeros
            std::copy(sector.begin(), sector.end(), img.data[block].begin() + within * 512);
            img.bitmaps[block][within / 8] |= static_cast<uint8_t>(0x80u >> (within % 8));
            std::copy(sector.begin(), sector.end(), merged.begin() + s * 512);
        };
        if (level == 0) {
            // The base holds most blocks whole; some stay unallocated (zeros).
            for (uint64_t b = 0; b < blocks; ++b)
                if (rng() % 5 != 0)
                    for (uint64_t s = b * perBlock; s < (b + 1) * perBlock; ++s) setSector(s);
        } else {
            uint64_t unit = plan.aligned8 ? 8 : 1;
            for (int i = 0; i < 40; ++i) {  // scattered single sectors
                uint64_t s = rng() % sectors / unit * unit;
                for (uint64_t k = 0; k < unit; ++k) setSector(s + k);
            }
            for (int i = 0; i < 6 && blocks > 1; ++i) {  // runs across a block boundary
                uint64_t boundary = (1 + rng() % (blocks - 1)) * perBlock;
                uint64_t before = (1 + rng() % 100) * unit, after = (1 + rng() % 100) * unit;
                for (uint64_t s = boundary - std::min(before, boundary); s < boundary + after; ++s) setSector(s);
            }
        }
        writeImage(dir + "/" + name, img, plan, rng);
        out.push_back({dir + "/" + name, merged});
        previous = img;
    }
    return out;
}

}  // namespace vhdtest
