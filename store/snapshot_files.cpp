// The checks that tell a snapshot file is still the one the catalog
// records, and the recall metadata strings the restore service is given.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <future>

#include "platform/Log.h"
#include "store/storage.h"
#include "store/store_services.h"

namespace zxblk {
namespace {

bool parseNumber(const std::string& text, bool allowMinus, unsigned long long& out) {
    if (text.empty() || text.size() > 20) return false;
    size_t i = allowMinus && text[0] == '-' ? 1 : 0;
    if (i == text.size()) return false;
    for (size_t k = i; k < text.size(); ++k)
        if (text[k] < '0' || text[k] > '9') return false;
    errno = 0;
    if (i) {
        long long v = std::strtoll(text.c_str(), nullptr, 10);
        if (errno) return false;
        out = static_cast<unsigned long long>(v);
    } else {
        out = std::strtoull(text.c_str(), nullptr, 10);
        if (errno) return false;
    }
    return true;
}

}  // namespace

bool parseRecallMetadata(const std::string& text, RecallMetadata& out, std::string& why) {
    std::vector<std::string> fields;
    size_t start = 0;
    for (int i = 0; i < 7; ++i) {
        size_t colon = text.find(':', start);
        if (colon == std::string::npos) return why = "recall metadata '" + text + "' has fewer than eight fields", false;
        fields.push_back(text.substr(start, colon - start));
        start = colon + 1;
    }
    fields.push_back(text.substr(start));
    if (fields[0] != "1" || fields[1] != "2" || fields[2] != "0" || fields[5] != "1")
        return why = "recall metadata '" + text + "' is not an extent recall", false;
    unsigned long long afid, pos, length;
    if (!parseNumber(fields[3], true, afid) || !parseNumber(fields[4], true, pos) || !parseNumber(fields[6], false, length))
        return why = "recall metadata '" + text + "' has a malformed number", false;
    if (length != fields[7].size())
        return why = "recall metadata '" + text + "' gives length " + fields[6] + " for a path of " +
                     std::to_string(fields[7].size()) + " characters", false;
    out.archiveFileId = afid;
    out.position = pos;
    out.extentPath = fields[7];
    return true;
}

// A snapshot file must still be the one its record describes: a file
// swapped with another, replaced by its parent, taken from another disk, or a
// record edited afterwards would otherwise serve wrong bytes without a word.
// What an older catalog did not record is checked against the disk and the
// chain alone.
namespace {

void checkAgainstRecord(const VhdImage& img, const DiskRecord& disk, size_t index) {
    const CopyRecord& copy = disk.copies[index];
    auto mismatch = [&](const char* field, const std::string& recorded, const std::string& found) {
        if (recorded != found)
            throw StoreError(ErrorKind::corruption, img.path() + ": " + field + ": the catalog records " + recorded +
                                                        ", the file has " + found);
    };
    if (copy.type != kTypeRaw) {  // a raw file has no footer: its size is all there is to check
        mismatch("disk type", "type " + std::to_string(copy.type), "type " + std::to_string(typeCode(img.kind())));
        mismatch("unique id", copy.uniqueId, uniqueIdText(img.uniqueId()));
        if (copy.type == kTypeDifferencing)
            mismatch("parent unique id", index ? disk.copies[index - 1].uniqueId : "no parent", uniqueIdText(img.parentUniqueId()));
        mismatch("current size", std::to_string(disk.size) + " bytes", std::to_string(img.virtualSize()) + " bytes");
    }
    // A raw file cut short still serves what is left, as it always has: the
    // reads past the cut fail by themselves. Grown, it is another file.
    bool cutRaw = copy.type == kTypeRaw && img.fileSize() < copy.fileSize;
    if (copy.fileSize && !cutRaw)
        mismatch("file size", std::to_string(copy.fileSize) + " bytes", std::to_string(img.fileSize()) + " bytes");
}

}  // namespace

namespace {

// A side file is never more than a header and one entry per unit.
uint64_t sumsAtMost(uint64_t units) { return 4096 + 64 + 24 * units; }

// The side file's bytes as the catalog records them. A copy on S3 read
// before is taken from what was kept, since the catalog's checksum tells it
// is the same.
std::string fetchBlockSums(const Storage& storage, const CopyRecord& copy, uint64_t units) {
    std::string bytes;
    auto recorded = [&copy](const std::string& b) { return sumText(xxh3(b.data(), b.size())) == copy.sumsChecksum; };
    if (!storage.readWhole(copy.sums, sumsAtMost(units), bytes, recorded))
        throw StoreError(ErrorKind::notFound, storage.describe(copy.sums) + ": " + std::strerror(ENOENT));
    return bytes;
}

std::shared_ptr<const BlockSums> checkBlockSums(const std::string& bytes, const std::string& path, const CopyRecord& copy,
                                                const VhdImage& img) {
    if (bytes.size() > sumsAtMost(img.sumUnits()))
        throw StoreError(ErrorKind::corruption, path + ": size: larger than the " +
                                                    std::to_string(sumsAtMost(img.sumUnits())) + " bytes it can be");
    std::string found = sumText(xxh3(bytes.data(), bytes.size()));
    if (found != copy.sumsChecksum)
        throw StoreError(ErrorKind::corruption,
                         path + ": checksum: the catalog records " + copy.sumsChecksum + ", the file has " + found);
    auto sums = std::make_shared<BlockSums>(BlockSums::parse(bytes, path));
    std::string base = copy.file.substr(copy.file.rfind('/') + 1);
    if (sums->fileName != base)
        throw StoreError(ErrorKind::corruption,
                         path + ": file name: holds the checksums of " + sums->fileName + ", not " + base);
    if (sums->unitBytes != img.sumUnitBytes() || sums->units != img.sumUnits())
        throw StoreError(ErrorKind::corruption, path + ": block size: " + std::to_string(sums->units) + " blocks of " +
                                                    std::to_string(sums->unitBytes) + " bytes, but " + img.path() +
                                                    " has " + std::to_string(img.sumUnits()) + " of " +
                                                    std::to_string(img.sumUnitBytes()));
    return sums;
}

// What a snapshot's open reads first: both footers, the header and a block
// table of 2 MiB blocks (the usual size; a table of smaller blocks costs one
// more round trip for the rest of it).
OpenHints openHints(const DiskRecord& disk, const CopyRecord& copy) {
    OpenHints hints;
    hints.etag = copy.etag;
    hints.size = copy.fileSize;
    if (!copy.fileSize || copy.type == kTypeRaw) return hints;
    if (copy.type == kTypeFixed) {
        hints.ranges = {{copy.fileSize - std::min<uint64_t>(512, copy.fileSize), 512}};
        return hints;
    }
    const uint64_t granule = 64 << 10, table = 4 * ((disk.size + (2u << 20) - 1) >> 21);
    const uint64_t head = (1536 + table + granule - 1) / granule * granule;
    if (head + 512 >= copy.fileSize)
        hints.ranges = {{0, copy.fileSize}};
    else
        hints.ranges = {{0, head}, {copy.fileSize - 512, 512}};
    return hints;
}

}  // namespace

std::shared_ptr<const BlockSums> loadBlockSums(const Storage& storage, const CopyRecord& copy, const VhdImage& img) {
    if (copy.sums.empty()) return nullptr;
    return checkBlockSums(fetchBlockSums(storage, copy, img.sumUnits()), storage.describe(copy.sums), copy, img);
}

std::shared_ptr<VhdImage> openCopyImage(const Storage& storage, const DiskRecord& disk, size_t index) {
    const CopyRecord& copy = disk.copies.at(index);
    // The side file is fetched while the image opens, so a store a network
    // away is asked for both in one round trip; a bad one fails the recalls
    // of this file, not the lookups that tell which copy holds an extent.
    std::shared_future<std::string> sumsBytes;
    if (!copy.sums.empty())
        // The image is not open yet: a unit per sector of the file bounds it.
        sumsBytes = std::async(std::launch::async, [&storage, copy] {
                        return fetchBlockSums(storage, copy, copy.fileSize / 512 + 1);
                    }).share();
    auto img = std::make_shared<VhdImage>(VhdImage::open(storage.openReader(copy.file, openHints(disk, copy)),
                                                         copy.type == kTypeRaw, disk.size));
    checkAgainstRecord(*img, disk, index);
    if (!img->note().empty()) LogSink::write(0, "store", img->path() + ": " + img->note());
    if (sumsBytes.valid()) {
        const VhdImage* self = img.get();
        const std::string path = storage.describe(copy.sums);
        img->attachSumsLater([sumsBytes, copy, self, path] { return checkBlockSums(sumsBytes.get(), path, copy, *self); });
    }
    return img;
}

}  // namespace zxblk
