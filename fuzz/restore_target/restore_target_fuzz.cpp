// Turns its input into a restore target's settings and a stream of calls,
// runs them against the target and the independent model, and aborts on any
// difference.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "BlockLevel/Utilities/Windows/ZXVirtualDiskLibrary/ExtentRestoreTarget.h"
#include "platform/Log.h"
#include "restore_target/stream_model.h"

namespace {

struct Reader {
    const uint8_t* p;
    size_t n;
    uint8_t byte() { return n ? (--n, *p++) : 0; }
    uint32_t u16() { return byte() | (uint32_t(byte()) << 8); }
};

std::vector<uint8_t> slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

void check(bool ok, const char* what) {
    if (!ok) {
        std::fprintf(stderr, "target and model differ: %s\n", what);
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string path = "/tmp/zxblk_fuzz_target_" + std::to_string(getpid());
    static bool init = (zxblk::LogSink::setLevel(3), zxblk::LogSink::setFile("/dev/null"), true);
    (void)init;
    Reader in{data, size};
    model::Setup s;
    static const uint32_t extents[] = {1024, 2048, 4096, 8192};
    uint8_t flags = in.byte();
    s.extentSize = extents[flags & 3];
    s.bitmapInExtent = flags & 4;
    s.skipBitmap = flags & 8;
    s.hasSectorsToWrite = flags & 16;
    s.toExisting = flags & 32;
    uint8_t mask = in.byte();
    for (uint32_t i = 0; i < s.extentSize / 512; ++i) s.sectorsToWrite.push_back((mask >> (i % 8)) & 1);
    if (s.toExisting) {
        s.existingOffset = in.byte() * 512u;
        s.initialFile.assign(s.existingOffset + s.extentSize, 0xA5);
    }
    std::vector<model::Call> calls;
    uint32_t content = 0, bitmapLeft = s.bitmapInExtent ? 512 : 0;
    while (in.n > 0 && calls.size() < 64) {
        model::Call c;
        uint32_t len = in.u16() % (s.extentSize + 1);
        c.hole = (in.byte() & 1) && bitmapLeft == 0;
        uint32_t headBytes = c.hole ? 0 : std::min(bitmapLeft, len);
        uint32_t contentBytes = std::min(len - headBytes, s.extentSize - content);
        if (c.hole) {
            c.length = contentBytes;
        } else {
            for (uint32_t i = 0; i < headBytes + contentBytes; ++i) c.data.push_back(in.byte() | 1);
            bitmapLeft -= headBytes;
        }
        content += contentBytes;
        if (c.hole ? c.length == 0 : c.data.empty()) continue;  // zero-length calls split runs; left to unit tests
        calls.push_back(c);
    }
    model::Outcome expected = model::run(s, calls);

    if (s.toExisting) std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(s.initialFile.data()), s.initialFile.size());
    else unlink(path.c_str());
    CExtentRestoreTarget t(path, s.extentSize, 512, false);
    if (s.hasSectorsToWrite) {
        boost::shared_ptr<CBitmapInfo> b(new CBitmapInfo((s.extentSize / 512 + 7) / 8));
        for (size_t i = 0; i < s.sectorsToWrite.size(); ++i)
            if (s.sectorsToWrite[i]) b->SetBit(i);
        t.SetSectorsToWrite(b);
    }
    if (s.toExisting) t.SetRestoreToExistingFileAt(s.existingOffset);
    if (s.skipBitmap) t.SetSkipBitmapInExtent();
    if (s.bitmapInExtent) t.SetBitmapInExtent();
    check(!t.Open(nullptr).IsError(), "open");
    for (const model::Call& c : calls)
        check(!(c.hole ? t.WriteHole(c.length) : t.Write(c.data.data(), static_cast<unsigned>(c.data.size()))).IsError(),
              "a call failed");
    t.Close(false);
    check(t.GetCurrentOffset() == expected.offset, "offset");
    check(t.GetExtentDataSummary() == expected.summary, "summary");
    boost::shared_ptr<CBitmapInfo> parent;
    t.GetParentSectors(parent);
    check((parent != nullptr) == expected.parentMade, "parent made");
    for (size_t i = 0; parent && i < expected.parent.size(); ++i)
        check(parent->IsBitSet(i) == expected.parent[i], "parent bit");
    check(slurp(path) == expected.file, "file bytes");
    return 0;
}
