// The host's extent cache on disk: one file per disk extent, moved in whole.
#pragma once
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "framework/CUxError.h"

class ZxBlkBackingStore {
public:
    // `capacity` in bytes; 0 means no limit. Extent files already in the
    // directory (a previous run) are counted; leftover temporaries are not.
    ZxBlkBackingStore(const std::string& cacheDir, unsigned long long capacity);
    ~ZxBlkBackingStore();

    // A new, empty file in the store's temporary folder, open for reading and
    // writing. Its name holds only [A-Za-z0-9._/-].
    CUxError openTempFile(std::string* path, FILE** file);
    CUxError makeParentDir(const std::string& path);
    // Extent files fan out over two levels of folders (256 x 256), so that a
    // disk of a million extents keeps a few dozen files per folder.
    CUxError getExtentFileName(long long extentNumber, std::string* name);
    // Atomically renames the temporary file into place. When the store would
    // pass its capacity, the eviction handler (if any) is asked once to free
    // room and the move-in is retried once; if it still does not fit, it
    // fails with "cache full", nothing changes and the temporary file stays
    // where it is.
    CUxError moveInExtentFile(const std::string& tempPath, long long extentNumber);
    // The host's eviction policy: called without the store's lock held, with
    // the number of bytes that must be freed; it removes extents of its
    // choice through removeExtent.
    void setEvictionHandler(std::function<void(unsigned long long bytesToFree)> handler);

    bool hasExtent(long long extentNumber);
    std::string extentPath(long long extentNumber) const;
    CUxError removeExtent(long long extentNumber);
    std::vector<long long> extents();
    unsigned long long usedBytes();
    unsigned long long capacity();
    void setCapacity(unsigned long long capacity);
    unsigned long long extentFileSize(long long extentNumber);
    // Removes temporaries left by a run that did not end cleanly.
    void clearTemporaries();
    const std::string& directory() const { return m_dir; }

private:
    void rescan();
    std::string m_dir;
    unsigned long long m_capacity;
    std::mutex m_mutex;
    std::set<long long> m_extents;
    std::map<long long, unsigned long long> m_sizes;
    unsigned long long m_used = 0;
    std::function<void(unsigned long long)> m_evict;
};
