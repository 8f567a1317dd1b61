// Read path of the disk object. Not part of this build yet: every entry point
// says so and fails, so that no host takes a missing read for a good one.
#include "platform/FXErrorUtil.h"
#include "vhd/ZxBlkVhd.h"

bool ZxBlkVhd::readData(ZxBlkDisk*, long long, long*, unsigned char**) {
    logger.Error("ZxBlkVhd::readData", "readData is not available in this build");
    return false;
}

bool ZxBlkVhd::createTempFile(ZxBlkDisk*, long*, unsigned char**, std::string&, std::string&) {
    logger.Error("ZxBlkVhd::createTempFile", "createTempFile is not available in this build");
    return false;
}

void ZxBlkVhd::cacheExtent(unsigned int) {
    logger.Error("ZxBlkVhd::cacheExtent", "cacheExtent is not available in this build");
}

CUxError ZxBlkVhd::updateExtentFlag(bool) {
    FXCodeLocation location("zxblk_vhd", "virtual CUxError ZxBlkVhd::updateExtentFlag(bool)", __LINE__);
    return FXErrorUtil::ErrorWin32(location, ERROR_NOT_SUPPORTED, "updateExtentFlag is not available in this build");
}

bool ZxBlkVhd::copyDataToBuffer(const std::string&, long long, long*, unsigned char**, bool, bool) {
    logger.Error("ZxBlkVhd::copyDataToBuffer", "copyDataToBuffer is not available in this build");
    return false;
}

bool ZxBlkVhd::recallCopyExtent(ZxBlkDisk*, BrowseStruct&, unsigned int, int, long long, const std::string&,
                                boost::shared_ptr<CBitmapInfo>&, bool& failed) {
    failed = true;
    return false;
}

void CreateDMRMetaData(unsigned long long, unsigned long long, const std::string&, std::string& metadata) {
    metadata.clear();
}
