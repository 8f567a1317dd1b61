// The host's extent cache on disk: one file per disk extent, moved in whole.
#pragma once
#include <atomic>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "framework/CUxError.h"
#include "framework/ThreadAnnotations.h"

// Keeps a store's account: which extents it holds, the bytes of each, the
// room they may take and which of them go when a new one needs room. The
// store does the work on files and asks its keeper, never with a lock of its
// own held, so a keeper may call the store's file calls (extentPath,
// deleteExtentFile) from within. A store keeps its own account (a capacity
// and an eviction handler) until a host hands it a keeper of its own.
class ZxBlkExtentKeeper {
public:
    virtual ~ZxBlkExtentKeeper() = default;
    // An extent file that the store holds when the keeper takes over.
    virtual void found(long long extentNumber, unsigned long long bytes) = 0;
    // Room for a file of `bytes` that is to become the extent, replacing the
    // one there if any: made as the keeper sees fit and set aside until
    // settle(); false when it cannot be made.
    virtual bool reserve(long long extentNumber, unsigned long long bytes) = 0;
    // After a reserve: whether the file is now in place; when it is not, the
    // room goes back.
    virtual void settle(long long extentNumber, unsigned long long bytes, bool movedIn) = 0;
    // The file system is full: frees what it can towards `bytes`; returns
    // the bytes freed.
    virtual unsigned long long freeSpace(unsigned long long bytes) = 0;
    // removeExtent took the extent's file away.
    virtual void removed(long long extentNumber) = 0;
    virtual bool holds(long long extentNumber) = 0;
    virtual std::vector<long long> held() = 0;  // in increasing order
    virtual unsigned long long fileSize(long long extentNumber) = 0;  // 0: not held
    virtual unsigned long long usedBytes() = 0;
    virtual unsigned long long capacity() = 0;  // 0: no limit
    virtual void setCapacity(unsigned long long bytes) = 0;
};

// Lock order: m_mutex, m_errorsMutex and m_sparesMutex are never held
// together, nor while the store calls its keeper or its eviction handler.
class ZxBlkBackingStore {
public:
    // `capacity` in bytes; 0 means no limit. Extent files already in the
    // directory (a previous run) are counted; leftover temporaries are not.
    ZxBlkBackingStore(const std::string& cacheDir, unsigned long long capacity);
    ~ZxBlkBackingStore();

    // A new, empty file in the store's temporary folder, open for reading and
    // writing; or, when an extent file that left the cache is kept for it
    // (recycleExtentFile), that file, of the extent size and reading as
    // zeros throughout. Its name holds only [A-Za-z0-9._/-].
    CUxError openTempFile(std::string* path, FILE** file);
    CUxError makeParentDir(const std::string& path);
    // Reserves the space of a temporary file. A recall ahead of any reader
    // (recallsAhead()) gives way on a file system short of space: it takes
    // none of the room kept for readers (setReaderRoom), evicts nothing and
    // fails at once. A reader's recall on a full file system drops the kept
    // files, has the keeper free room (what was read ahead and never read
    // first) and waits for the recalls ahead that hold reserved room to end,
    // for as long as any of that helps; only then does it fail, saying how
    // full the file system is.
    CUxError reserveTempFile(FILE* file, const std::string& path, unsigned long long bytes)
        EXCLUDES(m_mutex, m_sparesMutex, m_errorsMutex);
    // Whether the file system ran short of space for a recall and has not
    // got room back for a recall ahead besides the readers' room: recalls
    // ahead are not worth starting meanwhile.
    bool shortOfSpace();
    // The room a recall ahead leaves free for readers' recalls, in bytes.
    void setReaderRoom(unsigned long long bytes);
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
    // Atomically renames the temporary file into place. The keeper is asked
    // for room first; when it has none, it fails with "cache full", nothing
    // changes and the temporary file stays where it is. A file whose size is
    // not the extent size (when known) is refused the same way: a recall that
    // failed may have emptied it. Space that was reserved for the file and
    // never written is given back first, so that zero stretches of an extent
    // cost no disk blocks in the cache.
    CUxError moveInExtentFile(const std::string& tempPath, long long extentNumber);
    // The size every extent file must have; 0 (the default) checks nothing.
    void setExtentSize(unsigned long long bytes);
    // The eviction policy of the store's own account: called without the
    // account's lock held, with the number of bytes that must be freed
    // (asked again, a few times, while it frees some that other move-ins
    // take); it removes extents of its choice through removeExtent and
    // returns how many bytes it freed.
    void setEvictionHandler(std::function<unsigned long long(unsigned long long bytesToFree)> handler);
    // Hands the account to a keeper that outlives the store's use: it is told
    // of every extent file the store holds, then answers for the store.
    void setKeeper(ZxBlkExtentKeeper* keeper);

    bool hasExtent(long long extentNumber);
    std::string extentPath(long long extentNumber) const;
    // Removes the extent's file and tells the keeper.
    CUxError removeExtent(long long extentNumber);
    // Removes the extent's file only: for a keeper that removes what it keeps.
    CUxError deleteExtentFile(long long extentNumber) const;
    // The same, but the file is kept (moved into the temporary folder, at
    // most a few at a time) to become the next temporary file: its inode and
    // blocks are taken again rather than freed and made anew, which on a
    // file system without a journal costs a walk over every inode freed in
    // the last minute. Only for a file that nobody holds open: it is zeroed
    // when it is taken again. The blocks of the files kept are outside the
    // account; they go first when the file system is full.
    CUxError recycleExtentFile(long long extentNumber) EXCLUDES(m_mutex, m_sparesMutex);
    std::vector<long long> extents();
    unsigned long long usedBytes();
    unsigned long long capacity();
    void setCapacity(unsigned long long capacity);
    unsigned long long extentFileSize(long long extentNumber);
    // Removes temporaries left by a run that did not end cleanly.
    void clearTemporaries();
    const std::string& directory() const { return m_dir; }

private:
    class OwnAccount;
    void rescan();
    ZxBlkExtentKeeper& keeper() const { return *m_keeper.load(std::memory_order_acquire); }
    // Makes a folder and its parents; the folders made or found once are
    // remembered, so that an extent in a known folder costs no system call.
    int ensureDirLocked(const std::string& dir) REQUIRES(m_mutex);
    // Keeps a failure for takeLastError and passes it on.
    CUxError noted(CUxError error) EXCLUDES(m_errorsMutex);
    // A kept extent file, open and zeroed, or -1 when none is left or none
    // can be zeroed (those are removed); *path is its name.
    int takeSpare(std::string* path) EXCLUDES(m_sparesMutex, m_mutex);
    // Removes the kept files; whether there were any.
    bool dropSpares() EXCLUDES(m_sparesMutex);
    unsigned long long freeBytes() const;
    // A recall ahead: reserves only what leaves the readers' room free.
    CUxError reserveAhead(FILE* file, const std::string& path, unsigned long long bytes) EXCLUDES(m_mutex);
    // Until a recall ahead that holds reserved room ends (moved in or
    // discarded); false at once when none holds any.
    bool waitForAhead() EXCLUDES(m_mutex);
    // Forgets the calling thread's temporary, and wakes a reader waiting for
    // its room when it was a recall ahead's.
    void dropTempLocked(std::thread::id thread) REQUIRES(m_mutex);
    std::string m_dir;
    std::unique_ptr<OwnAccount> m_own;
    std::atomic<ZxBlkExtentKeeper*> m_keeper;
    zxblk::Mutex m_mutex;
    unsigned long long m_extentSize GUARDED_BY(m_mutex) = 0;
    std::set<std::string> m_dirs GUARDED_BY(m_mutex);
    // Each reading thread's open temporary, and whether a recall ahead
    // holds room reserved in it.
    struct TempFile {
        std::string path;
        bool aheadRoom = false;
    };
    std::map<std::thread::id, TempFile> m_temps GUARDED_BY(m_mutex);
    unsigned m_aheadRooms GUARDED_BY(m_mutex) = 0;   // temporaries with aheadRoom
    unsigned long long m_aheadEnded GUARDED_BY(m_mutex) = 0;  // counts their ends
    zxblk::CondVar m_aheadRoomFreed;
    std::atomic<bool> m_short{false};
    std::atomic<unsigned long long> m_readerRoom{0};
    zxblk::Mutex m_errorsMutex;
    std::map<std::thread::id, std::string> m_errors GUARDED_BY(m_errorsMutex);  // each thread's last failure
    // A leaf: taken by recycleExtentFile under the keeper's own lock, and
    // never held while anything else is called.
    zxblk::Mutex m_sparesMutex;
    std::vector<std::string> m_spares GUARDED_BY(m_sparesMutex);  // the kept files' paths
    unsigned long long m_spareNames GUARDED_BY(m_sparesMutex) = 0;
};
