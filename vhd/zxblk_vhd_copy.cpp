// Copies a local extent file into a caller's buffer, keeping the per-sector
// hole flags in step.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "vhd/ZxBlkVhd.h"

bool ZxBlkVhd::copyDataToBuffer(const std::string& path, long long offset, long* len, unsigned char** buf,
                                bool sizeFromFile, bool readDirect) {
    static const char* tag = "ZxBlkVhd::copyDataToBuffer";
    if (!buf || !*buf || !len) {
        logger.Error(tag, "invalid arguments pDisk or buff\n");
        return false;
    }
    if (!buffersReady()) {
        logger.Error(tag, "cannot copy %s: the extent buffers could not be allocated", path.c_str());
        return false;
    }
    FILE* file = std::fopen(path.c_str(), "r");
    if (!file) {
        logger.Error(tag, "%s", ("Failed to open file" + path).c_str());
        return false;
    }
    if (sizeFromFile) {
        std::fseek(file, 0, SEEK_END);
        long long size = std::ftell(file);
        logger.DebugLvl(tag, 2, "extent file %s size %lld", path.c_str(), size);
        delete *buf;  // the host's buffers are single objects
        *buf = new (std::nothrow) unsigned char[size > 0 ? size : 1];
        if (!*buf) {
            logger.Error(tag, "Could not allocate memory with length %lld", size);
            std::fclose(file);
            return false;
        }
        *len = static_cast<long>(size);
        std::memset(*buf, 0, static_cast<size_t>(size));
        std::fseek(file, 0, SEEK_SET);
    }
    if (readDirect) {
        if (std::fread(*buf, 1, static_cast<size_t>(*len), file) < static_cast<size_t>(*len)) {
            logger.Error(tag, "Vhd restore file %s read failed @ %lld : %s", path.c_str(), offset, std::strerror(errno));
            std::fclose(file);
            return false;
        }
        std::fclose(file);
        return true;
    }
    // The sector walk compares and copies whole sectors and indexes the hole
    // flags: anything that is not whole sectors inside one extent is refused
    // before a byte is touched.
    if (*len < 0 || *len % sectorSize != 0 || offset < 0 || offset % sectorSize != 0 ||
        (offset + *len) / sectorSize > bitmapSize) {
        logger.Error(tag, "cannot copy %ld bytes at %lld of %s: not whole sectors within one extent", *len, offset,
                     path.c_str());
        std::fclose(file);
        return false;
    }
    unsigned char* scratch = new (std::nothrow) unsigned char[*len > 0 ? *len : 1];
    if (!scratch) {
        logger.Error(tag, "Could not allocate tmp memory with length %ld", *len);
        std::fclose(file);
        return false;
    }
    if (std::fread(scratch, 1, static_cast<size_t>(*len), file) < static_cast<size_t>(*len)) {
        logger.Error(tag, "Vhd restore file %s read failed @ %lld : %s", path.c_str(), offset, std::strerror(errno));
        delete[] scratch;
        std::fclose(file);
        return false;
    }
    for (long p = 0; p < *len; p += sectorSize) {
        unsigned int s = static_cast<unsigned int>((offset + p) / sectorSize);
        bool zero = std::memcmp(scratch + p, zeroData, sectorSize) == 0;
        if (zero) {
            if (sizeFromFile) holeBitmap[s] = 1;
        } else if (sizeFromFile || holeBitmap[s] != 0) {
            std::memcpy(*buf + p, scratch + p, sectorSize);
            holeBitmap[s] = 0;
        }
    }
    delete[] scratch;
    std::fclose(file);
    return true;
}
