// The library's calls against answers found another way: where a disk holds
// data against qemu-img's map of each snapshot file (and that what it holds
// nothing of reads as zeros without a recall), what a listing says of
// files removed, grown or with damaged checksums, and what a program gets
// when it asks for what is not there.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <random>
#include <tuple>

#include "support/vhd_writer.h"
#include "zxblk/zxblk.h"

namespace fs = std::filesystem;

namespace {

struct TempDir {
    std::string path;
    TempDir() {
        char t[] = "/tmp/zxblk-api-XXXXXX";
        path = ::mkdtemp(t) ? t : "";
    }
    ~TempDir() {
        std::error_code ec;
        fs::remove_all(path, ec);
    }
};

// Standard output of a shell command that must succeed.
std::string output(const std::string& command) {
    std::string out;
    FILE* p = ::popen(command.c_str(), "r");
    if (!p) return out;
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    int rc = ::pclose(p);
    EXPECT_EQ(rc, 0) << command;
    return out;
}

void import(const std::string& store, const std::string& disk, const std::string& images, uint64_t extentSize,
            const std::string& extra = "") {
    output(std::string(ZXBLK_TOOL) + " import -q --store " + store + " --disk " + disk + " --extent-size " +
           std::to_string(extentSize) + extra + " " + images + " >/dev/null");
}

// The disk's sectors that some snapshot file up to `upto` keeps in a block,
// as qemu-img maps each file on its own.
std::vector<bool> heldSectors(const std::string& dir, int upto, uint64_t size) {
    std::vector<bool> held(size / 512);
    for (int i = 0; i <= upto; ++i) {
        std::string file = dir + "/snap" + std::to_string(i) + ".vhd";
        uint64_t end = 0;
        for (const auto& r : nlohmann::json::parse(output("qemu-img map --output=json -f vpc " + file))) {
            uint64_t start = r["start"], length = r["length"];
            end = std::max(end, start + length);
            if (r["data"].get<bool>())
                for (uint64_t s = start / 512; s < (start + length) / 512; ++s) held[s] = true;
        }
        EXPECT_EQ(end, size) << file << ": qemu-img sees another size";
    }
    return held;
}

std::string text(const std::vector<zxblk::Range>& ranges) {
    std::string out;
    for (const zxblk::Range& r : ranges)
        out += std::to_string(r.offset) + "+" + std::to_string(r.length) + (r.data ? " data\n" : " zeros\n");
    return out;
}

std::string expected(const std::vector<bool>& held, uint64_t offset, uint64_t length) {
    std::vector<zxblk::Range> out;
    for (uint64_t at = offset; at < offset + length;) {
        uint64_t next = std::min(offset + length, (at / 512 + 1) * 512);
        bool data = held[at / 512];
        if (!out.empty() && out.back().data == data)
            out.back().length += next - at;
        else
            out.push_back(zxblk::Range{at, next - at, data});
        at = next;
    }
    return text(out);
}

TEST(Api, AllocationMatchesQemuImgMap) {
    struct Case {
        const char* what;
        uint32_t blockSize;
        int children;
        uint64_t extentSize;
        int snapshot;   // -1: the newest
        uint64_t size;  // one qemu-img reads back exactly from the geometry
    };
    // Sizes that are not whole numbers of extents or blocks.
    const uint64_t small = 17 * 4 * 240 * 512, large = 17 * 4 * 960 * 512;
    const Case cases[] = {
        {"64K blocks inside 1M extents", 64 << 10, 2, 1 << 20, -1, small},
        {"64K blocks inside 1M extents, oldest snapshot", 64 << 10, 2, 1 << 20, 0, small},
        {"2M blocks over 64K extents", 2 << 20, 0, 64 << 10, -1, large},
        {"512K blocks inside 2M extents, middle snapshot", 512 << 10, 3, 2 << 20, 1, large},
    };
    TempDir work;
    int n = 0;
    uint64_t holes = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const uint64_t size = c.size;
        std::string dir = work.path + "/chain" + std::to_string(n), disk = "d" + std::to_string(n++);
        vhdtest::ChainPlan plan;
        plan.size = size;
        plan.blockSize = c.blockSize;
        plan.children = c.children;
        plan.seed = static_cast<uint32_t>(n);
        fs::create_directories(dir);
        std::string images;
        for (const vhdtest::Snapshot& s : vhdtest::writeChain(dir, plan)) images += " " + s.vhd;
        import(work.path + "/store", disk, images, c.extentSize);
        std::vector<bool> held = heldSectors(dir, c.snapshot < 0 ? c.children : c.snapshot, size);
        ASSERT_NE(std::count(held.begin(), held.end(), true), 0);
        ASSERT_NE(std::count(held.begin(), held.end(), false), 0);

        zxblk::DiskOptions options;
        options.snapshot = c.snapshot;
        options.cacheDir = work.path + "/cache-" + disk;
        options.readahead = 0;  // so that only the reads below can recall
        zxblk::Disk d = zxblk::Disk::open(work.path + "/store", disk, options);
        const std::pair<uint64_t, uint64_t> ranges[] = {
            {0, size}, {c.blockSize / 2 + 777, 3 * c.extentSize + 1000}, {size - 70000, 70000}, {size, 0}};
        for (auto r : ranges) EXPECT_EQ(text(d.allocation(r.first, r.second)), expected(held, r.first, r.second))
            << "range " << r.first << "+" << r.second;

        // An extent that no snapshot holds a sector of reads as zeros and
        // is not recalled.
        for (uint64_t at = 0; at < size; at += c.extentSize) {
            const uint64_t len = std::min(c.extentSize, size - at);
            auto first = held.begin() + static_cast<long>(at / 512), last = first + static_cast<long>(len / 512);
            if (std::find(first, last, true) != last) continue;
            std::vector<char> got(len, 'x');
            d.read(at, len, got.data());
            EXPECT_EQ(got, std::vector<char>(len, 0)) << "extent at " << at;
            ++holes;
        }
        EXPECT_EQ(d.stats().extentsRecalled, 0u);
    }
    EXPECT_GT(holes, 0u);
}

TEST(Api, ListingAndErrors) {
    TempDir work;
    const std::string store = work.path + "/store";
    vhdtest::ChainPlan plan;
    plan.size = 17 * 4 * 60 * 512;
    plan.blockSize = 64 << 10;
    plan.children = 2;
    fs::create_directories(work.path + "/chain");
    std::string images;
    for (const vhdtest::Snapshot& s : vhdtest::writeChain(work.path + "/chain", plan)) images += " " + s.vhd;
    import(store, "chain", images, 64 << 10);
    std::string raw = work.path + "/disk.raw";
    {
        std::vector<char> bytes(3 << 20);
        std::mt19937 rng(9);
        for (char& b : bytes) b = static_cast<char>(rng());
        std::ofstream(raw, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    }
    output("qemu-img convert -q -f raw -O vpc -o subformat=fixed,force_size=on " + raw + " " + work.path +
           "/fixed.vhd");
    import(store, "fixed", work.path + "/fixed.vhd", 1 << 20);
    import(store, "raw", raw, 1 << 20, " --format raw");

    zxblk::Store s = zxblk::Store::open(store);

    // A held extent keeps its disk open, and with it the disk's cache.
    zxblk::DiskOptions options;
    options.cacheDir = work.path + "/cache-raw";
    {
        zxblk::LocalExtent e = [&] { return zxblk::Disk::open(store, "raw", options).extent(1); }();
        std::vector<char> got(e.length()), want(e.length());
        ASSERT_EQ(::pread(e.fd(), got.data(), got.size(), 0), static_cast<ssize_t>(got.size()));
        std::ifstream in(raw, std::ios::binary);
        in.seekg(static_cast<std::streamoff>(e.offset())).read(want.data(), static_cast<std::streamsize>(want.size()));
        EXPECT_TRUE(got == want);
        EXPECT_THROW(zxblk::Disk::open(store, "raw", options), zxblk::Error);
    }
    zxblk::Disk disk = zxblk::Disk::open(store, "raw", options);
    const uint64_t size = disk.size();
    const std::string empty = work.path + "/empty";
    fs::create_directories(empty);
    using Kind = zxblk::ErrorKind;
    const std::tuple<std::function<void()>, std::string, Kind> errors[] = {
        {[&] { zxblk::Store::open(work.path + "/nowhere"); }, work.path + "/nowhere is not a zxblk store (no such folder)",
         Kind::notFound},
        {[&] { zxblk::Store::open(empty); }, empty + " is not a zxblk store (no catalog.json)", Kind::notFound},
        {[&] { zxblk::Disk::open(empty, "raw"); }, empty + " is not a zxblk store (no catalog.json)", Kind::notFound},
        {[&] { s.disk("nosuch"); }, store + ": no disk named 'nosuch'", Kind::notFound},
        {[&] { std::vector<char> b(2); disk.read(size - 1, 2, b.data()); },
         "range " + std::to_string(size - 1) + "+2 is past the end of disk raw (" + std::to_string(size) + " bytes)",
         Kind::invalidArgument},
        {[&] { disk.allocation(size, 1); }, "is past the end of disk raw", Kind::invalidArgument},
        {[&] { disk.extent(disk.extentCount()); }, "is past the end of disk raw", Kind::invalidArgument},
        {[&] { zxblk::Disk::open(store, "raw", options); }, "is in use by another zxblk process", Kind::busy},
        {[&] { zxblk::Store::importImages(store, "e", {store + "/catalog.json"}); }, "is neither a VHD",
         Kind::invalidArgument},
    };
    for (const auto& e : errors) {
        try {
            std::get<0>(e)();
            ADD_FAILURE() << "no error; wanted " << std::get<1>(e);
        } catch (const zxblk::Error& err) {
            EXPECT_NE(std::string(err.what()).find(std::get<1>(e)), std::string::npos) << err.what();
            EXPECT_EQ(err.kind(), std::get<2>(e)) << err.what() << ": " << zxblk::errorKindName(err.kind());
        }
    }

    // Damage the chain's snapshots, one way each.
    const auto catalog = nlohmann::json::parse(std::ifstream(store + "/catalog.json"));
    const auto& copies = catalog["disks"][0]["copies"];
    auto inStore = [&](int snapshot, const char* key) {
        return store + "/" + copies[snapshot][key].get<std::string>();
    };
    {
        std::fstream sums(inStore(0, "sums"), std::ios::in | std::ios::out | std::ios::binary);
        sums.seekp(40);
        sums.put('\x5a');
    }
    std::ofstream(inStore(1, "file"), std::ios::app | std::ios::binary) << std::string(512, 'x');
    // The catalog refuses to load while a file it names is gone: this one
    // goes once the store is open, before it is listed.
    fs::remove(inStore(2, "file"));

    struct Row {
        const char* disk;
        int snapshot;
        zxblk::SnapshotKind kind;
        zxblk::SnapshotStatus status;
        std::string problem;  // found in the reason
    };
    using K = zxblk::SnapshotKind;
    using S = zxblk::SnapshotStatus;
    const Row rows[] = {
        {"chain", 0, K::dynamic, S::damaged, copies[0]["sums"].get<std::string>() + ": checksum"},
        {"chain", 1, K::differencing, S::damaged, "file size"},
        {"chain", 2, K::differencing, S::missing, copies[2]["file"].get<std::string>() + ": no such file"},
        {"fixed", 0, K::fixed, S::ok, ""},
        {"raw", 0, K::raw, S::ok, ""},
    };
    std::vector<zxblk::DiskInfo> disks = s.disks();
    ASSERT_EQ(disks.size(), 3u);
    for (const Row& r : rows) {
        SCOPED_TRACE(std::string(r.disk) + " snapshot " + std::to_string(r.snapshot));
        auto d = std::find_if(disks.begin(), disks.end(), [&](const zxblk::DiskInfo& i) { return i.name == r.disk; });
        ASSERT_NE(d, disks.end());
        ASSERT_EQ(d->snapshots.size(), std::string(r.disk) == "chain" ? 3u : 1u);
        const zxblk::SnapshotInfo& info = d->snapshots[static_cast<size_t>(r.snapshot)];
        EXPECT_EQ(info.number, r.snapshot);
        EXPECT_EQ(zxblk::kindName(info.kind), std::string(zxblk::kindName(r.kind)));
        EXPECT_EQ(zxblk::statusName(info.status), std::string(zxblk::statusName(r.status)));
        if (r.status == S::ok) {
            EXPECT_EQ(info.problem, "");
            EXPECT_EQ(info.fileSize, fs::file_size(store + "/" + info.file));
        } else {
            EXPECT_NE(info.problem.find(r.problem), std::string::npos) << info.problem;
        }
    }

    // The same chain opened as a disk: refused, naming the oldest snapshot
    // that fails the checks of its open (a side file is not read then),
    // unless damage is allowed; then the disk says what it presents.
    zxblk::DiskOptions chainOptions;
    chainOptions.cacheDir = work.path + "/cache-chain";
    const std::string at1 = "snapshot 1 (" + copies[1]["file"].get<std::string>() + ") is damaged: file size: ";
    try {
        zxblk::Disk::open(store, "chain", chainOptions);
        ADD_FAILURE() << "a damaged chain opened";
    } catch (const zxblk::Error& e) {
        EXPECT_EQ(std::string(e.what()).rfind("chain " + at1, 0), 0u) << e.what();
        EXPECT_NE(std::string(e.what()).find("; snapshot 2 too"), std::string::npos) << e.what();
        EXPECT_EQ(e.kind(), Kind::corruption);
    }
    chainOptions.allowDamaged = true;
    zxblk::Disk damaged = zxblk::Disk::open(store, "chain", chainOptions);
    ASSERT_EQ(damaged.notices().size(), 1u);
    EXPECT_EQ(damaged.notices()[0].rfind("presenting chain snapshot 2 although " + at1, 0), 0u) << damaged.notices()[0];
}

}  // namespace
