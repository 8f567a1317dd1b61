// Storage on S3. A recall reads its extent with range GETs; the block table
// and bitmaps of a VHD are read once, when the snapshot is opened, and kept
// in memory with it. Each object is checked against the ETag the catalog
// recorded at import when it is opened, as a file is against its size and
// identity.
#include "store/s3_storage.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <list>
#include <mutex>
#include <random>
#include <thread>

#include "store/s3_client.h"

namespace zxblk {
namespace {

// Parts of a multipart upload, and how many go at once: ZXBLK_S3_PART_SIZE
// (bytes, at least 5 MiB) and ZXBLK_S3_UPLOADS.
uint64_t partSize() {
    const char* env = std::getenv("ZXBLK_S3_PART_SIZE");
    uint64_t n = env ? std::strtoull(env, nullptr, 10) : 0;
    return n >= (5u << 20) ? n : 16u << 20;
}
unsigned parallelUploads() {
    const char* env = std::getenv("ZXBLK_S3_UPLOADS");
    unsigned long n = env ? std::strtoul(env, nullptr, 10) : 0;
    return n >= 1 && n <= 64 ? static_cast<unsigned>(n) : 4;
}

// An object read with range GETs. A few of the larger stretches it fetched
// are kept: a snapshot's block (with its bitmap) is checked whole against
// its checksum before an extent of it is served, and the next extent of that
// block is then served from the same stretch.
class S3Reader : public ObjectReader {
public:
    S3Reader(std::shared_ptr<S3Client> client, std::string key, std::string url, const S3ObjectInfo& info)
        : m_client(std::move(client)), m_key(std::move(key)), m_url(std::move(url)), m_etag(info.etag) {
        m_stamp.size = info.size;
    }
    const std::string& name() const override { return m_url; }
    uint64_t size() const override { return m_stamp.size; }
    const FileStamp& stamp() const override { return m_stamp; }
    void readAt(uint64_t offset, void* buffer, size_t length) const override {
        if (offset > m_stamp.size || length > m_stamp.size - offset)
            throw StoreError(m_url + ": data at offset " + std::to_string(offset) + ": past the end of the object (" +
                             std::to_string(m_stamp.size) + " bytes)");
        if (!length) return;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            for (auto it = m_kept.begin(); it != m_kept.end(); ++it)
                if (offset >= it->first && offset + length <= it->first + it->second->size()) {
                    std::memcpy(buffer, it->second->data() + (offset - it->first), length);
                    m_kept.splice(m_kept.begin(), m_kept, it);
                    return;
                }
        }
        // Small reads (headers, tables, bitmaps) are not worth keeping.
        if (length < kSmall || length > kLargest) return m_client->getRange(m_key, offset, length, buffer, m_etag);
        auto stretch = std::make_shared<std::vector<uint8_t>>(static_cast<size_t>(length));
        m_client->getRange(m_key, offset, length, stretch->data(), m_etag);
        std::memcpy(buffer, stretch->data(), length);
        std::lock_guard<std::mutex> lock(m_mutex);
        m_kept.emplace_front(offset, std::move(stretch));
        if (m_kept.size() > kKept) m_kept.pop_back();
    }
    // Every GET asks for the version opened (If-Match), so a replaced
    // object fails its reads rather than serving other bytes.
    bool current() const override { return true; }

private:
    static constexpr uint64_t kSmall = 64 << 10, kLargest = (4 << 20) + 4096;
    static constexpr size_t kKept = 8;
    std::shared_ptr<S3Client> m_client;
    std::string m_key, m_url, m_etag;
    FileStamp m_stamp;
    mutable std::mutex m_mutex;
    mutable std::list<std::pair<uint64_t, std::shared_ptr<const std::vector<uint8_t>>>> m_kept;
};

class S3Storage : public Storage {
public:
    S3Storage(const std::string& location, const S3Location& where, S3Connections& connections)
        : Storage(location),
          m_where(where),
          m_client(std::make_shared<S3Client>(S3Config::fromEnvironment(), where.bucket, connections)) {}

    bool remote() const override { return true; }

    std::unique_ptr<ObjectReader> openReader(const std::string& name, const std::string& expectedEtag) const override {
        S3ObjectInfo info = m_client->head(key(name));
        if (!info.exists) throw StoreError(ErrorKind::notFound, describe(name) + ": no such object");
        if (!expectedEtag.empty() && info.etag != expectedEtag)
            throw StoreError(ErrorKind::corruption, describe(name) + ": ETag: the catalog records " + expectedEtag +
                                                        ", the object has " + info.etag + " (replaced after import?)");
        return std::unique_ptr<ObjectReader>(new S3Reader(m_client, key(name), describe(name), info));
    }

    ObjectInfo stat(const std::string& name) const override {
        S3ObjectInfo s = m_client->head(key(name));
        ObjectInfo info;
        info.exists = s.exists, info.size = s.size, info.etag = s.etag;
        return info;
    }

    bool readWhole(const std::string& name, uint64_t most, std::string& out) const override {
        S3ObjectInfo info = m_client->head(key(name));
        if (!info.exists) return false;
        if (info.size > most)
            throw StoreError(describe(name) + ": size: larger than the " + std::to_string(most) + " bytes it can be");
        out = m_client->getObject(key(name));
        return true;
    }

    // One PUT replaces an object whole: a reader gets the old or the new.
    void replace(const std::string& name, const std::string& data) const override {
        m_client->putObject(key(name), data);
    }

    std::unique_ptr<Staging> stage() const override;

    // Stores the local file `path` under `name`, in parts, several in flight,
    // with nothing left behind when it fails; returns its ETag.
    std::string upload(const std::string& name, const std::string& path) const {
        int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) throw StoreError(path + ": " + std::strerror(errno));
        struct stat st;
        if (::fstat(fd, &st) != 0) {
            ::close(fd);
            throw StoreError(path + ": " + std::strerror(errno));
        }
        try {
            m_client->uploadFile(key(name), fd, static_cast<uint64_t>(st.st_size), partSize(), parallelUploads());
        } catch (...) {
            ::close(fd);
            throw;
        }
        ::close(fd);
        S3ObjectInfo info = m_client->head(key(name));
        if (!info.exists || info.size != static_cast<uint64_t>(st.st_size))
            throw StoreError(describe(name) + ": not there as uploaded (" + std::to_string(info.size) + " bytes)");
        return info.etag;
    }

    void remove(const std::string& name) const override { m_client->remove(key(name)); }

    std::vector<std::string> list(const std::string& prefix) const override {
        std::vector<std::string> out;
        for (const S3ListEntry& e : m_client->list(key(prefix))) out.push_back(e.key.substr(m_where.prefix.size()));
        return out;
    }

    StorageStats stats() const override {
        S3Stats s = m_client->stats();
        StorageStats out;
        out.gets = s.gets, out.getBytes = s.getBytes, out.puts = s.puts, out.putBytes = s.putBytes, out.retries = s.retries;
        return out;
    }

    // A lock object beside the catalog, written only where none exists (a
    // conditional PUT), naming its owner and when it lapses, so that a
    // writer that died does not block the store for long. While held, its
    // lease is renewed, however long the import takes.
    class S3Lock : public Lock {
    public:
        explicit S3Lock(const S3Storage& s) : m_s(s) {
            const std::string lockKey = s.key(kLockName);
            std::random_device rd;
            m_owner = hostName() + ":" + std::to_string(::getpid()) + ":" + std::to_string(rd());
            auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(kWaitSeconds);
            std::mt19937 jitter(rd());
            for (auto pause = std::chrono::milliseconds(50);; pause = std::min(pause * 2, std::chrono::milliseconds(1000))) {
                long long now = nowSeconds();
                if (s.m_client->putObject(lockKey, body(now), true)) {
                    m_renew = std::thread(&S3Lock::renew, this);
                    return;
                }
                // Held: by a writer that is alive, or one whose lease ran out.
                std::string holder;
                long long expires = 0;
                try {
                    std::string text = s.m_client->getObject(lockKey);
                    size_t o = text.find("owner "), e = text.find("expires ");
                    if (o != std::string::npos) holder = text.substr(o + 6, text.find('\n', o) - o - 6);
                    if (e != std::string::npos) expires = std::atoll(text.c_str() + e + 8);
                } catch (const StoreError&) {
                    continue;  // released meanwhile
                }
                if (expires && expires < now) {
                    s.m_client->remove(lockKey);
                    continue;
                }
                if (std::chrono::steady_clock::now() >= giveUp)
                    throw StoreError(ErrorKind::busy, s.describe(kLockName) + ": the store is being changed by " +
                                                          (holder.empty() ? std::string("another writer") : holder) +
                                                          "; try again later");
                std::this_thread::sleep_for(pause + std::chrono::milliseconds(jitter() % 100));
            }
        }
        ~S3Lock() override {
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                m_released = true;
            }
            m_cond.notify_all();
            if (m_renew.joinable()) m_renew.join();
            try {
                std::string text = m_s.m_client->getObject(m_s.key(kLockName));
                if (text.find("owner " + m_owner + "\n") != std::string::npos) m_s.m_client->remove(m_s.key(kLockName));
            } catch (const StoreError&) {
                // Gone already, or the service is: the lease lapses by itself.
            }
        }

    private:
        static long long nowSeconds() {
            return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
                .count();
        }
        std::string body(long long now) const {
            return "owner " + m_owner + "\nexpires " + std::to_string(now + kLeaseSeconds) + "\n";
        }
        void renew() {
            std::unique_lock<std::mutex> lock(m_mutex);
            while (!m_cond.wait_for(lock, std::chrono::seconds(kLeaseSeconds / 3), [this] { return m_released; })) {
                try {
                    m_s.m_client->putObject(m_s.key(kLockName), body(nowSeconds()));
                } catch (const StoreError&) {
                    // Tried again at the next turn; the lease is three turns long.
                }
            }
        }
        static std::string hostName() {
            char name[256] = {0};
            ::gethostname(name, sizeof name - 1);
            return name;
        }
        const S3Storage& m_s;
        std::string m_owner;
        std::mutex m_mutex;
        std::condition_variable m_cond;
        bool m_released = false;
        std::thread m_renew;
    };
    std::unique_ptr<Lock> lock() const override { return std::unique_ptr<Lock>(new S3Lock(*this)); }

private:
    static constexpr const char* kLockName = "catalog.lock";
    static constexpr int kLeaseSeconds = 60, kWaitSeconds = 120;
    std::string key(const std::string& name) const { return m_where.prefix + name; }
    S3Location m_where;
    std::shared_ptr<S3Client> m_client;
};

// An import's new objects are written to a local temporary folder
// ($TMPDIR, which needs room for them) and uploaded; a failed import
// removes what it uploaded.
class S3Staging : public Storage::Staging {
public:
    explicit S3Staging(const S3Storage& storage) : m_storage(storage) {
        const char* tmp = std::getenv("TMPDIR");
        m_dir = std::string(tmp && *tmp ? tmp : "/tmp") + "/zxblk-import-XXXXXX";
        if (!::mkdtemp(&m_dir[0])) throw StoreError(m_dir + ": " + std::strerror(errno));
    }
    ~S3Staging() override {
        std::error_code ec;
        std::filesystem::remove_all(m_dir, ec);
        if (m_kept) return;
        for (const std::string& name : m_published) {
            try {
                m_storage.remove(name);
            } catch (const StoreError&) {
                // Not named by any catalog: the next import removes it.
            }
        }
    }
    std::string pathFor(const std::string& name) override {
        std::string p = m_dir + "/" + name;
        std::error_code ec;
        std::filesystem::create_directories(std::filesystem::path(p).parent_path(), ec);
        if (ec) throw StoreError(p + ": " + ec.message());
        return p;
    }
    std::string publish(const std::string& name) override {
        if (m_storage.stat(name).exists)
            throw StoreError(m_storage.describe(name) + ": already exists, named by the catalog for another snapshot");
        std::string etag = m_storage.upload(name, m_dir + "/" + name);
        m_published.push_back(name);
        ::unlink((m_dir + "/" + name).c_str());  // the local copy is no longer needed
        return etag;
    }
    void commit() override {}
    void keep() override { m_kept = true; }

private:
    const S3Storage& m_storage;
    std::string m_dir;
    bool m_kept = false;
    std::vector<std::string> m_published;
};

std::unique_ptr<Storage::Staging> S3Storage::stage() const { return std::unique_ptr<Staging>(new S3Staging(*this)); }

}  // namespace

std::shared_ptr<S3Connections> makeS3Connections() { return std::make_shared<S3Connections>(); }

std::shared_ptr<Storage> openS3Storage(const std::string& location, const std::shared_ptr<S3Connections>& connections) {
    if (!connections) throw StoreError(location + ": no S3 connections to open it with");
    S3Location where;
    std::string why;
    if (!S3Location::parse(location, where, why)) throw StoreError(location + ": " + why);
    return std::make_shared<S3Storage>(location, where, *connections);
}

}  // namespace zxblk
