#include "support/fault_file_calls.h"

#include <sys/uio.h>

#include <atomic>
#include <cerrno>
#include <mutex>
#include <vector>

#include "platform/FXFile.h"

namespace zxtest {
namespace {

const int kKinds = static_cast<int>(FileCall::Truncate) + 1;

class FaultFileCalls : public zxblk::FileCalls {
public:
    void arm(const FileFault& fault) {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_faults.empty())
            for (int& c : m_sinceArming) c = 0;
        m_faults.push_back(fault);
        m_armed = true;
    }
    void clear() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_faults.clear();
        m_armed = false;
    }
    int armed() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return static_cast<int>(m_faults.size());
    }
    FileCallCounts counts() const {
        FileCallCounts c{m_counts[static_cast<int>(FileCall::Write)].load(), 0};
        for (FileCall k : {FileCall::Seek, FileCall::Stat, FileCall::Allocate, FileCall::Truncate})
            c.others += m_counts[static_cast<int>(k)].load();
        return c;
    }

    int open(const char* path, int flags, mode_t mode) override {
        FileFault f;
        return fault(FileCall::Open, &f) ? fail(f) : FileCalls::open(path, flags, mode);
    }
    ssize_t pwritev(int fd, const struct iovec* iov, int count, off_t offset) override {
        FileFault f;
        if (!fault(FileCall::Write, &f)) return FileCalls::pwritev(fd, iov, count, offset);
        if (f.error) return fail(f);
        // A short write: the same buffers, cut `shortBytes` before their end.
        std::vector<struct iovec> cut(iov, iov + count);
        size_t drop = f.shortBytes;
        while (!cut.empty() && drop >= cut.back().iov_len) {
            drop -= cut.back().iov_len;
            cut.pop_back();
        }
        if (cut.empty()) return 0;
        cut.back().iov_len -= drop;
        return FileCalls::pwritev(fd, cut.data(), static_cast<int>(cut.size()), offset);
    }
    off_t lseek(int fd, off_t offset, int whence) override {
        FileFault f;
        return fault(FileCall::Seek, &f) ? fail(f) : FileCalls::lseek(fd, offset, whence);
    }
    int fstat(int fd, struct stat* st) override {
        FileFault f;
        return fault(FileCall::Stat, &f) ? fail(f) : FileCalls::fstat(fd, st);
    }
    int fstatvfs(int fd, struct statvfs* fs) override {
        FileFault f;
        return fault(FileCall::Stat, &f) ? fail(f) : FileCalls::fstatvfs(fd, fs);
    }
    int fallocate(int fd, int mode, off_t offset, off_t length) override {
        FileFault f;
        return fault(FileCall::Allocate, &f) ? fail(f) : FileCalls::fallocate(fd, mode, offset, length);
    }
    int ftruncate(int fd, off_t length) override {
        FileFault f;
        return fault(FileCall::Truncate, &f) ? fail(f) : FileCalls::ftruncate(fd, length);
    }

private:
    static int fail(const FileFault& f) {
        errno = f.error ? f.error : EIO;
        return -1;
    }
    // Counts the call and tells whether an armed fault is for it (and takes it).
    bool fault(FileCall kind, FileFault* out) {
        ++m_counts[static_cast<int>(kind)];
        if (!m_armed.load(std::memory_order_acquire)) return false;
        std::lock_guard<std::mutex> lock(m_mutex);
        int index = m_sinceArming[static_cast<int>(kind)]++;
        for (auto it = m_faults.begin(); it != m_faults.end(); ++it) {
            if (it->call == kind && it->callIndex == index) {
                *out = *it;
                m_faults.erase(it);
                m_armed = !m_faults.empty();
                return true;
            }
        }
        return false;
    }

    std::atomic<unsigned long long> m_counts[kKinds] = {};
    std::atomic<bool> m_armed{false};
    std::mutex m_mutex;
    std::vector<FileFault> m_faults;
    int m_sinceArming[kKinds] = {};
};

FaultFileCalls& installed() {
    static FaultFileCalls* const calls = [] {
        auto* c = new FaultFileCalls;  // never destroyed: see the header
        zxblk::setFileCalls(c);
        return c;
    }();
    return *calls;
}

}  // namespace

void armFileFault(const FileFault& fault) { installed().arm(fault); }
void clearFileFaults() { installed().clear(); }
int armedFileFaults() { return installed().armed(); }
FileCallCounts fileCallCounts() { return installed().counts(); }

}  // namespace zxtest
