// The host framework's block-disk base class: the virtual slots a disk type
// fills in, and the members the host and the disk type share.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "framework/CUxError.h"
#include "platform/Log.h"
#include "platform/FBRCtxOptions.h"

class ZxBlkBackingStore;

class ZxBlkDisk {
public:
    // The host names the disk and gives the path of the disk as backed up.
    ZxBlkDisk(const std::string& name, const std::string& path);
    virtual ~ZxBlkDisk();

    virtual long getDiskHdl() { return 0; }
    virtual void setDiskPath(const std::string& path);
    virtual bool createZxBlkDev();
    virtual void destroyZxBlkDev();
    virtual bool startThread();
    virtual void stopThread();
    virtual void connect();
    virtual void disconnect();
    virtual void disconnect_direct();
    virtual bool readData(ZxBlkDisk* disk, long long offset, long* len, unsigned char** buf);
    virtual void setSpecialOpts(ctxOType type, FBRCtxSpecialOpts& opts);
    virtual void printSpecialOpts(ctxOType type, FBRCtxSpecialOpts& opts, std::string& out);
    virtual bool setDiskParams(long long extentSize, long long diskSize, unsigned int sectorSize, std::string diskId);
    virtual void addToBrowseStructList(long long extentSize, long long diskSize, unsigned int sectorSize,
                                       std::string diskId, std::string path, unsigned long diskType);
    virtual void insertDiskPath(std::string path);
    virtual bool writeBackChanges();
    virtual std::string getPartPrefix() { return "p"; }
    virtual CUxError updateExtentFlag(bool mount);
    virtual bool waitForDeviceReady();

    ZxBlkBackingStore* getRecallStore() { return recallStore; }
    void setRecallStore(ZxBlkBackingStore* store) { recallStore = store; }
    // Stores the UUID and returns the stored string.
    std::string& setDiskUUID(std::string uuid);

    EvDebug logger;
    std::string diskName;
    std::string diskUUID;
    std::string diskPath;
    long long totalSectors = 0;
    uint32_t diskState = 0;
    unsigned char connected = 0;
    uint32_t extentSizeA = 0;
    uint32_t extentSizeB = 0;
    uint64_t extentFlushThreshold = 0;
    unsigned char metadataPhase = 0;
    unsigned char mountComplete = 0;
    std::vector<unsigned int> mountExtentList;
    ZxBlkBackingStore* recallStore = nullptr;

private:
    std::string storedUUID;
};
