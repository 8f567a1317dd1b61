#include "platform/ZxServices.h"

#include "platform/CNMessage.h"

namespace zxblk {
namespace {

// What the provider puts in front of every browse path when its
// extent-view tag is set.
const std::string kExtentView = "EXTENTVIEW";

std::string untagged(const std::string& path) {
    return path.compare(0, kExtentView.size(), kExtentView) == 0 ? path.substr(kExtentView.size()) : path;
}

bool startsWithPrefix(const std::string& path, const std::string& prefix) {
    return path.compare(0, prefix.size(), prefix) == 0 && (path.size() == prefix.size() || path[prefix.size()] == '/');
}

// The extent path is what follows the seventh colon of a recall's metadata
// string; a string with fewer colons has none.
std::string extentPathOf(const std::string& metadata) {
    size_t at = 0;
    for (int i = 0; i < 7; ++i) {
        at = metadata.find(':', at);
        if (at == std::string::npos) return std::string();
        ++at;
    }
    return metadata.substr(at);
}

// The client id the disk object reports in the entity of its browse request.
bool reportedClient(const databrowse::BrowseRequest& request, uint64_t* id) {
    const CNMessageBase* entity = request.getobject(3, 3, 1682736261, 10347491);
    long long value = 0;
    if (!entity || !entity->getint64(17, 47, 311168122, 2438726, &value) || value <= 0) return false;
    *id = static_cast<uint64_t>(value);
    return true;
}

size_t slot(RecordKind kind) { return static_cast<size_t>(kind); }

}  // namespace

ServiceRoute::~ServiceRoute() { m_router.detach(m_number); }

std::string ServiceRoute::localPath(const std::string& routed) const {
    std::string path = untagged(routed);
    if (!startsWithPrefix(path, m_prefix)) return std::string();
    return path.substr(m_prefix.size());
}

uint32_t ServiceRoute::appId(uint32_t localAppId) {
    std::lock_guard<std::mutex> lock(m_router.m_mutex);
    for (ServiceRouter::Route& r : m_router.m_routes)
        if (r.number == m_number)
            return static_cast<uint32_t>(m_router.routedId(r, RecordKind::Subclient, localAppId));
    return 0;
}

bool& recallsAhead() {
    thread_local bool ahead = false;
    return ahead;
}

ServiceRouter& ServiceRouter::instance() {
    // Never destroyed: a store's workers may still call back while the
    // process exits.
    static ServiceRouter* router = new ServiceRouter;
    return *router;
}

std::shared_ptr<ServiceRoute> ServiceRouter::attach(const ServiceSet& services) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Route r;
    r.number = m_nextRoute++;
    r.prefix = "/store" + std::to_string(r.number);
    r.restore = services.restore;
    r.lookup = services.lookup;
    r.records = services.records;
    r.index = services.index;
    m_routes.push_back(r);
    return std::shared_ptr<ServiceRoute>(new ServiceRoute(*this, r.number, r.prefix));
}

void ServiceRouter::detach(unsigned number) {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (auto it = m_routes.begin(); it != m_routes.end(); ++it) {
        if (it->number != number) continue;
        for (size_t k = 0; k < 4; ++k)
            for (const auto& ids : it->routed[k]) m_owners[k].erase(ids.second);
        m_routes.erase(it);
        return;
    }
}

void ServiceRouter::setFallback(const ServiceSet& services) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_fallback = services;
}

ServiceSet ServiceRouter::fallback() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_fallback;
}

size_t ServiceRouter::attached() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_routes.size();
}

ServiceRouter::Route* ServiceRouter::routeOfPath(const std::string& path) {
    std::string p = untagged(path);
    for (Route& r : m_routes)
        if (startsWithPrefix(p, r.prefix)) return &r;
    return nullptr;
}

ServiceRouter::Route* ServiceRouter::routeOfId(RecordKind kind, uint64_t id, uint64_t* local) {
    auto it = m_owners[slot(kind)].find(id);
    if (it == m_owners[slot(kind)].end()) return nullptr;
    for (Route& r : m_routes)
        if (r.number == it->second.route) {
            *local = it->second.local;
            return &r;
        }
    return nullptr;
}

// Routed ids count up from 1 per kind across all stores, so that two stores'
// equal ids never meet; they stay below 2^31, as the index messages carry
// them as signed 32-bit values.
uint64_t ServiceRouter::routedId(Route& route, RecordKind kind, uint64_t local) {
    auto& mine = route.routed[slot(kind)];
    auto it = mine.find(local);
    if (it != mine.end()) return it->second;
    uint64_t id = m_nextId[slot(kind)]++;
    mine[local] = id;
    m_owners[slot(kind)][id] = Owner{route.number, local};
    return id;
}

std::shared_ptr<ExtentLookupService> ServiceRouter::lookupFor(const std::string& path, std::string& whyNot) {
    std::shared_ptr<ExtentLookupService> service;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        Route* r = routeOfPath(path);
        service = r ? r->lookup.lock() : m_fallback.lookup;
    }
    if (!service) whyNot = "no open store holds it";
    return service;
}

bool ServiceRouter::openBrowse(const SCParams& params, const std::string& path, std::string& whyNot) {
    std::shared_ptr<ExtentLookupService> service = lookupFor(path, whyNot);
    return service && service->open(params, path, whyNot);
}

int ServiceRouter::lookup(const SCParams& params, const std::string& path, unsigned long long extent,
                          unsigned long long& first, unsigned long long& second, std::string& whyNot) {
    std::shared_ptr<ExtentLookupService> service = lookupFor(path, whyNot);
    return service ? service->lookup(params, path, extent, first, second) : -1;
}

bool ServiceRouter::submit(const RecallJob& job, std::string& whyNot) {
    std::shared_ptr<RestoreService> service;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        Route* r = routeOfPath(extentPathOf(job.srcPath));
        service = r ? r->restore.lock() : m_fallback.restore;
    }
    if (!service) return whyNot = "no open store holds " + extentPathOf(job.srcPath), false;
    return service->submit(job, whyNot);
}

bool ServiceRouter::subclient(uint32_t appId, AppIdInfo& info) {
    std::shared_ptr<RecordsService> service;
    uint64_t local = appId;
    unsigned number = 0;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        Route* r = routeOfId(RecordKind::Subclient, appId, &local);
        service = r ? r->records.lock() : m_fallback.records;
        number = r ? r->number : 0;
    }
    if (!service || !service->subclient(static_cast<uint32_t>(local), info)) return false;
    if (!number) return true;
    // The ids the subclient names are the store's own: the provider gets
    // routed ones, which lead back here when it asks for their names.
    std::lock_guard<std::mutex> lock(m_mutex);
    for (Route& r : m_routes) {
        if (r.number != number) continue;
        info.appId = appId;
        info.clientId = routedId(r, RecordKind::Client, info.clientId);
        info.instanceId = routedId(r, RecordKind::Instance, info.instanceId);
        info.backupSetId = routedId(r, RecordKind::BackupSet, info.backupSetId);
        return true;
    }
    return false;  // detached meanwhile
}

bool ServiceRouter::recordName(RecordKind kind, uint64_t id, std::string& name) {
    std::shared_ptr<RecordsService> service;
    uint64_t local = id;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        Route* r = routeOfId(kind, id, &local);
        service = r ? r->records.lock() : m_fallback.records;
    }
    if (!service) return false;
    switch (kind) {
        case RecordKind::Client: return service->clientName(local, name);
        case RecordKind::Instance: return service->instanceName(local, name);
        case RecordKind::BackupSet: return service->backupSetName(local, name);
        case RecordKind::Subclient: break;
    }
    return false;
}

std::shared_ptr<IndexService> ServiceRouter::indexFor(const databrowse::BrowseRequest& request, std::string& whyNot) {
    std::shared_ptr<IndexService> service;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        uint64_t client = 0, local = 0;
        Route* r = reportedClient(request, &client) ? routeOfId(RecordKind::Client, client, &local) : nullptr;
        service = r ? r->index.lock() : m_fallback.index;
    }
    if (!service) whyNot = "no index service for the disk's client";
    return service;
}

int ServiceRouter::indexInitialize(const databrowse::BrowseRequest& request, std::string& whyNot) {
    std::shared_ptr<IndexService> service = indexFor(request, whyNot);
    return service ? service->initialize(request) : -1;
}

int ServiceRouter::indexUpdate(const databrowse::BrowseRequest& browse, const Indexing::IdxLiveUpdateReq& update,
                               databrowse::BrowseResponse& response, std::string& whyNot) {
    std::shared_ptr<IndexService> service = indexFor(browse, whyNot);
    return service ? service->update(browse, update, response) : -1;
}

}  // namespace zxblk
