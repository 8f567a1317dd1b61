#include "mount_fs.h"

#include <blkid.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <type_traits>

namespace zxblk {
namespace {

const char* const kSource = "zxblk mount";
const std::string kDisk = "/disk.raw", kControl = "/.control", kStats = "/.stats";

Mounted& mounted() { return *static_cast<Mounted*>(fuse_get_context()->private_data); }

// The disk a path lies in, and the path within that disk's folder ("/" for
// the folder itself); nullptr for the top of a mount of several disks, and
// for what lies in no disk's folder.
MountedDisk* diskOf(const char* path, std::string& rest) {
    Mounted& m = mounted();
    rest = path;
    if (!m.folders) return m.disks.front().get();
    for (const auto& d : m.disks) {
        const std::string& f = d->folder;
        if (rest.compare(0, f.size(), f) == 0 && (rest.size() == f.size() || rest[f.size()] == '/')) {
            rest = rest.size() == f.size() ? "/" : rest.substr(f.size());
            return d.get();
        }
    }
    return nullptr;
}

// The range of the disk that a file of its folder presents: all of it, or
// a partition.
bool rangeOf(MountedDisk& d, const std::string& rest, uint64_t* offset, uint64_t* size) {
    if (rest == kDisk) {
        *offset = 0, *size = d.disk.size();
        return true;
    }
    std::lock_guard<std::mutex> lock(d.partitionsMutex);
    for (const Partition& p : d.partitions)
        if (rest.size() > 1 && p.name == rest.substr(1)) {
            *offset = p.offset, *size = p.size;
            return true;
        }
    return false;
}

void fillDirectory(struct stat* st) {
    st->st_mode = S_IFDIR | 0555;
    st->st_nlink = 2;
}

int getattrOp(const char* path, struct stat* st, struct fuse_file_info*) {
    std::memset(st, 0, sizeof *st);
    st->st_uid = getuid();
    st->st_gid = getgid();
    st->st_mtime = st->st_ctime = st->st_atime = mounted().mountTime;
    st->st_nlink = 1;
    std::string rest;
    MountedDisk* d = diskOf(path, rest);
    uint64_t offset, size;
    if (rest == "/") {
        fillDirectory(st);
    } else if (rest == kControl && (d || mounted().folders)) {
        st->st_mode = S_IFREG | 0200;
    } else if (!d) {
        return -ENOENT;
    } else if (rangeOf(*d, rest, &offset, &size)) {
        st->st_mode = S_IFREG | 0444;
        st->st_size = static_cast<off_t>(size);
        st->st_blocks = (st->st_size + 511) / 512;
    } else if (rest == kStats) {
        st->st_mode = S_IFREG | 0444;
        st->st_size = 4096;  // read with direct I/O: the text is as long as it is
    } else {
        return -ENOENT;
    }
    return 0;
}

int readdirOp(const char* path, void* buf, fuse_fill_dir_t fill, off_t, struct fuse_file_info*, enum fuse_readdir_flags) {
    std::string rest;
    MountedDisk* d = diskOf(path, rest);
    if (rest != "/") return -ENOENT;
    auto add = [&](const std::string& name) { fill(buf, name.c_str(), nullptr, 0, static_cast<fuse_fill_dir_flags>(0)); };
    add(".");
    add("..");
    if (!d) {
        add(kControl.substr(1));
        for (const auto& disk : mounted().disks) add(disk->name);
        return 0;
    }
    for (const std::string& name : {kDisk, kControl, kStats}) add(name.substr(1));
    std::lock_guard<std::mutex> lock(d->partitionsMutex);
    for (const Partition& p : d->partitions) add(p.name);
    return 0;
}

int openOp(const char* path, struct fuse_file_info* fi) {
    int mode = fi->flags & O_ACCMODE;
    std::string rest;
    MountedDisk* d = diskOf(path, rest);
    uint64_t offset, size;
    if (rest == kControl && (d || mounted().folders)) {
        if (mode == O_RDONLY) return -EACCES;
        fi->direct_io = 1;
        return 0;
    }
    if (!d) return -ENOENT;
    if (rangeOf(*d, rest, &offset, &size)) {
        if (mode != O_RDONLY) return -EROFS;
        fi->keep_cache = 1;  // the bytes never change while mounted
        return 0;
    }
    if (rest == kStats) {
        if (mode != O_RDONLY) return -EACCES;
        fi->direct_io = 1;
        return 0;
    }
    return -ENOENT;
}

// SEEK_DATA and SEEK_HOLE from the snapshots' block tables, so that
// qemu-img map, cp --sparse and the like skip what no snapshot holds
// without recalling it. A file's end counts as a hole, as the kernel has it.
off_t lseekOp(const char* path, off_t offset, int whence, struct fuse_file_info*) {
    std::string rest;
    MountedDisk* d = diskOf(path, rest);
    uint64_t start, length;
    if (!d || !rangeOf(*d, rest, &start, &length)) return -EINVAL;
    if (whence != SEEK_DATA && whence != SEEK_HOLE) return -EINVAL;
    if (offset < 0 || static_cast<uint64_t>(offset) >= length) return -ENXIO;
    const bool wantData = whence == SEEK_DATA;
    try {
        // Asked a stretch at a time: a seek near the start of a large sparse
        // disk should not walk all of its block tables.
        const uint64_t stretch = d->disk.allocationGranularity() * 1024, end = start + length;
        for (uint64_t at = start + static_cast<uint64_t>(offset); at < end;) {
            uint64_t n = std::min(stretch, end - at);
            for (const Range& r : d->disk.allocation(at, n))
                if (r.data == wantData) return static_cast<off_t>(std::max(r.offset, at) - start);
            at += n;
        }
    } catch (const std::exception& e) {
        logLine(-1, kSource, "seek in " + std::string(path + 1) + " failed: " + e.what());
        return -EIO;
    }
    return wantData ? -ENXIO : static_cast<off_t>(length);
}

int readOp(const char* path, char* buf, size_t size, off_t offset, struct fuse_file_info*) {
    std::string rest;
    MountedDisk* d = diskOf(path, rest);
    if (!d) return -ENOENT;
    if (rest == kStats) {
        std::string text;
        try {
            text = d->disk.statsText();
        } catch (const std::exception& e) {
            logLine(-1, kSource, "statistics of " + d->name + ": " + e.what());
            return -EIO;
        }
        {
            std::lock_guard<std::mutex> lock(d->partitionsMutex);
            text += "partitions " + std::to_string(d->partitions.size()) + "\n";
        }
        if (static_cast<size_t>(offset) >= text.size()) return 0;
        size_t n = std::min(size, text.size() - static_cast<size_t>(offset));
        std::memcpy(buf, text.data() + offset, n);
        return static_cast<int>(n);
    }
    uint64_t start, length;
    if (!rangeOf(*d, rest, &start, &length)) return -ENOENT;
    if (static_cast<uint64_t>(offset) >= length) return 0;
    size_t n = static_cast<size_t>(std::min<uint64_t>(size, length - static_cast<uint64_t>(offset)));
    try {
        d->disk.read(start + static_cast<uint64_t>(offset), n, buf);
    } catch (const std::exception& e) {
        // The reader gets EIO; the mount goes on serving everything else.
        logLine(-1, kSource,
                "read of " + std::to_string(n) + " bytes at " + std::to_string(offset) + " of " + (path + 1) +
                    " failed: " + e.what());
        return -EIO;
    }
    return static_cast<int>(n);
}

// One line of a .control file, for one disk: "" when done, else why not.
std::string control(MountedDisk& d, const std::string& line) {
    try {
        if (line == "mount-complete")
            d.disk.markMountComplete();
        else if (line == "metadata-begin")
            d.disk.beginMetadata();
        else
            d.disk.endMetadata();
    } catch (const std::exception& e) {
        return e.what();
    }
    return std::string();
}

// The control file of a disk's folder drives that disk; the one at the top
// of a mount of several drives each of them, and fails when any fails.
int writeOp(const char* path, const char* buf, size_t size, off_t, struct fuse_file_info*) {
    std::string rest;
    MountedDisk* d = diskOf(path, rest);
    if (rest != kControl || (!d && !mounted().folders)) return -EACCES;
    std::vector<MountedDisk*> targets;
    if (d)
        targets.push_back(d);
    else
        for (const auto& disk : mounted().disks) targets.push_back(disk.get());
    std::string text(buf, size);
    for (size_t start = 0; start < text.size();) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(start, end - start);
        while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) line.pop_back();
        start = end + 1;
        if (line.empty()) continue;
        if (line != "mount-complete" && line != "metadata-begin" && line != "metadata-end") {
            logLine(-1, kSource, "control: unknown line '" + line + "' (mount-complete, metadata-begin or metadata-end)");
            return -EINVAL;
        }
        bool failed = false;
        for (MountedDisk* t : targets) {
            std::string error = control(*t, line);
            logLine(error.empty() ? 1 : -1, kSource, "control: " + line + " (" + t->name + ")" + (error.empty() ? "" : ": " + error));
            failed = failed || !error.empty();
        }
        if (failed) return -EIO;
    }
    return static_cast<int>(size);
}

int truncateOp(const char* path, off_t, struct fuse_file_info*) {
    std::string rest;
    MountedDisk* d = diskOf(path, rest);
    return rest == kControl && (d || mounted().folders) ? 0 : -EACCES;
}

}  // namespace

struct fuse_operations mountOperations() {
    struct fuse_operations ops;
    std::memset(&ops, 0, sizeof ops);
    ops.getattr = getattrOp;
    ops.readdir = readdirOp;
    ops.open = openOp;
    ops.read = readOp;
    ops.lseek = lseekOp;
    ops.write = writeOp;
    ops.truncate = truncateOp;
    return ops;
}

// libblkid reads MBR with its logical partitions, and GPT.
std::string presentPartitions(MountedDisk& d, const std::string& mountpoint) {
    const std::string path = mountpoint + d.folder + kDisk;
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) throw Error(path + ": " + std::strerror(errno), ErrorKind::io);
    std::unique_ptr<int, void (*)(int*)> closer(&fd, [](int* f) { ::close(*f); });
    std::unique_ptr<std::remove_pointer_t<blkid_probe>, void (*)(blkid_probe)> probe(blkid_new_probe(),
                                                                                     blkid_free_probe);
    if (!probe || blkid_probe_set_device(probe.get(), fd, 0, 0) != 0)
        throw Error(path + ": libblkid cannot probe it", ErrorKind::io);
    blkid_probe_enable_superblocks(probe.get(), 0);
    blkid_probe_enable_partitions(probe.get(), 1);
    blkid_partlist list = blkid_probe_get_partitions(probe.get());
    if (!list) return std::string();  // no partition table
    blkid_parttable tab = blkid_partlist_get_table(list);
    const char* type = tab ? blkid_parttable_get_type(tab) : nullptr;
    std::string table =
        !type ? "unknown" : std::strcmp(type, "dos") == 0 ? "MBR" : std::strcmp(type, "gpt") == 0 ? "GPT" : type;
    const uint64_t sectors = d.disk.size() / 512;  // libblkid counts in 512-byte sectors whatever the disk's
    std::vector<Partition> parts;
    for (int i = 0, n = blkid_partlist_numof_partitions(list); i < n; ++i) {
        blkid_partition p = blkid_partlist_get_partition(list, i);
        // An extended partition only holds the logical ones, which come on their own.
        if (!p || blkid_partition_is_extended(p)) continue;
        int number = blkid_partition_get_partno(p);
        blkid_loff_t start = blkid_partition_get_start(p), size = blkid_partition_get_size(p);
        std::string name = "part" + std::to_string(number);
        bool taken = std::any_of(parts.begin(), parts.end(), [&](const Partition& q) { return q.name == name; });
        if (number <= 0 || taken || start < 0 || size <= 0 || static_cast<uint64_t>(start) > sectors ||
            static_cast<uint64_t>(size) > sectors - static_cast<uint64_t>(start)) {
            logLine(-1, kSource,
                    d.name + ": partition " + std::to_string(number) + " (" + std::to_string(size) +
                        " sectors at sector " + std::to_string(start) +
                        ") does not fit the disk or repeats a number; not presented");
            continue;
        }
        parts.push_back({name, static_cast<uint64_t>(start) * 512, static_cast<uint64_t>(size) * 512});
    }
    std::string names;
    for (const Partition& p : parts) names += (names.empty() ? "" : ", ") + p.name;
    {
        std::lock_guard<std::mutex> lock(d.partitionsMutex);
        d.partitions = std::move(parts);
    }
    if (names.empty()) return std::string();
    logLine(1, kSource, d.name + ": " + table + " partition table: " + names);
    return table + " partitions " + names;
}

}  // namespace zxblk
