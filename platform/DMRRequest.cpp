#include "platform/DMRRequest.h"

#include <atomic>

#include "platform/Log.h"

namespace {
std::atomic<bool> g_nagleDisabled{false};
std::atomic<int> g_importantLogLevel{0};
}  // namespace

void DisableNagleForFSRestoreHead(bool disable) { g_nagleDisabled = disable; }
void SetLogLevelForImportantLogs(int level) { g_importantLogLevel = level; }
bool IsNagleDisabledForFSRestoreHead() { return g_nagleDisabled; }
int GetLogLevelForImportantLogs() { return g_importantLogLevel; }

DMRRequest::DMRRequest(const char* physicalMachine, const char* clientName, int serviceId) {
    m_job.physicalMachine = physicalMachine ? physicalMachine : "";
    m_job.clientName = clientName ? clientName : "";
    m_job.serviceId = serviceId;
}

bool DMRRequest::Submit(long long* id, bool) {
    std::string whyNot;
    if (!zxblk::ServiceRouter::instance().submit(m_job, whyNot)) {
        SetError(-1, whyNot);
        zxblk::LogSink::write(zxblk::kLevelError, "DMRRequest::Submit",
                              "restore service refused " + m_job.srcPath + ": " + whyNot);
        return false;
    }
    SetError(0, std::string());
    if (id) *id = static_cast<long long>(m_job.requestId);
    return true;
}
