#include "platform/ZxBlkBackingStore.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "framework/WinTypes.h"
#include "platform/FXErrorUtil.h"
#include "platform/FXFile.h"
#include "platform/FXString.h"
#include "platform/ZxServices.h"

#define BS_LOCATION(fn) FXCodeLocation("platform/ZxBlkBackingStore", fn, __LINE__)

namespace {

// Tries the folder itself first: in a store that exists, its parents do too.
int mkdirs(const std::string& dir) {
    if (dir.empty() || dir == "/") return 0;
    if (::mkdir(dir.c_str(), 0755) != 0) {
        if (errno == ENOENT) {
            size_t slash = dir.rfind('/');
            if (slash == std::string::npos) return ENOENT;
            if (int err = mkdirs(dir.substr(0, slash))) return err;
            if (::mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) return errno;
        } else if (errno != EEXIST) {
            return errno;
        }
    }
    struct stat st;
    if (::stat(dir.c_str(), &st) != 0) return errno;
    return S_ISDIR(st.st_mode) ? 0 : ENOTDIR;
}

// Gives back the blocks of the ranges that read as holes but hold reserved,
// never-written space: a walk over the file's holes, one punch each. A file
// that is all data costs one seek.
void releaseUnwritten(int fd, off_t size) {
    off_t at = 0;
    while (at < size) {
        off_t hole = ::lseek(fd, at, SEEK_HOLE);
        if (hole < 0 || hole >= size) return;
        off_t data = ::lseek(fd, hole, SEEK_DATA);
        if (data < 0) data = size;
        // Not supported here: the file is still right, only larger on disk.
        if (::fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, hole, data - hole) != 0) return;
        at = data;
    }
}

bool fileSize(const std::string& path, unsigned long long* size) {
    struct stat st;
    if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
    *size = static_cast<unsigned long long>(st.st_size);
    return true;
}

// Extent files kept to become temporary files (recycleExtentFile): enough
// for the recalls of a disk's objects under way at once.
const size_t kSpares = 8;

// Makes a kept extent file read as zeros without giving up its blocks, so
// that a recall into it allocates nothing; or, where that is not supported,
// as a hole. False when neither is: the file cannot be used.
bool zeroInPlace(int fd, off_t size) {
    return ::fallocate(fd, FALLOC_FL_ZERO_RANGE, 0, size) == 0 ||
           ::fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 0, size) == 0;
}

void listDir(const std::string& dir, std::vector<std::string>* names) {
    DIR* d = ::opendir(dir.c_str());
    if (!d) return;
    while (struct dirent* e = ::readdir(d))
        if (e->d_name[0] != '.') names->push_back(e->d_name);
    ::closedir(d);
}

}  // namespace

// The account a store keeps until a host hands it a keeper: a capacity and
// an eviction handler that removes extents through the store.
class ZxBlkBackingStore::OwnAccount final : public ZxBlkExtentKeeper {
public:
    explicit OwnAccount(unsigned long long capacity) : m_capacity(capacity) {}

    void setEvictionHandler(std::function<unsigned long long(unsigned long long)> handler) EXCLUDES(m_mutex) {
        zxblk::MutexLock lock(m_mutex);
        m_evict = std::move(handler);
    }
    void found(long long n, unsigned long long bytes) override EXCLUDES(m_mutex) {
        zxblk::MutexLock lock(m_mutex);
        m_used = m_used - sizeLocked(n) + bytes;
        m_sizes[n] = bytes;
    }
    // Other move-ins may take the room an eviction made before this one gets
    // the lock back: ask again, a few times, for as long as asking frees room.
    bool reserve(long long n, unsigned long long bytes) override EXCLUDES(m_mutex) {
        zxblk::MutexLock lock(m_mutex);
        unsigned long long freed = 1;
        for (int tries = 0; excessLocked(n, bytes) && m_evict && freed && tries < 8; ++tries) {
            std::function<unsigned long long(unsigned long long)> evict = m_evict;
            unsigned long long need = excessLocked(n, bytes);
            lock.unlock();
            freed = evict(need);
            lock.lock();
        }
        if (excessLocked(n, bytes)) return false;
        m_reserved += bytes;
        return true;
    }
    void settle(long long n, unsigned long long bytes, bool movedIn) override EXCLUDES(m_mutex) {
        zxblk::MutexLock lock(m_mutex);
        m_reserved -= bytes;
        if (!movedIn) return;
        m_used = m_used - sizeLocked(n) + bytes;
        m_sizes[n] = bytes;
    }
    unsigned long long freeSpace(unsigned long long bytes) override EXCLUDES(m_mutex) {
        std::function<unsigned long long(unsigned long long)> evict;
        {
            zxblk::MutexLock lock(m_mutex);
            evict = m_evict;
        }
        return evict ? evict(bytes) : 0;
    }
    void removed(long long n) override EXCLUDES(m_mutex) {
        zxblk::MutexLock lock(m_mutex);
        m_used -= sizeLocked(n);
        m_sizes.erase(n);
    }
    bool holds(long long n) override EXCLUDES(m_mutex) {
        zxblk::MutexLock lock(m_mutex);
        return m_sizes.count(n) != 0;
    }
    std::vector<long long> held() override EXCLUDES(m_mutex) {
        zxblk::MutexLock lock(m_mutex);
        std::vector<long long> out;
        for (const auto& s : m_sizes) out.push_back(s.first);
        return out;
    }
    unsigned long long fileSize(long long n) override EXCLUDES(m_mutex) {
        zxblk::MutexLock lock(m_mutex);
        return sizeLocked(n);
    }
    unsigned long long usedBytes() override EXCLUDES(m_mutex) {
        zxblk::MutexLock lock(m_mutex);
        return m_used;
    }
    unsigned long long capacity() override EXCLUDES(m_mutex) {
        zxblk::MutexLock lock(m_mutex);
        return m_capacity;
    }
    void setCapacity(unsigned long long bytes) override EXCLUDES(m_mutex) {
        zxblk::MutexLock lock(m_mutex);
        m_capacity = bytes;
    }
    // What it holds, handed over to a keeper: it holds nothing after.
    std::map<long long, unsigned long long> release() EXCLUDES(m_mutex) {
        zxblk::MutexLock lock(m_mutex);
        std::map<long long, unsigned long long> all;
        all.swap(m_sizes);
        m_used = 0;
        return all;
    }

private:
    unsigned long long sizeLocked(long long n) REQUIRES(m_mutex) {
        auto it = m_sizes.find(n);
        return it == m_sizes.end() ? 0 : it->second;
    }
    unsigned long long excessLocked(long long n, unsigned long long bytes) REQUIRES(m_mutex) {
        unsigned long long after = m_used + m_reserved - sizeLocked(n) + bytes;
        return m_capacity && after > m_capacity ? after - m_capacity : 0;
    }

    zxblk::Mutex m_mutex;
    std::map<long long, unsigned long long> m_sizes GUARDED_BY(m_mutex);
    unsigned long long m_used GUARDED_BY(m_mutex) = 0;
    unsigned long long m_reserved GUARDED_BY(m_mutex) = 0;  // room set aside for move-ins under way
    unsigned long long m_capacity GUARDED_BY(m_mutex);
    std::function<unsigned long long(unsigned long long)> m_evict GUARDED_BY(m_mutex);
};

ZxBlkBackingStore::ZxBlkBackingStore(const std::string& cacheDir, unsigned long long capacity)
    : m_dir(cacheDir), m_own(new OwnAccount(capacity)), m_keeper(m_own.get()) {
    while (m_dir.size() > 1 && m_dir.back() == '/') m_dir.pop_back();
    {
        zxblk::MutexLock lock(m_mutex);
        ensureDirLocked(m_dir + "/tmp");
        ensureDirLocked(m_dir + "/extents");
    }
    rescan();
}

ZxBlkBackingStore::~ZxBlkBackingStore() {}

int ZxBlkBackingStore::ensureDirLocked(const std::string& dir) {
    if (m_dirs.count(dir)) return 0;
    int err = mkdirs(dir);
    if (!err) m_dirs.insert(dir);
    return err;
}

void ZxBlkBackingStore::setExtentSize(unsigned long long bytes) {
    zxblk::MutexLock lock(m_mutex);
    m_extentSize = bytes;
}

void ZxBlkBackingStore::rescan() {
    std::vector<std::string> level1;
    listDir(m_dir + "/extents", &level1);
    for (const std::string& a : level1) {
        std::vector<std::string> level2;
        listDir(m_dir + "/extents/" + a, &level2);
        for (const std::string& b : level2) {
            std::vector<std::string> files;
            listDir(m_dir + "/extents/" + a + "/" + b, &files);
            for (const std::string& f : files) {
                if (f.size() != 20 || f.compare(16, 4, ".ext") != 0) continue;
                char* end = nullptr;
                long long n = std::strtoll(f.substr(0, 16).c_str(), &end, 16);
                unsigned long long size = 0;
                if (n < 0 || extentPath(n) != m_dir + "/extents/" + a + "/" + b + "/" + f) continue;
                if (!fileSize(extentPath(n), &size)) continue;
                m_own->found(n, size);
            }
        }
    }
}

void ZxBlkBackingStore::setKeeper(ZxBlkExtentKeeper* keeper) {
    for (const auto& extent : m_own->release()) keeper->found(extent.first, extent.second);
    m_keeper.store(keeper, std::memory_order_release);
}

CUxError ZxBlkBackingStore::openTempFile(std::string* path, FILE** file) {
    static const char* fn = "CUxError ZxBlkBackingStore::openTempFile(std::string*, FILE**)";
    if (!path || !file) return noted(FXErrorUtil::ErrorWin32(BS_LOCATION(fn), ERROR_INTERNAL_ERROR, "no place for the result"));
    std::string name;
    int fd = takeSpare(&name);
    if (fd < 0) {
        std::string pattern = m_dir + "/tmp/recall-XXXXXX";
        std::vector<char> made(pattern.begin(), pattern.end());
        made.push_back('\0');
        fd = ::mkstemp(made.data());
        if (fd < 0)
            return noted(FXErrorUtil::ErrorErrno(BS_LOCATION(fn), errno, "cannot create a temporary file in %s/tmp", m_dir.c_str()));
        name = made.data();
    }
    FILE* stream = ::fdopen(fd, "w+b");
    if (!stream) {
        int err = errno;
        ::close(fd);
        ::unlink(name.c_str());
        return noted(FXErrorUtil::ErrorErrno(BS_LOCATION(fn), err, "cannot open %s", name.c_str()));
    }
    *path = name;
    *file = stream;
    zxblk::MutexLock lock(m_mutex);
    dropTempLocked(std::this_thread::get_id());
    m_temps[std::this_thread::get_id()].path = *path;
    return CUxError::Success();
}

// Only files of the extent size are taken: the provider sizes a temporary
// file to it, and one of another size would keep bytes past that.
int ZxBlkBackingStore::takeSpare(std::string* path) {
    unsigned long long size;
    {
        zxblk::MutexLock lock(m_mutex);
        size = m_extentSize;
    }
    for (;;) {
        {
            zxblk::MutexLock lock(m_sparesMutex);
            if (m_spares.empty()) return -1;
            *path = m_spares.back();
            m_spares.pop_back();
        }
        int fd = ::open(path->c_str(), O_RDWR | O_CLOEXEC);
        struct stat st;
        if (fd >= 0 && ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && size &&
            static_cast<unsigned long long>(st.st_size) == size && zeroInPlace(fd, st.st_size))
            return fd;
        if (fd >= 0) ::close(fd);
        ::unlink(path->c_str());
    }
}

bool ZxBlkBackingStore::dropSpares() {
    std::vector<std::string> spares;
    {
        zxblk::MutexLock lock(m_sparesMutex);
        spares.swap(m_spares);
    }
    for (const std::string& p : spares) ::unlink(p.c_str());
    return !spares.empty();
}

CUxError ZxBlkBackingStore::noted(CUxError error) {
    if (error.IsError()) {
        zxblk::MutexLock lock(m_errorsMutex);
        m_errors[std::this_thread::get_id()] = FXErrorUtil::Messages(error);
    }
    return error;
}

std::string ZxBlkBackingStore::takeLastError() {
    zxblk::MutexLock lock(m_errorsMutex);
    auto it = m_errors.find(std::this_thread::get_id());
    if (it == m_errors.end()) return std::string();
    std::string why = it->second;
    m_errors.erase(it);
    return why;
}

CUxError ZxBlkBackingStore::reserveTempFile(FILE* file, const std::string& path, unsigned long long bytes) {
    static const char* fn = "CUxError ZxBlkBackingStore::reserveTempFile(FILE*, const std::string&, unsigned long long)";
    if (zxblk::recallsAhead()) return noted(reserveAhead(file, path, bytes));
    CUxError status = FXFile::ZXReserveSpace(file ? fileno(file) : -1, bytes, path);
    if (!status.IsError() || status.Code() != -ENOSPC) return noted(status);
    m_short = true;
    // The kept extent files go first: they hold blocks outside the account.
    if (dropSpares()) status = FXFile::ZXReserveSpace(fileno(file), bytes, path);
    // Room freed may be taken by another reader before this one gets it:
    // asked again for as long as asking frees some, or a recall ahead that
    // held room ends (its extent then arrives unread, and goes first).
    for (int tries = 0; status.IsError() && status.Code() == -ENOSPC && tries < 64; ++tries) {
        if (!keeper().freeSpace(bytes) && !waitForAhead()) break;
        status = FXFile::ZXReserveSpace(fileno(file), bytes, path);
    }
    if (!status.IsError() || status.Code() != -ENOSPC) return noted(status);
    const unsigned long long held = keeper().usedBytes();
    const std::string cache = held ? FXString::Format("the cache's %llu bytes are all in use by reads", held)
                                   : std::string("the cache holds no extent to let go");
    return noted(FXErrorUtil::ErrorErrno(BS_LOCATION(fn), ENOSPC,
                                         "cache file system full: %llu bytes free at %s, a recall needs %llu and %s",
                                         freeBytes(), m_dir.c_str(), bytes, cache.c_str()));
}

// Checked before the reservation: a file system that has room for one more
// recall ahead but not for the readers' after it would hand the last of it
// to the readahead. A kept file, zeroed in place, holds its blocks already.
CUxError ZxBlkBackingStore::reserveAhead(FILE* file, const std::string& path, unsigned long long bytes) {
    static const char* fn = "CUxError ZxBlkBackingStore::reserveAhead(FILE*, const std::string&, unsigned long long)";
    struct stat st;
    const int fd = file ? fileno(file) : -1;
    const unsigned long long held = fd >= 0 && ::fstat(fd, &st) == 0 ? static_cast<unsigned long long>(st.st_blocks) * 512 : 0;
    const unsigned long long need = bytes > held ? bytes - held : 0, room = m_readerRoom, free = need ? freeBytes() : 0;
    if (need && free < need + room) {
        m_short = true;
        return FXErrorUtil::ErrorErrno(BS_LOCATION(fn), ENOSPC,
                                       "cache file system short of space: %llu bytes free at %s, %llu kept for "
                                       "readers; no recall ahead",
                                       free, m_dir.c_str(), room);
    }
    CUxError status = FXFile::ZXReserveSpace(fd, bytes, path);
    if (status.IsError()) {
        if (status.Code() == -ENOSPC) m_short = true;
        return status;
    }
    zxblk::MutexLock lock(m_mutex);
    auto it = m_temps.find(std::this_thread::get_id());
    if (it != m_temps.end() && !it->second.aheadRoom) {
        it->second.aheadRoom = true;
        ++m_aheadRooms;
    }
    return status;
}

bool ZxBlkBackingStore::waitForAhead() {
    zxblk::MutexLock lock(m_mutex);
    if (!m_aheadRooms) return false;
    const unsigned long long seen = m_aheadEnded;
    while (m_aheadEnded == seen) m_aheadRoomFreed.wait(m_mutex);
    return true;
}

void ZxBlkBackingStore::dropTempLocked(std::thread::id thread) {
    auto it = m_temps.find(thread);
    if (it == m_temps.end()) return;
    if (it->second.aheadRoom) {
        --m_aheadRooms;
        ++m_aheadEnded;
        m_aheadRoomFreed.notifyAll();
    }
    m_temps.erase(it);
}

unsigned long long ZxBlkBackingStore::freeBytes() const {
    struct statvfs fs;
    if (::statvfs(m_dir.c_str(), &fs) != 0) return 0;
    return static_cast<unsigned long long>(fs.f_bavail) * fs.f_frsize;
}

// Looked at again only while short, so a file system with room costs no
// system call: readahead resumes once another recall ahead would leave the
// readers their room.
bool ZxBlkBackingStore::shortOfSpace() {
    if (!m_short) return false;
    unsigned long long extent;
    {
        zxblk::MutexLock lock(m_mutex);
        extent = m_extentSize;
    }
    if (freeBytes() < m_readerRoom + extent) return true;
    m_short = false;
    return false;
}

void ZxBlkBackingStore::setReaderRoom(unsigned long long bytes) { m_readerRoom = bytes; }

void ZxBlkBackingStore::discardTemporary() {
    std::string path;
    {
        zxblk::MutexLock lock(m_mutex);
        auto it = m_temps.find(std::this_thread::get_id());
        if (it == m_temps.end()) return;
        path = it->second.path;
        dropTempLocked(it->first);
    }
    ::unlink(path.c_str());
}

CUxError ZxBlkBackingStore::makeParentDir(const std::string& path) {
    static const char* fn = "CUxError ZxBlkBackingStore::makeParentDir(const std::string&)";
    size_t slash = path.rfind('/');
    if (path.empty() || slash == std::string::npos)
        return noted(FXErrorUtil::ErrorWin32(BS_LOCATION(fn), ERROR_INTERNAL_ERROR, "no directory in path '%s'", path.c_str()));
    int err;
    {
        zxblk::MutexLock lock(m_mutex);
        err = ensureDirLocked(path.substr(0, slash));
    }
    if (err) return noted(FXErrorUtil::ErrorErrno(BS_LOCATION(fn), err, "cannot make the directory of %s", path.c_str()));
    return CUxError::Success();
}

std::string ZxBlkBackingStore::extentPath(long long n) const {
    unsigned long long u = static_cast<unsigned long long>(n);
    return FXString::Format("%s/extents/%02llx/%02llx/%016llx.ext", m_dir.c_str(), (u >> 16) & 0xFF, (u >> 8) & 0xFF, u);
}

CUxError ZxBlkBackingStore::getExtentFileName(long long extentNumber, std::string* name) {
    static const char* fn = "CUxError ZxBlkBackingStore::getExtentFileName(long long, std::string*)";
    if (extentNumber < 0 || !name)
        return FXErrorUtil::ErrorWin32(BS_LOCATION(fn), ERROR_INTERNAL_ERROR, "no extent file for extent %lld", extentNumber);
    *name = extentPath(extentNumber);
    return CUxError::Success();
}

CUxError ZxBlkBackingStore::moveInExtentFile(const std::string& tempPath, long long extentNumber) {
    static const char* fn = "CUxError ZxBlkBackingStore::moveInExtentFile(const std::string&, long long)";
    if (extentNumber < 0)
        return noted(FXErrorUtil::ErrorWin32(BS_LOCATION(fn), ERROR_INTERNAL_ERROR, "bad extent number %lld", extentNumber));
    int fd = tempPath.empty() ? -1 : ::open(tempPath.c_str(), O_RDWR | O_CLOEXEC);
    struct stat st;
    if (fd < 0 || ::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        if (fd >= 0) ::close(fd);
        return noted(FXErrorUtil::ErrorWin32(BS_LOCATION(fn), ERROR_INTERNAL_ERROR,
                                       "no temporary file '%s' to move in as extent %lld", tempPath.c_str(), extentNumber));
    }
    unsigned long long size = static_cast<unsigned long long>(st.st_size);
    unsigned long long expected;
    {
        zxblk::MutexLock lock(m_mutex);
        expected = m_extentSize;
    }
    if (expected && size != expected) {
        ::close(fd);
        return noted(FXErrorUtil::ErrorWin32(BS_LOCATION(fn), ERROR_INTERNAL_ERROR,
                                       "temporary file %s holds %llu bytes, not the extent size %llu: not moved in "
                                       "as extent %lld",
                                       tempPath.c_str(), size, expected, extentNumber));
    }
    releaseUnwritten(fd, st.st_size);
    ::close(fd);
    ZxBlkExtentKeeper& account = keeper();
    if (!account.reserve(extentNumber, size))
        return noted(FXErrorUtil::ErrorWin32(BS_LOCATION(fn), 112 /*ERROR_DISK_FULL*/,
                                       "cache full: extent %lld (%llu bytes) does not fit in %llu of %llu bytes used",
                                       extentNumber, size, account.usedBytes(), account.capacity()));
    std::string target = extentPath(extentNumber);
    std::string folder = target.substr(0, target.rfind('/'));
    int dirErr, err = 0;
    {
        zxblk::MutexLock lock(m_mutex);
        dirErr = ensureDirLocked(folder);
        if (!dirErr) err = ::rename(tempPath.c_str(), target.c_str()) == 0 ? 0 : errno;
        if (err == ENOENT && ::access(tempPath.c_str(), F_OK) == 0) {
            // The folder was removed behind the store's back: make it again.
            m_dirs.clear();
            dirErr = ensureDirLocked(folder);
            if (!dirErr) err = ::rename(tempPath.c_str(), target.c_str()) == 0 ? 0 : errno;
        }
    }
    account.settle(extentNumber, size, !dirErr && !err);
    // Only once the keeper holds the extent: a reader waiting for the room
    // of a recall ahead finds it there to evict.
    if (!dirErr && !err) {
        zxblk::MutexLock lock(m_mutex);
        auto temp = m_temps.find(std::this_thread::get_id());
        if (temp != m_temps.end() && temp->second.path == tempPath) dropTempLocked(temp->first);
    }
    if (dirErr)
        return noted(FXErrorUtil::ErrorErrno(BS_LOCATION(fn), dirErr, "cannot make the directory of %s", target.c_str()));
    if (err)
        return noted(FXErrorUtil::ErrorErrno(BS_LOCATION(fn), err, "cannot move %s to %s", tempPath.c_str(), target.c_str()));
    return CUxError::Success();
}

bool ZxBlkBackingStore::hasExtent(long long n) { return keeper().holds(n); }

CUxError ZxBlkBackingStore::deleteExtentFile(long long n) const {
    static const char* fn = "CUxError ZxBlkBackingStore::deleteExtentFile(long long)";
    std::string path = extentPath(n);
    if (::unlink(path.c_str()) != 0 && errno != ENOENT)
        return FXErrorUtil::ErrorErrno(BS_LOCATION(fn), errno, "cannot remove %s", path.c_str());
    return CUxError::Success();
}

CUxError ZxBlkBackingStore::recycleExtentFile(long long n) {
    bool sized;
    {
        zxblk::MutexLock lock(m_mutex);
        sized = m_extentSize != 0;
    }
    zxblk::MutexLock lock(m_sparesMutex);
    if (!sized || m_spares.size() >= kSpares) return deleteExtentFile(n);
    std::string spare = FXString::Format("%s/tmp/spare-%llu", m_dir.c_str(), ++m_spareNames);
    // A file that cannot be moved aside (its folder gone) is removed instead.
    if (::rename(extentPath(n).c_str(), spare.c_str()) != 0) return deleteExtentFile(n);
    m_spares.push_back(spare);
    return CUxError::Success();
}

CUxError ZxBlkBackingStore::removeExtent(long long n) {
    ZxBlkExtentKeeper& account = keeper();
    if (!account.holds(n)) return CUxError::Success();
    CUxError status = deleteExtentFile(n);
    if (!status.IsError()) account.removed(n);
    return status;
}

std::vector<long long> ZxBlkBackingStore::extents() { return keeper().held(); }

unsigned long long ZxBlkBackingStore::usedBytes() { return keeper().usedBytes(); }

unsigned long long ZxBlkBackingStore::capacity() { return keeper().capacity(); }

void ZxBlkBackingStore::setEvictionHandler(std::function<unsigned long long(unsigned long long)> handler) {
    m_own->setEvictionHandler(std::move(handler));
}

void ZxBlkBackingStore::setCapacity(unsigned long long capacity) { keeper().setCapacity(capacity); }

unsigned long long ZxBlkBackingStore::extentFileSize(long long n) { return keeper().fileSize(n); }

void ZxBlkBackingStore::clearTemporaries() {
    {
        zxblk::MutexLock lock(m_sparesMutex);
        m_spares.clear();
    }
    std::vector<std::string> names;
    listDir(m_dir + "/tmp", &names);
    for (const std::string& n : names) ::unlink((m_dir + "/tmp/" + n).c_str());
}
