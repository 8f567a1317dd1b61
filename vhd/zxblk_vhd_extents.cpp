// Mount and metadata extent tracking: the extents recalled while the disk
// mounts or while its file-system metadata is identified are reported to the
// index.
#include <algorithm>

#include "platform/FXErrorUtil.h"
#include "platform/IdxBrowseClient.h"
#include "vhd/ZxBlkVhd.h"

void ZxBlkVhd::cacheExtent(unsigned int extent) {
    static const char* tag = "void ZxBlkVhd::cacheExtent(unsigned int)";
    if (!bIdentifyFSMetadataDuringMount && !bIdentifyFSMetadataDuringCI) return;
    if (mountComplete == 0) {
        logger.DebugLvl(tag, 4, "Adding mount extent [%u]", extent);
        mountExtentList.push_back(extent);
        return;
    }
    if (metadataPhase == 0 || !bIdentifyFSMetadataDuringCI) return;
    logger.DebugLvl(tag, 4, "Adding metadata extent [%u]", extent);
    mountExtentList.push_back(extent);
    if (static_cast<unsigned long long>(mountExtentList.size()) >= extentFlushThreshold) updateExtentFlag(false);
}

CUxError ZxBlkVhd::updateExtentFlag(bool mount) {
    static const char* tag = "ZxBlkVhd::updateExtentFlag";
    static const char* signature = "virtual CUxError ZxBlkVhd::updateExtentFlag(bool)";
    if (mountComplete != 0 && metadataPhase == 0) return CUxError::Success();
    if (mountExtentList.empty()) {
        logger.Debug(tag, "Mount extent list empty");
        return CUxError::Success();
    }
    const char* kind = mount ? "mount" : "metadata";
    logger.DebugLvl(tag, 2, "Updating %s extent flag for %d extents...", kind, static_cast<int>(mountExtentList.size()));

    databrowse::BrowseRequest browseRequest;
    databrowse::BrowsePath browsePath;
    std::string path = diskPath;
    std::replace(path.begin(), path.end(), '\\', '/');
    browsePath.setstring(1, 1, 1677919727, 3433509, path);
    browseRequest.getlistobject(4, 4, 1682736261, 5775598, true)->push_back(browsePath);
    // The entity object is fetched anew for every field, as the index client
    // expects of its callers.
    browseRequest.getObjectAccessor(3, 3, 1682736261, 10347491, true, true, 18, 46)
        ->setint64(14, 38, 311168122, 12057227, 106);
    browseRequest.getObjectAccessor(3, 3, 1682736261, 10347491, true, true, 18, 46)
        ->setint64(8, 20, 311168122, 13699227, static_cast<int32_t>(scParams.bkpSetId));
    browseRequest.getObjectAccessor(3, 3, 1682736261, 10347491, true, true, 18, 46)
        ->setint64(1, 1, 311168122, 1107017, static_cast<int32_t>(entityId));
    browseRequest.getObjectAccessor(3, 3, 1682736261, 10347491, true, true, 18, 46)
        ->setint64(17, 47, 311168122, 2438726, static_cast<int32_t>(scParams.srcClientID));

    IdxBrowseClient client;
    if (client.Initialize(browseRequest, nullptr, 2000, nullptr, nullptr) != 0) {
        FXCodeLocation location("zxblk_vhd", signature, 566);
        return FXErrorUtil::ErrorWin32(location, 774, "Failed to initialize browse client");
    }

    Indexing::IdxLiveUpdateReq update;
    update.setint64(1, 1, 816748524, 6074275, 6);
    Indexing::IdxLiveUpdateExtent record;
    record.setint64(2, 2, 813757724, 3145580, mount ? 1 : 0);
    record.setint64(3, 3, 813757724, 13629847, static_cast<uint32_t>(idxKey1));
    record.setint64(4, 4, 813757724, 3547112, static_cast<uint32_t>(idxKey2));
    std::vector<unsigned int>* extents = record.getlistuint(1, 1, 813757724, 2572008, true);
    for (unsigned int e : mountExtentList) extents->push_back(e);
    logger.Debug(tag, "Included %d items for metadata %s update",
                 static_cast<int>(record.getlistuint(1, 1, 813757724, 2572008, false)->size()),
                 mount ? "MOUNT" : "MFT");
    update.getlistobject(13, 16, 816748524, 6487156, true)->push_back(record);

    std::string text;
    update.serialize(text, false);
    logger.DebugLvl(tag, 2, "Update Index extent flag BrowseReq [%s].", text.c_str());

    databrowse::BrowseResponse response;
    if (client.UpdateIndex(update, response) != 0) {
        FXCodeLocation location("zxblk_vhd", signature, 597);
        return FXErrorUtil::ErrorWin32(location, 774, "Failed to update index");
    }
    text.clear();
    response.serialize(text, false);
    logger.DebugLvl(tag, 2, "Update Index extent flag BrowseResp [%s].", text.c_str());
    mountExtentList.clear();
    logger.DebugLvl(tag, 2, "Done updating %s extent flag", kind);
    return CUxError::Success();
}
