// The restore service's stream of one copy extent: the sector bitmap of a
// VHD copy in the order the restore target expects, then data and holes.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "framework/ZeroBytes.h"
#include "platform/DMRService/RestoreTarget.h"
#include "store/store_services.h"

namespace zxblk {
namespace {

void setBitMsbFirst(std::vector<uint8_t>& bitmap, uint64_t bit) { bitmap[bit / 8] |= static_cast<uint8_t>(0x80u >> (bit % 8)); }
bool bitMsbFirst(const std::vector<uint8_t>& bitmap, uint64_t bit) { return bitmap[bit / 8] & (0x80u >> (bit % 8)); }

bool parseExtentNumber(const std::string& text, unsigned long long& out) {
    if (text.empty() || text.size() > 20 || text.find_first_not_of("0123456789") != std::string::npos) return false;
    errno = 0;
    out = std::strtoull(text.c_str(), nullptr, 10);
    return errno == 0;
}

}  // namespace

std::string StoreServices::stream(const RecallJob& job, uint64_t& bytes) {
    RecallMetadata meta;
    std::string why;
    if (!parseRecallMetadata(job.srcPath, meta, why)) return why;
    const DiskRecord* disk;
    const CopyRecord* copy;
    if (!m_catalog.findCopy(meta.archiveFileId, &disk, &copy))
        return "no copy with archive file id " + std::to_string(meta.archiveFileId) + " in store " + location();
    std::string prefix = copy->browsePath + "/Extent", extentPath = localPath(meta.extentPath);
    unsigned long long k;
    if (extentPath.compare(0, prefix.size(), prefix) != 0 || !parseExtentNumber(extentPath.substr(prefix.size()), k))
        return "extent path " + meta.extentPath + " is not an extent of " + copy->browsePath;
    uint64_t C = static_cast<uint64_t>(copy->copyExtentLength());
    if (k >= (disk->size + C - 1) / C) return "extent " + std::to_string(k) + " is past the end of disk " + disk->name;
    std::shared_ptr<VhdImage> img = image(*copy);
    uint64_t offset = k * C;
    std::vector<Piece> pieces = img->pieces(offset, C);
    int64_t firstHeld = -1;
    for (const Piece& p : pieces)
        if (p.fileOffset >= 0) {
            firstHeld = p.fileOffset;
            break;
        }
    if (firstHeld < 0 || static_cast<uint64_t>(firstHeld) != meta.position)
        return "recall metadata position " + std::to_string(meta.position) + " does not match extent " + std::to_string(k) +
               " of " + copy->browsePath;

    // The extent's bytes, zero where the copy holds nothing. Each worker
    // keeps its buffer from one extent to the next and clears only what no
    // piece of the file fills.
    thread_local std::vector<uint8_t> data;
    if (data.size() < C) data.resize(C);
    uint64_t filled = offset;
    auto clear = [&](uint64_t from, uint64_t to) {
        if (to > from) std::memset(data.data() + (from - offset), 0, to - from);
    };
    for (const Piece& p : pieces) {
        clear(filled, p.virtualOffset);
        // Nothing is streamed from a block whose bytes differ from those imported.
        if (p.fileOffset >= 0)
            img->readVerified(p, data.data() + (p.virtualOffset - offset));
        else
            clear(p.virtualOffset, p.virtualOffset + p.length);
        filled = p.virtualOffset + p.length;
    }
    clear(filled, offset + C);
    bool vhd = copy->type == kTypeDynamic || copy->type == kTypeDifferencing;
    std::vector<uint8_t> bitmap(512, 0);
    bool allPresent = true;
    if (vhd) {
        uint64_t perBlock = img->blockSize() / 512;
        std::map<uint64_t, std::vector<uint8_t>> blockBitmaps;
        for (uint64_t s = 0; s < C / 512; ++s) {
            uint64_t sector = offset / 512 + s;
            bool present = false;
            if (sector * 512 < disk->size) {
                uint64_t block = sector / perBlock;
                if (img->isBlockAllocated(block)) {
                    auto it = blockBitmaps.find(block);
                    if (it == blockBitmaps.end()) it = blockBitmaps.emplace(block, img->readBlockBitmap(block)).first;
                    present = bitMsbFirst(it->second, sector % perBlock);
                }
            }
            if (present) setBitMsbFirst(bitmap, s);
            allPresent = allPresent && present;
        }
    }
    bool allZero = IsAllZeroBytes(data.data(), C);

    CRestoreTarget* target = job.target.get();
    CUxError status = target->Open(nullptr);
    if (!status.IsError() && vhd) {
        // Now and then the bitmap comes in two writes, as a service may send it.
        unsigned cut = k % 3 == 1 ? static_cast<unsigned>(1 + (k * 37) % 511) : 512;
        status = target->Write(bitmap.data(), cut);
        if (!status.IsError() && cut < 512) status = target->Write(bitmap.data() + cut, 512 - cut);
    }
    // An extent that is all zeros, with nothing left to a parent, is a hole
    // of the whole extent: written as zeros without sending them.
    if (!status.IsError() && allZero && (copy->type != kTypeDifferencing || allPresent)) {
        status = target->WriteHole(static_cast<unsigned>(C));
    } else {
        uint64_t at = offset;
        auto writeRange = [&](uint64_t from, uint64_t length) {
            for (uint64_t done = 0; done < length && !status.IsError();) {
                unsigned n = static_cast<unsigned>(std::min<uint64_t>(m_options.writeSize, length - done));
                status = target->Write(data.data() + (from - offset) + done, n);
                bytes += n;
                done += n;
            }
        };
        for (const Piece& p : pieces) {
            if (status.IsError()) break;
            if (p.fileOffset >= 0 || !vhd)
                writeRange(p.virtualOffset, p.length);
            else
                status = target->WriteHole(static_cast<unsigned>(p.length));
            at = p.virtualOffset + p.length;
        }
        // Past the end of the disk: zeros for flat images, nothing for VHDs.
        uint64_t rest = offset + C - at;
        if (!status.IsError() && rest) {
            if (vhd)
                status = target->WriteHole(static_cast<unsigned>(rest));
            else
                writeRange(at, rest);
        }
    }
    CUxError flushed = status.IsError() ? status : target->Flush();
    target->Close(false);
    if (status.IsError()) return status.AsString();
    if (flushed.IsError()) return flushed.AsString();
    return std::string();
}

}  // namespace zxblk
