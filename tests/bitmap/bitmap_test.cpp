#include <gtest/gtest.h>

#include <random>
#include <thread>
#include <vector>

#include "bitmap/BitmapInfo.h"
#include "bitmap/StateBitmapInfo.h"
#include "platform/Log.h"

namespace {

// Reads the storage back through the public interface, byte by byte.
std::vector<uint8_t> bytesOf(CBitmapInfo& b) {
    std::vector<uint8_t> out(b.Size());
    for (size_t i = 0; i < out.size() * 8; ++i)
        if (b.IsBitSet(i)) out[i / 8] |= uint8_t(1u << (i % 8));
    return out;
}

TEST(BitmapInfo, BitOrderAgainstHandComputedBytes) {
    CBitmapInfo b(2);
    b.SetBit(9);
    EXPECT_EQ(bytesOf(b), (std::vector<uint8_t>{0x00, 0x02}));
    b.SetBit(9);  // setting a set bit changes nothing
    b.SetBit(0);
    b.SetBit(7);
    EXPECT_EQ(bytesOf(b), (std::vector<uint8_t>{0x81, 0x02}));
    b.UnsetBit(9);
    b.UnsetBit(10);  // clearing a clear bit changes nothing
    EXPECT_EQ(bytesOf(b), (std::vector<uint8_t>{0x81, 0x00}));
}

TEST(BitmapInfo, OutOfRangePositionsTouchNothing) {
    CBitmapInfo empty(0);
    empty.SetBit(0);
    EXPECT_FALSE(empty.IsBitSet(0));
    CBitmapInfo b(1);
    b.SetBit(8);
    b.SetBit(~0ull);
    EXPECT_FALSE(b.IsBitSet(8));
    EXPECT_EQ(bytesOf(b), std::vector<uint8_t>{0});
}

boost::shared_ptr<CBitmapInfo> fromBytes(const std::vector<uint8_t>& bytes) {
    boost::shared_ptr<CBitmapInfo> b(new CBitmapInfo(bytes.size()));
    for (size_t i = 0; i < bytes.size() * 8; ++i)
        if (bytes[i / 8] & (1u << (i % 8))) b->SetBit(i);
    return b;
}

TEST(ExtractBitmap, SlicesMatchAnIndependentReference) {
    boost::shared_ptr<CBitmapInfo> dst, old(new CBitmapInfo(1));
    old->SetBit(3);
    boost::shared_ptr<CBitmapInfo> holder = old;
    ExtractBitmap(fromBytes({0xAA}), holder, 0, 0);
    EXPECT_EQ(holder->Size(), 0u);  // replaced by a new, empty bitmap
    EXPECT_TRUE(old->IsBitSet(3));  // the other holder still sees the old one

    std::mt19937 rng(7);
    for (int round = 0; round < 200; ++round) {
        std::vector<uint8_t> src(1 + rng() % 300);
        for (auto& byte : src) byte = uint8_t(rng());
        unsigned start = rng() % src.size();
        unsigned count = rng() % (src.size() - start + 1);
        ExtractBitmap(fromBytes(src), dst, start, count);
        std::vector<uint8_t> expected(src.begin() + start, src.begin() + start + count);
        ASSERT_EQ(bytesOf(*dst), expected) << "round " << round;
    }
    // A range past the end of the source reads as clear bits.
    ExtractBitmap(fromBytes({0xFF, 0xFF}), dst, 1, 3);
    EXPECT_EQ(bytesOf(*dst), (std::vector<uint8_t>{0xFF, 0x00, 0x00}));
}

TEST(BitmapInfo, ConcurrentWritersLoseNoBit) {
    CBitmapInfo b(64);
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&b, t] {
            for (int round = 0; round < 200; ++round)
                for (unsigned byte = 0; byte < 64; ++byte) {
                    b.SetBit(byte * 8 + t);  // every thread hits every byte
                    if (round % 2) b.UnsetBit(byte * 8 + t), b.SetBit(byte * 8 + t);
                }
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(bytesOf(b), std::vector<uint8_t>(64, 0xFF));
}

TEST(StateBitmapInfo, LayoutAcrossByteBoundaries) {
    CStateBitmapInfo s(1, 3);
    EXPECT_EQ(bytesOf(s), (std::vector<uint8_t>{0x00, 0x00, 0x00}));
    s.SetState(2, 1);  // bit 7
    EXPECT_EQ(bytesOf(s), (std::vector<uint8_t>{0x80, 0x00, 0x00}));
    s.SetState(3, 0);  // bit 9
    EXPECT_EQ(bytesOf(s), (std::vector<uint8_t>{0x80, 0x02, 0x00}));
    s.SetState(2, 2);  // only state 2 of entry 2 (bit 8) remains
    EXPECT_EQ(bytesOf(s), (std::vector<uint8_t>{0x00, 0x03, 0x00}));
    EXPECT_TRUE(s.IsCurrentState(2, 2) && !s.IsCurrentState(1, 2) && s.IsCurrentState(0, 3));
    s.ResetState(2);
    EXPECT_EQ(bytesOf(s), (std::vector<uint8_t>{0x00, 0x02, 0x00}));
    EXPECT_TRUE(!s.IsCurrentState(0, 2) && !s.IsCurrentState(1, 2) && !s.IsCurrentState(2, 2));
}

TEST(StateBitmapInfo, UnknownStatesAreLoggedAndIgnored) {
    CStateBitmapInfo s(1, 3);
    zxblk::LogCapture capture;
    int savedLevel = zxblk::LogSink::level();
    zxblk::LogSink::setLevel(-1);
    s.SetState(0, 3);
    s.SetState(0, -1);
    EXPECT_FALSE(s.IsCurrentState(3, 0));
    EXPECT_EQ(bytesOf(s), (std::vector<uint8_t>{0, 0, 0}));
    EXPECT_EQ(capture.lines().size(), 3u);
    zxblk::LogSink::setLevel(savedLevel);
}

}  // namespace
