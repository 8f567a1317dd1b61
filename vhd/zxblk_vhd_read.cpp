// The read path: makes one disk extent local by recalling it from the
// backed-up copies into a temporary file and moving that into the backing
// store.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "BlockLevel/Utilities/Windows/ZXVirtualDiskLibrary/ExtentRestoreTarget.h"
#include "bitmap/BitmapInfo.h"
#include "platform/FXErrorUtil.h"
#include "platform/FXFile.h"
#include "platform/ZxBlkBackingStore.h"
#include "vhd/ZxBlkVhd.h"

namespace {

const char* const kReadTag = "ZxBlkVhd::readData";
const unsigned long kRecallTimeout = 300000;

// The read's own bitmaps are walked a sector at a time with their locks
// held throughout: each bit operation then takes a lock its thread already
// holds, which costs no atomic operation, rather than a free one.
bool anyBitSet(CBitmapInfo& bitmap, unsigned long long first, unsigned long long count) {
    auto_lock held(&bitmap.GetLock(), true);
    for (unsigned long long i = 0; i < count; ++i)
        if (bitmap.IsBitSet(first + i)) return true;
    return false;
}

}  // namespace

void CreateDMRMetaData(unsigned long long first, unsigned long long second, const std::string& extentPath,
                       std::string& metadata) {
    EvEvent log;
    char buffer[4096];
    std::snprintf(buffer, sizeof buffer, "%d:%d:%d:%lld:%lld:%d:%lu:%s", 1, 2, 0, static_cast<long long>(first),
                  static_cast<long long>(second), 1, static_cast<unsigned long>(extentPath.size()),
                  extentPath.c_str());
    metadata = buffer;
    log.DebugLvl("CreateDMRMetaData", 2, "meta_data [%s] for [%s].", metadata.c_str(), extentPath.c_str());
}

bool ZxBlkVhd::createTempFile(ZxBlkDisk* disk, long* len, unsigned char** buf, std::string& targetPath,
                              std::string& tempPath) {
    static const char* tag =
        "bool ZxBlkVhd::createTempFile(ZxBlkDisk*, long int*, unsigned char**, std::string&, std::string&)";
    ZxBlkBackingStore* store = disk ? disk->getRecallStore() : nullptr;
    if (!store) {
        logger.DebugLvl(tag, -1, "Unable to open temp file for recall : [%s]", "the disk has no backing store");
        return false;
    }
    FILE* file = nullptr;
    CUxError status = store->openTempFile(&tempPath, &file);
    if (status.IsError()) {
        logger.DebugLvl(tag, -1, "Unable to open temp file for recall : [%s]", status.AsString().c_str());
        return false;
    }
    targetPath = tempPath;
    status = store->makeParentDir(targetPath);
    if (status.IsError()) {
        logger.DebugLvl(tag, -1, "getExtentFileName error : [%s]", status.AsString().c_str());
        std::fclose(file);
        return false;
    }
    // Sized through the open stream rather than a shell command: no process
    // per extent, and no path ever reaches a shell. A file of the wrong size
    // must never be moved in, so a failure here fails the read.
    logger.DebugLvl(tag, 2, "sizing temp file %s to %lld bytes", targetPath.c_str(), extentSize);
    if (::ftruncate(fileno(file), static_cast<off_t>(extentSize)) != 0) {
        logger.DebugLvl(tag, -1, "Unable to size temp file %s to %lld bytes: %s", targetPath.c_str(), extentSize,
                        std::strerror(errno));
        std::fclose(file);
        return false;  // the file stays; the host clears what a failed read leaves
    }
    // Reserving the extent's space now makes a full disk fail this read at
    // once rather than half way through a recall; the backing store gives
    // back what stays unwritten when the file is moved in, and makes room in
    // the cache when its file system is full.
    status = store->reserveTempFile(file, targetPath, static_cast<unsigned long long>(extentSize));
    if (status.IsError()) {
        logger.DebugLvl(tag, -1, "Unable to reserve %lld bytes for temp file %s: %s", extentSize, targetPath.c_str(),
                        status.AsString().c_str());
        std::fclose(file);
        return false;
    }
    std::fclose(file);
    *len = static_cast<long>(extentSize);
    if (*buf) delete *buf;  // the host allocates this buffer as a single object
    *buf = nullptr;
    return true;
}

bool ZxBlkVhd::readData(ZxBlkDisk* disk, long long offset, long* len, unsigned char** buf) {
    if (diskState != 1) {
        char text[255];
        std::snprintf(text, sizeof text, "%s: need state %d, curr(%d)", " cannot read", 1, static_cast<int>(diskState));
        throw ZxException(kReadTag, (diskPath + text).c_str(), "zxblk_vhd", 378, -1);
    }
    if (!disk || !buf || !*buf || !len) {
        logger.Error(kReadTag, "invalid arguments pDisk or buff\n");
        return false;
    }
    if (!buffersReady()) {
        logger.Error(kReadTag, "cannot read %s: its extent buffers could not be allocated", diskPath.c_str());
        return false;
    }
    std::memset(holeBitmap, 0, bitmapSize);
    unsigned int B = static_cast<unsigned int>((extentSize >> 9) / 8);
    boost::shared_ptr<CBitmapInfo> neededSectors(new CBitmapInfo(B));
    {
        auto_lock held(&neededSectors->GetLock(), true);
        for (unsigned int i = 0; i < B * 8; ++i) neededSectors->SetBit(i);
    }

    std::string targetPath, tempPath;
    bool firstCopy = true;
    // Without copies the extent is all zeros: it still gets its file.
    if (browseStructList.empty() && !createTempFile(disk, len, buf, targetPath, tempPath)) return false;

    // The walk goes on past the copy that first yields data for as long as
    // sectors are still needed: those are the sectors a differencing copy
    // leaves to its parents, and the older copies supply them, so a chain
    // reads as the merged disk.
    for (auto copy = browseStructList.begin();
         copy != browseStructList.end() && anyBitSet(*neededSectors, 0, B * 8ull); ++copy) {
        long long C = copy->extentLength;
        if (C <= 0) {
            logger.Error(kReadTag, "copy %s has extent length %lld; skipped", copy->path.c_str(), C);
            if (firstCopy && !createTempFile(disk, len, buf, targetPath, tempPath)) return false;
            firstCopy = false;
            continue;
        }
        unsigned int idx = static_cast<unsigned int>(offset / C);
        unsigned int inOff = static_cast<unsigned int>(offset % C);
        logger.DebugLvl(kReadTag, 2,
                        "Extent browse. offsetSectors:%lld, buff_len:%ld, vhd_offset_byte:%lld, vhd_offset_mb:%u, "
                        "restore_file_offset_byte:%u.\n",
                        offset, *len, offset, idx, inOff);
        int n = static_cast<int>(extentSize / C);
        if (firstCopy && !createTempFile(disk, len, buf, targetPath, tempPath)) return false;
        unsigned int sb = static_cast<unsigned int>((static_cast<unsigned long long>(C) >> 9) / 8);
        for (int i = 0; i < n; ++i) {
            if (!anyBitSet(*neededSectors, static_cast<unsigned long long>(i) * sb * 8, sb * 8ull)) continue;
            bool failed = false;
            recallCopyExtent(disk, *copy, idx, i, offset, targetPath, neededSectors, failed);
            if (failed) return false;  // the temporary file stays; the host clears it
        }
        firstCopy = false;
    }

    long long extNo = offset / extentSize;
    ZxBlkBackingStore* store = disk->getRecallStore();
    CUxError status = store->getExtentFileName(extNo, &targetPath);
    if (!status.IsError()) status = store->makeParentDir(targetPath);
    if (status.IsError()) logger.DebugLvl(kReadTag, -1, "getExtentFileName error : [%s]", status.AsString().c_str());
    status = store->moveInExtentFile(tempPath, extNo);
    if (status.IsError()) {
        logger.DebugLvl(kReadTag, -1, "Cache Full. Cannot move in additional extents!");
        logger.DebugLvl(kReadTag, 2, "%s", status.AsString().c_str());
    }
    ::unlink(tempPath.c_str());
    return true;
}

// Recalls copy extent idx + i of one copy into its place in the temporary
// file and updates the sectors still needed. Returns true when data came.
bool ZxBlkVhd::recallCopyExtent(ZxBlkDisk*, BrowseStruct& copy, unsigned int idx, int i, long long,
                                const std::string& targetPath, boost::shared_ptr<CBitmapInfo>& neededSectors,
                                bool& failed) {
    failed = false;
    long long C = copy.extentLength;
    unsigned int k = idx + static_cast<unsigned int>(i);
    char number[10];
    std::snprintf(number, sizeof number, "%u", k);
    std::string extentPath = copy.path + "/Extent" + number;
    logger.DebugLvl(kReadTag, 2, "diskPath:%s\n", extentPath.c_str());

    unsigned long long first = 0, second = 0;
    int result = copy.browse ? copy.browse->GetAFInfo(k, first, second) : -1;
    if (result == 1) {
        logger.DebugLvl(kReadTag, 2,
                        "Extent is not found in current disk snapshot and may be found in next snapshot. Move to "
                        "next extent.");
        return false;
    }
    if (result != 0) {
        logger.Error(kReadTag, "Browse fails. GetAFInfo() result:%d\n", result);
        failed = true;
        return false;
    }
    std::string metadata;
    CreateDMRMetaData(first, second, extentPath, metadata);

    unsigned int sb = static_cast<unsigned int>((static_cast<unsigned long long>(C) >> 9) / 8);
    boost::shared_ptr<CBitmapInfo> subSectors;
    {
        auto_lock held(&neededSectors->GetLock(), true);
        ExtractBitmap(neededSectors, subSectors, static_cast<unsigned int>(i) * sb, sb);
    }

    boost::shared_ptr<CExtentRestoreTarget> target(
        new CExtentRestoreTarget(targetPath, static_cast<unsigned int>(C), 512, false));
    target->SetSectorsToWrite(subSectors);
    target->SetSrcPath(extentPath);
    target->SetExtentNumber(idx);
    target->SetRestoreToExistingFileAt(static_cast<unsigned long long>(static_cast<long long>(i) * C));

    dmrRequest.SetRestoreTargetObject(target);
    dmrRequest.SetRestoreOptions(0x800000);
    dmrRequest.SetSrcPath(metadata.c_str());
    dmrRequest.SetDestPath(targetPath.c_str());
    dmrRequest.SetFileExtentRequest(true);
    if (mountComplete == 0 || metadataPhase != 0) dmrRequest.SetSeekFlags(0x8000);

    if (copy.diskType == 14) {
        target->SetBitmapInExtent();
    } else if (copy.diskType == 13) {
        target->SetSkipBitmapInExtent();
        target->SetBitmapInExtent();
    }

    recallEvent.reset();
    unsigned long long requestId = ++recallCounter;
    startRecall(requestId);
    dmrRequest.SetRequestId(requestId);
    if (!dmrRequest.Submit(nullptr, true)) {
        logger.Error(kReadTag, "Failed to submit DMR restore request.");
        failed = true;
        return false;
    }
    if (!recallEvent.wait(kRecallTimeout)) {
        startRecall(0);  // a late completion of this recall wakes nobody
        logger.Error(kReadTag, "BrowseVHD %s timeout.", extentPath.c_str());
        failed = true;
        return false;
    }
    // A recall that the service reports as failed may have left the file
    // part-written: the extent must not be taken for good data.
    int recallStatus;
    std::string recallError;
    {
        std::lock_guard<std::mutex> lock(recallMutex);
        recallStatus = lastRecallStatus;
        recallError = lastRecallError;
    }
    if (recallStatus != 0) {
        logger.Error(kReadTag, "recall of %s failed: %s", extentPath.c_str(), recallError.c_str());
        failed = true;
        return false;
    }
    logger.DebugLvl(kReadTag, 2, "BrowseVHD got data.");
    cacheExtent(idx);

    boost::shared_ptr<CBitmapInfo> parentSectors;
    target->GetParentSectors(parentSectors);
    unsigned long long base = static_cast<unsigned long long>(i) * sb * 8;
    auto_lock neededHeld(&neededSectors->GetLock(), true);
    if (parentSectors) {
        auto_lock parentHeld(&parentSectors->GetLock(), true);
        for (unsigned long long j = 0; j < sb * 8ull; ++j) {
            if (parentSectors->IsBitSet(j))
                neededSectors->SetBit(base + j);
            else
                neededSectors->UnsetBit(base + j);
        }
    } else {
        logger.DebugLvl(kReadTag, 2, "all data recalled");
        for (unsigned long long j = 0; j < sb * 8ull; ++j) neededSectors->UnsetBit(base + j);
    }
    logger.DebugLvl(kReadTag, 2, "Got data then move to next iterator");
    return true;
}
