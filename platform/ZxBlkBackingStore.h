// The host's extent cache on disk: one file per disk extent, moved in whole.
#pragma once
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
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
    // Reserves the space of a temporary file. When the file system is full,
    // the eviction handler is asked to free room, as for a full cache, for as
    // long as it frees some; only then does the reservation fail.
    CUxError reserveTempFile(FILE* file, const std::string& path, unsigned long long bytes);
    // Removes the temporary file that the calling thread opened last, if it
    // was not moved in: what a failed read leaves behind.
    void discardTemporary();
    // Why the calling thread's last call failed (creating, reserving or
    // moving in a temporary file), once; "" when none failed since. The
    // disk object logs such a failure and returns false; its host says why.
    std::string takeLastError();
    // Extent files fan out over two levels of folders (256 x 256), so that a
    // disk of a million extents keeps a few dozen files per folder.
    CUxError getExtentFileName(long long extentNumber, std::string* name);
    // Atomically renames the temporary file into place. When the store would
    // pass its capacity, the eviction handler (if any) is asked to free room,
    // again (a few times) while it frees some that others' move-ins take; if it
    // still does not fit, it fails with "cache full", nothing changes and the
    // temporary file stays
    // where it is. A file whose size is not the extent size (when known) is
    // refused the same way: a recall that failed may have emptied it. Space
    // that was reserved for the file and never written is given back first,
    // so that zero stretches of an extent cost no disk blocks in the cache.
    CUxError moveInExtentFile(const std::string& tempPath, long long extentNumber);
    // The size every extent file must have; 0 (the default) checks nothing.
    void setExtentSize(unsigned long long bytes);
    // The host's eviction policy: called without the store's lock held, with
    // the number of bytes that must be freed; it removes extents of its
    // choice through removeExtent and returns how many bytes it freed.
    void setEvictionHandler(std::function<unsigned long long(unsigned long long bytesToFree)> handler);
    // Told of every extent moved in (after the store's lock is released):
    // the host learns what arrived even when a reader drops it at once.
    void setMoveInHandler(std::function<void(long long extentNumber)> handler);

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
    // Makes a folder and its parents; the folders made or found once are
    // remembered, so that an extent in a known folder costs no system call.
    int ensureDirLocked(const std::string& dir);
    // Keeps a failure for takeLastError and passes it on.
    CUxError noted(CUxError error);
    std::string m_dir;
    unsigned long long m_capacity;
    std::mutex m_mutex;
    std::set<long long> m_extents;
    std::map<long long, unsigned long long> m_sizes;
    unsigned long long m_used = 0;
    unsigned long long m_extentSize = 0;
    std::set<std::string> m_dirs;
    std::function<unsigned long long(unsigned long long)> m_evict;
    std::function<void(long long)> m_movedIn;
    std::map<std::thread::id, std::string> m_temps;   // each reading thread's open temporary
    std::mutex m_errorsMutex;  // not m_mutex: a failure is noted where that is held
    std::map<std::thread::id, std::string> m_errors;  // each thread's last failure
};
