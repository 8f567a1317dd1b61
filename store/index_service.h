// The index service of a store: keeps every extent-flag update the provider
// sends in an SQLite database in the store, one row per disk, snapshot,
// extent and kind, with how many times it was reported.
#pragma once
#include <mutex>
#include <string>
#include <vector>

#include "platform/ZxServices.h"

struct sqlite3;

namespace zxblk {

class Storage;

struct FlaggedExtent {
    std::string disk;
    uint64_t diskId = 0;
    uint64_t snapshot = 0;
    uint64_t extent = 0;
    std::string kind;  // "mount" or "metadata"
    uint64_t reports = 0;
    std::string firstSeen, lastSeen;
};

class SqliteIndexService : public IndexService {
public:
    // Opens (or makes) the store's index: DIR/index.sqlite in a folder
    // store, a local file for a store on S3; throws StoreError.
    explicit SqliteIndexService(const Storage& storage);
    ~SqliteIndexService() override;

    int initialize(const databrowse::BrowseRequest& request) override;
    int update(const databrowse::BrowseRequest& browse, const Indexing::IdxLiveUpdateReq& update,
               databrowse::BrowseResponse& response) override;

    // Rows of one disk (by name), optionally of one snapshot and kind.
    std::vector<FlaggedExtent> rows(const std::string& disk, int64_t snapshot = -1, const std::string& kind = "");

private:
    void exec(const char* sql);
    void makeTable();
    bool m_tableMade = false;
    std::mutex m_mutex;
    sqlite3* m_db = nullptr;
    std::string m_path;
};

}  // namespace zxblk
