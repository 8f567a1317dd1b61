#include "store/index_service.h"

#include <sqlite3.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "platform/CNMessage.h"
#include "platform/Log.h"
#include "store/storage.h"
#include "store/store_error.h"

namespace zxblk {
namespace {

// The browse path a disk object sends names the disk last: /client/subclient/disk.
std::string diskOf(const databrowse::BrowseRequest& request) {
    const std::vector<CNMessageBase>* paths = request.listobject(4, 4, 1682736261, 5775598);
    std::string path;
    if (!paths || paths->empty() || !(*paths)[0].getstring(1, 1, 1677919727, 3433509, &path)) return std::string();
    return path.substr(path.rfind('/') + 1);
}

struct Statement {
    sqlite3_stmt* s = nullptr;
    Statement(sqlite3* db, const char* sql) { sqlite3_prepare_v2(db, sql, -1, &s, nullptr); }
    ~Statement() { sqlite3_finalize(s); }
};

// Where the index of a store lives: in its folder, or, for a store on S3,
// in a local folder of its own (an SQLite file needs a local file system),
// $XDG_CACHE_HOME/zxblk/index/ (~/.cache/zxblk/index/) and the store's URL
// with '/' made '_'.
std::string indexFile(const Storage& storage) {
    const std::string& store = storage.location();
    if (!storage.remote()) return store + "/index.sqlite";
    const char* xdg = std::getenv("XDG_CACHE_HOME");
    const char* home = std::getenv("HOME");
    std::string dir = xdg && *xdg ? std::string(xdg) + "/zxblk/index" : std::string(home ? home : "/tmp") + "/.cache/zxblk/index";
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    std::string name = store.substr(5);
    std::replace(name.begin(), name.end(), '/', '_');
    return dir + "/" + name + ".sqlite";
}

}  // namespace

SqliteIndexService::SqliteIndexService(const Storage& storage) : m_path(indexFile(storage)) {
    if (sqlite3_open_v2(m_path.c_str(), &m_db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                        nullptr) != SQLITE_OK) {
        std::string why = m_db ? sqlite3_errmsg(m_db) : "out of memory";
        sqlite3_close(m_db);
        throw StoreError(m_path + ": cannot open the index: " + why);
    }
    sqlite3_busy_timeout(m_db, 5000);
}

// The table is made when the first update comes: a process that only reads
// a disk (an export) writes nothing to the index, and syncs nothing of it.
void SqliteIndexService::makeTable() {
    if (m_tableMade) return;
    exec("CREATE TABLE IF NOT EXISTS extent_flags ("
         " disk TEXT NOT NULL, disk_id INTEGER NOT NULL, snapshot INTEGER NOT NULL, extent INTEGER NOT NULL,"
         " kind TEXT NOT NULL, reports INTEGER NOT NULL, first_seen TEXT NOT NULL, last_seen TEXT NOT NULL,"
         " PRIMARY KEY (disk, snapshot, extent, kind))");
    m_tableMade = true;
}

SqliteIndexService::~SqliteIndexService() { sqlite3_close(m_db); }

void SqliteIndexService::exec(const char* sql) {
    char* error = nullptr;
    if (sqlite3_exec(m_db, sql, nullptr, nullptr, &error) != SQLITE_OK) {
        std::string why = error ? error : "unknown error";
        sqlite3_free(error);
        throw StoreError(m_path + ": " + why);
    }
}

int SqliteIndexService::initialize(const databrowse::BrowseRequest& request) {
    if (diskOf(request).empty()) {
        LogSink::write(kLevelError, "SqliteIndexService", "browse request names no disk path");
        return 1;
    }
    return 0;
}

int SqliteIndexService::update(const databrowse::BrowseRequest& browse, const Indexing::IdxLiveUpdateReq& update,
                               databrowse::BrowseResponse& response) {
    std::string disk = diskOf(browse);
    const std::vector<CNMessageBase>* records = update.listobject(13, 16, 816748524, 6487156);
    long long operation = 0;
    if (disk.empty() || !records || !update.getint64(1, 1, 816748524, 6074275, &operation) || operation != 6) {
        LogSink::write(kLevelError, "SqliteIndexService", "malformed extent-flag update for '" + disk + "'");
        return 2;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    try {
        makeTable();
        exec("BEGIN IMMEDIATE");
    } catch (const StoreError& e) {
        LogSink::write(kLevelError, "SqliteIndexService", e.what());
        return 3;
    }
    Statement insert(m_db,
                     "INSERT INTO extent_flags VALUES (?1, ?2, ?3, ?4, ?5, 1, datetime('now'), datetime('now'))"
                     " ON CONFLICT (disk, snapshot, extent, kind) DO UPDATE SET reports = reports + 1,"
                     " last_seen = datetime('now')");
    size_t stored = 0;
    bool ok = insert.s != nullptr;
    for (const CNMessageBase& record : *records) {
        long long mount = 0, key1 = 0, key2 = 0;
        record.getint64(2, 2, 813757724, 3145580, &mount);
        record.getint64(3, 3, 813757724, 13629847, &key1);
        record.getint64(4, 4, 813757724, 3547112, &key2);
        const std::vector<unsigned int>* extents = record.listuint(1, 1, 813757724, 2572008);
        for (size_t i = 0; ok && extents && i < extents->size(); ++i) {
            sqlite3_reset(insert.s);
            sqlite3_bind_text(insert.s, 1, disk.c_str(), -1, SQLITE_TRANSIENT);
            sqlite3_bind_int64(insert.s, 2, key1);
            sqlite3_bind_int64(insert.s, 3, key2);
            sqlite3_bind_int64(insert.s, 4, (*extents)[i]);
            sqlite3_bind_text(insert.s, 5, mount ? "mount" : "metadata", -1, SQLITE_STATIC);
            ok = sqlite3_step(insert.s) == SQLITE_DONE;
            stored += ok;
        }
    }
    if (!ok) {
        LogSink::write(kLevelError, "SqliteIndexService", m_path + ": " + sqlite3_errmsg(m_db));
        sqlite3_exec(m_db, "ROLLBACK", nullptr, nullptr, nullptr);
        return 4;
    }
    exec("COMMIT");
    response.setint64(1, 1, 1, 1, static_cast<long long>(stored));
    return 0;
}

std::vector<FlaggedExtent> SqliteIndexService::rows(const std::string& disk, int64_t snapshot, const std::string& kind) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Statement q(m_db,
                "SELECT disk, disk_id, snapshot, extent, kind, reports, first_seen, last_seen FROM extent_flags"
                " WHERE disk = ?1 AND (?2 < 0 OR snapshot = ?2) AND (?3 = '' OR kind = ?3)"
                " ORDER BY snapshot, kind, extent");
    std::vector<FlaggedExtent> out;
    if (!q.s && !m_tableMade && std::string(sqlite3_errmsg(m_db)).find("no such table") != std::string::npos)
        return out;  // nothing was ever reported to this store
    if (!q.s) throw StoreError(m_path + ": " + sqlite3_errmsg(m_db));
    sqlite3_bind_text(q.s, 1, disk.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_int64(q.s, 2, snapshot);
    sqlite3_bind_text(q.s, 3, kind.c_str(), -1, SQLITE_TRANSIENT);
    while (sqlite3_step(q.s) == SQLITE_ROW) {
        FlaggedExtent r;
        r.disk = reinterpret_cast<const char*>(sqlite3_column_text(q.s, 0));
        r.diskId = static_cast<uint64_t>(sqlite3_column_int64(q.s, 1));
        r.snapshot = static_cast<uint64_t>(sqlite3_column_int64(q.s, 2));
        r.extent = static_cast<uint64_t>(sqlite3_column_int64(q.s, 3));
        r.kind = reinterpret_cast<const char*>(sqlite3_column_text(q.s, 4));
        r.reports = static_cast<uint64_t>(sqlite3_column_int64(q.s, 5));
        r.firstSeen = reinterpret_cast<const char*>(sqlite3_column_text(q.s, 6));
        r.lastSeen = reinterpret_cast<const char*>(sqlite3_column_text(q.s, 7));
        out.push_back(r);
    }
    return out;
}

}  // namespace zxblk
