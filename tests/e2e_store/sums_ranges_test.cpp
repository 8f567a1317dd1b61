// A large checksum side file on a store a network away is read a range of
// entries at a time, as recalls need them: the sums found per range are the
// whole file's, a range is read once however many recalls need it at once,
// a second open on the same host reads none of it again, and a range whose
// entries are not this snapshot file's fails only the recalls of its blocks.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>

#include "store/catalog.h"
#include "store/importer.h"
#include "store/s3_metadata.h"
#include "store/storage.h"
#include "store/store_services.h"

namespace {

using zxblk::BlockSums;
using zxblk::SumsRanges;

const uint64_t kUnit = 2u << 20, kUnits = 16000;
const uint64_t kRange = SumsRanges::kRangeEntries;

std::string slurp(const std::string& path) {
    std::ostringstream s;
    s << std::ifstream(path, std::ios::binary).rdbuf();
    return s.str();
}

void run(const std::string& command) { ASSERT_EQ(std::system(command.c_str()), 0) << command; }

// The reads of side files (offset, length) through the storage below.
struct ReadLog {
    std::mutex mutex;
    std::vector<std::pair<uint64_t, uint64_t>> reads;
    int opens = 0, whole = 0;
    std::vector<std::pair<uint64_t, uint64_t>> taken() {
        std::lock_guard<std::mutex> lock(mutex);
        return reads;
    }
    void clear() {
        std::lock_guard<std::mutex> lock(mutex);
        reads.clear(), opens = 0, whole = 0;
    }
};

class LoggedReader : public zxblk::ObjectReader {
public:
    LoggedReader(std::unique_ptr<zxblk::ObjectReader> inner, ReadLog& log) : m_inner(std::move(inner)), m_log(log) {}
    const std::string& name() const override { return m_inner->name(); }
    uint64_t size() const override { return m_inner->size(); }
    const zxblk::FileStamp& stamp() const override { return m_inner->stamp(); }
    void readAt(uint64_t offset, void* buffer, size_t length) const override {
        {
            std::lock_guard<std::mutex> lock(m_log.mutex);
            m_log.reads.emplace_back(offset, length);
        }
        m_inner->readAt(offset, buffer, length);
    }
    bool current() const override { return m_inner->current(); }

private:
    std::unique_ptr<zxblk::ObjectReader> m_inner;
    ReadLog& m_log;
};

// A folder store that presents itself as a network away, and logs what is
// read of its side files.
class RemoteFolder : public zxblk::Storage {
public:
    explicit RemoteFolder(const std::string& dir) : Storage(dir), m_inner(zxblk::openFolderStorage(dir)) {}
    mutable ReadLog log;

    bool remote() const override { return true; }
    std::unique_ptr<zxblk::ObjectReader> openReader(const std::string& name, const zxblk::OpenHints& hints) const override {
        auto reader = m_inner->openReader(name, hints);
        if (!isSums(name)) return reader;
        std::lock_guard<std::mutex> lock(log.mutex);
        ++log.opens;
        return std::unique_ptr<zxblk::ObjectReader>(new LoggedReader(std::move(reader), log));
    }
    zxblk::ObjectInfo stat(const std::string& name) const override { return m_inner->stat(name); }
    bool readWhole(const std::string& name, uint64_t most, std::string& out,
                   const std::function<bool(const std::string&)>& known) const override {
        if (isSums(name)) {
            std::lock_guard<std::mutex> lock(log.mutex);
            ++log.whole;
        }
        return m_inner->readWhole(name, most, out, known);
    }
    void replace(const std::string& name, const std::string& data) const override { m_inner->replace(name, data); }
    void remove(const std::string& name) const override { m_inner->remove(name); }
    std::vector<std::string> list(const std::string& prefix) const override { return m_inner->list(prefix); }
    zxblk::StorageStats stats() const override { return m_inner->stats(); }
    std::unique_ptr<Staging> stage() const override { return m_inner->stage(); }
    std::unique_ptr<Lock> lock() const override { return m_inner->lock(); }

private:
    static bool isSums(const std::string& name) { return name.find(".sums") != std::string::npos; }
    std::shared_ptr<zxblk::Storage> m_inner;
};

// One store, made once: a dynamic VHD of 16000 blocks of 2 MiB, made by
// qemu-img from a sparse raw disk, holding every block but each fourth
// (12000: a side file of three ranges, the last one short), each block
// holding one sector of its own number.
class SumsRangesTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        dir = std::string(testing::TempDir()) + "sums_ranges_" + std::to_string(getpid());
        run("rm -rf '" + dir + "' && mkdir -p '" + dir + "'");
        int fd = ::open((dir + "/disk.raw").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(::ftruncate(fd, static_cast<off_t>(kUnits * kUnit)), 0);
        for (uint64_t u = 0; u < kUnits; ++u) {
            if (!heldAt(u)) continue;
            const std::string sector = std::string(504, 'x') + std::to_string(10000000 + u);
            ASSERT_EQ(::pwrite(fd, sector.data(), 512, static_cast<off_t>(u * kUnit)), 512);
        }
        ::close(fd);
        run("qemu-img convert -q -f raw -O vpc -o force_size=on '" + dir + "/disk.raw' '" + dir + "/big.vhd'");
        zxblk::importImages(*zxblk::openFolderStorage(dir + "/pristine"), "big", {dir + "/big.vhd"},
                            zxblk::ImportSettings());
        ::unlink((dir + "/disk.raw").c_str());
        ::unlink((dir + "/big.vhd").c_str());
    }
    static void TearDownTestSuite() { std::system(("rm -rf '" + dir + "'").c_str()); }
    static bool heldAt(uint64_t unit) { return unit % 4 != 3; }
    static uint64_t unitOfRank(uint64_t rank) { return rank / 3 * 4 + rank % 3; }

    void SetUp() override {
        store = dir + "/store-" + testing::UnitTest::GetInstance()->current_test_info()->name();
        run("rm -rf '" + store + "' && cp -a --sparse=always '" + dir + "/pristine' '" + store + "'");
        storage = std::make_shared<RemoteFolder>(store);
        disk = *zxblk::Catalog::load(*storage).findDisk("big");
        sums = store + "/" + disk.copies[0].sums;
    }
    void TearDown() override {
        std::system(("rm -rf '" + store + "' '" + store + "-kept' '" + store + "-kept2'").c_str());
    }
    std::shared_ptr<zxblk::VhdImage> open(const std::shared_ptr<zxblk::S3MetadataCache>& kept = nullptr) {
        return zxblk::openCopyImage(*storage, disk, 0, kept);
    }
    // Reads the unit of `rank` whole, its sums checked; "" or why it failed.
    static std::string recall(const zxblk::VhdImage& img, uint64_t rank) {
        try {
            auto unit = img.readUnit(unitOfRank(rank));
            const std::string number(reinterpret_cast<const char*>(unit->data()) + 504, 8);
            return number == std::to_string(10000000 + unitOfRank(rank)) ? "" : "wrong bytes: " + number;
        } catch (const zxblk::StoreError& e) {
            return e.what();
        }
    }

    static std::string dir;
    std::string store, sums;
    std::shared_ptr<RemoteFolder> storage;
    zxblk::DiskRecord disk;
};
std::string SumsRangesTest::dir;

TEST_F(SumsRangesTest, RangesHoldTheWholeFilesSums) {
    const std::string bytes = slurp(sums);
    const BlockSums whole = BlockSums::parse(bytes, sums);
    ASSERT_EQ(whole.entries.size(), 12000u);
    struct Memory : zxblk::SumsSource {
        std::string bytes;
        std::vector<std::pair<uint64_t, uint64_t>> reads;
        std::string read(uint64_t offset, uint64_t length) override {
            reads.emplace_back(offset, length);
            return bytes.substr(offset, length);
        }
    };
    auto memory = std::make_shared<Memory>();
    memory->bytes = bytes;
    std::vector<uint64_t> held;
    for (uint64_t u = 0; u < kUnits; ++u)
        if (heldAt(u)) held.push_back(u);
    auto ranged = SumsRanges::open(bytes, sums, held, memory);
    for (uint64_t u = 0; u < kUnits; ++u) {
        const BlockSums::Entry *a = whole.entry(u), *b = ranged->entry(u);
        ASSERT_EQ(a == nullptr, b == nullptr) << "block " << u;
        ASSERT_TRUE(!a || (a->unit == b->unit && a->sum == b->sum)) << "block " << u;
    }
    const uint64_t at = bytes.size() - 12000 * BlockSums::kEntryBytes;
    const std::vector<std::pair<uint64_t, uint64_t>> expected = {
        {at, kRange * 24}, {at + kRange * 24, kRange * 24}, {at + 2 * kRange * 24, (12000 - 2 * kRange) * 24}};
    EXPECT_EQ(memory->reads, expected);
}

TEST_F(SumsRangesTest, ARecallReadsItsRangeOnceAndASecondOpenNone) {
    const uint64_t entriesAt = slurp(sums).size() - 12000 * BlockSums::kEntryBytes;
    const std::pair<uint64_t, uint64_t> range0 = {0, entriesAt + kRange * 24},  // with the header
        range1 = {entriesAt + kRange * 24, kRange * 24}, range2 = {entriesAt + 2 * kRange * 24, (12000 - 2 * kRange) * 24};
    const struct {
        uint64_t rank;
        std::vector<std::pair<uint64_t, uint64_t>> readsSoFar;
    } cases[] = {
        {0, {range0}},                    // the first block
        {kRange - 1, {range0}},           // the last of the first range
        {kRange, {range0, range1}},       // the first of the next
        {11999, {range0, range1, range2}},  // the last block
    };
    auto kept = std::make_shared<zxblk::S3MetadataCache>(store + "-kept");
    auto img = open(kept);
    for (const auto& c : cases) {
        EXPECT_EQ(recall(*img, c.rank), "") << "rank " << c.rank;
        EXPECT_EQ(storage->log.taken(), c.readsSoFar) << "rank " << c.rank;
    }
    EXPECT_EQ(storage->log.whole, 0);

    // Another program on this host, with a new cache on the same folder:
    // the side file is not even opened.
    storage->log.clear();
    img = open(std::make_shared<zxblk::S3MetadataCache>(kept->dir()));
    for (const auto& c : cases) EXPECT_EQ(recall(*img, c.rank), "") << "rank " << c.rank;
    EXPECT_EQ(storage->log.opens, 0);
    EXPECT_EQ(storage->log.taken(), (std::vector<std::pair<uint64_t, uint64_t>>{}));
    // ...also where the first one needed no sums at all.
    open(std::make_shared<zxblk::S3MetadataCache>(store + "-kept2"));
    storage->log.clear();
    open(std::make_shared<zxblk::S3MetadataCache>(store + "-kept2"));
    EXPECT_EQ(storage->log.opens, 0);

    // Recalls that need one range at once read it once.
    img = open();
    EXPECT_EQ(img->sumsError(), "");
    storage->log.clear();
    std::vector<std::thread> threads;
    std::vector<std::string> failures(8);
    for (size_t i = 0; i < 8; ++i) threads.emplace_back([&, i] { failures[i] = recall(*img, kRange + 100 * i); });
    for (auto& t : threads) t.join();
    EXPECT_EQ(failures, std::vector<std::string>(8));
    EXPECT_EQ(storage->log.taken(), (std::vector<std::pair<uint64_t, uint64_t>>{range1}));
}

TEST_F(SumsRangesTest, ARangeNotThisFilesFailsOnlyItsRecalls) {
    // Entry 4103 names the block after its own; entry 5's data sum is flipped.
    std::string bytes = slurp(sums);
    const uint64_t entriesAt = bytes.size() - 12000 * BlockSums::kEntryBytes;
    bytes[entriesAt + (kRange + 7) * 24] ^= 1;
    bytes[entriesAt + 5 * 24 + 8] ^= 1;
    std::ofstream(sums, std::ios::binary | std::ios::trunc) << bytes;
    const std::string vhd = store + "/" + disk.copies[0].file;
    const std::string wrongUnit = sums + ": entry " + std::to_string(kRange + 7) + ": names block ";
    const struct {
        uint64_t rank;
        std::string failure;  // how the message starts; "" reads
    } cases[] = {
        {0, ""},
        {5, vhd + ": block " + std::to_string(unitOfRank(5)) + ": checksum mismatch in its data"},
        {6, ""},
        {kRange, wrongUnit},
        {2 * kRange - 1, wrongUnit},
        {2 * kRange, ""},
        {11999, ""},
    };
    auto img = open();
    for (const auto& c : cases) {
        const std::string got = recall(*img, c.rank);
        EXPECT_EQ(got.substr(0, c.failure.size()), c.failure) << "rank " << c.rank << ": " << got;
        EXPECT_EQ(got.empty(), c.failure.empty()) << "rank " << c.rank << ": " << got;
        EXPECT_EQ(got.find('\n'), std::string::npos) << got;
    }
}

}  // namespace
