#include "read_path/read_fixture.h"

namespace readtest {
namespace {

class TrackingTest : public ReadPathTest {
protected:
    void SetUp() override {
        ReadPathTest::SetUp();
        index = std::make_shared<zxtest::RecordingIndexService>();
        zxblk::setIndexService(index);
    }
    void TearDown() override {
        zxblk::setIndexService(nullptr);
        ReadPathTest::TearDown();
    }
    void configure(const char* text) {
        std::ofstream(config) << "[VirtualServer]\n" << text;
        ZXPlatformInfo::ReloadForTests();
    }
    std::shared_ptr<zxtest::RecordingIndexService> index;
};

TEST_F(TrackingTest, PhaseAndSwitchMatrix) {
    struct Case {
        const char* config;
        unsigned char mountComplete, metadataPhase;
        bool collected;
    } cases[] = {
        {"", 0, 0, false},  // master switch off: nothing is ever collected
        {"bEnableMetadataRestoreOptimization=true\n", 0, 0, true},
        {"bEnableMetadataRestoreOptimization=true\nbIdentifyFSMetadataDuringMount=false\n", 0, 0, true},  // CI alone still collects while mounting
        {"bEnableMetadataRestoreOptimization=true\nbIdentifyFSMetadataDuringMount=false\nbIdentifyFSMetadataDuringCI=false\n", 0, 0, false},
        {"bEnableMetadataRestoreOptimization=true\n", 1, 0, false},  // mounted and idle
        {"bEnableMetadataRestoreOptimization=true\n", 1, 1, true},
        {"bEnableMetadataRestoreOptimization=true\nbIdentifyFSMetadataDuringCI=false\n", 1, 1, false},
    };
    for (const Case& c : cases) {
        configure(c.config);
        ZxBlkVhd d("d", "p");
        d.mountComplete = c.mountComplete;
        d.metadataPhase = c.metadataPhase;
        d.extentFlushThreshold = 1000;
        d.cacheExtent(5);
        EXPECT_EQ(d.mountExtentList.size(), c.collected ? 1u : 0u) << c.config << int(c.mountComplete) << int(c.metadataPhase);
    }
    configure("");
    ZxBlkVhd off("d", "p");
    zxblk::LogCapture capture;
    EXPECT_FALSE(off.updateExtentFlag(true).IsError());
    EXPECT_EQ(capture.texts("ZxBlkVhd::updateExtentFlag"), std::vector<std::string>{"Mount extent list empty"});
    EXPECT_TRUE(index->updates.empty());
}

TEST_F(TrackingTest, ThresholdSendsAndDuplicatesStay) {
    for (unsigned long long threshold : {0ULL, 1ULL, 3ULL}) {
        index->updates.clear();
        ZxBlkVhd d("d", "p");
        d.mountComplete = 1;
        d.metadataPhase = 1;
        d.extentFlushThreshold = threshold;
        d.cacheExtent(4);
        d.cacheExtent(4);
        d.cacheExtent(9);
        size_t expectedSends = threshold <= 1 ? 3 : 1;
        ASSERT_EQ(index->updates.size(), expectedSends) << threshold;
        EXPECT_TRUE(d.mountExtentList.empty());
        auto* record = &index->updates.back().listobject(13, 16, 816748524, 6487156)->at(0);
        std::vector<unsigned> expectedLast = threshold <= 1 ? std::vector<unsigned>{9} : std::vector<unsigned>{4, 4, 9};
        EXPECT_EQ(*record->listuint(1, 1, 813757724, 2572008), expectedLast);
    }
}

TEST_F(TrackingTest, MessagesCarryEveryField) {
    ZxBlkVhd d("d", "C:\\vm\\disk.vhd");
    d.scParams.bkpSetId = 1ULL << 31;
    d.scParams.srcClientID = 12;
    d.entityId = 34;
    d.idxKey1 = (1ULL << 32) + 7;
    d.idxKey2 = 0x1FFFFFFFFULL;
    d.mountExtentList = {3, 1, 3};
    zxblk::LogCapture capture;
    ASSERT_FALSE(d.updateExtentFlag(true).IsError());
    ASSERT_EQ(index->initializations.size(), 1u);
    const databrowse::BrowseRequest& b = index->initializations[0];
    EXPECT_EQ(b.family(), 100);
    EXPECT_EQ(b.type(), 92);
    const auto* paths = b.listobject(4, 4, 1682736261, 5775598);
    ASSERT_TRUE(paths && paths->size() == 1);
    EXPECT_EQ((*paths)[0].type(), 3);
    std::string path;
    EXPECT_TRUE((*paths)[0].getstring(1, 1, 1677919727, 3433509, &path));
    EXPECT_EQ(path, "C:/vm/disk.vhd");
    const CNMessageBase* entity = b.getobject(3, 3, 1682736261, 10347491);
    ASSERT_TRUE(entity);
    EXPECT_EQ(entity->family(), 18);
    EXPECT_EQ(entity->type(), 46);
    long long v = 0;
    EXPECT_TRUE(entity->getint64(14, 38, 311168122, 12057227, &v));
    EXPECT_EQ(v, 106);
    EXPECT_TRUE(entity->getint64(8, 20, 311168122, 13699227, &v));
    EXPECT_EQ(v, -(1LL << 31));
    EXPECT_TRUE(entity->getint64(1, 1, 311168122, 1107017, &v));
    EXPECT_EQ(v, 34);
    EXPECT_TRUE(entity->getint64(17, 47, 311168122, 2438726, &v));
    EXPECT_EQ(v, 12);

    ASSERT_EQ(index->updates.size(), 1u);
    const Indexing::IdxLiveUpdateReq& u = index->updates[0];
    EXPECT_EQ(u.family(), 48);
    EXPECT_EQ(u.type(), 122);
    EXPECT_TRUE(u.getint64(1, 1, 816748524, 6074275, &v));
    EXPECT_EQ(v, 6);
    const auto* records = u.listobject(13, 16, 816748524, 6487156);
    ASSERT_TRUE(records && records->size() == 1);
    const CNMessageBase& r = (*records)[0];
    EXPECT_EQ(r.type(), 365);
    EXPECT_TRUE(r.getint64(2, 2, 813757724, 3145580, &v));
    EXPECT_EQ(v, 1);
    EXPECT_TRUE(r.getint64(3, 3, 813757724, 13629847, &v));
    EXPECT_EQ(v, 7);
    EXPECT_TRUE(r.getint64(4, 4, 813757724, 3547112, &v));
    EXPECT_EQ(v, 0xFFFFFFFFLL);
    EXPECT_EQ(*r.listuint(1, 1, 813757724, 2572008), (std::vector<unsigned>{3, 1, 3}));
    EXPECT_TRUE(d.mountExtentList.empty());
    auto lines = capture.texts("ZxBlkVhd::updateExtentFlag");
    EXPECT_EQ(lines.front(), "Updating mount extent flag for 3 extents...");
    EXPECT_TRUE(capture.contains("Included 3 items for metadata MOUNT update"));
    EXPECT_EQ(lines.back(), "Done updating mount extent flag");
}

TEST_F(TrackingTest, FailuresKeepTheCollection) {
    ZxBlkVhd d("d", "p");
    d.mountExtentList = {1, 2};
    index->failInitialize = 1;
    CUxError e = d.updateExtentFlag(false);
    ASSERT_TRUE(e.IsError());
    EXPECT_EQ(e.Win32Code(), 774u);
    EXPECT_NE(e.AsString().find("at zxblk_vhd:566 virtual CUxError ZxBlkVhd::updateExtentFlag(bool) [Failed to initialize browse client]"),
              std::string::npos);
    index->failUpdate = 1;
    e = d.updateExtentFlag(false);
    ASSERT_TRUE(e.IsError());
    EXPECT_NE(e.AsString().find("zxblk_vhd:597"), std::string::npos);
    EXPECT_NE(e.AsString().find("Failed to update index"), std::string::npos);
    EXPECT_EQ(d.mountExtentList, (std::vector<unsigned>{1, 2}));
    d.mountExtentList.push_back(3);
    ASSERT_FALSE(d.updateExtentFlag(false).IsError());
    ASSERT_EQ(index->updates.size(), 1u);
    const CNMessageBase& r = index->updates[0].listobject(13, 16, 816748524, 6487156)->at(0);
    EXPECT_EQ(*r.listuint(1, 1, 813757724, 2572008), (std::vector<unsigned>{1, 2, 3}));
    long long kind = -1;
    r.getint64(2, 2, 813757724, 3145580, &kind);
    EXPECT_EQ(kind, 0);

    d.mountComplete = 1;  // mounted and idle: nothing is sent, the collection stays
    d.mountExtentList = {8};
    EXPECT_FALSE(d.updateExtentFlag(true).IsError());
    EXPECT_EQ(d.mountExtentList, std::vector<unsigned>{8});
}

TEST(DMRMetaData, FormatsTheRecallString) {
    std::string m;
    CreateDMRMetaData(7, 9, "p/Extent0", m);
    EXPECT_EQ(m, "1:2:0:7:9:1:9:p/Extent0");
    CreateDMRMetaData(7, 9, "/v/disk0/Extent12", m);
    EXPECT_EQ(m, "1:2:0:7:9:1:17:/v/disk0/Extent12");
    CreateDMRMetaData(0xFFFFFFFFFFFFFFFFULL, 1ULL << 63, "x", m);
    EXPECT_EQ(m, "1:2:0:-1:-9223372036854775808:1:1:x");
    std::string longPath(5000, 'a');
    CreateDMRMetaData(1, 2, longPath, m);
    EXPECT_EQ(m.size(), 4095u);
    EXPECT_EQ(m.substr(0, 16), "1:2:0:1:2:1:5000");
}

}  // namespace
}  // namespace readtest
