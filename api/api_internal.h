// What the public objects hold, shared by the files of the library.
#pragma once
#include <memory>
#include <mutex>
#include <string>

#include "api/guarded.h"
#include "host/disk_host.h"
#include "store/catalog.h"
#include "store/storage.h"
#include "store/store_services.h"
#include "zxblk/zxblk.h"

namespace zxblk {

// The S3 connection pools of every store the library opens.
std::shared_ptr<S3Connections> connections();

struct Store::Impl {
    std::string path;  // as the caller named it
    std::shared_ptr<Storage> storage;
    Catalog catalog;
    // The restore service and the rest, made when the first disk opens and
    // shared by every disk of the store.
    std::mutex servicesMutex;
    std::shared_ptr<StoreServices> services;

    std::shared_ptr<StoreServices> openServices();
    std::string clientOf(const DiskRecord& disk) const;
    DiskInfo info(const DiskRecord& disk) const;
    // Throws Error (not found).
    const DiskRecord& record(const std::string& name) const;
};

struct Disk::Impl {
    std::string name, client;
    std::shared_ptr<Store::Impl> store;
    std::shared_ptr<StoreServices> services;  // outlives the host, which it serves
    std::unique_ptr<DiskHost> host;
};

struct LocalExtent::Impl {
    std::shared_ptr<Disk::Impl> disk;  // outlives the handle below
    std::unique_ptr<ExtentHandle> handle;
    uint64_t offset = 0, length = 0;
};

}  // namespace zxblk
