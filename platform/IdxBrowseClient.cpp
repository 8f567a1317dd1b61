#include "platform/IdxBrowseClient.h"

#include "platform/Log.h"
#include "platform/ZxServices.h"

IdxBrowseClient::IdxBrowseClient() : m_initialized(false) {}
IdxBrowseClient::~IdxBrowseClient() {}

int IdxBrowseClient::Initialize(databrowse::BrowseRequest request, IdxBrowseClientResp*, int, const char*,
                                IdxBrowseClientInterrupt*) {
    auto service = zxblk::indexService();
    if (!service) {
        zxblk::LogSink::write(zxblk::kLevelError, "IdxBrowseClient::Initialize", "no index service is registered");
        return -1;
    }
    int result = service->initialize(request);
    if (result == 0) {
        m_request = request;
        m_initialized = true;
    }
    return result;
}

int IdxBrowseClient::UpdateIndex(Indexing::IdxLiveUpdateReq& request, databrowse::BrowseResponse& response) {
    auto service = zxblk::indexService();
    if (!m_initialized || !service) {
        zxblk::LogSink::write(zxblk::kLevelError, "IdxBrowseClient::UpdateIndex",
                              m_initialized ? "no index service is registered" : "client is not initialized");
        return -1;
    }
    return service->update(m_request, request, response);
}
