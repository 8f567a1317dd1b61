#include "export_sink.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "zxblk/zxblk.h"

namespace zxblk {
namespace {

const size_t kChunk = 1 << 20;

const char* zeroChunk() {
    static const std::vector<char> zeros(kChunk, 0);
    return zeros.data();
}

std::string folderOf(const std::string& path) {
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

// Removes the temporaries that exports to `name` in `folder` left when
// they were killed: names this sink makes (".NAME.zxblk-PID-XXXXXX"),
// regular files of this user, of a process that no longer runs. A running
// export's temporary, or one whose process id came back to another
// process, stays. Returns what it removed.
std::vector<std::string> removeKilledTemporaries(const std::string& folder, const std::string& name) {
    std::vector<std::string> removed;
    const std::string prefix = "." + name + ".zxblk-";
    DIR* dir = ::opendir(folder.c_str());
    if (!dir) return removed;
    while (const dirent* entry = ::readdir(dir)) {
        const std::string entryName = entry->d_name;
        if (entryName.compare(0, prefix.size(), prefix) != 0) continue;
        const std::string rest = entryName.substr(prefix.size());
        const size_t dash = rest.find('-');
        if (dash == 0 || dash > 9 || rest.size() != dash + 7 || rest[0] == '0' ||
            rest.find_first_not_of("0123456789") != dash)
            continue;
        if (rest.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", dash + 1) !=
            std::string::npos)
            continue;
        const pid_t pid = static_cast<pid_t>(std::stol(rest.substr(0, dash)));
        if (pid == ::getpid() || ::kill(pid, 0) == 0 || errno != ESRCH) continue;
        struct stat st;
        if (::fstatat(::dirfd(dir), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(st.st_mode) ||
            st.st_uid != ::geteuid())
            continue;
        if (::unlinkat(::dirfd(dir), entry->d_name, 0) == 0)
            removed.push_back((folder == "/" ? "" : folder) + "/" + entryName + " (process " +
                              std::to_string(pid) + " is gone)");
    }
    ::closedir(dir);
    return removed;
}

}  // namespace

ExportSink::ExportSink(const std::string& target, uint64_t size) : m_target(target), m_what(target) {
    struct stat st;
    if (target == "-") {
        m_fd = 1;
        m_what = "standard output";
    } else if (::lstat(target.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) {
        if (S_ISDIR(st.st_mode)) fail(target + " is a folder; name the image file to write", EISDIR);
        // Devices, pipes and links are written where they are: a rename
        // would replace the device node or the link with a plain file.
        m_fd = ::open(target.c_str(), O_WRONLY | O_CLOEXEC);
        if (m_fd < 0) fail(target, errno);
        m_ownFd = true;
    } else {
        // A new or regular file: written in full under a temporary name, so
        // a reader never takes a half-written image for the disk.
        std::string name = target.substr(target.rfind('/') + 1);
        m_removed = removeKilledTemporaries(folderOf(target), name);
        std::string pattern = folderOf(target) + "/." + name + ".zxblk-" + std::to_string(::getpid()) + "-XXXXXX";
        std::vector<char> temp(pattern.begin(), pattern.end());
        temp.push_back('\0');
        m_fd = ::mkostemp(temp.data(), O_CLOEXEC);
        if (m_fd < 0) fail(folderOf(target) + ": cannot write there", errno);
        m_temp = temp.data();
        m_ownFd = true;
        mode_t mask = ::umask(0);
        ::umask(mask);
        if (::fchmod(m_fd, 0666 & ~mask) != 0) fail(m_temp, errno);
    }

    if (::fstat(m_fd, &st) != 0) fail(m_what, errno);
    if (S_ISREG(st.st_mode)) {
        int flags = ::fcntl(m_fd, F_GETFL);
        // Appending writes ignore offsets: such a file is written in order.
        m_positional = m_sparse = flags >= 0 && !(flags & O_APPEND);
        if (m_positional) {
            off_t at = m_temp.empty() && m_fd == 1 ? ::lseek(m_fd, 0, SEEK_CUR) : 0;
            m_base = at > 0 ? static_cast<uint64_t>(at) : 0;
            // Holes must read as zeros: a file written in place starts empty
            // from where the disk starts.
            if (::ftruncate(m_fd, static_cast<off_t>(m_base)) != 0 ||
                ::ftruncate(m_fd, static_cast<off_t>(m_base + size)) != 0)
                fail(m_what, errno);
        }
        m_sync = true;
    } else if (S_ISBLK(st.st_mode)) {
        uint64_t deviceBytes = 0;
        if (::ioctl(m_fd, BLKGETSIZE64, &deviceBytes) != 0) fail(m_what, errno);
        if (deviceBytes < size)
            fail(m_what + " holds " + std::to_string(deviceBytes) + " bytes, the disk has " + std::to_string(size), ENOSPC);
        // Old bytes on the device must be overwritten: no holes there.
        m_positional = true;
        m_sync = true;
    }
    m_copyRange = m_positional;
}

ExportSink::~ExportSink() {
    if (!m_temp.empty()) ::unlink(m_temp.c_str());
    if (m_ownFd && m_fd >= 0) ::close(m_fd);
}

[[noreturn]] void ExportSink::fail(const std::string& what, int err) const {
    throw Error(what + ": " + std::strerror(err), err == ENOENT ? ErrorKind::notFound : ErrorKind::io);
}

void ExportSink::copyFrom(int fd, uint64_t fileOffset, uint64_t offset, uint64_t length) {
    uint64_t end = fileOffset + length, at = fileOffset;
    // Only the file's data ranges are read; holes are never read or tested.
    while (at < end) {
        off_t data = ::lseek(fd, static_cast<off_t>(at), SEEK_DATA);
        if (data < 0 && errno != ENXIO) {
            // A file system that cannot tell: all of it is data.
            this->data(fd, at, offset + (at - fileOffset), end - at);
            return;
        }
        uint64_t dataAt = data < 0 ? end : std::min<uint64_t>(static_cast<uint64_t>(data), end);
        if (dataAt > at) zeros(offset + (at - fileOffset), dataAt - at);
        if (dataAt >= end) break;
        off_t hole = ::lseek(fd, static_cast<off_t>(dataAt), SEEK_HOLE);
        uint64_t holeAt = hole < 0 ? end : std::min<uint64_t>(static_cast<uint64_t>(hole), end);
        this->data(fd, dataAt, offset + (dataAt - fileOffset), holeAt - dataAt);
        at = holeAt;
    }
}

void ExportSink::data(int fd, uint64_t fileOffset, uint64_t offset, uint64_t length) {
    while (length && m_copyRange) {
        loff_t in = static_cast<loff_t>(fileOffset), out = static_cast<loff_t>(m_base + offset);
        ssize_t n = ::copy_file_range(fd, &in, m_fd, &out, length, 0);
        if (n > 0) {
            fileOffset += static_cast<uint64_t>(n), offset += static_cast<uint64_t>(n), length -= static_cast<uint64_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && errno != EXDEV && errno != EINVAL && errno != ENOSYS && errno != EOPNOTSUPP && errno != EBADF)
            fail(m_what, errno);
        m_copyRange = false;  // not between these two: copy through memory from now on
    }
    thread_local std::vector<char> buffer(kChunk);
    while (length) {
        size_t n = static_cast<size_t>(std::min<uint64_t>(length, kChunk));
        ssize_t got = ::pread(fd, buffer.data(), n, static_cast<off_t>(fileOffset));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) throw Error("an extent file ended early while exporting to " + m_what, ErrorKind::io);
        writeAt(buffer.data(), offset, static_cast<size_t>(got));
        fileOffset += static_cast<uint64_t>(got), offset += static_cast<uint64_t>(got), length -= static_cast<uint64_t>(got);
    }
}

void ExportSink::write(const char* bytes, uint64_t offset, uint64_t length) {
    for (uint64_t done = 0; done < length;) {
        size_t n = static_cast<size_t>(std::min<uint64_t>(length - done, kChunk));
        writeAt(bytes + done, offset + done, n);
        done += n;
    }
}

void ExportSink::zeros(uint64_t offset, uint64_t length) {
    if (m_sparse) return;  // the file was sized with holes: they read as zeros
    for (uint64_t done = 0; done < length;) {
        size_t n = static_cast<size_t>(std::min<uint64_t>(length - done, kChunk));
        writeAt(zeroChunk(), offset + done, n);
        done += n;
    }
}

void ExportSink::writeAt(const char* bytes, uint64_t offset, size_t length) {
    if (!m_positional && offset != m_streamed)
        throw Error("internal: out-of-order write to " + m_what, ErrorKind::invalidArgument);
    while (length) {
        ssize_t n = m_positional ? ::pwrite(m_fd, bytes, length, static_cast<off_t>(m_base + offset))
                                 : ::write(m_fd, bytes, length);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) fail(m_what, n < 0 ? errno : EIO);
        bytes += n, offset += static_cast<uint64_t>(n), length -= static_cast<size_t>(n);
        if (!m_positional) m_streamed += static_cast<uint64_t>(n);
    }
}

bool ExportSink::toStandardOutput() const {
    struct stat mine, out;
    return m_fd == 1 || (::fstat(m_fd, &mine) == 0 && ::fstat(1, &out) == 0 && mine.st_dev == out.st_dev &&
                         mine.st_ino == out.st_ino);
}

void ExportSink::sync() {
    // The only sync of an export: its output, once, at the end.
    if (m_sync && !m_synced && ::fsync(m_fd) != 0) fail(m_what, errno);
    m_synced = true;
}

void ExportSink::commit() {
    sync();
    if (m_temp.empty()) return;
    if (::rename(m_temp.c_str(), m_target.c_str()) != 0) fail(m_target, errno);
    m_temp.clear();
}

}  // namespace zxblk
