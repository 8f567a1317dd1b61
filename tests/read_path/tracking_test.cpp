#include "read_path/read_fixture.h"

namespace readtest {
namespace {

class TrackingTest : public ReadPathTest {
protected:
    void SetUp() override {
        ReadPathTest::SetUp();
        index = std::make_shared<zxtest::RecordingIndexService>();
        zxtest::useIndex(index);
    }
    void TearDown() override {
        zxtest::useIndex(nullptr);
        ReadPathTest::TearDown();
    }
    void configure(const char* text) {
        std::ofstream(config) << "[VirtualServer]\n" << text;
        ZXPlatformInfo::Reload();
    }
    // The extent record of update `i`, and its extent list.
    const CNMessageBase& record(size_t i) { return index->updates.at(i).listobject(13, 16, 816748524, 6487156)->at(0); }
    static std::vector<unsigned> extentsOf(const CNMessageBase& r) { return *r.listuint(1, 1, 813757724, 2572008); }
    static long long int64(const CNMessageBase& m, int a, int b, int c, int d) {
        long long v = -12345;
        EXPECT_TRUE(m.getint64(a, b, c, d, &v));
        return v;
    }
    std::shared_ptr<zxtest::RecordingIndexService> index;
};

TEST_F(TrackingTest, PhaseAndSwitchMatrix) {
    const std::string on = "bEnableMetadataRestoreOptimization=true\n";
    const struct {
        std::string config;
        unsigned char mountComplete, metadataPhase;
        bool collected;
    } cases[] = {
        {"", 0, 0, false},  // master switch off: nothing is ever collected
        {on, 0, 0, true},
        {on + "bIdentifyFSMetadataDuringMount=false\n", 0, 0, true},  // CI alone still collects while mounting
        {on + "bIdentifyFSMetadataDuringMount=false\nbIdentifyFSMetadataDuringCI=false\n", 0, 0, false},
        {on, 1, 0, false},  // mounted and idle
        {on, 1, 1, true},
        {on + "bIdentifyFSMetadataDuringCI=false\n", 1, 1, false},
    };
    for (const auto& c : cases) {
        configure(c.config.c_str());
        ZxBlkVhd d("d", "p");
        d.mountComplete = c.mountComplete;
        d.metadataPhase = c.metadataPhase;
        d.extentFlushThreshold = 1000;
        d.cacheExtent(5);
        EXPECT_EQ(d.mountExtentList.size(), c.collected ? 1u : 0u) << c.config << int(c.mountComplete) << int(c.metadataPhase);
    }
    configure("");
    ZxBlkVhd off("d", "p");
    EXPECT_FALSE(off.updateExtentFlag(true).IsError());
    EXPECT_TRUE(index->updates.empty());
}

TEST_F(TrackingTest, ThresholdSendsAndDuplicatesStay) {
    for (unsigned long long threshold : {0ULL, 1ULL, 3ULL}) {
        index->updates.clear();
        ZxBlkVhd d("d", "p");
        d.mountComplete = 1;
        d.metadataPhase = 1;
        d.extentFlushThreshold = threshold;
        for (unsigned e : {4, 4, 9}) d.cacheExtent(e);
        ASSERT_EQ(index->updates.size(), threshold <= 1 ? 3u : 1u) << threshold;
        EXPECT_TRUE(d.mountExtentList.empty());
        EXPECT_EQ(extentsOf(record(index->updates.size() - 1)),
                  threshold <= 1 ? std::vector<unsigned>{9} : (std::vector<unsigned>{4, 4, 9}));
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
    ASSERT_FALSE(d.updateExtentFlag(true).IsError());
    ASSERT_EQ(index->initializations.size(), 1u);
    const databrowse::BrowseRequest& b = index->initializations[0];
    const auto* paths = b.listobject(4, 4, 1682736261, 5775598);
    ASSERT_TRUE(paths && paths->size() == 1);
    std::string path;
    EXPECT_TRUE((*paths)[0].getstring(1, 1, 1677919727, 3433509, &path));
    EXPECT_EQ(path, "C:/vm/disk.vhd");
    const CNMessageBase* entity = b.getobject(3, 3, 1682736261, 10347491);
    ASSERT_TRUE(entity);
    EXPECT_EQ(int64(*entity, 8, 20, 311168122, 13699227), -(1LL << 31));  // the backup set id as 32 signed bits
    EXPECT_EQ(int64(*entity, 1, 1, 311168122, 1107017), 34);
    EXPECT_EQ(int64(*entity, 17, 47, 311168122, 2438726), 12);

    ASSERT_EQ(index->updates.size(), 1u);
    const CNMessageBase& r = record(0);
    EXPECT_EQ(int64(r, 2, 2, 813757724, 3145580), 1);  // mount, not metadata
    EXPECT_EQ(int64(r, 3, 3, 813757724, 13629847), 7);  // the keys as 32 bits
    EXPECT_EQ(int64(r, 4, 4, 813757724, 3547112), 0xFFFFFFFFLL);
    EXPECT_EQ(extentsOf(r), (std::vector<unsigned>{3, 1, 3}));
    EXPECT_TRUE(d.mountExtentList.empty());
}

TEST_F(TrackingTest, FailuresKeepTheCollection) {
    ZxBlkVhd d("d", "p");
    d.mountExtentList = {1, 2};
    index->failInitialize = 1;
    CUxError e = d.updateExtentFlag(false);
    ASSERT_TRUE(e.IsError());
    EXPECT_EQ(e.Win32Code(), 774u);
    index->failUpdate = 1;
    e = d.updateExtentFlag(false);
    ASSERT_TRUE(e.IsError());
    EXPECT_NE(e.AsString().find("Failed to update index"), std::string::npos);
    EXPECT_EQ(d.mountExtentList, (std::vector<unsigned>{1, 2}));
    d.mountExtentList.push_back(3);
    ASSERT_FALSE(d.updateExtentFlag(false).IsError());
    ASSERT_EQ(index->updates.size(), 1u);
    EXPECT_EQ(extentsOf(record(0)), (std::vector<unsigned>{1, 2, 3}));
    EXPECT_EQ(int64(record(0), 2, 2, 813757724, 3145580), 0);  // metadata

    d.mountComplete = 1;  // mounted and idle: nothing is sent, the collection stays
    d.mountExtentList = {8};
    EXPECT_FALSE(d.updateExtentFlag(true).IsError());
    EXPECT_EQ(d.mountExtentList, std::vector<unsigned>{8});
}

TEST(DMRMetaData, FormatsTheRecallString) {
    std::string m;
    CreateDMRMetaData(7, 9, "/v/disk0/Extent12", m);
    EXPECT_EQ(m, "1:2:0:7:9:1:17:/v/disk0/Extent12");
    CreateDMRMetaData(0xFFFFFFFFFFFFFFFFULL, 1ULL << 63, "x", m);
    EXPECT_EQ(m, "1:2:0:-1:-9223372036854775808:1:1:x");
    CreateDMRMetaData(1, 2, std::string(5000, 'a'), m);
    EXPECT_EQ(m.size(), 4095u);
    EXPECT_EQ(m.substr(0, 16), "1:2:0:1:2:1:5000");
}

}  // namespace
}  // namespace readtest
