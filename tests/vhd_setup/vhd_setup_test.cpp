#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>

#include "platform/FXErrorUtil.h"
#include "platform/Log.h"
#include "platform/ZXPlatformInfo.h"
#include "support_services/test_services.h"
#include "vhd/ZxBlkVhd.h"

namespace {

bool allZero(const unsigned char* p, unsigned n) { return std::all_of(p, p + n, [](unsigned char c) { return c == 0; }); }

TEST(DiskObject, ConstructedWithOneMiBExtentsAndZeroedBuffers) {
    ZxBlkVhd disk("first", "second");
    EXPECT_EQ(disk.extentSize, 1048576);
    EXPECT_EQ(disk.sectorSize, 512u);
    EXPECT_EQ(disk.bitmapSize, 2048u);
    ASSERT_TRUE(disk.buffersReady());
    EXPECT_TRUE(allZero(disk.zeroData, 2048));
}

TEST(DiskObject, ConfigurationMatrix) {
    std::string path = std::string(testing::TempDir()) + "vhd_config_" + std::to_string(getpid()) + ".ini";
    const struct {
        const char *master, *ci, *mount;  // nullptr: key absent
        bool enable, expectCI, expectMount;
    } cases[] = {
        {nullptr, nullptr, nullptr, false, false, false}, {nullptr, "true", "true", false, false, false},
        {"false", "true", "true", false, false, false},   {"true", nullptr, nullptr, true, true, true},
        {"true", "false", nullptr, true, false, true},    {"true", nullptr, "false", true, true, false},
        {"true", "false", "false", true, false, false},   {"true", "true", "true", true, true, true},
    };
    for (const auto& c : cases) {
        {
            std::ofstream out(path);
            out << "[VirtualServer]\n";
            if (c.master) out << "bEnableMetadataRestoreOptimization=" << c.master << "\n";
            if (c.ci) out << "bIdentifyFSMetadataDuringCI=" << c.ci << "\n";
            if (c.mount) out << "bIdentifyFSMetadataDuringMount=" << c.mount << "\n";
        }
        setenv("ZXBLK_CONFIG", path.c_str(), 1);
        ZXPlatformInfo::Reload();
        ZxBlkVhd disk("d", "p");
        SCOPED_TRACE(std::string(c.master ? c.master : "-") + "/" + (c.ci ? c.ci : "-") + "/" + (c.mount ? c.mount : "-"));
        EXPECT_EQ(disk.bEnableMetadataRestoreOptimization, c.enable);
        EXPECT_EQ(disk.bIdentifyFSMetadataDuringCI, c.expectCI);
        EXPECT_EQ(disk.bIdentifyFSMetadataDuringMount, c.expectMount);
    }
    unsetenv("ZXBLK_CONFIG");
    ZXPlatformInfo::Reload();
    unlink(path.c_str());
}

TEST(DiskObject, SetDiskParamsKeepsReplacesAndReallocates) {
    ZxBlkVhd disk("d", "p");
    unsigned char* hole = disk.holeBitmap;
    unsigned char* zero = disk.zeroData;
    EXPECT_TRUE(disk.setDiskParams(0, 10 * 1048576LL, 0, "a"));  // zeros keep the extent and sector sizes
    EXPECT_EQ(disk.extentSize, 1048576);
    EXPECT_EQ(disk.sectorSize, 512u);
    EXPECT_EQ(disk.totalSectors, 10 * 2048);
    EXPECT_EQ(disk.holeBitmap, hole);  // nothing reallocated
    EXPECT_EQ(disk.zeroData, zero);

    EXPECT_TRUE(disk.setDiskParams(2 * 1048576LL, 4096, 512, "b"));
    EXPECT_EQ(disk.bitmapSize, 4096u);
    EXPECT_TRUE(allZero(disk.zeroData, 4096));  // ASan checks the size

    EXPECT_TRUE(disk.setDiskParams(65536, 65536, 4096, "c"));
    EXPECT_EQ(disk.bitmapSize, 16u);
    EXPECT_TRUE(allZero(disk.zeroData, 4096));  // the sector size wins the maximum

    EXPECT_TRUE(disk.setDiskParams(-5, -8192, 512, "d"));  // negative extent ignored, disk size divided as given
    EXPECT_EQ(disk.extentSize, 65536);
    EXPECT_EQ(disk.totalSectors, -16);
    EXPECT_EQ(disk.bitmapSize, 128u);

    EXPECT_TRUE(disk.setDiskParams((1LL << 32) + 4096, 0, 512, "e"));
    EXPECT_EQ(disk.extentSizeA, 4096u);
    EXPECT_EQ(disk.bitmapSize, static_cast<unsigned>(((1LL << 32) + 4096) / 512));
}

TEST(DiskObject, ConnectTwiceBuildsTheUuidOnce) {
    ZxBlkVhd disk("disk7", "p");
    disk.setDiskParams(0, 0, 0, "42");
    disk.connect();
    EXPECT_EQ(disk.diskState, 1u);
    EXPECT_EQ(disk.diskUUID, "disk7-42");
    disk.diskId = "changed";
    disk.connect();
    EXPECT_EQ(disk.diskUUID, "disk7-42");
    disk.disconnect_direct();
    EXPECT_EQ(disk.diskState, 1u);
}

class SubclientTest : public testing::Test {
protected:
    void SetUp() override {
        records = std::make_shared<zxtest::MapRecordsService>();
        AppIdInfo info;
        info.appId = 77;
        info.clientId = 5;
        info.appType = 106;
        info.instanceId = 9;
        info.backupSetId = 11;
        records->subclients[77] = info;
        records->clients[5] = "client-five";
        records->instances[9] = "instance-nine";
        records->backupSets[11] = "set-eleven";
        lookup = std::make_shared<zxtest::MapExtentLookupService>();
        zxtest::useRecords(records);
        zxtest::useLookup(lookup);
    }
    void TearDown() override {
        zxtest::useRecords(nullptr);
        zxtest::useLookup(nullptr);
    }
    void setOpts(ZxBlkVhd& disk, uint32_t appId) {
        record.appId = appId;
        record.idxKey1 = 101;
        record.idxKey2 = 202;
        record.entityId = 303;
        record.serviceId = (1ULL << 32) + 404;
        FBRCtxSpecialOpts opts;
        opts.specialOptsRecord = &record;
        disk.setSpecialOpts(CTXO_BLOCK_LEVEL, opts);
    }
    std::shared_ptr<zxtest::MapRecordsService> records;
    std::shared_ptr<zxtest::MapExtentLookupService> lookup;
    SpecialOptsRecord record;
};

TEST_F(SubclientTest, KnownSubclientFillsParamsBrowsesAndRequest) {
    ZxBlkVhd disk("d", "p");
    disk.addToBrowseStructList(0, 0, 512, "x", "A", 13);
    disk.addToBrowseStructList(0, 0, 512, "x", "B", 14);
    disk.addToBrowseStructList(4096, 0, 512, "x", "C", 7);
    std::vector<std::string> order;
    for (auto& c : disk.browseStructList) order.push_back(c.path);
    EXPECT_EQ(order, (std::vector<std::string>{"C", "B", "A"}));
    auto it = disk.browseStructList.begin();
    EXPECT_EQ(it->extentLength, 4096);
    EXPECT_EQ((++it)->extentLength, 1048064);  // differencing: one sector less
    EXPECT_EQ((++it)->extentLength, 1048576);  // type 13: no subtraction

    setOpts(disk, 77);
    EXPECT_EQ(lookup->opened, (std::vector<std::string>{"C", "B", "A"}));
    for (auto& c : disk.browseStructList) {
        ASSERT_NE(c.browse, nullptr);
        EXPECT_EQ(c.browse->Mode(), EB_MODE_EXTENT);
        EXPECT_EQ(c.browse->ServiceId(), 404u);  // serviceId as 32 bits
        EXPECT_EQ(c.browse->Params().browseKey, 202u);
    }
    EXPECT_EQ(disk.scParams.srcClientID, 5u);
    EXPECT_EQ(disk.scParams.appType, 106);
    EXPECT_EQ(disk.scParams.appInstance, 9u);
    EXPECT_EQ(disk.scParams.bkpSetId, 11u);
    EXPECT_EQ(disk.idxKey1, 101u);
    EXPECT_EQ(disk.idxKey2, 202u);
    EXPECT_EQ(disk.entityId, 303u);

    char host[256] = {0};
    gethostname(host, sizeof host - 1);
    const DMRRequest& r = disk.dmrRequest;
    EXPECT_EQ(r.GetPhysicalMachine(), host);
    EXPECT_EQ(r.GetClientName(), "client-five");
    EXPECT_EQ(r.GetServiceId(), 404);
    EXPECT_EQ(r.GetAppType(), 106);
    EXPECT_EQ(r.GetBkpSetName(), "set-eleven");
    EXPECT_EQ(r.GetInstanceName(), "instance-nine");
    EXPECT_EQ(r.GetCallbackFn(), &restoreCallBack);
    EXPECT_EQ(r.GetCallbackContext(), &disk);
    EXPECT_EQ(r.GetFSName(), "ZX_ANYFS");
    EXPECT_TRUE(IsNagleDisabledForFSRestoreHead());
}

TEST_F(SubclientTest, UnknownSubclientThrowsAndKeepsKeys) {
    ZxBlkVhd disk("d", "p");
    EXPECT_THROW(setOpts(disk, 99), ZxException);
    EXPECT_EQ(disk.idxKey1, 0u);
    EXPECT_EQ(disk.idxKey2, 0u);
    EXPECT_EQ(disk.scParams.browseKey, 202u);  // kept, as were entityId and serviceId
    EXPECT_EQ(disk.entityId, 303u);
    EXPECT_EQ(disk.scParams.srcClientID, 0u);
}

TEST_F(SubclientTest, ExtentViewPrefixAndBrowseFailurePartWay) {
    ZxBlkVhd disk("d", "p");
    for (const char* p : {"/a", "/b", "/c"}) disk.addToBrowseStructList(0, 0, 512, "x", p, 13);
    disk.extentViewTag = "on";
    lookup->refused.insert("EXTENTVIEW/b");
    EXPECT_THROW(setOpts(disk, 77), ZxException);
    auto it = disk.browseStructList.begin();
    EXPECT_EQ(it->path, "EXTENTVIEW/c");
    EXPECT_NE(it->browse, nullptr);  // handled before the failure: keeps its browse
    ++it;
    EXPECT_EQ(it->path, "EXTENTVIEW/b");
    EXPECT_EQ(it->browse, nullptr);
    EXPECT_EQ((++it)->path, "/a");  // never reached
    EXPECT_EQ(disk.dmrRequest.GetFSName(), "");  // the request was not rebuilt

    ZxBlkVhd empty("d", "p");  // an empty copy list still builds the request
    setOpts(empty, 77);
    EXPECT_EQ(empty.dmrRequest.GetFSName(), "ZX_ANYFS");
}

TEST(DiskObject, RestoreCallBackWakesOnlyItsDisk) {
    restoreCallBack(nullptr, nullptr);  // no context: nothing happens
    ZxBlkVhd disk("d", "p");
    disk.recallEvent.reset();
    restoreCallBack(&disk, nullptr);
    EXPECT_TRUE(disk.recallEvent.wait(0));
}

}  // namespace
