// Storage on S3. A recall reads its extent with range GETs (S3Reader); a
// snapshot's footer, header and block table are fetched at once when it is
// opened, kept in memory with it and on local disk for the next open. Each
// object is checked against the ETag the catalog recorded at import, as a
// file is against its size and identity.
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
#include <map>
#include <mutex>
#include <optional>
#include <system_error>
#include <random>
#include <thread>

#include "store/at_once.h"
#include "store/fd_io.h"
#include "store/s3_client.h"
#include "store/s3_metadata.h"
#include "store/s3_reader.h"

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

class S3Storage : public Storage {
public:
    S3Storage(const std::string& location, const S3Location& where, S3Connections& connections,
              const std::string& metadataDir)
        : Storage(location),
          m_where(where),
          m_client(std::make_shared<S3Client>(S3Config::fromEnvironment(), where.bucket, connections)),
          m_cache(std::make_shared<S3MetadataCache>(metadataDir)),
          m_budget(std::make_shared<FetchBudget>()) {}

    bool remote() const override { return true; }
    std::shared_ptr<S3MetadataCache> metadataCache() const override { return m_cache; }

    std::unique_ptr<ObjectReader> openReader(const std::string& name, const OpenHints& hints) const override {
        if (hints.etag.empty() || !hints.size || hints.ranges.empty()) {
            // Nothing known beforehand: the object's head says what it is.
            S3ObjectInfo info = m_client->head(key(name));
            if (!info.exists) throw StoreError(ErrorKind::notFound, describe(name) + ": no such object");
            if (!hints.etag.empty() && info.etag != hints.etag)
                throw StoreError(ErrorKind::corruption, describe(name) + ": ETag: the catalog records " + hints.etag +
                                                            ", the object has " + info.etag + " (replaced after import?)");
            return reader(name, info.etag, info.size, Stretches(), false);
        }
        if (auto kept = m_cache->get(S3Reader::openingKey(key(name)))) {
            Stretches opening;
            if (kept->version == hints.etag && unpackStretches(kept->bytes, opening))
                return reader(name, hints.etag, hints.size, std::move(opening), true);
        }
        return reader(name, hints.etag, hints.size, fetchAtOnce(name, hints), false);
    }

    // A key is spelled one way only: no request is needed to tell two
    // names apart, which the catalog asks of every snapshot it names.
    std::string identity(const std::string& name) const override { return key(name); }

    ObjectInfo stat(const std::string& name) const override {
        S3ObjectInfo s = m_client->head(key(name));
        ObjectInfo info;
        info.exists = s.exists, info.size = s.size, info.etag = s.etag;
        return info;
    }

    bool readWhole(const std::string& name, uint64_t most, std::string& out,
                   const std::function<bool(const std::string&)>& known) const override {
        const std::string cacheKey = "object " + key(name);
        std::optional<S3MetadataCache::Entry> kept = m_cache->get(cacheKey);
        if (kept && known && known(kept->bytes)) {
            out = std::move(kept->bytes);
            return true;
        }
        S3Client::Fetched f = m_client->fetch(key(name), kept ? kept->version : std::string());
        if (!f.exists) return false;
        if (f.unchanged) {
            out = std::move(kept->bytes);
            return true;
        }
        if (f.body.size() > most)
            throw StoreError(describe(name) + ": size: larger than the " + std::to_string(most) + " bytes it can be");
        if (!f.etag.empty()) m_cache->put(cacheKey, f.etag, f.body);
        out = std::move(f.body);
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
        ScopedFd in(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
        struct stat st;
        if (in.fd < 0 || ::fstat(in.fd, &st) != 0) throw StoreError(path + ": " + std::strerror(errno));
        m_client->uploadFile(key(name), in.fd, static_cast<uint64_t>(st.st_size), partSize(), parallelUploads());
        return uploaded(name, static_cast<uint64_t>(st.st_size));
    }

    // An upload of object `name` as its bytes come.
    std::unique_ptr<S3Client::Upload> startUpload(const std::string& name, uint64_t size) const {
        return std::unique_ptr<S3Client::Upload>(
            new S3Client::Upload(*m_client, key(name), size, partSize(), parallelUploads()));
    }
    // The ETag of an object just written, checked to be there whole.
    std::string uploaded(const std::string& name, uint64_t size) const {
        S3ObjectInfo info = m_client->head(key(name));
        if (!info.exists || info.size != size)
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
        const LinkGauge::Figures link = m_client->link();
        out.rttSeconds = link.rttSeconds, out.bytesPerSecond = link.bytesPerSecond;
        out.heldPeak = m_budget->peak();
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
    std::unique_ptr<ObjectReader> reader(const std::string& name, const std::string& etag, uint64_t size,
                                         Stretches opening, bool saved) const {
        return std::unique_ptr<ObjectReader>(
            new S3Reader(m_client, m_cache, m_budget, key(name), describe(name), etag, size, std::move(opening), saved));
    }

    // The stretches an opener reads first, each one GET, all sent at once:
    // one round trip. Each GET asks for the recorded ETag and tells the
    // object's size, so the object is checked on the way.
    Stretches fetchAtOnce(const std::string& name, const OpenHints& hints) const {
        Stretches out;
        for (const auto& r : hints.ranges) {
            if (r.first >= hints.size || !r.second) continue;
            out.emplace_back(r.first, std::string(static_cast<size_t>(std::min(r.second, hints.size - r.first)), '\0'));
        }
        std::vector<uint64_t> sizes(out.size(), hints.size);
        std::vector<std::exception_ptr> errors(out.size());
        auto fetch = [&](size_t i) {
            try {
                m_client->getRange(key(name), out[i].first, out[i].second.size(), &out[i].second[0], hints.etag,
                                   &sizes[i]);
            } catch (...) {
                errors[i] = std::current_exception();
            }
        };
        runAtOnce(out.size(), fetch);
        for (size_t i = 0; i < out.size(); ++i) {
            if (errors[i]) {
                try {
                    std::rethrow_exception(errors[i]);
                } catch (const StoreError& e) {
                    // Not the ETag asked for: say which it has now.
                    if (e.kind() != ErrorKind::corruption) throw;
                    S3ObjectInfo now = m_client->head(key(name));
                    if (!now.exists || now.etag == hints.etag) throw;
                    throw StoreError(ErrorKind::corruption, describe(name) + ": ETag: the catalog records " + hints.etag +
                                                                ", the object has " + now.etag + " (replaced after import?)");
                }
            }
            if (sizes[i] != hints.size)
                throw StoreError(ErrorKind::corruption, describe(name) + ": size: the catalog records " +
                                                            std::to_string(hints.size) + " bytes, the object has " +
                                                            std::to_string(sizes[i]));
        }
        return out;
    }

    static constexpr const char* kLockName = "catalog.lock";
    static constexpr int kLeaseSeconds = 60, kWaitSeconds = 120;
    std::string key(const std::string& name) const { return m_where.prefix + name; }
    S3Location m_where;
    std::shared_ptr<S3Client> m_client;
    std::shared_ptr<S3MetadataCache> m_cache;
    std::shared_ptr<FetchBudget> m_budget;
};

// An import's snapshot files go up as the import reads them, in parts,
// several in flight; its small side files are written to a local temporary
// folder and uploaded. A failed import removes what it uploaded.
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
    std::unique_ptr<Sink> sink(const std::string& name, uint64_t size) override;
    // An object a sink has uploaded whole: removed again unless kept.
    void sent(const std::string& name, const std::string& etag) {
        if (!m_sent.count(name)) m_published.push_back(name);
        m_sent[name] = etag;
    }

    std::string publish(const std::string& name) override {
        auto sent = m_sent.find(name);
        if (sent != m_sent.end()) return sent->second;
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
    std::map<std::string, std::string> m_sent;  // uploaded by a sink, with its ETag
};

// An object uploaded as an import copies it: its data read from the source
// file (from the page cache, where the import's checksums just read it) and
// its holes sent as zeros.
class S3Sink : public Storage::Staging::Sink {
public:
    S3Sink(S3Staging& staging, const S3Storage& storage, std::string name, uint64_t size)
        : m_staging(staging), m_storage(storage), m_name(std::move(name)), m_upload(storage.startUpload(m_name, size)) {}
    bool copy(int fd, uint64_t at, uint64_t length) override {
        if (at > m_written) m_upload->zeros(at - m_written);
        const uint64_t got = m_upload->copyFrom(fd, at, length);
        m_written = at + got;
        return got == length;
    }
    void finish(uint64_t size) override {
        if (size > m_written) m_upload->zeros(size - m_written);
        m_upload->finish();
        m_staging.sent(m_name, std::string());  // there now: removed again should the import fail
        m_staging.sent(m_name, m_storage.uploaded(m_name, size));
    }

private:
    S3Staging& m_staging;
    const S3Storage& m_storage;
    std::string m_name;
    std::unique_ptr<S3Client::Upload> m_upload;
    uint64_t m_written = 0;
};

std::unique_ptr<Storage::Staging::Sink> S3Staging::sink(const std::string& name, uint64_t size) {
    return std::unique_ptr<Sink>(new S3Sink(*this, m_storage, name, size));
}

std::unique_ptr<Storage::Staging> S3Storage::stage() const { return std::unique_ptr<Staging>(new S3Staging(*this)); }

}  // namespace

std::shared_ptr<S3Connections> makeS3Connections() { return std::make_shared<S3Connections>(); }

std::shared_ptr<Storage> openS3Storage(const std::string& location, const std::shared_ptr<S3Connections>& connections,
                                       const std::string& metadataDir) {
    if (!connections) throw StoreError(location + ": no S3 connections to open it with");
    S3Location where;
    std::string why;
    if (!S3Location::parse(location, where, why)) throw StoreError(location + ": " + why);
    return std::make_shared<S3Storage>(location, where, *connections, metadataDir);
}

}  // namespace zxblk
