#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <map>
#include <set>
#include <thread>

#include "platform/IdxBrowseClient.h"
#include "platform/ZxBlkBackingStore.h"
#include "support_services/test_services.h"

namespace {

bool has(const CUxError& e, const std::string& text) { return e.AsString().find(text) != std::string::npos; }

class BackingStoreTest : public testing::Test {
protected:
    void SetUp() override {
        dir = std::string(testing::TempDir()) + "bstore_" + std::to_string(getpid()) + "_" +
              testing::UnitTest::GetInstance()->current_test_info()->name();
        std::system(("rm -rf '" + dir + "'").c_str());
    }
    void TearDown() override { std::system(("rm -rf '" + dir + "'").c_str()); }
    std::string makeTemp(ZxBlkBackingStore& s, size_t size, char fill) {
        std::string path;
        FILE* f = nullptr;
        EXPECT_FALSE(s.openTempFile(&path, &f).IsError());
        std::string bytes(size, fill);
        fwrite(bytes.data(), 1, size, f);
        fclose(f);
        return path;
    }
    static std::string slurp(const std::string& p) {
        std::ifstream in(p, std::ios::binary);
        return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    }
    std::string dir;
};

TEST_F(BackingStoreTest, FanOutNames) {
    ZxBlkBackingStore s(dir, 0);
    std::set<std::string> names;
    std::map<std::string, int> perFolder;
    int most = 0;
    for (long long n = 0; n < 1000000; ++n) {
        std::string name = s.extentPath(n);
        if (n % 101 == 0 && !names.insert(name).second) ADD_FAILURE() << "two extents named " << name;
        most = std::max(most, ++perFolder[name.substr(0, name.rfind('/'))]);
    }
    EXPECT_LE(most, 256);  // a million extents: no folder holds more than 256 files
    std::string name;
    EXPECT_TRUE(s.getExtentFileName(-1, &name).IsError());
    s.getExtentFileName(0x12345, &name);
    EXPECT_EQ(name, dir + "/extents/01/23/0000000000012345.ext");
}

TEST_F(BackingStoreTest, MoveInCapacityReplaceAndRestart) {
    {
        ZxBlkBackingStore s(dir, 3000);
        std::string a = makeTemp(s, 1000, 'a');
        EXPECT_EQ(a.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._/-"), std::string::npos);
        ASSERT_FALSE(s.moveInExtentFile(a, 1).IsError());
        EXPECT_EQ(access(a.c_str(), F_OK), -1);
        ASSERT_FALSE(s.moveInExtentFile(makeTemp(s, 1500, 'b'), 2).IsError());
        EXPECT_EQ(s.usedBytes(), 2500u);
        std::string c = makeTemp(s, 1000, 'c');
        EXPECT_TRUE(has(s.moveInExtentFile(c, 3), "cache full"));
        EXPECT_EQ(slurp(c), std::string(1000, 'c'));  // the temporary file stays
        EXPECT_FALSE(s.hasExtent(3));
        EXPECT_EQ(s.usedBytes(), 2500u);
        // Replacing extent 1 with a larger file fits: 1500 + 1500.
        std::string a2 = makeTemp(s, 1500, 'A');
        ASSERT_FALSE(s.moveInExtentFile(a2, 1).IsError());
        EXPECT_EQ(slurp(s.extentPath(1)), std::string(1500, 'A'));
        EXPECT_EQ(s.usedBytes(), 3000u);
        EXPECT_TRUE(s.moveInExtentFile("", 4).IsError());
        EXPECT_TRUE(s.moveInExtentFile(dir + "/nothing", 4).IsError());
        EXPECT_TRUE(s.makeParentDir("").IsError());
    }
    ZxBlkBackingStore again(dir, 0);  // a restart finds what is there
    EXPECT_EQ(again.extents(), (std::vector<long long>{1, 2}));
    EXPECT_EQ(again.usedBytes(), 3000u);
    again.clearTemporaries();
    EXPECT_EQ(rmdir((dir + "/tmp").c_str()), 0);  // only an empty folder can be removed
    ASSERT_FALSE(again.removeExtent(2).IsError());
    EXPECT_EQ(again.usedBytes(), 1500u);
}

// A known extent size refuses files of any other size (a failed recall may
// have emptied its file); reserved space that was never written is given
// back at move-in, written blocks stay; a folder removed behind the store's
// back is made again.
TEST_F(BackingStoreTest, MoveInChecksSizeAndGivesBackUnwrittenSpace) {
    const off_t E = 1 << 20;
    ZxBlkBackingStore s(dir, 0);
    s.setExtentSize(E);
    std::string empty = makeTemp(s, 0, 'x');
    EXPECT_TRUE(has(s.moveInExtentFile(empty, 1), "temporary file " + empty + " holds 0 bytes, not the extent size"));
    EXPECT_EQ(access(empty.c_str(), F_OK), 0);
    EXPECT_FALSE(s.hasExtent(1));

    // Reserved throughout, one stretch written in the middle: the blocks of
    // that stretch are all that is left.
    std::string temp = makeTemp(s, 0, 'x');
    int fd = open(temp.c_str(), O_RDWR);
    ASSERT_EQ(fallocate(fd, 0, 0, E), 0);
    std::string middle(8192, 'm');
    ASSERT_EQ(pwrite(fd, middle.data(), middle.size(), 40960), 8192);
    close(fd);
    std::system(("rm -rf '" + dir + "/extents'").c_str());
    ASSERT_FALSE(s.moveInExtentFile(temp, 1).IsError());
    std::string expected(E, '\0');
    expected.replace(40960, middle.size(), middle);
    EXPECT_TRUE(slurp(s.extentPath(1)) == expected);
    fd = open(s.extentPath(1).c_str(), O_RDONLY);
    EXPECT_EQ(lseek(fd, 0, SEEK_DATA), 40960);
    EXPECT_EQ(lseek(fd, 40960, SEEK_HOLE), 40960 + 8192);
    EXPECT_EQ(lseek(fd, 40960 + 8192, SEEK_DATA), -1);
    struct stat st;
    fstat(fd, &st);
    EXPECT_EQ(st.st_blocks * 512, 8192);
    close(fd);
}

// An extent file recycled comes back as the next temporary, reading as zeros
// of the extent size whatever it held, and moves in as another extent. A few
// are kept at a time, and none by a store that does not know its extent size.
TEST_F(BackingStoreTest, RecycledExtentFilesComeBackZeroed) {
    const size_t E = 1 << 16;
    auto inode = [](const std::string& p) {
        struct stat st;
        return stat(p.c_str(), &st) == 0 ? st.st_ino : 0;
    };
    auto temporaries = [&] {
        size_t n = 0;
        for (DIR* d = opendir((dir + "/tmp").c_str()); d;) {
            struct dirent* e = readdir(d);
            if (!e) {
                closedir(d);
                break;
            }
            n += e->d_name[0] != '.';
        }
        return n;
    };
    {
        ZxBlkBackingStore unsized(dir, 0);
        ASSERT_FALSE(unsized.moveInExtentFile(makeTemp(unsized, E, 'x'), 1).IsError());
        ASSERT_FALSE(unsized.recycleExtentFile(1).IsError());
        EXPECT_EQ(temporaries(), 0u);
    }
    ZxBlkBackingStore s(dir, 0);
    s.setExtentSize(E);
    ASSERT_FALSE(s.moveInExtentFile(makeTemp(s, E, 'a'), 1).IsError());
    const ino_t was = inode(s.extentPath(1));
    ASSERT_FALSE(s.recycleExtentFile(1).IsError());
    EXPECT_EQ(access(s.extentPath(1).c_str(), F_OK), -1);
    std::string temp = makeTemp(s, 100, 'b');
    EXPECT_EQ(inode(temp), was);
    ASSERT_FALSE(s.moveInExtentFile(temp, 2).IsError());
    EXPECT_TRUE(slurp(s.extentPath(2)) == std::string(100, 'b') + std::string(E - 100, '\0'));
    for (long long n = 10; n < 20; ++n) ASSERT_FALSE(s.moveInExtentFile(makeTemp(s, E, 'c'), n).IsError());
    for (long long n = 10; n < 20; ++n) ASSERT_FALSE(s.recycleExtentFile(n).IsError());
    EXPECT_EQ(temporaries(), 8u);
    s.clearTemporaries();
    EXPECT_EQ(temporaries(), 0u);
    EXPECT_TRUE(slurp(makeTemp(s, 0, 'd')).empty());  // none left: a new, empty file
}

TEST_F(BackingStoreTest, FullStoreAsksItsEvictionHandlerWhileItFreesRoom) {
    ZxBlkBackingStore s(dir, 3000);
    std::vector<unsigned long long> asked;
    std::vector<long long> victims = {1};
    s.setEvictionHandler([&](unsigned long long need) {
        asked.push_back(need);
        unsigned long long freed = 0;
        for (long long v : victims) freed += s.extentFileSize(v), s.removeExtent(v);  // the handler calls back into the store
        victims.clear();
        return freed;
    });
    ASSERT_FALSE(s.moveInExtentFile(makeTemp(s, 1000, 'a'), 1).IsError());
    ASSERT_FALSE(s.moveInExtentFile(makeTemp(s, 1500, 'b'), 2).IsError());
    EXPECT_TRUE(asked.empty());
    // 2500 + 1000 passes 3000 by 500: the handler frees extent 1 and the move-in goes through.
    ASSERT_FALSE(s.moveInExtentFile(makeTemp(s, 1000, 'c'), 3).IsError());
    EXPECT_EQ(asked, (std::vector<unsigned long long>{500}));
    EXPECT_EQ(s.extents(), (std::vector<long long>{2, 3}));
    EXPECT_EQ(slurp(s.extentPath(3)), std::string(1000, 'c'));
    // A handler that frees nothing: asked once more only after it freed room, then "cache full".
    std::string d = makeTemp(s, 1000, 'd');
    EXPECT_TRUE(has(s.moveInExtentFile(d, 4), "cache full"));
    EXPECT_EQ(asked, (std::vector<unsigned long long>{500, 500}));
    EXPECT_EQ(slurp(d), std::string(1000, 'd'));
    EXPECT_EQ(s.usedBytes(), 2500u);
}

TEST_F(BackingStoreTest, ReadersNeverSeePartialExtents) {
    ZxBlkBackingStore s(dir, 0);
    std::atomic<bool> stop{false};
    std::atomic<int> partial{0}, seen{0};
    std::thread reader([&] {
        while (!stop) {
            std::string bytes = slurp(s.extentPath(7));
            if (!bytes.empty()) {
                ++seen;
                if (bytes.size() != 65536 || bytes.find_first_not_of(bytes[0]) != std::string::npos) ++partial;
            }
        }
    });
    for (int i = 0; i < 200; ++i) ASSERT_FALSE(s.moveInExtentFile(makeTemp(s, 65536, char('a' + i % 26)), 7).IsError());
    stop = true;
    reader.join();
    EXPECT_EQ(partial, 0);
    EXPECT_GT(seen, 0);
}

TEST(IndexClient, InitializeUpdateAndFailures) {
    IdxBrowseClient none;
    databrowse::BrowseRequest req;
    req.setstring(1, 1, 2, 3, "x");
    EXPECT_NE(none.Initialize(req, nullptr, 2000, nullptr, nullptr), 0);  // no service
    auto index = std::make_shared<zxtest::RecordingIndexService>();
    zxtest::useIndex(index);
    IdxBrowseClient client;
    Indexing::IdxLiveUpdateReq update;
    databrowse::BrowseResponse response;
    EXPECT_NE(client.UpdateIndex(update, response), 0);  // not initialized
    EXPECT_EQ(client.Initialize(req, nullptr, 2000, nullptr, nullptr), 0);
    EXPECT_EQ(client.UpdateIndex(update, response), 0);
    EXPECT_EQ(index->updates.size(), 1u);
    zxtest::useIndex(nullptr);
}

TEST(Messages, FieldsReadBackAndCopiesAreDeep) {
    Indexing::IdxLiveUpdateReq a;
    a.setint64(1, 1, 816748524, 6074275, 6);
    Indexing::IdxLiveUpdateExtent rec;
    rec.getlistuint(1, 1, 813757724, 2572008, true)->push_back(9);
    a.getlistobject(13, 16, 816748524, 6487156, true)->push_back(rec);
    Indexing::IdxLiveUpdateReq b = a;
    b.getlistobject(13, 16, 816748524, 6487156, true)->at(0).getlistuint(1, 1, 813757724, 2572008, true)->push_back(10);
    EXPECT_EQ(a.listobject(13, 16, 816748524, 6487156)->at(0).listuint(1, 1, 813757724, 2572008)->size(), 1u);
    EXPECT_EQ(b.listobject(13, 16, 816748524, 6487156)->at(0).listuint(1, 1, 813757724, 2572008)->size(), 2u);
    EXPECT_EQ(a.getlistobject(99, 99, 1, 1, false), nullptr);  // counting does not create
    EXPECT_EQ(a.getObjectAccessor(99, 99, 1, 1, false, true, 0, 0), nullptr);
    std::string text;
    a.serialize(text, false);
    EXPECT_EQ(text,
              "{\"message\":[48,122],\"fields\":[{\"id\":[1,1],\"key\":[816748524,6074275],\"int64\":6},"
              "{\"id\":[13,16],\"key\":[816748524,6487156],\"objects\":[{\"message\":[48,365],\"fields\":["
              "{\"id\":[1,1],\"key\":[813757724,2572008],\"uints\":[9]}]}]}]}");
}

}  // namespace
