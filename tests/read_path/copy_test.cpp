#include "read_path/read_fixture.h"

namespace readtest {
namespace {

class CopyTest : public testing::Test {
protected:
    void SetUp() override {
        path = std::string(testing::TempDir()) + "copy_" + std::to_string(getpid());
        disk.reset(new ZxBlkVhd("d", "p"));
        disk->setDiskParams(8192, 0, 512, "id");  // 16 sectors
    }
    void TearDown() override { unlink(path.c_str()); }
    void write(const Bytes& b) { std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(b.data()), b.size()); }
    // The file from `offset`, its size taken from the file (the call allocates the buffer).
    Bytes load(long long offset, bool direct, long& len) {
        unsigned char* buf = new unsigned char(0);
        EXPECT_TRUE(disk->copyDataToBuffer(path, offset, &len, &buf, true, direct));
        Bytes out(buf, buf + len);
        delete[] buf;
        return out;
    }
    Bytes flags(size_t from, size_t n) { return Bytes(disk->holeBitmap + from, disk->holeBitmap + from + n); }
    std::string path;
    std::unique_ptr<ZxBlkVhd> disk;
};

// Four sectors: data, zero, data, zero.
Bytes sample() {
    Bytes b(2048, 0);
    std::fill(b.begin(), b.begin() + 512, 0x11);
    std::fill(b.begin() + 1024, b.begin() + 1536, 0x33);
    return b;
}

TEST_F(CopyTest, LoadWholeFile) {
    write(sample());
    long len = 1;
    EXPECT_EQ(load(0, true, len), sample());
    EXPECT_EQ(flags(0, 4), Bytes(4, 0));  // untouched by a direct read
    EXPECT_EQ(load(0, false, len), sample());
    EXPECT_EQ(flags(0, 4), (Bytes{0, 1, 0, 1}));  // sector mode marks the zero sectors as holes
    write(Bytes(1024, 0));
    EXPECT_EQ(load(2048, false, len), Bytes(1024, 0));
    EXPECT_EQ(flags(4, 2), (Bytes{1, 1}));
    write(Bytes());
    EXPECT_EQ(load(0, false, len).size(), 0u);
}

TEST_F(CopyTest, MergeFillsOnlyFlaggedHoles) {
    write(sample());
    Bytes mine(2048, 0xAA), expected = mine;
    long len = 2048;
    unsigned char* buf = mine.data();
    std::memset(disk->holeBitmap, 0, disk->bitmapSize);
    ASSERT_TRUE(disk->copyDataToBuffer(path, 0, &len, &buf, false, false));
    EXPECT_EQ(mine, expected);  // no flag set: nothing changes

    disk->holeBitmap[0] = 1;  // file sector has data: taken, flag cleared
    disk->holeBitmap[1] = 1;  // file sector is zero: left alone, still flagged
    ASSERT_TRUE(disk->copyDataToBuffer(path, 0, &len, &buf, false, false));
    std::fill(expected.begin(), expected.begin() + 512, 0x11);
    EXPECT_EQ(mine, expected);
    EXPECT_EQ(flags(0, 4), (Bytes{0, 1, 0, 0}));

    disk->holeBitmap[8] = 1;  // offset 4096 uses flag 8 for the buffer's first sector
    len = 512;
    ASSERT_TRUE(disk->copyDataToBuffer(path, 4096, &len, &buf, false, false));
    EXPECT_EQ(disk->holeBitmap[8], 0);
}

TEST_F(CopyTest, ShortFilesAndBadRanges) {
    write(Bytes(1000, 5));
    Bytes mine(2048, 0);
    unsigned char* buf = mine.data();
    const struct {
        std::string file;
        long long offset;
        long len;
        bool direct;
    } cases[] = {
        {path, 0, 2048, true}, {path, 0, 2048, false},  // the file is short
        {path + ".none", 0, 2048, false},              // no such file
        {path, 0, 700, false},                          // not whole sectors
        {path, 7680, 1024, false},                      // past the 16 sectors of the extent
    };
    for (const auto& c : cases) {
        long len = c.len;
        EXPECT_FALSE(disk->copyDataToBuffer(c.file, c.offset, &len, &buf, false, c.direct)) << c.file << " " << c.offset;
    }
}

}  // namespace
}  // namespace readtest
