// The extent cache of one open disk: its folder (one process at a time), what
// it holds (identity), its durability (the dirty mark) and the account of its
// extents: their bytes, the order of their use, the pins of the reads using
// them, which go to make room and the files kept open. The provider moves
// extent files in through the backing store that the cache owns; the store
// asks the cache for room and tells it what arrived, so the cache is the one
// place that knows what is local.
//
// Lock order: m_mutex is the innermost lock of the host. It is taken by the
// cache's own calls and by the backing store's calls to its keeper (on the
// thread of a recall, under that disk object's lock); with it held the cache
// makes only system calls, the store's lock-free file calls (extentPath,
// deleteExtentFile) and recycleExtentFile, which takes only the store's own
// leaf locks; never a call that takes another lock.
#pragma once
#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "framework/AutoHandles.h"
#include "framework/ThreadAnnotations.h"
#include "host/cache_folder.h"
#include "platform/ZxBlkBackingStore.h"

namespace zxblk {

// An extent's file, open for reading: closed when neither the cache nor a
// reader holds it any more. A reader that holds it keeps reading even once
// the extent left the cache: the descriptor outlives the name.
class ExtentFile {
public:
    explicit ExtentFile(int fd) : m_fd(fd) {}
    int fd() const { return m_fd.get(); }

private:
    auto_handle m_fd;
};

class ExtentCache : private ZxBlkExtentKeeper {
public:
    struct Options {
        uint64_t extentSize = 0;
        unsigned long long limit = 0;  // bytes; 0: a quarter of the space the cache may use
        std::string mountPoint;        // named in the lock file, when a mount holds the cache
        bool dropAtEnd = false;        // the cache and its folder go when it closes
    };
    // Takes the folder (made when missing) and what it holds: waits for a
    // process that is leaving it, refuses one that uses it, drops the extents
    // of a run that did not close it cleanly or that belong to another
    // identity, and trims them to the limit. Throws StoreError.
    ExtentCache(const std::string& dir, const CacheIdentity& identity, const Options& options);
    // Syncs the extent files moved in since the cache was last durable, and
    // their folders, at a clean close and takes the dirty mark away, or
    // removes it all (dropAtEnd). No recall may be under way.
    ~ExtentCache();
    ExtentCache(const ExtentCache&) = delete;
    ExtentCache& operator=(const ExtentCache&) = delete;

    const std::string& dir() const { return m_dir; }
    // Where the provider moves extent files in.
    ZxBlkBackingStore& store() { return *m_store; }
    // A cache dropped because it was not closed cleanly or held another disk.
    const std::vector<std::string>& notices() const { return m_notices; }
    // Tells a process that starts meanwhile to wait for this one to end.
    void noteStopping();

    // Pins the extent, so that no eviction takes it until unpin(), whether
    // it is local yet or not; when it is, counts a use of it and returns its
    // file. Null: it must be recalled, and then open() gives its file.
    // Throws StoreError when the file cannot be opened (the pin goes then).
    std::shared_ptr<ExtentFile> pinAndOpen(uint64_t extent) EXCLUDES(m_mutex);
    // The file of an extent the caller has pinned, counted as a use; null
    // when it is not local. Throws StoreError when it cannot be opened.
    std::shared_ptr<ExtentFile> open(uint64_t extent) EXCLUDES(m_mutex);
    void unpin(uint64_t extent) EXCLUDES(m_mutex);
    // Whether the extent is local; `use` counts it as used.
    bool local(uint64_t extent, bool use) EXCLUDES(m_mutex);
    // Drops the extent unless a read has it pinned, and keeps readaheads
    // already under way from bringing it back.
    void forget(uint64_t extent) EXCLUDES(m_mutex);
    // Whether a recall of the extent may go ahead: not a readahead of one a
    // reader forgot; a reader's recall clears that. A readahead allowed to
    // go ahead marks what it moves in as read ahead and not yet used.
    bool mayRecall(uint64_t extent, bool ahead) EXCLUDES(m_mutex);
    // Whether the extent was moved in since the last call for it: a recall
    // learns so even when the extent left again at once. Ends the recall.
    bool takeArrival(uint64_t extent) EXCLUDES(m_mutex);
    // Puts the dirty mark down, durably, unless it is; throws StoreError.
    // Called before every recall, as a move-in may follow.
    void markDirty() EXCLUDES(m_mutex);

    std::vector<long long> extents() EXCLUDES(m_mutex) { return held(); }
    size_t count() EXCLUDES(m_mutex);
    unsigned long long usedBytes() override EXCLUDES(m_mutex);
    unsigned long long capacity() override EXCLUDES(m_mutex);
    uint64_t evictions() EXCLUDES(m_mutex);
    // Extents read ahead that no reader has used: evicted or dropped before
    // a read came for them, or still waiting for one.
    uint64_t unusedAhead() EXCLUDES(m_mutex);

private:
    struct Entry {
        unsigned long long bytes = 0;
        std::list<uint64_t>::iterator use;  // its place in m_useOrder
        bool unreadAhead = false;           // moved in by a readahead, not used since
    };

    void lockFolder();
    std::string syncExtents(const std::vector<uint64_t>& extents);
    void checkIdentity(const CacheIdentity& identity) EXCLUDES(m_mutex);
    void drop(const std::string& why) EXCLUDES(m_mutex);
    std::shared_ptr<ExtentFile> openLocked(uint64_t extent) REQUIRES(m_mutex);
    void touchLocked(Entry& entry) REQUIRES(m_mutex);
    // A reader's use: the most recently used, and no longer unread.
    void useLocked(Entry& entry) REQUIRES(m_mutex);
    void insertLocked(uint64_t extent, unsigned long long bytes) REQUIRES(m_mutex);
    void eraseLocked(uint64_t extent) REQUIRES(m_mutex);
    // Removes the extent's file; with `keep`, the store may keep it for its
    // next recall, unless a reader still holds it open.
    bool removeFileLocked(uint64_t extent, bool keep) REQUIRES(m_mutex);
    // `keep`: the room is wanted for the cache's account, not by a full file
    // system, where what was read ahead and never read goes first.
    unsigned long long evictLocked(unsigned long long bytes, bool keep) REQUIRES(m_mutex);
    unsigned long long excessLocked(uint64_t extent, unsigned long long bytes) REQUIRES(m_mutex);

    // ZxBlkExtentKeeper: the backing store's account.
    void found(long long extent, unsigned long long bytes) override EXCLUDES(m_mutex);
    bool reserve(long long extent, unsigned long long bytes) override EXCLUDES(m_mutex);
    void settle(long long extent, unsigned long long bytes, bool movedIn) override EXCLUDES(m_mutex);
    unsigned long long freeSpace(unsigned long long bytes) override EXCLUDES(m_mutex);
    void removed(long long extent) override EXCLUDES(m_mutex);
    bool holds(long long extent) override EXCLUDES(m_mutex);
    std::vector<long long> held() override EXCLUDES(m_mutex);
    unsigned long long fileSize(long long extent) override EXCLUDES(m_mutex);
    void setCapacity(unsigned long long bytes) override EXCLUDES(m_mutex);

    auto_handle m_lock;  // first in, last out: held until everything else is gone
    std::string m_dir;
    std::string m_mountPoint;
    bool m_dropAtEnd;
    std::unique_ptr<ZxBlkBackingStore> m_store;
    std::vector<std::string> m_notices;  // written while the cache opens only

    Mutex m_mutex;
    std::unordered_map<uint64_t, Entry> m_entries GUARDED_BY(m_mutex);
    std::list<uint64_t> m_useOrder GUARDED_BY(m_mutex);  // front: most recently used
    unsigned long long m_used GUARDED_BY(m_mutex) = 0;
    unsigned long long m_reserved GUARDED_BY(m_mutex) = 0;  // room set aside for move-ins under way
    unsigned long long m_capacity GUARDED_BY(m_mutex) = 0;
    uint64_t m_evictions GUARDED_BY(m_mutex) = 0;
    // Extents that reads are using (local or on their way), which eviction
    // leaves alone, and the open files.
    std::unordered_map<uint64_t, int> m_pins GUARDED_BY(m_mutex);
    std::unordered_map<uint64_t, std::shared_ptr<ExtentFile>> m_files GUARDED_BY(m_mutex);
    // Extents moved in since the cache was last made durable; the cache is
    // marked dirty before the first of them.
    std::unordered_set<uint64_t> m_unsynced GUARDED_BY(m_mutex);
    bool m_dirty GUARDED_BY(m_mutex) = false;
    // Extents moved in by a recall that has not yet looked at its outcome.
    std::unordered_set<uint64_t> m_arrived GUARDED_BY(m_mutex);
    // Extents a reader dropped with forget(): a readahead that was already
    // under way for one of them must not bring it back.
    std::unordered_set<uint64_t> m_forgotten GUARDED_BY(m_mutex);
    std::deque<uint64_t> m_forgottenOrder GUARDED_BY(m_mutex);
    // Readahead recalls under way, and the extents they brought that no
    // reader used: still here, or gone.
    std::unordered_set<uint64_t> m_aheadComing GUARDED_BY(m_mutex);
    uint64_t m_unreadAhead GUARDED_BY(m_mutex) = 0;
    uint64_t m_aheadWasted GUARDED_BY(m_mutex) = 0;
};

}  // namespace zxblk
