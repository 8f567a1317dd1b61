#include "platform/IdxBrowseClient.h"

#include "platform/Log.h"
#include "platform/ZxServices.h"

IdxBrowseClient::IdxBrowseClient() : m_initialized(false) {}
IdxBrowseClient::~IdxBrowseClient() {}

int IdxBrowseClient::Initialize(databrowse::BrowseRequest request, IdxBrowseClientResp*, int, const char*,
                                IdxBrowseClientInterrupt*) {
    std::string whyNot;
    int result = zxblk::ServiceRouter::instance().indexInitialize(request, whyNot);
    if (!whyNot.empty()) zxblk::LogSink::write(zxblk::kLevelError, "IdxBrowseClient::Initialize", whyNot);
    if (result == 0) {
        m_request = request;
        m_initialized = true;
    }
    return result;
}

int IdxBrowseClient::UpdateIndex(Indexing::IdxLiveUpdateReq& request, databrowse::BrowseResponse& response) {
    if (!m_initialized) {
        zxblk::LogSink::write(zxblk::kLevelError, "IdxBrowseClient::UpdateIndex", "client is not initialized");
        return -1;
    }
    std::string whyNot;
    int result = zxblk::ServiceRouter::instance().indexUpdate(m_request, request, response, whyNot);
    if (!whyNot.empty()) zxblk::LogSink::write(zxblk::kLevelError, "IdxBrowseClient::UpdateIndex", whyNot);
    return result;
}
