// The file system of `zxblk mount`. One disk shows as MOUNTPOINT/disk.raw,
// each partition of its partition table as MOUNTPOINT/partN, with
// MOUNTPOINT/.control driving the mount and metadata phases and
// MOUNTPOINT/.stats telling what was recalled. Several disks (a virtual
// machine's) show the same in a folder per disk, MOUNTPOINT/DISK/...,
// beside MOUNTPOINT/.control, whose lines go to every disk.
#pragma once
#define FUSE_USE_VERSION 35
#include <fuse.h>

#include <ctime>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "zxblk/zxblk.h"

namespace zxblk {

// A partition of a disk, presented as its own file.
struct Partition {
    std::string name;  // "part1": the number the partition table gives it
    uint64_t offset = 0, size = 0;
};

struct MountedDisk {
    MountedDisk(std::string name, std::string folder, Disk disk)
        : name(std::move(name)), folder(std::move(folder)), disk(std::move(disk)) {}
    std::string name;
    std::string folder;  // "" in a mount of one disk, "/NAME" in a mount of several
    Disk disk;
    // Filled once the partition table has been read, after the mount is up.
    std::mutex partitionsMutex;
    std::vector<Partition> partitions;
};

// What the FUSE operations serve; fuse_new gets it as the private data.
struct Mounted {
    bool folders = false;  // a folder per disk
    std::time_t mountTime = 0;
    std::vector<std::unique_ptr<MountedDisk>> disks;
};

struct fuse_operations mountOperations();

// Reads the disk's partition table with libblkid through the running mount
// (MOUNTPOINT/FOLDER/disk.raw, whose reads the mount serves like anyone's)
// and presents its partitions. Returns "MBR partitions part1, part2", or ""
// for a disk without a table. Throws Error when the table cannot be read.
std::string presentPartitions(MountedDisk& disk, const std::string& mountpoint);

}  // namespace zxblk
