// The disks that a mount or a server presents: named one by one with
// --disk, or all the disks of a virtual machine with --client, at one
// snapshot number, each with an extent cache of its own.
#pragma once
#include <CLI/CLI.hpp>
#include <cstdint>
#include <string>
#include <vector>

#include "cli_util.h"
#include "zxblk/zxblk.h"

namespace zxblk {

struct PresentedOptions {
    std::string store;
    std::vector<std::string> disks, clients;
    int snapshot = -1;   // -1: each disk's newest
    std::string cache;   // one disk: its cache; several: the folder of their caches
    uint64_t cacheLimit = 0;
    uint64_t readahead = DiskOptions().readahead;  // bytes; 0: none
    bool allowDamaged = false;
};

// --store, --disk, --client, --snapshot, --cache, --cache-limit, --readahead
// and --allow-damaged.
void addPresentedOptions(CLI::App* command, PresentedOptions& options);

// A usage error unless the options name a disk or a client.
void requirePresented(const PresentedOptions& options);

struct PresentedDisk {
    std::string name;
    int snapshot = 0;       // the one presented
    std::string cacheDir;   // for DiskOptions::cacheDir: empty for the default one
};

// The disks the options name, in order: each client's in the catalog's
// order, or those of --disk as given, each once. Throws Error when the
// store lacks a disk, a client or the snapshot.
std::vector<PresentedDisk> presentedDisks(const Store& store, const PresentedOptions& options);

}  // namespace zxblk
