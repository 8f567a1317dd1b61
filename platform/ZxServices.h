// The services that the closed interfaces reach (restore, extent lookup,
// application records, index), as narrow interfaces, and the one router
// through which the closed interfaces reach them.
//
// Every store that is open attaches its services to the router and gets a
// route: a browse-path prefix of its own and ids of its own for its
// records. The router sends each call to the store it belongs to: extent
// lookups by the browse path of the copy, restore jobs by the extent path in
// the request's source path, application records by id, index updates by
// the client id the disk object reports. Any number of stores are attached at
// once, and nothing of one is ever overwritten by another: two stores may
// hold the same browse paths and the same subclient ids, the provider sees
// them apart. What no attached store claims goes to the fallback services,
// which tests set to scripted ones. The platform never knows who implements
// the services.
#pragma once
#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/SCParams.h"

class CRestoreTarget;
namespace databrowse {
class BrowseRequest;
class BrowseResponse;
}  // namespace databrowse
namespace Indexing {
class IdxLiveUpdateReq;
}

// Completion record that the restore service hands to the callback.
struct DMRestoreCompleted_t {
    int status = 0;                    // 0: the stream was delivered; otherwise it failed
    std::string error;                 // one line when status != 0
    unsigned long long requestId = 0;  // identity of the submission that completes
};
typedef void (*DMRCallbackFn)(void* context, DMRestoreCompleted_t* completed);

namespace zxblk {

// Everything a submitted recall carries to the restore service.
struct RecallJob {
    unsigned long long requestId = 0;
    std::string physicalMachine;
    std::string clientName;
    int serviceId = 0;
    ZXAppType appType = 0;
    unsigned int restoreOptions = 0;
    std::string bkpSetName;
    std::string instanceName;
    std::string fsName;
    std::string srcPath;   // the recall metadata string
    std::string destPath;  // the local file the target writes
    bool fileExtentRequest = false;
    unsigned long long seekFlags = 0;
    boost::shared_ptr<CRestoreTarget> target;
    DMRCallbackFn callback = nullptr;
    void* context = nullptr;
};

class RestoreService {
public:
    virtual ~RestoreService() {}
    // Takes the job and runs it on threads of its own; the callback is called
    // exactly once for an accepted job. False (with a reason) when refused.
    virtual bool submit(const RecallJob& job, std::string& whyNot) = 0;
};

// Whether the recalls this thread submits are ahead of any reader
// (readahead, prefetch) rather than for a reader waiting on them; the host
// sets it around its read, and a restore service runs a waiting reader's
// recalls first.
bool& recallsAhead();

class ExtentLookupService {
public:
    virtual ~ExtentLookupService() {}
    // Called when an ExtentBrowse is constructed for `path`; false refuses it.
    virtual bool open(const SCParams& params, const std::string& path, std::string& whyNot) = 0;
    // 0: the copy holds the extent (first/second identify it for the restore
    // service); 1: it does not; anything else: failure.
    virtual int lookup(const SCParams& params, const std::string& path, unsigned long long extent,
                       unsigned long long& first, unsigned long long& second) = 0;
};

class RecordsService {
public:
    virtual ~RecordsService() {}
    virtual bool subclient(uint32_t appId, AppIdInfo& info) = 0;
    virtual bool clientName(uint64_t clientId, std::string& name) = 0;
    virtual bool instanceName(uint64_t instanceId, std::string& name) = 0;
    virtual bool backupSetName(uint64_t backupSetId, std::string& name) = 0;
};

class IndexService {
public:
    virtual ~IndexService() {}
    // 0 on success, as the index client reports it.
    virtual int initialize(const databrowse::BrowseRequest& request) = 0;
    virtual int update(const databrowse::BrowseRequest& browse, const Indexing::IdxLiveUpdateReq& update,
                       databrowse::BrowseResponse& response) = 0;
};

// The services of one store (or of a test); any of them may be missing.
struct ServiceSet {
    std::shared_ptr<RestoreService> restore;
    std::shared_ptr<ExtentLookupService> lookup;
    std::shared_ptr<RecordsService> records;
    std::shared_ptr<IndexService> index;
};

class ServiceRouter;

// A store's place in the router. The store keeps it for as long as its
// services answer; destroying it detaches them. The router holds the
// services weakly, so a store that goes away is never called again.
class ServiceRoute {
public:
    ~ServiceRoute();
    ServiceRoute(const ServiceRoute&) = delete;
    ServiceRoute& operator=(const ServiceRoute&) = delete;

    // Put in front of the store's own browse paths ("/store3"): the paths
    // the provider is given, and that come back in its calls.
    const std::string& prefix() const { return m_prefix; }
    // The store's own path for one routed to it: the prefix (and an
    // "EXTENTVIEW" tag in front of it) taken off; "" when it is not one of
    // this route's paths.
    std::string localPath(const std::string& routed) const;
    // The id under which the provider asks for one of the store's own
    // subclients; the same for as long as the route lives.
    uint32_t appId(uint32_t localAppId);

private:
    friend class ServiceRouter;
    ServiceRoute(ServiceRouter& router, unsigned number, std::string prefix)
        : m_router(router), m_number(number), m_prefix(std::move(prefix)) {}
    ServiceRouter& m_router;
    unsigned m_number;
    std::string m_prefix;
};

// What an id handed to the provider stands for.
enum class RecordKind { Subclient, Client, Instance, BackupSet };

class ServiceRouter {
public:
    // The one router the closed interfaces call; it lives as long as the process.
    static ServiceRouter& instance();

    // Attaches a store's services under a prefix and ids of their own.
    std::shared_ptr<ServiceRoute> attach(const ServiceSet& services);
    // Services for whatever no attached store claims; an empty set clears them.
    void setFallback(const ServiceSet& services);
    ServiceSet fallback();
    // How many stores are attached now.
    size_t attached();

    // What the closed interfaces call, each sent to the store it belongs to.
    bool openBrowse(const SCParams& params, const std::string& path, std::string& whyNot);
    int lookup(const SCParams& params, const std::string& path, unsigned long long extent, unsigned long long& first,
               unsigned long long& second, std::string& whyNot);
    bool submit(const RecallJob& job, std::string& whyNot);
    bool subclient(uint32_t appId, AppIdInfo& info);
    bool recordName(RecordKind kind, uint64_t id, std::string& name);
    int indexInitialize(const databrowse::BrowseRequest& request, std::string& whyNot);
    int indexUpdate(const databrowse::BrowseRequest& browse, const Indexing::IdxLiveUpdateReq& update,
                    databrowse::BrowseResponse& response, std::string& whyNot);

private:
    friend class ServiceRoute;
    struct Route {
        unsigned number = 0;
        std::string prefix;
        std::weak_ptr<RestoreService> restore;
        std::weak_ptr<ExtentLookupService> lookup;
        std::weak_ptr<RecordsService> records;
        std::weak_ptr<IndexService> index;
        // Ids handed to the provider, by kind: the store's own id -> the routed one.
        std::map<uint64_t, uint64_t> routed[4];
    };
    // Where a routed id leads: the route's number and the store's own id.
    struct Owner {
        unsigned route = 0;
        uint64_t local = 0;
    };
    ServiceRouter() = default;
    void detach(unsigned number);
    // The route whose prefix the path starts with; null when none does.
    Route* routeOfPath(const std::string& path);
    Route* routeOfId(RecordKind kind, uint64_t id, uint64_t* local);
    uint64_t routedId(Route& route, RecordKind kind, uint64_t local);
    // The services a call goes to; null, with why, when none answers.
    std::shared_ptr<ExtentLookupService> lookupFor(const std::string& path, std::string& whyNot);
    std::shared_ptr<IndexService> indexFor(const databrowse::BrowseRequest& request, std::string& whyNot);

    std::mutex m_mutex;
    unsigned m_nextRoute = 1;
    std::vector<Route> m_routes;
    std::map<uint64_t, Owner> m_owners[4];
    uint64_t m_nextId[4] = {1, 1, 1, 1};
    ServiceSet m_fallback;
};

}  // namespace zxblk
