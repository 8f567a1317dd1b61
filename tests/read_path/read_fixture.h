// A disk object wired to scripted services and a real backing store in a
// scratch directory.
#pragma once
#include <gtest/gtest.h>
#include <dirent.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <random>

#include "BlockLevel/Utilities/Windows/ZXVirtualDiskLibrary/ExtentRestoreTarget.h"
#include "platform/Log.h"
#include "platform/ZXPlatformInfo.h"
#include "platform/ZxBlkBackingStore.h"
#include "support_services/test_services.h"
#include "vhd/ZxBlkVhd.h"

namespace readtest {

using Bytes = std::vector<unsigned char>;

inline Bytes slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

inline Bytes randomBytes(std::mt19937& rng, size_t n) {
    Bytes b(n);
    for (auto& c : b) c = static_cast<unsigned char>(rng() % 255 + 1);
    return b;
}

// What a copy extent (by its path "<copy>/Extent<k>") streams back.
struct Extent {
    Bytes data;              // C bytes
    Bytes bitmap;            // 512 bytes MSB first, or empty
    zxtest::Script extra;    // timing and failure options
};

// The extent path is what follows the seventh colon of the recall metadata.
inline std::string pathOfMetadata(const std::string& metadata) {
    size_t pos = 0;
    for (int i = 0; i < 7 && pos != std::string::npos; ++i) pos = metadata.find(':', pos) + 1;
    return metadata.substr(pos);
}

class ReadPathTest : public testing::Test {
protected:
    void SetUp() override {
        dir = std::string(testing::TempDir()) + "readpath_" + std::to_string(getpid()) + "_" +
              testing::UnitTest::GetInstance()->current_test_info()->name();
        std::system(("rm -rf '" + dir + "'").c_str());
        config = dir + ".ini";
        std::ofstream(config) << "[VirtualServer]\nbEnableMetadataRestoreOptimization=true\n";
        setenv("ZXBLK_CONFIG", config.c_str(), 1);
        ZXPlatformInfo::Reload();
        store.reset(new ZxBlkBackingStore(dir, 0));
        records = std::make_shared<zxtest::MapRecordsService>();
        AppIdInfo info;
        info.appId = 77;
        info.clientId = 5;
        info.backupSetId = 11;
        records->subclients[77] = info;
        lookup = std::make_shared<zxtest::MapExtentLookupService>();
        restore = std::make_shared<zxtest::ScriptedRestoreService>([this](const zxblk::RecallJob& job) {
            std::lock_guard<std::mutex> lock(extentsMutex);
            std::string path = pathOfMetadata(job.srcPath);
            auto it = extents.find(path);
            if (it == extents.end()) return zxtest::Script{{}, false, 0};  // fails at step 0: unknown extent
            zxtest::Script s = zxtest::streamOf(it->second.data, it->second.bitmap.empty() ? nullptr : &it->second.bitmap,
                                                 chunk);
            zxtest::Script& o = it->second.extra;
            s.refuse = o.refuse;
            s.failAtStep = o.failAtStep;
            s.delayBeforeMs = o.delayBeforeMs;
            s.delayMs = o.delayMs;
            s.neverComplete = o.neverComplete;
            s.waitForGate = o.waitForGate;
            s.status = o.status;
            return s;
        });
        zxtest::useRecords(records);
        zxtest::useLookup(lookup);
        zxtest::useRestore(restore);
    }
    void TearDown() override {
        zxtest::useRestore(nullptr);
        restore.reset();  // joins the service's threads before the disks go
        disks.clear();
        zxtest::useRecords(nullptr);
        zxtest::useLookup(nullptr);
        unsetenv("ZXBLK_CONFIG");
        ZXPlatformInfo::Reload();
        std::system(("rm -rf '" + dir + "' '" + config + "'").c_str());
    }

    struct CopySpec {
        std::string path;
        long long storedExtentSize;
        unsigned long type;
    };

    // Copies oldest first, as the host adds them.
    ZxBlkVhd& makeDisk(const std::vector<CopySpec>& copies, long long E, long long diskSize = 64LL << 20) {
        disks.emplace_back(new ZxBlkVhd("disk", "C:\\vm\\disk.vhd"));
        ZxBlkVhd& d = *disks.back();
        for (const CopySpec& c : copies) d.addToBrowseStructList(c.storedExtentSize, diskSize, 512, "id", c.path, c.type);
        d.setDiskParams(E, diskSize, 512, "id");
        SpecialOptsRecord rec;
        rec.appId = 77;
        FBRCtxSpecialOpts opts;
        opts.specialOptsRecord = &rec;
        d.setSpecialOpts(CTXO_BLOCK_LEVEL, opts);
        d.setRecallStore(store.get());
        d.connect();
        return d;
    }

    void hold(const std::string& copy, unsigned long long k, Extent e) {
        lookup->answers[{copy, k}] = zxtest::LookupAnswer{0, 1000 + k, 2000 + k};
        std::lock_guard<std::mutex> lock(extentsMutex);
        extents[copy + "/Extent" + std::to_string(k)] = std::move(e);
    }

    bool read(ZxBlkVhd& d, long long offset) {
        long len = 4096;
        unsigned char* buf = new unsigned char(0);  // the host's buffer, released by the read
        bool ok = d.readData(&d, offset, &len, &buf);
        if (buf) delete buf;
        return ok;
    }

    std::vector<std::string> tempFiles() {
        std::vector<std::string> out;
        for (auto& n : listing(dir + "/tmp")) out.push_back(n);
        return out;
    }
    static std::vector<std::string> listing(const std::string& path) {
        std::vector<std::string> out;
        if (DIR* dd = opendir(path.c_str())) {
            while (auto* e = readdir(dd))
                if (e->d_name[0] != '.') out.push_back(e->d_name);
            closedir(dd);
        }
        return out;
    }

    std::string dir, config;
    unsigned chunk = 65536;
    std::unique_ptr<ZxBlkBackingStore> store;
    std::shared_ptr<zxtest::MapRecordsService> records;
    std::shared_ptr<zxtest::MapExtentLookupService> lookup;
    std::shared_ptr<zxtest::ScriptedRestoreService> restore;
    std::mutex extentsMutex;
    std::map<std::string, Extent> extents;
    std::vector<std::unique_ptr<ZxBlkVhd>> disks;
};

}  // namespace readtest
