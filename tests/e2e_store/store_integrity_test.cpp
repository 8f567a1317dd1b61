// The store trusts nothing on disk: a catalog that breaks the store's own
// invariants is refused on load (and by import, leaving it as it was), and a
// snapshot file that is not the one its record describes fails the recall
// that opens it, also when it changes after it was opened.
#include <gtest/gtest.h>
#include <xxhash.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <future>
#include <nlohmann/json.hpp>
#include <sstream>

#include "platform/DMRService/RestoreTarget.h"
#include "platform/Log.h"
#include "store/catalog.h"
#include "store/importer.h"
#include "store/storage.h"
#include "store/store_services.h"
#include "store/vhdx_image.h"
#include "store/xxh3.h"
#include "support/vhd_writer.h"

namespace {

using nlohmann::json;

struct NullTarget : CRestoreTarget {
    CUxError Open(void*) override { return CUxError(); }
    CUxError Write(const void*, unsigned) override { return CUxError(); }
    CUxError WriteHole(unsigned) override { return CUxError(); }
    CUxError Flush() override { return CUxError(); }
    CUxError Close(bool) override { return CUxError(); }
    bool Exists() override { return false; }
};

std::string slurp(const std::string& path) {
    std::ostringstream s;
    s << std::ifstream(path, std::ios::binary).rdbuf();
    return s.str();
}

void run(const std::string& command) { ASSERT_EQ(std::system(command.c_str()), 0) << command; }

// A store with disk "d" (a base and two differencing snapshots) and disk "e"
// (another chain of the same size), made once per test; each case works on a
// copy of it.
class StoreIntegrityTest : public testing::Test {
protected:
    void SetUp() override {
        dir = std::string(testing::TempDir()) + "integrity_" + std::to_string(getpid());
        run("rm -rf '" + dir + "' && mkdir -p '" + dir + "/d' '" + dir + "/e'");
        vhdtest::ChainPlan plan;
        plan.size = 4 << 20;
        plan.blockSize = 1 << 20;
        plan.children = 2;
        plan.seed = 61;
        auto d = vhdtest::writeChain(dir + "/d", plan);
        plan.children = 1;
        plan.seed = 62;
        auto e = vhdtest::writeChain(dir + "/e", plan);
        zxblk::importImages(*zxblk::openFolderStorage(dir + "/pristine"), "d", {d[0].vhd, d[1].vhd, d[2].vhd}, zxblk::ImportSettings());
        zxblk::importImages(*zxblk::openFolderStorage(dir + "/pristine"), "e", {e[0].vhd}, zxblk::ImportSettings());
        spare = e[1].vhd;
        store = dir + "/store";
    }
    void TearDown() override { std::system(("rm -rf '" + dir + "'").c_str()); }
    void freshStore() { run("rm -rf '" + store + "' && cp -a '" + dir + "/pristine' '" + store + "'"); }
    json catalog() const { return json::parse(slurp((store + "/catalog.json"))); }
    void putCatalog(const json& j) const { std::ofstream((store + "/catalog.json"), std::ios::trunc) << j.dump(2); }
    // A catalog as written before the per-copy sizes and parent ids were kept.
    static void dropRecordedFields(json& j) {
        for (json& d : j["disks"])
            for (json& c : d["copies"]) c.erase("size"), c.erase("fileSize"), c.erase("parentUniqueId");
    }
    std::string snapshot(const std::string& name) const { return store + "/snapshots/" + name; }

    std::string dir, spare, store;
};

// `f` throws a StoreError whose message starts with `expected`, on one line.
void expectStoreError(const std::function<void()>& f, const std::string& expected, const std::string& what) {
    try {
        f();
        ADD_FAILURE() << what << ": no error";
    } catch (const zxblk::StoreError& e) {
        EXPECT_EQ(std::string(e.what()).find(expected), 0u) << what << ": " << e.what();
        EXPECT_EQ(std::string(e.what()).find('\n'), std::string::npos) << what;
    }
}

TEST_F(StoreIntegrityTest, LoaderRefusesCatalogsThatBreakTheStoresInvariants) {
    const std::pair<std::function<void(json&)>, const char*> cases[] = {  // the edit, the field blamed
        {[](json& j) { j["disks"][1]["copies"] = json::array(); }, "disks[1].copies: "},
        {[](json& j) { j["disks"][1]["name"] = "d"; }, "disks[1].name: "},
        {[](json& j) { j["disks"][1]["diskId"] = j["disks"][0]["diskId"]; }, "disks[1].diskId: "},
        {[](json& j) { j["disks"][1]["copies"][0]["archiveFileId"] = j["disks"][0]["copies"][2]["archiveFileId"]; },
         "disks[1].copies[0].archiveFileId: "},
        {[](json& j) { j["nextArchiveFileId"] = 2; }, "nextArchiveFileId: 2 is not above archive file id 4"},
        {[](json& j) { j["nextDiskId"] = 1; }, "nextDiskId: 1 is not above disk id 2"},
        {[](json& j) { j["disks"][0]["size"] = 8 << 20; }, "disks[0].copies[0].size: "},
        {[](json& j) { j["disks"][0]["copies"].push_back(j["disks"][0]["copies"][2]); }, "disks[0].copies[3].file: "},
        {[](json& j) { j["disks"][1]["copies"][0]["file"] = "snapshots//d-snap0.vhd"; }, "disks[1].copies[0].file: "},
        {[](json& j) { j["disks"][0]["copies"][2]["uniqueId"] = j["disks"][0]["copies"][1]["uniqueId"]; },
         "disks[0].copies[2].uniqueId: "},
        {[](json& j) { j["disks"][0]["copies"][1]["uniqueId"] = "00000000-0000-0000-0000-000000000001"; },
         "disks[0].copies[2].parentUniqueId: "},
        {[](json& j) { j["disks"][1]["copies"][0]["browsePath"] = j["disks"][0]["copies"][0]["browsePath"]; },
         "disks[1].copies[0].browsePath: "},
        {[](json& j) { j["disks"][0]["copies"].erase(0); }, "disks[0].copies[0].type: "},  // a differencing VHD first
        {[](json& j) {  // a full image after a differencing one
             j["disks"][0]["copies"][2]["type"] = zxblk::kTypeDynamic;
             j["disks"][0]["copies"][2]["storedExtentSize"] = 1 << 20;
         },
         "disks[0].copies[2].type: "},
    };
    freshStore();
    const json good = catalog();
    for (const auto& c : cases) {
        json j = good;
        c.first(j);
        putCatalog(j);
        const std::string before = slurp((store + "/catalog.json"));
        const std::string expected = (store + "/catalog.json") + ": " + c.second;
        expectStoreError([&] { zxblk::Catalog::load(*zxblk::openFolderStorage(store)); }, expected, c.second);
        // An import into such a store is refused the same way and leaves it as it was.
        expectStoreError([&] { zxblk::importImages(*zxblk::openFolderStorage(store), "e", {spare}, zxblk::ImportSettings()); }, expected, c.second);
        EXPECT_EQ(slurp((store + "/catalog.json")), before) << c.second;
    }
    // A catalog written before the per-copy records were kept still loads,
    // and a new snapshot can be added to it.
    json old = good;
    dropRecordedFields(old);
    putCatalog(old);
    zxblk::Catalog loaded = zxblk::Catalog::load(*zxblk::openFolderStorage(store));
    zxblk::importImages(*zxblk::openFolderStorage(store), "e", {spare}, zxblk::ImportSettings());
    const zxblk::Catalog after = zxblk::Catalog::load(*zxblk::openFolderStorage(store));
    const zxblk::CopyRecord& added = after.findDisk("e")->copies.at(1);
    EXPECT_EQ(added.parentUniqueId, loaded.findDisk("e")->copies.at(0).uniqueId);
    EXPECT_EQ(added.size, 4u << 20);
}

TEST_F(StoreIntegrityTest, NewIdsAreAboveEveryIdInUseWhateverTheCounters) {
    freshStore();
    zxblk::Catalog c = zxblk::Catalog::load(*zxblk::openFolderStorage(store));
    c.nextArchiveFileId = 1;  // as a catalog edited by hand, or restored from an old copy, may say
    c.nextDiskId = 1;
    EXPECT_EQ(c.takeArchiveFileId(), 5u);  // four copies, ids 1 to 4
    EXPECT_EQ(c.takeArchiveFileId(), 6u);
    EXPECT_EQ(c.takeDiskId(), 3u);
    c.nextArchiveFileId = 40;
    EXPECT_EQ(c.takeArchiveFileId(), 40u);  // a counter ahead of the ids is kept
}

TEST_F(StoreIntegrityTest, RecallRefusesASnapshotFileThatIsNotItsRecord) {
    auto swap = [this](const char* a, const char* b) {
        return [this, a, b] { run("cd '" + store + "/snapshots' && mv " + a + " x && mv " + b + " " + a + " && mv x " + b); };
    };
    auto copy = [this](const char* from, const char* to) {
        return [this, from, to] { run("cp '" + snapshot(from) + "' '" + snapshot(to) + "'"); };
    };
    auto edit = [this](std::function<void(json&)> f) {
        return [this, f] {
            json j = catalog();
            dropRecordedFields(j);  // a catalog that cannot tell by itself
            f(j);
            putCatalog(j);
        };
    };
    const struct {
        bool editsCatalog;  // the services are opened after the change, not before
        std::function<void()> change;
        const char* file;  // the snapshot file whose recall fails, named in the error
        const char* field;
    } cases[] = {
        {false, copy("d-snap1.vhd", "d-snap2.vhd"), "d-snap2.vhd", "unique id: "},  // replaced by its parent
        {false, swap("d-snap1.vhd", "d-snap2.vhd"), "d-snap2.vhd", "unique id: "},
        {false, copy("e-snap0.vhd", "d-snap0.vhd"), "d-snap0.vhd", "unique id: "},  // another disk's file
        {false, [this] { run("tail -c 512 '" + snapshot("d-snap2.vhd") + "' >>'" + snapshot("d-snap2.vhd") + "'"); },
         "d-snap2.vhd", "file size: "},
        {true, edit([](json& j) { j["disks"][0]["size"] = 8 << 20; }), "d-snap2.vhd",
         "current size: the catalog records 8388608 bytes, the file has 4194304 bytes"},
        {true, edit([](json& j) { j["disks"][0]["copies"][2]["uniqueId"] = "00000000-0000-0000-0000-000000000001"; }),
         "d-snap2.vhd", "unique id: the catalog records 00000000-0000-0000-0000-000000000001, the file has "},
        {true, edit([](json& j) { j["disks"][0]["copies"][0]["uniqueId"] = "00000000-0000-0000-0000-000000000002"; }),
         "d-snap1.vhd", "parent unique id: the catalog records 00000000-0000-0000-0000-000000000002"},
    };
    zxblk::LogCapture log;
    for (const auto& c : cases) {
        freshStore();
        const std::string file = c.file, expected = snapshot(c.file) + ": " + c.field;
        const std::string path = "/localhost/default/" + file.substr(0, 1) + "/snap" + file.substr(6, 1);
        SCOPED_TRACE(expected);
        auto services = zxblk::StoreServices::open(zxblk::openFolderStorage(store));
        // Every file opened and checked, and a recall of the copy prepared, before the change.
        unsigned long long first = 0, second = 0, k = 0;
        for (const char* p : {"/localhost/default/d/snap0", "/localhost/default/d/snap1", "/localhost/default/d/snap2"})
            ASSERT_LE(services->lookup(SCParams(), p, 0, first, second), 1);
        while (services->lookup(SCParams(), path, k, first, second) == 1) ++k;
        ASSERT_LT(k, 4u) << "no extent of " << path << " is held";
        c.change();
        if (c.editsCatalog) services = zxblk::StoreServices::open(zxblk::openFolderStorage(store));
        log.clear();
        unsigned long long f2, s2;
        EXPECT_EQ(services->lookup(SCParams(), path, k, f2, s2), 3);
        bool named = false;
        for (const zxblk::LogLine& l : log.lines()) named = named || l.text.find(expected) != std::string::npos;
        EXPECT_TRUE(named) << "no log line with " << expected;

        // The restore service refuses the recall itself, with the same line.
        const std::string extent = path + "/Extent" + std::to_string(k);
        std::promise<DMRestoreCompleted_t> done;
        zxblk::RecallJob job;
        job.srcPath = "1:2:0:" + std::to_string(first) + ":" + std::to_string(second) + ":1:" +
                      std::to_string(extent.size()) + ":" + extent;
        job.target = boost::shared_ptr<NullTarget>(new NullTarget());
        job.callback = [](void* ctx, DMRestoreCompleted_t* d) { static_cast<std::promise<DMRestoreCompleted_t>*>(ctx)->set_value(*d); };
        job.context = &done;
        std::string why;
        ASSERT_TRUE(services->submit(job, why)) << why;
        DMRestoreCompleted_t result = done.get_future().get();
        EXPECT_NE(result.status, 0);
        EXPECT_EQ(result.error.find(expected), 0u) << result.error;
    }
}

}  // namespace

// The VHDX checksum against the published CRC-32C check values (RFC 3720
// B.4 and the usual "123456789"), whole and fed in pieces of odd lengths as
// the reader feeds a header around its own checksum field.
TEST(VhdxChecksum, MatchesPublishedValuesWholeAndInPieces) {
    std::string ascending, descending;
    for (int i = 0; i < 32; ++i) ascending += char(i), descending += char(31 - i);
    const std::pair<std::string, uint32_t> cases[] = {{std::string(32, '\0'), 0x8A9136AAu},
                                                      {std::string(32, '\xFF'), 0x62A8AB43u},
                                                      {ascending, 0x46DD794Eu},
                                                      {descending, 0x113FDB5Cu},
                                                      {"123456789", 0xE3069283u}};
    for (const auto& [text, want] : cases) {
        const auto* p = reinterpret_cast<const uint8_t*>(text.data());
        EXPECT_EQ(zxblk::crc32c(p, text.size()), want) << text.size();
        for (size_t cut : {1, 3, 7, 9}) {
            if (cut >= text.size()) continue;
            EXPECT_EQ(zxblk::crc32c(p + cut, text.size() - cut, zxblk::crc32c(p, cut)), want) << cut;
        }
    }
}

// The block checksums against the shared library's XXH3 (built for any
// x86-64, so a different code path from the AVX2 one where that is used),
// over lengths on either side of each of its internal boundaries, whole and
// fed in pieces of odd sizes.
TEST(BlockChecksum, MatchesTheReferenceLibraryWholeAndInPieces) {
    EXPECT_EQ(zxblk::xxh3("", 0), 0x2D06800538D394C2ull);  // the published sum of no bytes
    std::vector<uint8_t> bytes((1u << 20) + 4099);
    uint64_t x = 88172645463325252ull;
    for (uint8_t& b : bytes) x ^= x << 13, x ^= x >> 7, x ^= x << 17, b = static_cast<uint8_t>(x);
    for (size_t length : {size_t(1), size_t(3), size_t(16), size_t(17), size_t(128), size_t(129), size_t(240), size_t(241),
                          size_t(1024), size_t(1025), size_t(65536 + 63), bytes.size()}) {
        const uint64_t want = XXH3_64bits(bytes.data(), length);
        EXPECT_EQ(zxblk::xxh3(bytes.data(), length), want) << length;
        for (size_t piece : {size_t(1), size_t(7), size_t(255), size_t(1027), size_t(65536)}) {
            if (piece >= length || length / piece > 5000) continue;
            zxblk::Xxh3Stream stream;
            for (size_t at = 0; at < length; at += piece) stream.update(bytes.data() + at, std::min(piece, length - at));
            EXPECT_EQ(stream.digest(), want) << length << " in pieces of " << piece;
            stream.reset();
            stream.update(bytes.data(), length);
            EXPECT_EQ(stream.digest(), want) << length << " after reset";
        }
    }
}
