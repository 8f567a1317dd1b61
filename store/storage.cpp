// The folder store's storage, and the one place that tells a folder from S3.
#include "store/storage.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <algorithm>
#include <cstdlib>
#include <set>

#include "store/fd_io.h"
#include "store/s3_storage.h"
#include "store/vhd_image.h"

namespace zxblk {
namespace {

std::string errnoText(const std::string& what, int err = errno) { return what + ": " + std::strerror(err); }

class LocalFile : public ObjectReader {
public:
    explicit LocalFile(const std::string& path) : m_path(path) {
        m_fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (m_fd < 0) throw StoreError(errno == ENOENT ? ErrorKind::notFound : ErrorKind::io, errnoText(path));
        struct stat st;
        if (::fstat(m_fd, &st) != 0 || !S_ISREG(st.st_mode)) {
            ::close(m_fd);
            throw StoreError(path + ": file: not a regular file");
        }
        m_stamp = FileStamp::of(st);
    }
    ~LocalFile() override { ::close(m_fd); }
    const std::string& name() const override { return m_path; }
    uint64_t size() const override { return m_stamp.size; }
    const FileStamp& stamp() const override { return m_stamp; }
    void readAt(uint64_t offset, void* buffer, size_t length) const override {
        size_t done = 0;
        while (done < length) {
            ssize_t n = ::pread(m_fd, static_cast<char*>(buffer) + done, length - done, static_cast<off_t>(offset + done));
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) throw StoreError(errnoText(m_path + ": data at offset " + std::to_string(offset + done)));
            if (n == 0)
                throw StoreError(m_path + ": data at offset " + std::to_string(offset + done) +
                                 ": file ends early (it was shortened after it was checked?)");
            done += static_cast<size_t>(n);
        }
    }
    void prefetch(uint64_t offset, uint64_t length) const override {
        ::posix_fadvise(m_fd, static_cast<off_t>(offset), static_cast<off_t>(length), POSIX_FADV_WILLNEED);
    }
    std::pair<uint64_t, uint64_t> dataIn(uint64_t offset, uint64_t length) const override {
        const uint64_t end = offset + length;
        const off_t data = ::lseek(m_fd, static_cast<off_t>(offset), SEEK_DATA);
        if (data < 0 && errno == ENXIO) {
            // A hole to the end of the file, or past it: a file cut short
            // is read, and its read says so.
            struct stat st;
            if (::fstat(m_fd, &st) == 0 && static_cast<uint64_t>(st.st_size) >= end) return {end, end};
        }
        if (data < 0) return {offset, end};
        if (static_cast<uint64_t>(data) >= end) return {end, end};
        const off_t hole = ::lseek(m_fd, data, SEEK_HOLE);
        if (hole <= data) return {static_cast<uint64_t>(data), end};
        return {static_cast<uint64_t>(data), std::min<uint64_t>(static_cast<uint64_t>(hole), end)};
    }
    // A stat per call is cheap against a recall, and catches a file replaced
    // or rewritten while it is open.
    bool current() const override {
        struct stat st;
        return ::stat(m_path.c_str(), &st) == 0 && FileStamp::of(st) == m_stamp;
    }

private:
    std::string m_path;
    int m_fd = -1;
    FileStamp m_stamp;
};

void fsyncPath(const std::string& path, int flags) {
    int fd = ::open(path.c_str(), flags | O_CLOEXEC);
    if (fd >= 0) {
        ::fsync(fd);
        ::close(fd);
    }
}

// A folder store's new files are written beside their final names and
// renamed into place: no copy, and a name is either absent or whole.
class FolderStaging : public Storage::Staging {
public:
    explicit FolderStaging(const std::string& dir) : m_dir(dir) {
        // What this import makes of the store's place goes again when it
        // fails, unless another import has made the folder a store meanwhile.
        m_madeStore = ::mkdir(dir.c_str(), 0755) == 0;
        if (!m_madeStore && errno != EEXIST) throw StoreError(errnoText(dir));
        m_madeLock = ::access((dir + "/.lock").c_str(), F_OK) != 0;
        for (const char* folder : {"/snapshots", "/sums"}) {
            if (::mkdir((dir + folder).c_str(), 0755) == 0)
                m_madeFolders.push_back(dir + folder);
            else if (errno != EEXIST)
                throw StoreError(errnoText(dir + folder));
        }
    }
    ~FolderStaging() override {
        for (const std::string& name : m_written) ::unlink((m_dir + "/" + name + ".partial").c_str());
        if (m_kept) return;
        for (const std::string& name : m_published) ::unlink((m_dir + "/" + name).c_str());
        if (::access((m_dir + "/catalog.json").c_str(), F_OK) != 0) {
            std::error_code ec;
            if (m_madeStore) std::filesystem::remove_all(m_dir, ec);
            if (m_madeLock) ::unlink((m_dir + "/.lock").c_str());
        }
        for (auto it = m_madeFolders.rbegin(); it != m_madeFolders.rend(); ++it) ::rmdir(it->c_str());  // only when empty
    }
    std::string pathFor(const std::string& name) override {
        m_written.push_back(name);
        return m_dir + "/" + name + ".partial";
    }
    std::string publish(const std::string& name) override {
        std::string final = m_dir + "/" + name;
        struct stat st;
        if (::stat(final.c_str(), &st) == 0) throw StoreError(final + ": already exists, named by the catalog for another snapshot");
        if (::rename((final + ".partial").c_str(), final.c_str()) != 0) throw StoreError(errnoText(final));
        m_written.erase(std::find(m_written.begin(), m_written.end(), name));
        m_published.push_back(name);
        return std::string();
    }
    // The new names reach the disk before the catalog that refers to them.
    void commit() override {
        std::set<std::string> folders;
        for (const std::string& name : m_published)
            folders.insert(m_dir + "/" + name.substr(0, name.find_last_of('/') + 1));
        for (const std::string& folder : folders) {
            int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
            if (fd < 0 || ::fsync(fd) != 0) {
                int err = errno;
                if (fd >= 0) ::close(fd);
                throw StoreError(folder + ": cannot sync the folder: " + std::strerror(err));
            }
            ::close(fd);
        }
    }
    void keep() override { m_kept = true; }

private:
    std::string m_dir;
    bool m_madeStore = false, m_madeLock = false, m_kept = false;
    std::vector<std::string> m_madeFolders, m_written, m_published;
};

class FolderStorage : public Storage {
public:
    explicit FolderStorage(const std::string& dir) : Storage(dir) {}
    bool remote() const override { return false; }

    std::unique_ptr<ObjectReader> openReader(const std::string& name, const OpenHints&) const override {
        return std::unique_ptr<ObjectReader>(new LocalFile(path(name)));
    }

    ObjectInfo stat(const std::string& name) const override {
        struct stat st;
        ObjectInfo info;
        if (::stat(path(name).c_str(), &st) == 0) info.exists = true, info.size = static_cast<uint64_t>(st.st_size);
        return info;
    }

    bool readWhole(const std::string& name, uint64_t most, std::string& out,
                   const std::function<bool(const std::string&)>&) const override {
        std::string p = path(name);
        int fd = ::open(p.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            if (errno == ENOENT) return false;
            throw StoreError(errnoText(p));
        }
        struct stat st;
        if (::fstat(fd, &st) != 0 || static_cast<uint64_t>(st.st_size) > most) {
            ::close(fd);
            throw StoreError(p + ": size: larger than the " + std::to_string(most) + " bytes it can be");
        }
        out.assign(static_cast<size_t>(st.st_size), '\0');
        size_t done = 0;
        while (done < out.size()) {
            ssize_t n = ::pread(fd, &out[done], out.size() - done, static_cast<off_t>(done));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            done += static_cast<size_t>(n);
        }
        out.resize(done);
        ::close(fd);
        return true;
    }

    void replace(const std::string& name, const std::string& data) const override {
        std::string p = path(name), temp = p + ".new";
        int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0) throw StoreError(errnoText(temp + ": cannot write"));
        try {
            writeFully(fd, data.data(), data.size(), 0, temp + ": cannot write");
            if (::fsync(fd) != 0) throw StoreError(errnoText(temp + ": cannot write"));
        } catch (...) {
            ::close(fd);
            ::unlink(temp.c_str());
            throw;
        }
        ::close(fd);
        if (::rename(temp.c_str(), p.c_str()) != 0) {
            int err = errno;
            ::unlink(temp.c_str());
            throw StoreError(errnoText(p + ": cannot replace", err));
        }
        fsyncPath(location(), O_RDONLY | O_DIRECTORY);
    }

    void remove(const std::string& name) const override {
        if (::unlink(path(name).c_str()) != 0 && errno != ENOENT) throw StoreError(errnoText(path(name)));
    }

    std::vector<std::string> list(const std::string& prefix) const override {
        std::vector<std::string> out;
        std::error_code ec;
        for (auto it = std::filesystem::recursive_directory_iterator(location(), ec);
             !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
            if (!it->is_regular_file()) continue;
            std::string rel = std::filesystem::relative(it->path(), location()).string();
            if (rel.compare(0, prefix.size(), prefix) == 0) out.push_back(rel);
        }
        return out;
    }

    StorageStats stats() const override { return StorageStats(); }

    std::string identity(const std::string& name) const override {
        struct stat st;
        if (::stat(path(name).c_str(), &st) != 0) return std::string();
        return std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino);
    }

    std::unique_ptr<Staging> stage() const override { return std::unique_ptr<Staging>(new FolderStaging(location())); }

    class FolderLock : public Lock {
    public:
        explicit FolderLock(const std::string& dir) {
            std::string p = dir + "/.lock";
            m_fd = ::open(p.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
            if (m_fd < 0) throw StoreError(errnoText(p));
            if (::flock(m_fd, LOCK_EX) != 0) {
                int err = errno;
                ::close(m_fd);
                throw StoreError(errnoText(p, err));
            }
        }
        ~FolderLock() override { ::close(m_fd); }

    private:
        int m_fd = -1;
    };
    std::unique_ptr<Lock> lock() const override { return std::unique_ptr<Lock>(new FolderLock(location())); }

private:
    std::string path(const std::string& name) const { return location() + "/" + name; }
};

}  // namespace

FileStamp FileStamp::of(const struct stat& st) {
    FileStamp s;
    s.device = static_cast<uint64_t>(st.st_dev);
    s.inode = static_cast<uint64_t>(st.st_ino);
    s.size = static_cast<uint64_t>(st.st_size);
    s.mtimeNs = static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
    return s;
}

bool Storage::isRemote(const std::string& location) { return location.compare(0, 5, "s3://") == 0; }

std::shared_ptr<Storage> openFolderStorage(const std::string& dir) { return std::make_shared<FolderStorage>(dir); }

std::shared_ptr<Storage> openStorage(const std::string& location, const std::shared_ptr<S3Connections>& connections,
                                     const std::string& metadataRoot) {
    if (!Storage::isRemote(location)) return openFolderStorage(location);
    // A folder per store, named for its URL.
    const std::string dir =
        metadataRoot.empty() ? std::string() : metadataRoot + "/" + sumText(xxh3(location.data(), location.size()));
    return openS3Storage(location, connections, dir);
}

std::string Storage::identity(const std::string& name) const { return stat(name).exists ? name : std::string(); }

std::string Storage::describe(const std::string& name) const {
    return m_location + (m_location.empty() || m_location.back() == '/' ? "" : "/") + name;
}

std::unique_ptr<ObjectReader> openLocalFile(const std::string& path) {
    return std::unique_ptr<ObjectReader>(new LocalFile(path));
}

}  // namespace zxblk
