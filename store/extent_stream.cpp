// The restore service's stream of one copy extent: the sector bitmap of a
// VHD copy in the order the restore target expects, then data and holes.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>

#include "framework/ZeroBytes.h"
#include "platform/DMRService/RestoreTarget.h"
#include "store/store_services.h"

namespace zxblk {
namespace {

void setBitMsbFirst(std::vector<uint8_t>& bitmap, uint64_t bit) { bitmap[bit / 8] |= static_cast<uint8_t>(0x80u >> (bit % 8)); }

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
    // What a differencing copy leaves to its parents (where it has no
    // block, or sectors its bitmap does not mark) is recalled from them
    // next, one after another: their blocks are asked for now, so that a
    // store a network away sends them while this extent is streamed. Where
    // the copy holds every sector after all, that costs what it wrote.
    if (copy->type == kTypeDifferencing)
        for (size_t i = static_cast<size_t>(copy - disk->copies.data()); i-- > 0;) {
            try {
                image(disk->copies[i], false)->prefetch(offset, C);
            } catch (const StoreError&) {
                // Its own recall says why it cannot be read.
            }
            if (disk->copies[i].type != kTypeDifferencing) break;
        }
    const int64_t firstHeld = VhdImage::holdingPosition(pieces);
    if (firstHeld < 0 || static_cast<uint64_t>(firstHeld) != meta.position)
        return "recall metadata position " + std::to_string(meta.position) + " does not match extent " + std::to_string(k) +
               " of " + copy->browsePath;

    // The extent as stretches, each with its bytes, or none where the copy
    // holds nothing. A block is read whole once (its checksum checked on
    // that read) and the stretches point into it: no byte is copied before
    // it goes to the target. Blocks too large for that are read piece by
    // piece into a buffer each worker keeps from one extent to the next.
    struct Stretch {
        uint64_t at, length;
        const uint8_t* bytes;
    };
    std::vector<Stretch> stretches;
    std::vector<std::shared_ptr<const UnitBytes>> units;
    std::map<uint64_t, const uint8_t*> blockBitmaps;
    std::deque<std::vector<uint8_t>> bitmapsRead;
    const bool whole = img->unitsFitInMemory();
    const uint64_t unitBytes = img->sumUnitBytes();
    thread_local std::vector<uint8_t> data, zeros;
    for (const Piece& p : pieces) {
        if (p.fileOffset == kZeroHeld) {
            // Zeros that hide the parent are sent as zeros: a hole in part
            // of an extent leaves its sectors to the parent. An extent of
            // nothing else still goes as one hole, below.
            if (zeros.size() < C) zeros.assign(C, 0);
            stretches.push_back({p.virtualOffset, p.length, zeros.data()});
        } else if (p.fileOffset < 0) {
            stretches.push_back({p.virtualOffset, p.length, nullptr});
        } else if (!whole) {
            if (data.size() < C) data.resize(C);
            uint8_t* into = data.data() + (p.virtualOffset - offset);
            // Nothing is streamed from a block whose bytes differ from those imported.
            img->readVerified(p, into);
            stretches.push_back({p.virtualOffset, p.length, into});
        } else {
            for (uint64_t at = p.virtualOffset, end = p.virtualOffset + p.length; at < end;) {
                uint64_t unit = at / unitBytes, within = at % unitBytes, n = std::min(end - at, unitBytes - within);
                units.push_back(m_units.get(img, unit));
                if (units.back()->bitmap) blockBitmaps[unit] = units.back()->bytes.get();
                stretches.push_back({at, n, units.back()->data() + within});
                at += n;
            }
        }
    }
    bool vhd = copy->type == kTypeDynamic || copy->type == kTypeDifferencing;
    std::vector<uint8_t> bitmap(512, 0);
    bool allPresent = true;
    if (vhd) {
        uint64_t perBlock = img->blockSize() / 512;
        for (uint64_t s = 0; s < C / 512; ++s) {
            uint64_t sector = offset / 512 + s;
            bool present = false;
            if (sector * 512 < disk->size) {
                // A block the file does not hold has a bitmap of zeros; one a
                // VHDX holds as zeros, of ones over the holes streamed for it.
                uint64_t block = sector / perBlock;
                auto it = blockBitmaps.find(block);
                if (it == blockBitmaps.end()) {
                    bitmapsRead.push_back(img->readBlockBitmap(block));
                    it = blockBitmaps.emplace(block, bitmapsRead.back().data()).first;
                }
                present = it->second[(sector % perBlock) / 8] & (0x80u >> (sector % perBlock % 8));
            }
            if (present) setBitMsbFirst(bitmap, s);
            allPresent = allPresent && present;
        }
    }
    bool allZero = true;
    for (const Stretch& st : stretches)
        if (st.bytes && !IsAllZeroBytes(st.bytes, st.length)) {
            allZero = false;
            break;
        }

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
        auto writeRange = [&](const uint8_t* from, uint64_t length) {
            for (uint64_t done = 0; done < length && !status.IsError();) {
                unsigned n = static_cast<unsigned>(std::min<uint64_t>(m_options.writeSize, length - done));
                status = target->Write(from + done, n);
                bytes += n;
                done += n;
            }
        };
        for (const Stretch& st : stretches) {
            if (status.IsError()) break;
            if (st.bytes)
                writeRange(st.bytes, st.length);
            else if (vhd)
                status = target->WriteHole(static_cast<unsigned>(st.length));
            at = st.at + st.length;
        }
        // Past the end of the disk: zeros for flat images, nothing for VHDs.
        uint64_t rest = offset + C - at;
        if (!status.IsError() && rest) {
            if (vhd) {
                status = target->WriteHole(static_cast<unsigned>(rest));
            } else {
                std::vector<uint8_t> zeros(rest, 0);
                writeRange(zeros.data(), rest);
            }
        }
    }
    CUxError flushed = status.IsError() ? status : target->Flush();
    target->Close(false);
    if (status.IsError()) return status.AsString();
    if (flushed.IsError()) return flushed.AsString();
    return std::string();
}

}  // namespace zxblk
