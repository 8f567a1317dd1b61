// The checks that tell a snapshot file is still the one the catalog
// records, how its checksum side file is fetched, and the recall metadata
// strings the restore service is given.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <future>
#include <set>

#include "platform/Log.h"
#include "store/s3_metadata.h"
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
        const std::string parent = index ? disk.copies[index - 1].uniqueId : "no parent";
        if (copy.type == kTypeDifferencing && !img.namesParent(parent))
            mismatch("parent unique id", parent, uniqueIdText(img.parentUniqueId()));
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

// The side file's header must name this snapshot file and its units.
void checkSumsHeader(const BlockSums& sums, const std::string& path, const CopyRecord& copy, const VhdImage& img) {
    std::string base = copy.file.substr(copy.file.rfind('/') + 1);
    if (sums.fileName != base)
        throw StoreError(ErrorKind::corruption,
                         path + ": file name: holds the checksums of " + sums.fileName + ", not " + base);
    if (sums.unitBytes != img.sumUnitBytes() || sums.units != img.sumUnits())
        throw StoreError(ErrorKind::corruption, path + ": block size: " + std::to_string(sums.units) + " blocks of " +
                                                    std::to_string(sums.unitBytes) + " bytes, but " + img.path() +
                                                    " has " + std::to_string(img.sumUnits()) + " of " +
                                                    std::to_string(img.sumUnitBytes()));
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
    checkSumsHeader(*sums, path, copy, img);
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
    if (!copy.format.empty()) {
        // A VHDX's headers and region tables; where its table and metadata
        // lie is known only from those.
        hints.ranges = {{0, std::min<uint64_t>(320 << 10, copy.fileSize)}};
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

// Up to this size a side file is fetched whole, beside the image's open, and
// checked against the catalog's checksum of it: a GET of 256 KiB arrives
// within a round trip or two of a link of 1 Gbit/s or more, and brings the
// checksum of the whole file. A larger one on a store a network away grows
// with the disk (24 MiB for 2 TB of 2 MiB blocks) while a range of it stays
// one request: it is read a range at a time (SumsRanges).
const uint64_t kWholeSumsBytes = 256 << 10;

// The side file's size as far as the catalog tells before the image is
// open: one entry per unit, of 2 MiB (the usual block size), that the file
// can hold.
uint64_t sumsEstimate(const DiskRecord& disk, const CopyRecord& copy) {
    const uint64_t unit = VhdImage::kSumChunk, units = (disk.size + unit - 1) / unit;
    const bool flat = copy.type == kTypeRaw || copy.type == kTypeFixed;
    return BlockSums::kHeaderBytes + copy.file.size() +
           BlockSums::kEntryBytes * (flat ? units : std::min(units, copy.fileSize / (unit + 512)));
}

// A side file on a store a network away, read a range at a time through a
// reader opened when first needed, and kept in the host's metadata cache
// under its name and the checksum the catalog records of it. That checksum
// settles what the file holds: what was kept for it is good whatever became
// of the object since, and a second open on this host asks the store for
// none of what the first one read.
class SideFile : public SumsSource {
public:
    SideFile(const Storage& storage, const CopyRecord& copy, std::shared_ptr<S3MetadataCache> kept)
        : m_storage(storage),
          m_name(copy.sums),
          m_path(storage.describe(copy.sums)),
          m_version(copy.sumsChecksum),
          m_nameBytes(copy.file.size() - copy.file.rfind('/') - 1),
          m_kept(std::move(kept)) {
        if (m_kept) {
            auto e = m_kept->get(key("head"), false);
            if (e && e->version == m_version) {
                m_header = e->bytes;
                m_headerKept = true;
                return;
            }
        }
        // Asked for beside the image's open: the header and, in the same
        // GET, the first range, which a disk's first recall (its partition
        // table) usually needs.
        m_fetching = std::async(std::launch::async, [this] { return fetchHead(); });
    }
    ~SideFile() override {
        if (m_fetching.valid()) m_fetching.wait();  // it uses this object
    }

    // The side file's first bytes, up to the end of the name; asked for
    // once, by the image's loader of its sums. Throws StoreError.
    std::string header() {
        if (!m_headerKept) m_header = m_fetching.get();
        return m_header;
    }

    std::string read(uint64_t offset, uint64_t length) override {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_early.first == offset && m_early.second.size() >= length) {
                std::string bytes = m_early.second.substr(0, length);
                m_early = {};
                return bytes;
            }
        }
        if (m_kept) {
            auto e = m_kept->get(key(std::to_string(offset)), false);
            if (e && e->version == m_version && e->bytes.size() == length) {
                std::lock_guard<std::mutex> lock(m_mutex);
                m_fromKept.insert(offset);
                return e->bytes;
            }
        }
        std::string bytes(length, '\0');
        reader().readAt(offset, &bytes[0], length);
        return bytes;
    }
    void sound(uint64_t offset, const std::string& bytes) override {
        if (!m_kept) return;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_fromKept.erase(offset)) return;
        }
        m_kept->put(key(std::to_string(offset)), m_version, bytes, false);
    }

private:
    std::string key(const std::string& what) const { return "checksums " + m_name + " " + what; }
    const ObjectReader& reader() {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_reader) m_reader = m_storage.openReader(m_name);
        return *m_reader;
    }
    std::string fetchHead() {
        const ObjectReader& r = reader();
        const uint64_t want = BlockSums::kHeaderBytes + m_nameBytes + SumsRanges::kRangeEntries * BlockSums::kEntryBytes;
        std::string bytes(static_cast<size_t>(std::min(want, r.size())), '\0');
        r.readAt(0, &bytes[0], bytes.size());
        uint64_t count = 0, at = 0;
        BlockSums::parseHeader(bytes, m_path, count, at);
        if (r.size() != at + count * BlockSums::kEntryBytes)
            throw StoreError(ErrorKind::corruption, m_path + ": size: " + std::to_string(r.size()) + " bytes, not the " +
                                                        std::to_string(at + count * BlockSums::kEntryBytes) +
                                                        " of its header and " + std::to_string(count) + " entries");
        // Kept at once, since it is fetched with every open until it is: a
        // snapshot whose sums no recall needs would otherwise ask again and
        // again. Its loader checks it, kept or not.
        if (m_kept) m_kept->put(key("head"), m_version, bytes.substr(0, static_cast<size_t>(at)), false);
        std::lock_guard<std::mutex> lock(m_mutex);
        m_early = {at, bytes.substr(static_cast<size_t>(at))};
        return bytes.substr(0, static_cast<size_t>(at));
    }

    const Storage& m_storage;  // outlives the images opened from it
    const std::string m_name, m_path, m_version;
    const uint64_t m_nameBytes;  // the length of the name it must hold
    const std::shared_ptr<S3MetadataCache> m_kept;
    std::string m_header;
    bool m_headerKept = false;
    std::mutex m_mutex;
    std::unique_ptr<ObjectReader> m_reader;
    std::pair<uint64_t, std::string> m_early;  // entries that came with the header, until read
    std::set<uint64_t> m_fromKept;             // ranges taken from the cache, not to be put back
    std::future<std::string> m_fetching;
};

// The sums of a snapshot file read by ranges through `side`: one entry per
// unit the file holds, as an import writes them.
std::shared_ptr<const BlockSums> rangedSums(const std::shared_ptr<SideFile>& side, const std::string& path,
                                            const CopyRecord& copy, const VhdImage& img) {
    const std::string header = side->header();
    uint64_t count = 0, at = 0;
    checkSumsHeader(BlockSums::parseHeader(header, path, count, at), path, copy, img);
    std::vector<uint64_t> held;
    for (uint64_t u = img.nextHeldUnit(0); u < img.sumUnits(); u = img.nextHeldUnit(u + 1)) held.push_back(u);
    return SumsRanges::open(header, path, held, side);
}

}  // namespace

std::shared_ptr<const BlockSums> loadBlockSums(const Storage& storage, const CopyRecord& copy, const VhdImage& img) {
    if (copy.sums.empty()) return nullptr;
    return checkBlockSums(fetchBlockSums(storage, copy, img.sumUnits()), storage.describe(copy.sums), copy, img);
}

std::shared_ptr<VhdImage> openCopyImage(const Storage& storage, const DiskRecord& disk, size_t index,
                                        const std::shared_ptr<S3MetadataCache>& kept) {
    const CopyRecord& copy = disk.copies.at(index);
    const std::string path = storage.describe(copy.sums);
    // The side file is fetched while the image opens, so a store a network
    // away is asked for both in one round trip; a bad one fails the recalls
    // of this file, not the lookups that tell which copy holds an extent.
    // A folder's is read whole: a local read gains nothing by ranges.
    std::shared_future<std::string> sumsBytes;
    std::shared_ptr<SideFile> side;
    if (!copy.sums.empty() && storage.remote() && sumsEstimate(disk, copy) > kWholeSumsBytes)
        side = std::make_shared<SideFile>(storage, copy, kept ? kept : storage.metadataCache());
    else if (!copy.sums.empty())
        // The image is not open yet: a unit per sector of the file bounds it.
        sumsBytes = std::async(std::launch::async, [&storage, copy] {
                        return fetchBlockSums(storage, copy, copy.fileSize / 512 + 1);
                    }).share();
    const FileFormat format = copy.type == kTypeRaw ? FileFormat::Raw
                               : copy.format == "vhdx" ? FileFormat::Vhdx
                                                       : FileFormat::Vhd;
    auto img = std::make_shared<VhdImage>(VhdImage::open(storage.openReader(copy.file, openHints(disk, copy)), format, disk.size));
    checkAgainstRecord(*img, disk, index);
    if (!img->note().empty()) LogSink::write(0, "store", img->path() + ": " + img->note());
    const VhdImage* self = img.get();
    if (sumsBytes.valid())
        img->attachSumsLater([sumsBytes, copy, self, path] { return checkBlockSums(sumsBytes.get(), path, copy, *self); });
    if (side)
        img->attachSumsLater([side, copy, self, path] { return rangedSums(side, path, copy, *self); });
    return img;
}

}  // namespace zxblk
