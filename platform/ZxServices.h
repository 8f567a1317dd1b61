// The services that the closed interfaces reach (restore, extent lookup,
// application records, index), as narrow interfaces with one registry slot
// each. The platform never knows who implements them: the store registers its
// implementations when it is opened, tests register scripted ones.
#pragma once
#include <boost/shared_ptr.hpp>
#include <memory>
#include <string>
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

// Registry slots; thread-safe. Setting an empty pointer clears the slot.
void setRestoreService(std::shared_ptr<RestoreService> service);
std::shared_ptr<RestoreService> restoreService();
void setExtentLookupService(std::shared_ptr<ExtentLookupService> service);
std::shared_ptr<ExtentLookupService> extentLookupService();
void setRecordsService(std::shared_ptr<RecordsService> service);
std::shared_ptr<RecordsService> recordsService();
void setIndexService(std::shared_ptr<IndexService> service);
std::shared_ptr<IndexService> indexService();

}  // namespace zxblk
