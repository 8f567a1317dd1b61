// The disk object: construction, geometry, options, connection, and the
// subclient resolution that prepares the copies and the recall request.
#include <new>
#include <sstream>

#include "platform/AppRecords.h"
#include "platform/FXErrorUtil.h"
#include "platform/ZXPlatformInfo.h"
#include "vhd/ZxBlkVhd.h"

static unsigned int zeroSizeFor(unsigned int bitmapSize, unsigned int sectorSize) {
    return bitmapSize > sectorSize ? bitmapSize : sectorSize;
}

ZxBlkVhd::ZxBlkVhd(const std::string& first, const std::string& second)
    : ZxBlkDisk(first, second),
      srcClientName(" "),
      dmrRequest(" ", " ", 0),
      bkpSetName(" "),
      physicalNodeName(" "),
      recallEvent(true),
      extentSize(k_default_extent_size),
      sectorSize(512),
      bitmapSize(0),
      holeBitmap(nullptr),
      zeroData(nullptr),
      entityId(0),
      serviceId(0),
      idxKey1(0),
      idxKey2(0),
      bEnableMetadataRestoreOptimization(false),
      bIdentifyFSMetadataDuringCI(true),
      bIdentifyFSMetadataDuringMount(true) {
    bitmapSize = static_cast<unsigned int>(extentSize / sectorSize);
    unsigned int zeroSize = zeroSizeFor(bitmapSize, sectorSize);
    holeBitmap = new (std::nothrow) unsigned char[bitmapSize]();
    zeroData = new (std::nothrow) unsigned char[zeroSize]();
    if (!holeBitmap || !zeroData) logger.Error("ZxBlkVhd::ZxBlkVhd", "memory allocation error in constructor");
    logger.DebugLvl("ZxBlkVhd::ZxBlkVhd", 2,
                    "called constructor [%s][%s], extentSize %lld, sectorSize %u, bitmapSize %u, zeroDataSize %u",
                    first.c_str(), second.c_str(), extentSize, sectorSize, bitmapSize, zeroSize);

    ZXPlatformInfo info;
    info.getBoolean("VirtualServer", "bEnableMetadataRestoreOptimization", &bEnableMetadataRestoreOptimization);
    if (bEnableMetadataRestoreOptimization) {
        info.getBoolean("VirtualServer", "bIdentifyFSMetadataDuringCI", &bIdentifyFSMetadataDuringCI);
        info.getBoolean("VirtualServer", "bIdentifyFSMetadataDuringMount", &bIdentifyFSMetadataDuringMount);
    } else {
        bIdentifyFSMetadataDuringCI = false;
        bIdentifyFSMetadataDuringMount = false;
    }
}

ZxBlkVhd::~ZxBlkVhd() {
    if (holeBitmap) delete[] holeBitmap;
    if (zeroData) delete[] zeroData;
    for (BrowseStruct& copy : browseStructList) {
        if (copy.browse) {
            delete copy.browse;
            copy.browse = nullptr;
        }
    }
}

bool ZxBlkVhd::setDiskParams(long long newExtentSize, long long diskSize, unsigned int newSectorSize,
                             std::string newDiskId) {
    logger.DebugLvl("ZxBlkVhd::setDiskParams", 2, "extentSize %lld, diskSize %lld, sectorSize %u", newExtentSize,
                    diskSize, newSectorSize);
    unsigned int oldBitmapSize = static_cast<unsigned int>(extentSize / sectorSize);
    unsigned int oldZeroSize = zeroSizeFor(bitmapSize, sectorSize);
    if (newExtentSize > 0) extentSize = newExtentSize;
    if (newSectorSize != 0) sectorSize = newSectorSize;
    bitmapSize = static_cast<unsigned int>(extentSize / static_cast<long long>(sectorSize));
    totalSectors = diskSize / static_cast<long long>(sectorSize);
    if (bitmapSize != oldBitmapSize || !holeBitmap) {
        delete[] holeBitmap;
        holeBitmap = new (std::nothrow) unsigned char[bitmapSize]();
        if (!holeBitmap) {
            logger.Error("ZxBlkVhd::setDiskParams", "holeBitmap [size %u] memory allocation error.", bitmapSize);
            return false;
        }
    }
    unsigned int zeroSize = zeroSizeFor(bitmapSize, sectorSize);
    if (zeroSize != oldZeroSize || !zeroData) {
        delete[] zeroData;
        zeroData = new (std::nothrow) unsigned char[zeroSize]();
        if (!zeroData) {
            logger.Error("ZxBlkVhd::setDiskParams", "zeroData [size %u] memory allocation error.", zeroSize);
            return false;
        }
    }
    diskId = newDiskId;
    extentSizeA = extentSizeB = static_cast<uint32_t>(extentSize);
    return true;
}

void ZxBlkVhd::setSpecialOpts(ctxOType, FBRCtxSpecialOpts& opts) {
    SpecialOptsRecord empty;
    const SpecialOptsRecord& record = opts.specialOptsRecord ? *opts.specialOptsRecord : empty;
    unsigned long appId = record.appId;
    logger.Debug("setSpecialOpts", "appId %lu", appId);
    scParams.browseKey = record.idxKey2;
    entityId = record.entityId;
    serviceId = record.serviceId;
    if (!initSCPFromSubClient(appId))
        throw ZxException("ZxBlkVhd::setSpecialOpts", "setSpecialOpts failed for block level init", "zxblk_vhd", 175,
                          -1);
    idxKey2 = record.idxKey2;
    idxKey1 = record.idxKey1;
}

void ZxBlkVhd::printSpecialOpts(ctxOType, FBRCtxSpecialOpts&, std::string&) {}

void ZxBlkVhd::connect() {
    ZxBlkDisk::connect();
    if (connected == 1) {
        logger.Debug("ZxBlkVhd::connect", "ZxBlkVhd has already connected!");
        return;
    }
    connected = 1;
    diskUUID = setDiskUUID(diskName + "-" + diskId);
    diskState = 1;
}

void ZxBlkVhd::disconnect() { ZxBlkDisk::disconnect(); }

void ZxBlkVhd::disconnect_direct() { logger.DebugLvl("ZxBlkVhd::disconnect_direct", 2, "NO OP"); }

bool ZxBlkVhd::connectVhd(std::string&) { return true; }

void ZxBlkVhd::addToBrowseStructList(long long copyExtentSize, long long, unsigned int copySectorSize, std::string,
                                     std::string path, unsigned long diskType) {
    logger.Debug("ZxBlk_Vhd::populateBrowseStruct", "[%s] ", path.c_str());
    BrowseStruct copy;
    copy.path = path;
    copy.browse = nullptr;
    copy.diskType = diskType;
    copy.sectorSize = copySectorSize;
    copy.extentLength = copyExtentSize == 0 ? k_default_extent_size : copyExtentSize;
    if (diskType == 14) {
        logger.Debug("ZxBlk_Vhd::populateBrowseStruct", "[%s] is VHD Differential disk type", path.c_str());
        copy.extentLength -= copySectorSize;
    }
    browseStructList.push_front(copy);
}

void ZxBlkVhd::insertDiskPath(std::string path) {
    listDiskPaths.push_front(path);
    logger.Debug("ZxBlk_Vhd::insertDiskPath", " insert disk %s", path.c_str());
}

bool ZxBlkVhd::initSCPFromSubClient(unsigned long appId) {
    static const char* tag = "ZxBlkVhd::initSCPFromSubClient";
    scParams.appId = static_cast<uint32_t>(appId);
    ApplicationId application(2, appId);
    if (application.getApplicationId(nullptr) != 0) {
        logger.Error(tag, "Failed to identify subclient params from subclient id [%lu]", appId);
        return false;
    }
    AppIdInfo info = application.getAppIdInfo();
    scParams.srcClientID = info.clientId;
    scParams.appType = info.appType;
    scParams.appInstance = info.instanceId;
    scParams.bkpSetId = info.backupSetId;

    ZXClient(scParams.srcClientID).getName(srcClientName, nullptr);
    Instance(scParams.appInstance).getInstanceName(instanceName, nullptr);
    BackupSet(scParams.bkpSetId).getBackupSetName(bkpSetName, nullptr);

    ZXPlatformInfo platform;
    platform.setFocus(ZXPI_Focus::getFocus());
    physicalNodeName = platform.getPhysicalMachine();

    logger.DebugLvl(tag, 2,
                    "srcClientID %lu, appType %d, appInstance %lu, bkpSetId %lu, srcClientName %s, bkpSetName %s, "
                    "physicalNodeName %s",
                    static_cast<unsigned long>(scParams.srcClientID), scParams.appType,
                    static_cast<unsigned long>(scParams.appInstance), static_cast<unsigned long>(scParams.bkpSetId),
                    srcClientName.c_str(), bkpSetName.c_str(), physicalNodeName.c_str());

    // The browses keep no reference to the stream once they are built, so a
    // stream that lives for this call is enough.
    std::stringstream stream;
    logger.DebugLvl(tag, 2, "listDiskPaths size %lu", static_cast<unsigned long>(listDiskPaths.size()));
    for (BrowseStruct& copy : browseStructList) {
        if (!extentViewTag.empty()) copy.path = "EXTENTVIEW" + copy.path;
        ExtentBrowse* browse = nullptr;
        try {
            browse = new (std::nothrow) ExtentBrowse(scParams, copy.path, &stream, EB_MODE_EXTENT, 100, 8, false,
                                                     static_cast<unsigned int>(serviceId), std::string());
        } catch (const std::exception& e) {
            logger.DebugLvl(tag, -1, "%s", e.what());
            browse = nullptr;
        }
        if (!browse) {
            logger.Debug(tag, "Failed to allocate a new EB\n");
            return false;
        }
        copy.browse = browse;
    }

    DisableNagleForFSRestoreHead(true);
    DMRRequest request(physicalNodeName.c_str(), srcClientName.c_str(), static_cast<int>(serviceId));
    SetLogLevelForImportantLogs(2);
    dmrRequest = request;
    dmrRequest.SetAppType(scParams.appType);
    dmrRequest.SetRestoreOptions(1);
    dmrRequest.SetCallbackSocket(CUxSocket());
    dmrRequest.SetBkpSetName(bkpSetName);
    dmrRequest.SetInstanceName(instanceName);
    dmrRequest.SetCallbackFn(restoreCallBack, this);
    dmrRequest.SetFSName("ZX_ANYFS");
    return true;
}

void restoreCallBack(void* context, DMRestoreCompleted_t* completed) {
    if (!context) return;
    ZxBlkVhd* disk = static_cast<ZxBlkVhd*>(context);
    ZxEvent* event = disk->getZxEvent();
    if (!event) return;
    // A completion of a recall that already timed out must not end the wait
    // of the recall that came after it.
    if (!disk->acceptCompletion(completed)) {
        disk->logger.DebugLvl("restoreCallBack", 2, "ignoring stale completion of recall %llu",
                              completed ? completed->requestId : 0ULL);
        return;
    }
    event->set();
}

bool ZxBlkVhd::acceptCompletion(const DMRestoreCompleted_t* completed) {
    std::lock_guard<std::mutex> lock(recallMutex);
    if (!completed) return true;
    if (completed->requestId != currentRecallId) return false;
    lastRecallStatus = completed->status;
    lastRecallError = completed->error;
    return true;
}

void ZxBlkVhd::startRecall(unsigned long long requestId) {
    std::lock_guard<std::mutex> lock(recallMutex);
    currentRecallId = requestId;
    lastRecallStatus = 0;
    lastRecallError.clear();
}
