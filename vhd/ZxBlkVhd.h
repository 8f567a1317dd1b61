// The "VHD" disk type: one backed-up virtual disk that the host presents.
#pragma once
#include <mutex>
#include <list>
#include <string>

#include "framework/Export.h"
#include "framework/ZxEvent.h"
#include "platform/DMRRequest.h"
#include "platform/ExtentBrowse.h"
#include "platform/SCParams.h"
#include "platform/FBRCtxOptions.h"
#include "platform/ZxBlkDisk.h"

static const long long k_default_extent_size = 1048576;

// One backed-up copy of the disk.
struct BrowseStruct {
    std::string path;
    ExtentBrowse* browse = nullptr;  // owned by the disk object, released once in its destructor
    long long extentLength = 0;
    unsigned int sectorSize = 0;
    unsigned long long diskType = 0;
};

class ZXBLK_EXPORT ZxBlkVhd : public ZxBlkDisk {
public:
    ZxBlkVhd(const std::string& first, const std::string& second);
    ~ZxBlkVhd() override;

    void connect() override;
    void disconnect() override;
    void disconnect_direct() override;
    bool readData(ZxBlkDisk* disk, long long offset, long* len, unsigned char** buf) override;
    void setSpecialOpts(ctxOType type, FBRCtxSpecialOpts& opts) override;
    void printSpecialOpts(ctxOType type, FBRCtxSpecialOpts& opts, std::string& out) override;
    bool setDiskParams(long long extentSize, long long diskSize, unsigned int sectorSize, std::string diskId) override;
    void addToBrowseStructList(long long extentSize, long long diskSize, unsigned int sectorSize, std::string diskId,
                               std::string path, unsigned long diskType) override;
    void insertDiskPath(std::string path) override;
    CUxError updateExtentFlag(bool mount) override;

    bool connectVhd(std::string& path);
    ZxEvent* getZxEvent() { return &recallEvent; }
    bool initSCPFromSubClient(unsigned long appId);
    bool createTempFile(ZxBlkDisk* disk, long* len, unsigned char** buf, std::string& targetPath,
                        std::string& tempPath);
    void cacheExtent(unsigned int extent);
    bool copyDataToBuffer(const std::string& path, long long offset, long* len, unsigned char** buf,
                          bool sizeFromFile, bool readDirect);

    // False when a buffer could not be allocated (constructor or last
    // setDiskParams): such a disk refuses to read rather than touch it.
    bool buffersReady() const { return holeBitmap != nullptr && zeroData != nullptr; }
    // Called by the completion callback: true when the completion belongs to
    // the recall the reader is waiting for (its outcome is then kept for the
    // reader); false for a stale one, from a recall that already timed out.
    bool acceptCompletion(const DMRestoreCompleted_t* completed);

    SCParams scParams;
    std::string diskId;
    std::string srcClientName;
    DMRRequest dmrRequest;
    std::string instanceName;
    std::string bkpSetName;
    std::string physicalNodeName;
    ZxEvent recallEvent;
    long long extentSize;
    unsigned int sectorSize;
    std::list<std::string> listDiskPaths;
    std::list<BrowseStruct> browseStructList;
    unsigned int bitmapSize;
    unsigned char* holeBitmap;
    unsigned char* zeroData;
    unsigned long long entityId;
    unsigned long long serviceId;
    std::string extentViewTag;
    unsigned long long idxKey1;
    unsigned long long idxKey2;
    bool bEnableMetadataRestoreOptimization;
    bool bIdentifyFSMetadataDuringCI;
    bool bIdentifyFSMetadataDuringMount;

private:
    void startRecall(unsigned long long requestId);
    unsigned long long recallCounter = 0;
    std::mutex recallMutex;  // the reader and the service's completion thread meet here
    unsigned long long currentRecallId = 0;
    int lastRecallStatus = 0;
    std::string lastRecallError;
    friend class ZxBlkVhdReadAccess;
    bool recallCopyExtent(ZxBlkDisk* disk, BrowseStruct& copy, unsigned int idx, int i, long long offset,
                          const std::string& targetPath, boost::shared_ptr<class CBitmapInfo>& neededSectors,
                          bool& failed);
};

ZXBLK_EXPORT void restoreCallBack(void* context, DMRestoreCompleted_t* completed);
ZXBLK_EXPORT void CreateDMRMetaData(unsigned long long first, unsigned long long second,
                                    const std::string& extentPath, std::string& metadata);
