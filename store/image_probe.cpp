#include "store/image_probe.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "store/fd_io.h"

namespace zxblk {
namespace {

using namespace std::string_literals;

// What people hand to an import by mistake: other disk image formats and
// compressed files, each known by bytes it must have, so that a refusal can
// name it and say what to do instead of taking it for a raw disk.
struct Signature {
    const char* name;  // with its article, as the refusal says it
    int64_t at;        // from the start of the file, or from its end when negative
    std::string bytes;
    const char* advice;
    int64_t at2 = 0;  // a second check, for a signature whose first part is short
    std::string bytes2 = "";
};

// Not "--format raw": that would import the container's own bytes as the disk.
const char* const kConvert = "convert it to a VHD with qemu-img convert -O vpc and import that";

const Signature kSignatures[] = {
    {"a qcow image", 0, "QFI\xfb\0\0\0\x01"s, kConvert},  // version 1; 2 and 3 are qcow2
    {"a qcow2 image", 0, "QFI\xfb"s, kConvert},
    {"a QED image", 0, "QED\0"s, kConvert},
    {"a VMDK image", 0, "KDMV", kConvert},
    {"a VMDK image", 0, "COWD", kConvert},
    {"a VMDK descriptor", 0, "# Disk DescriptorFile",
     "convert it with qemu-img convert -O vpc, or import the raw extent file it names with --format raw"},
    {"a VDI image", 0x40, "\x7f\x10\xda\xbe"s, kConvert},
    {"a Parallels image", 0, "WithoutFreeSpace", kConvert},
    {"a Parallels image", 0, "WithouFreSpacExt", kConvert},
    {"a Bochs image", 0, "Bochs Virtual HD Image\0"s, kConvert},
    {"a DMG image", -512, "koly\0\0\0\x04\0\0\x02\0"s, kConvert},  // its trailer: version 4, 512 bytes
    {"a LUKS encrypted volume", 0, "LUKS\xba\xbe"s, "import it as raw with --format raw to keep it as it is, encrypted"},
    {"a gzip-compressed file", 0, "\x1f\x8b\x08"s, "decompress it and import the image inside"},
    {"an xz-compressed file", 0, "\xfd" "7zXZ\0"s, "decompress it and import the image inside"},
    {"a zstd-compressed file", 0, "\x28\xb5\x2f\xfd"s, "decompress it and import the image inside"},
    {"a bzip2-compressed file", 0, "BZh", "decompress it and import the image inside", 4, "1AY&SY"},
};

// What a file's first and last bytes say it is.
struct Probe {
    bool regular = false;
    bool vhd = false;  // a footer cookie at the end, or at the start where a dynamic disk keeps its copy
    bool vhdx = false;  // the file type identifier at the start
    const Signature* other = nullptr;
};

Probe probe(const std::string& path) {
    ScopedFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.fd < 0) throw StoreError(path + ": " + std::strerror(errno));
    struct stat st;
    Probe p;
    if (::fstat(fd.fd, &st) != 0 || !S_ISREG(st.st_mode)) return p;
    p.regular = true;
    const uint64_t size = static_cast<uint64_t>(st.st_size);
    char head[512] = {0}, tail[512] = {0};
    const size_t headBytes = static_cast<size_t>(std::min<uint64_t>(size, sizeof head));
    auto readAt = [&](char* into, size_t length, uint64_t at) {
        ssize_t n = ::pread(fd.fd, into, length, static_cast<off_t>(at));
        if (n < 0) throw StoreError(path + ": " + std::strerror(errno));
        if (static_cast<size_t>(n) != length) throw StoreError(path + ": shorter than its size; is it being written to?");
    };
    readAt(head, headBytes, 0);
    if (size >= 512) readAt(tail, 512, size - 512);
    p.vhd = (size >= 512 && std::memcmp(tail, "conectix", 8) == 0) || (size >= 1024 && std::memcmp(head, "conectix", 8) == 0);
    auto has = [&](int64_t at, const std::string& bytes) {
        if (bytes.empty()) return true;
        if (at < 0) return size >= 512 && -at <= 512 && std::memcmp(tail + 512 + at, bytes.data(), bytes.size()) == 0;
        return static_cast<uint64_t>(at) + bytes.size() <= headBytes && std::memcmp(head + at, bytes.data(), bytes.size()) == 0;
    };
    // A fixed VHD holds its disk from offset 0: a footer at the end says it
    // is one, whatever its disk starts with.
    p.vhdx = !p.vhd && headBytes >= 8 && std::memcmp(head, "vhdxfile", 8) == 0;
    for (const Signature& s : kSignatures)
        if (!p.vhd && !p.other && has(s.at, s.bytes) && has(s.at2, s.bytes2)) p.other = &s;
    return p;
}

}  // namespace

// Opens an image as the import's format says, refusing what it is not.
VhdImage openImage(const std::string& path, ImportFormat format) {
    if (format == ImportFormat::Raw) return VhdImage::open(path, true);
    if (format == ImportFormat::Vhdx) return VhdImage::open(path, FileFormat::Vhdx);
    Probe p = probe(path);
    if (p.vhdx && format == ImportFormat::Vhd)
        throw StoreError(ErrorKind::invalidArgument, path + " is a VHDX image, not a VHD; import it without --format vhd");
    if (p.vhdx) return VhdImage::open(path, FileFormat::Vhdx);
    // The reader says what is wrong with a file that is not a regular one,
    // or whose footer cookie is there but whose footer is not sound.
    if (!p.regular || p.vhd) return VhdImage::open(path);
    if (p.other) throw StoreError(ErrorKind::invalidArgument, path + " is " + p.other->name + "; " + p.other->advice);
    throw StoreError(ErrorKind::invalidArgument,
                     path + " is neither a VHD (no footer) nor a VHDX image; to import a raw disk image give --format raw");
}

}  // namespace zxblk
