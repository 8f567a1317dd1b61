// The restore service's request: a template filled once per subclient and
// given per-recall settings before every Submit.
#pragma once
#include <boost/shared_ptr.hpp>
#include <string>

#include "platform/DMRService/RestoreTarget.h"
#include "platform/SCParams.h"
#include "platform/ZxServices.h"

class CUxSocket {
public:
    CUxSocket() : m_fd(-1) {}
    int Descriptor() const { return m_fd; }

private:
    int m_fd;
};

// Process-wide settings of the restore-service client.
void DisableNagleForFSRestoreHead(bool disable);
void SetLogLevelForImportantLogs(int level);
bool IsNagleDisabledForFSRestoreHead();
int GetLogLevelForImportantLogs();

class DMRError {
public:
    DMRError() : m_errorCode(0) {}
    virtual ~DMRError() {}
    int GetErrorCode() const { return m_errorCode; }
    const std::string& GetErrorMessage() const { return m_errorMessage; }

protected:
    void SetError(int code, const std::string& message) {
        m_errorCode = code;
        m_errorMessage = message;
    }

private:
    int m_errorCode;
    std::string m_errorMessage;
};

class DMRRequest : public DMRError {
public:
    DMRRequest(const char* physicalMachine, const char* clientName, int serviceId);
    DMRRequest(const DMRRequest&) = default;
    DMRRequest& operator=(const DMRRequest&) = default;

    void SetAppType(ZXAppType type) { m_job.appType = type; }
    void SetRestoreOptions(unsigned int options) { m_job.restoreOptions = options; }
    void SetCallbackSocket(CUxSocket socket) { m_socket = socket, m_hasSocket = true; }
    void SetBkpSetName(const std::string& name) { m_job.bkpSetName = name; }
    void SetInstanceName(const std::string& name) { m_job.instanceName = name; }
    void SetCallbackFn(DMRCallbackFn fn, void* context) { m_job.callback = fn, m_job.context = context; }
    void SetFSName(const char* name) { m_job.fsName = name ? name : ""; }
    void SetRestoreTargetObject(boost::shared_ptr<CRestoreTarget> target) { m_job.target = target; }
    void SetSrcPath(const char* path) { m_job.srcPath = path ? path : ""; }
    void SetDestPath(const char* path) { m_job.destPath = path ? path : ""; }
    void SetFileExtentRequest(bool on) { m_job.fileExtentRequest = on; }
    void SetSeekFlags(unsigned long long flags) { m_job.seekFlags = flags, m_seekFlagsSet = true; }
    // Identity of the next submission; the completion record carries it back.
    void SetRequestId(unsigned long long id) { m_job.requestId = id; }

    // Hands the request to the restore service registered with the platform.
    // False (and a log line) when there is none or it refuses the request.
    bool Submit(long long* id, bool flag);

    const zxblk::RecallJob& Job() const { return m_job; }
    const std::string& GetPhysicalMachine() const { return m_job.physicalMachine; }
    const std::string& GetClientName() const { return m_job.clientName; }
    int GetServiceId() const { return m_job.serviceId; }
    ZXAppType GetAppType() const { return m_job.appType; }
    unsigned int GetRestoreOptions() const { return m_job.restoreOptions; }
    bool HasCallbackSocket() const { return m_hasSocket; }
    const std::string& GetBkpSetName() const { return m_job.bkpSetName; }
    const std::string& GetInstanceName() const { return m_job.instanceName; }
    DMRCallbackFn GetCallbackFn() const { return m_job.callback; }
    void* GetCallbackContext() const { return m_job.context; }
    const std::string& GetFSName() const { return m_job.fsName; }
    boost::shared_ptr<CRestoreTarget> GetRestoreTargetObject() const { return m_job.target; }
    const std::string& GetSrcPath() const { return m_job.srcPath; }
    const std::string& GetDestPath() const { return m_job.destPath; }
    bool GetFileExtentRequest() const { return m_job.fileExtentRequest; }
    unsigned long long GetSeekFlags() const { return m_job.seekFlags; }
    bool SeekFlagsWereSet() const { return m_seekFlagsSet; }
    unsigned long long GetRequestId() const { return m_job.requestId; }

private:
    zxblk::RecallJob m_job;
    CUxSocket m_socket;
    bool m_hasSocket = false;
    bool m_seekFlagsSet = false;
};
