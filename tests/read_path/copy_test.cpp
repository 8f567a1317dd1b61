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
    unsigned char* buf = new unsigned char(0);
    ASSERT_TRUE(disk->copyDataToBuffer(path, 0, &len, &buf, true, true));
    EXPECT_EQ(len, 2048);
    EXPECT_EQ(Bytes(buf, buf + 2048), sample());
    for (int s = 0; s < 4; ++s) EXPECT_EQ(disk->holeBitmap[s], 0);  // untouched by a direct read
    delete[] buf;

    // Sector mode marks the zero sectors as holes.
    buf = new unsigned char(0);
    ASSERT_TRUE(disk->copyDataToBuffer(path, 0, &len, &buf, true, false));
    EXPECT_EQ(Bytes(buf, buf + 2048), sample());
    EXPECT_EQ(Bytes(disk->holeBitmap, disk->holeBitmap + 4), (Bytes{0, 1, 0, 1}));
    delete[] buf;

    // An all-zero file: a zero buffer and every flag set; an empty file: length 0.
    write(Bytes(1024, 0));
    buf = new unsigned char(0);
    ASSERT_TRUE(disk->copyDataToBuffer(path, 2048, &len, &buf, true, false));
    EXPECT_EQ(Bytes(buf, buf + 1024), Bytes(1024, 0));
    EXPECT_EQ(disk->holeBitmap[4], 1);
    EXPECT_EQ(disk->holeBitmap[5], 1);
    delete[] buf;
    write(Bytes());
    buf = new unsigned char(0);
    ASSERT_TRUE(disk->copyDataToBuffer(path, 0, &len, &buf, true, false));
    EXPECT_EQ(len, 0);
    delete[] buf;
}

TEST_F(CopyTest, MergeFillsOnlyFlaggedHoles) {
    write(sample());
    Bytes mine(2048, 0xAA);
    long len = 2048;
    unsigned char* buf = mine.data();
    std::memset(disk->holeBitmap, 0, disk->bitmapSize);
    ASSERT_TRUE(disk->copyDataToBuffer(path, 0, &len, &buf, false, false));
    EXPECT_EQ(mine, Bytes(2048, 0xAA));  // no flag set: nothing changes

    disk->holeBitmap[0] = 1;  // file sector has data: taken, flag cleared
    disk->holeBitmap[1] = 1;  // file sector is zero: left alone, still flagged
    ASSERT_TRUE(disk->copyDataToBuffer(path, 0, &len, &buf, false, false));
    Bytes expected(2048, 0xAA);
    std::fill(expected.begin(), expected.begin() + 512, 0x11);
    EXPECT_EQ(mine, expected);
    EXPECT_EQ(Bytes(disk->holeBitmap, disk->holeBitmap + 4), (Bytes{0, 1, 0, 0}));

    // offset 4096 uses flag 8 for the buffer's first sector.
    disk->holeBitmap[8] = 1;
    len = 512;
    ASSERT_TRUE(disk->copyDataToBuffer(path, 4096, &len, &buf, false, false));
    EXPECT_EQ(disk->holeBitmap[8], 0);
}

TEST_F(CopyTest, ShortFilesAndBadRanges) {
    write(Bytes(1000, 5));
    Bytes mine(2048, 0);
    unsigned char* buf = mine.data();
    long len = 2048;
    zxblk::LogCapture capture;
    EXPECT_FALSE(disk->copyDataToBuffer(path, 0, &len, &buf, false, true));
    EXPECT_FALSE(disk->copyDataToBuffer(path, 0, &len, &buf, false, false));
    auto lines = capture.texts("ZxBlkVhd::copyDataToBuffer");
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].rfind("Vhd restore file " + path + " read failed @ 0 : ", 0), 0u);
    EXPECT_FALSE(disk->copyDataToBuffer(path + ".none", 0, &len, &buf, false, false));
    EXPECT_TRUE(capture.contains("Failed to open file" + path + ".none"));
    len = 700;  // not whole sectors
    EXPECT_FALSE(disk->copyDataToBuffer(path, 0, &len, &buf, false, false));
    len = 1024;  // past the 16 sectors of the extent
    EXPECT_FALSE(disk->copyDataToBuffer(path, 7680, &len, &buf, false, false));
}

}  // namespace
}  // namespace readtest
