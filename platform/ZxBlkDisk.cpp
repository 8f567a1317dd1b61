#include "platform/ZxBlkDisk.h"

#include "framework/WinTypes.h"
#include "platform/FXErrorUtil.h"

ZxBlkDisk::ZxBlkDisk(const std::string& name, const std::string& path) : diskName(name), diskPath(path) {}

ZxBlkDisk::~ZxBlkDisk() {}

void ZxBlkDisk::setDiskPath(const std::string& path) { diskPath = path; }

// This host presents disks through its own front ends (the zxblk tool); the
// framework's kernel block device is not part of it.
bool ZxBlkDisk::createZxBlkDev() {
    logger.Error("ZxBlkDisk::createZxBlkDev", "no kernel block device in this host: present the disk with zxblk");
    return false;
}

void ZxBlkDisk::destroyZxBlkDev() {}

bool ZxBlkDisk::startThread() {
    logger.Error("ZxBlkDisk::startThread", "this host serves reads on its own threads");
    return false;
}

void ZxBlkDisk::stopThread() {}

// The first connect leaves `connected` for the disk type to set; the base
// only notes that a connection was asked for.
void ZxBlkDisk::connect() { logger.DebugLvl("ZxBlkDisk::connect", 2, "connect %s", diskName.c_str()); }

// Disconnecting returns the disk to its constructed state, so that a later
// connect builds its identity again.
void ZxBlkDisk::disconnect() {
    connected = 0;
    diskState = 0;
}

void ZxBlkDisk::disconnect_direct() { disconnect(); }

bool ZxBlkDisk::readData(ZxBlkDisk*, long long offset, long*, unsigned char**) {
    logger.Error("ZxBlkDisk::readData", "disk type of %s cannot read (offset %lld)", diskName.c_str(), offset);
    return false;
}

void ZxBlkDisk::setSpecialOpts(ctxOType, FBRCtxSpecialOpts&) {}

void ZxBlkDisk::printSpecialOpts(ctxOType, FBRCtxSpecialOpts&, std::string&) {}

bool ZxBlkDisk::setDiskParams(long long extentSize, long long diskSize, unsigned int sectorSize, std::string) {
    if (sectorSize == 0 || extentSize <= 0) return false;
    totalSectors = diskSize / sectorSize;
    extentSizeA = extentSizeB = static_cast<uint32_t>(extentSize);
    return true;
}

void ZxBlkDisk::addToBrowseStructList(long long, long long, unsigned int, std::string, std::string, unsigned long) {}

void ZxBlkDisk::insertDiskPath(std::string) {}

// Presented disks are read-only: there is never anything to write back.
bool ZxBlkDisk::writeBackChanges() { return true; }

CUxError ZxBlkDisk::updateExtentFlag(bool) {
    FXCodeLocation location("platform/ZxBlkDisk", "virtual CUxError ZxBlkDisk::updateExtentFlag(bool)", __LINE__);
    return FXErrorUtil::ErrorWin32(location, ERROR_NOT_SUPPORTED, "disk type of %s tracks no extents",
                                   diskName.c_str());
}

bool ZxBlkDisk::waitForDeviceReady() { return connected != 0; }

std::string& ZxBlkDisk::setDiskUUID(std::string uuid) {
    storedUUID = uuid;
    return storedUUID;
}
