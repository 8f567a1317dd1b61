#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "platform/FXErrorUtil.h"
#include "platform/Log.h"
#include "platform/ZXPlatformInfo.h"
#include "support_services/test_services.h"
#include "vhd/ZxBlkVhd.h"

namespace {

TEST(DiskObject, ConstructorLogAndGeometry) {
    zxblk::LogCapture capture;
    ZxBlkVhd disk("first", "second");
    EXPECT_EQ(capture.texts("ZxBlkVhd::ZxBlkVhd"),
              std::vector<std::string>{"called constructor [first][second], extentSize 1048576, sectorSize 512, "
                                       "bitmapSize 2048, zeroDataSize 2048"});
    EXPECT_EQ(disk.diskName, "first");
    EXPECT_EQ(disk.extentSize, 1048576);
    EXPECT_EQ(disk.sectorSize, 512u);
    EXPECT_EQ(disk.bitmapSize, 2048u);
    EXPECT_TRUE(disk.buffersReady());
    for (unsigned i = 0; i < 2048; ++i) ASSERT_EQ(disk.zeroData[i], 0);
    EXPECT_EQ(disk.srcClientName, " ");
    EXPECT_EQ(disk.bkpSetName, " ");
    EXPECT_EQ(disk.physicalNodeName, " ");
    EXPECT_EQ(disk.instanceName, "");
    EXPECT_EQ(disk.entityId, 0u);
    EXPECT_EQ(disk.serviceId, 0u);
    EXPECT_EQ(disk.idxKey1, 0u);
    EXPECT_EQ(disk.idxKey2, 0u);
    EXPECT_EQ(disk.dmrRequest.GetPhysicalMachine(), " ");
    EXPECT_EQ(disk.dmrRequest.GetServiceId(), 0);
    EXPECT_EQ(disk.getDiskHdl(), 0);
    EXPECT_EQ(disk.getPartPrefix(), "p");
    std::string untouched = "keep";
    FBRCtxSpecialOpts opts;
    disk.printSpecialOpts(CTXO_NONE, opts, untouched);
    EXPECT_EQ(untouched, "keep");
    std::string path = "x";
    EXPECT_TRUE(disk.connectVhd(path));
}

struct ConfigCase {
    const char* master;  // nullptr: key absent
    const char* ci;
    const char* mount;
    bool enable, expectCI, expectMount;
};

TEST(DiskObject, ConfigurationMatrix) {
    std::string path = std::string(testing::TempDir()) + "vhd_config_" + std::to_string(getpid()) + ".ini";
    const ConfigCase cases[] = {
        {nullptr, nullptr, nullptr, false, false, false}, {nullptr, "true", "true", false, false, false},
        {"false", "true", "true", false, false, false},   {"true", nullptr, nullptr, true, true, true},
        {"true", "false", nullptr, true, false, true},    {"true", nullptr, "false", true, true, false},
        {"true", "false", "false", true, false, false},   {"true", "true", "true", true, true, true},
    };
    for (const ConfigCase& c : cases) {
        std::ofstream out(path);
        out << "[VirtualServer]\n";
        if (c.master) out << "bEnableMetadataRestoreOptimization=" << c.master << "\n";
        if (c.ci) out << "bIdentifyFSMetadataDuringCI=" << c.ci << "\n";
        if (c.mount) out << "bIdentifyFSMetadataDuringMount=" << c.mount << "\n";
        out.close();
        setenv("ZXBLK_CONFIG", path.c_str(), 1);
        ZXPlatformInfo::ReloadForTests();
        ZxBlkVhd disk("d", "p");
        SCOPED_TRACE(std::string(c.master ? c.master : "-") + "/" + (c.ci ? c.ci : "-") + "/" + (c.mount ? c.mount : "-"));
        EXPECT_EQ(disk.bEnableMetadataRestoreOptimization, c.enable);
        EXPECT_EQ(disk.bIdentifyFSMetadataDuringCI, c.expectCI);
        EXPECT_EQ(disk.bIdentifyFSMetadataDuringMount, c.expectMount);
    }
    unsetenv("ZXBLK_CONFIG");
    ZXPlatformInfo::ReloadForTests();
    unlink(path.c_str());
}

TEST(DiskObject, SetDiskParamsKeepsReplacesAndReallocates) {
    ZxBlkVhd disk("d", "p");
    unsigned char* hole = disk.holeBitmap;
    unsigned char* zero = disk.zeroData;
    EXPECT_TRUE(disk.setDiskParams(0, 10 * 1048576LL, 0, "a"));
    EXPECT_EQ(disk.extentSize, 1048576);
    EXPECT_EQ(disk.sectorSize, 512u);
    EXPECT_EQ(disk.totalSectors, 10 * 2048);
    EXPECT_EQ(disk.holeBitmap, hole);  // nothing reallocated
    EXPECT_EQ(disk.zeroData, zero);
    EXPECT_EQ(disk.diskId, "a");

    zxblk::LogCapture capture;
    EXPECT_TRUE(disk.setDiskParams(2 * 1048576LL, 4096, 512, "b"));
    EXPECT_EQ(disk.bitmapSize, 4096u);
    EXPECT_EQ(capture.texts("ZxBlkVhd::setDiskParams"),
              std::vector<std::string>{"extentSize 2097152, diskSize 4096, sectorSize 512"});
    for (unsigned i = 0; i < 4096; ++i) ASSERT_EQ(disk.zeroData[i], 0);  // ASan checks the size

    EXPECT_TRUE(disk.setDiskParams(65536, 65536, 4096, "c"));
    EXPECT_EQ(disk.bitmapSize, 16u);
    for (unsigned i = 0; i < 4096; ++i) ASSERT_EQ(disk.zeroData[i], 0);  // the sector size wins the maximum
    EXPECT_EQ(disk.totalSectors, 16);

    EXPECT_TRUE(disk.setDiskParams(-5, -8192, 512, "d"));  // negative extent ignored, disk size divided as given
    EXPECT_EQ(disk.extentSize, 65536);
    EXPECT_EQ(disk.totalSectors, -16);
    EXPECT_EQ(disk.bitmapSize, 128u);

    EXPECT_TRUE(disk.setDiskParams((1LL << 32) + 4096, 0, 512, "e"));
    EXPECT_EQ(disk.extentSizeA, 4096u);
    EXPECT_EQ(disk.extentSizeB, 4096u);
    EXPECT_EQ(disk.bitmapSize, static_cast<unsigned>(((1LL << 32) + 4096) / 512));
}

TEST(DiskObject, ConnectTwiceBuildsTheUuidOnce) {
    ZxBlkVhd disk("disk7", "p");
    disk.setDiskParams(0, 0, 0, "42");
    zxblk::LogCapture capture;
    disk.connect();
    EXPECT_EQ(disk.connected, 1);
    EXPECT_EQ(disk.diskState, 1u);
    EXPECT_EQ(disk.diskUUID, "disk7-42");
    disk.diskId = "changed";
    disk.connect();
    EXPECT_EQ(disk.diskUUID, "disk7-42");
    EXPECT_EQ(capture.texts("ZxBlkVhd::connect"), std::vector<std::string>{"ZxBlkVhd has already connected!"});
    disk.disconnect_direct();
    EXPECT_EQ(capture.texts("ZxBlkVhd::disconnect_direct"), std::vector<std::string>{"NO OP"});
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
        zxblk::setRecordsService(records);
        zxblk::setExtentLookupService(lookup);
    }
    void TearDown() override {
        zxblk::setRecordsService(nullptr);
        zxblk::setExtentLookupService(nullptr);
    }
    FBRCtxSpecialOpts optsFor(uint32_t appId) {
        record.appId = appId;
        record.idxKey1 = 101;
        record.idxKey2 = 202;
        record.entityId = 303;
        record.serviceId = (1ULL << 32) + 404;
        FBRCtxSpecialOpts opts;
        opts.specialOptsRecord = &record;
        return opts;
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
    disk.insertDiskPath("dp");
    disk.insertDiskPath("dp");
    EXPECT_EQ(disk.listDiskPaths.size(), 2u);
    std::vector<std::string> order;
    for (auto& c : disk.browseStructList) order.push_back(c.path);
    EXPECT_EQ(order, (std::vector<std::string>{"C", "B", "A"}));
    auto it = disk.browseStructList.begin();
    EXPECT_EQ(it->extentLength, 4096);
    EXPECT_EQ((++it)->extentLength, 1048064);  // differencing: one sector less
    EXPECT_EQ((++it)->extentLength, 1048576);  // type 13: no subtraction

    FBRCtxSpecialOpts opts = optsFor(77);
    disk.setSpecialOpts(CTXO_BLOCK_LEVEL, opts);
    EXPECT_EQ(lookup->opened, (std::vector<std::string>{"C", "B", "A"}));
    for (auto& c : disk.browseStructList) {
        ASSERT_NE(c.browse, nullptr);
        EXPECT_EQ(c.browse->Mode(), EB_MODE_EXTENT);
        EXPECT_EQ(c.browse->PageSize(), 100u);
        EXPECT_EQ(c.browse->Depth(), 8);
        EXPECT_FALSE(c.browse->Flag());
        EXPECT_EQ(c.browse->ServiceId(), 404u);  // serviceId as 32 bits
        EXPECT_EQ(c.browse->Extra(), "");
        EXPECT_EQ(c.browse->Params().browseKey, 202u);
    }
    EXPECT_EQ(disk.scParams.appId, 77u);
    EXPECT_EQ(disk.scParams.srcClientID, 5u);
    EXPECT_EQ(disk.scParams.appType, 106);
    EXPECT_EQ(disk.scParams.appInstance, 9u);
    EXPECT_EQ(disk.scParams.bkpSetId, 11u);
    EXPECT_EQ(disk.scParams.browseKey, 202u);
    EXPECT_EQ(disk.scParams.reserved, 0u);
    EXPECT_EQ(disk.srcClientName, "client-five");
    EXPECT_EQ(disk.instanceName, "instance-nine");
    EXPECT_EQ(disk.bkpSetName, "set-eleven");
    char host[256] = {0};
    gethostname(host, sizeof host - 1);
    EXPECT_EQ(disk.physicalNodeName, host);
    EXPECT_EQ(disk.idxKey1, 101u);
    EXPECT_EQ(disk.idxKey2, 202u);
    EXPECT_EQ(disk.entityId, 303u);

    const DMRRequest& r = disk.dmrRequest;
    EXPECT_EQ(r.GetPhysicalMachine(), host);
    EXPECT_EQ(r.GetClientName(), "client-five");
    EXPECT_EQ(r.GetServiceId(), 404);
    EXPECT_EQ(r.GetAppType(), 106);
    EXPECT_EQ(r.GetRestoreOptions(), 1u);
    EXPECT_TRUE(r.HasCallbackSocket());
    EXPECT_EQ(r.GetBkpSetName(), "set-eleven");
    EXPECT_EQ(r.GetInstanceName(), "instance-nine");
    EXPECT_EQ(r.GetCallbackFn(), &restoreCallBack);
    EXPECT_EQ(r.GetCallbackContext(), &disk);
    EXPECT_EQ(r.GetFSName(), "ZX_ANYFS");
    EXPECT_TRUE(IsNagleDisabledForFSRestoreHead());
    EXPECT_EQ(GetLogLevelForImportantLogs(), 2);
}

TEST_F(SubclientTest, UnknownSubclientThrowsAndKeepsKeys) {
    ZxBlkVhd disk("d", "p");
    zxblk::LogCapture capture;
    FBRCtxSpecialOpts opts = optsFor(99);
    try {
        disk.setSpecialOpts(CTXO_BLOCK_LEVEL, opts);
        FAIL() << "no exception";
    } catch (const ZxException& e) {
        EXPECT_EQ(e.Function(), "ZxBlkVhd::setSpecialOpts");
        EXPECT_EQ(e.Message(), "setSpecialOpts failed for block level init");
        EXPECT_EQ(e.File(), "zxblk_vhd");
        EXPECT_EQ(e.Line(), 175);
        EXPECT_EQ(e.Code(), -1);
    }
    EXPECT_EQ(disk.idxKey1, 0u);
    EXPECT_EQ(disk.idxKey2, 0u);
    EXPECT_EQ(disk.scParams.browseKey, 202u);  // kept, as were entityId and serviceId
    EXPECT_EQ(disk.entityId, 303u);
    EXPECT_EQ(disk.scParams.appId, 99u);
    EXPECT_EQ(disk.scParams.srcClientID, 0u);
    EXPECT_EQ(capture.texts("setSpecialOpts"), std::vector<std::string>{"appId 99"});
    EXPECT_EQ(capture.texts("ZxBlkVhd::initSCPFromSubClient"),
              std::vector<std::string>{"Failed to identify subclient params from subclient id [99]"});
}

TEST_F(SubclientTest, ExtentViewPrefixAndBrowseFailurePartWay) {
    ZxBlkVhd disk("d", "p");
    disk.addToBrowseStructList(0, 0, 512, "x", "/a", 13);
    disk.addToBrowseStructList(0, 0, 512, "x", "/b", 13);
    disk.addToBrowseStructList(0, 0, 512, "x", "/c", 13);
    disk.extentViewTag = "on";
    lookup->refused.insert("EXTENTVIEW/b");
    zxblk::LogCapture capture;
    FBRCtxSpecialOpts opts = optsFor(77);
    EXPECT_THROW(disk.setSpecialOpts(CTXO_BLOCK_LEVEL, opts), ZxException);
    auto it = disk.browseStructList.begin();
    EXPECT_EQ(it->path, "EXTENTVIEW/c");
    EXPECT_NE(it->browse, nullptr);  // handled before the failure: keeps its browse
    ++it;
    EXPECT_EQ(it->path, "EXTENTVIEW/b");
    EXPECT_EQ(it->browse, nullptr);
    EXPECT_EQ((++it)->path, "/a");  // never reached
    EXPECT_TRUE(capture.contains("Failed to allocate a new EB\n"));
    EXPECT_EQ(disk.dmrRequest.GetFSName(), "");  // the request was not rebuilt
}

TEST_F(SubclientTest, EmptyCopyListStillBuildsTheRequest) {
    ZxBlkVhd disk("d", "p");
    FBRCtxSpecialOpts opts = optsFor(77);
    disk.setSpecialOpts(CTXO_BLOCK_LEVEL, opts);
    EXPECT_EQ(disk.dmrRequest.GetFSName(), "ZX_ANYFS");
}

TEST(DiskObject, RestoreCallBackWakesOnlyItsDisk) {
    restoreCallBack(nullptr, nullptr);  // no context: nothing happens
    ZxBlkVhd disk("d", "p");
    disk.recallEvent.reset();
    restoreCallBack(&disk, nullptr);
    EXPECT_TRUE(disk.recallEvent.wait(0));
}

}  // namespace
