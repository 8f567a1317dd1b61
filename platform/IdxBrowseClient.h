// Client of the index service: opens a browse session for a disk, then sends
// live updates within it.
#pragma once
#include "platform/CNMessage.h"

class IdxBrowseClientResp {};
class IdxBrowseClientInterrupt {};

class IdxBrowseClient {
public:
    IdxBrowseClient();
    ~IdxBrowseClient();
    // 0 on success.
    int Initialize(databrowse::BrowseRequest request, IdxBrowseClientResp* response, int timeoutMs,
                   const char* server, IdxBrowseClientInterrupt* interrupt);
    int UpdateIndex(Indexing::IdxLiveUpdateReq& request, databrowse::BrowseResponse& response);

private:
    databrowse::BrowseRequest m_request;
    bool m_initialized;
};
