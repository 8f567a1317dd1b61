#include "platform/ZxServices.h"

#include <mutex>

namespace zxblk {
namespace {

std::mutex g_registryMutex;
std::shared_ptr<RestoreService> g_restore;
std::shared_ptr<ExtentLookupService> g_lookup;
std::shared_ptr<RecordsService> g_records;
std::shared_ptr<IndexService> g_index;

template <typename T>
void put(std::shared_ptr<T>& slot, std::shared_ptr<T> value) {
    std::lock_guard<std::mutex> lock(g_registryMutex);
    slot = std::move(value);
}

template <typename T>
std::shared_ptr<T> get(const std::shared_ptr<T>& slot) {
    std::lock_guard<std::mutex> lock(g_registryMutex);
    return slot;
}

}  // namespace

void setRestoreService(std::shared_ptr<RestoreService> s) { put(g_restore, std::move(s)); }
std::shared_ptr<RestoreService> restoreService() { return get(g_restore); }
void setExtentLookupService(std::shared_ptr<ExtentLookupService> s) { put(g_lookup, std::move(s)); }
std::shared_ptr<ExtentLookupService> extentLookupService() { return get(g_lookup); }
void setRecordsService(std::shared_ptr<RecordsService> s) { put(g_records, std::move(s)); }
std::shared_ptr<RecordsService> recordsService() { return get(g_records); }
void setIndexService(std::shared_ptr<IndexService> s) { put(g_index, std::move(s)); }
std::shared_ptr<IndexService> indexService() { return get(g_index); }

}  // namespace zxblk
