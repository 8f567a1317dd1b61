#include "platform/AppRecords.h"

#include "platform/ZxServices.h"

// The kind of application id (2: subclient) is the only kind this host has.
ApplicationId::ApplicationId(unsigned long, unsigned long appId) : m_appId(appId) {
    m_info.appId = static_cast<uint32_t>(appId);
}

int ApplicationId::getApplicationId(void*) {
    auto service = zxblk::recordsService();
    if (!service) return -1;
    AppIdInfo info;
    if (!service->subclient(static_cast<uint32_t>(m_appId), info)) return 1;
    m_info = info;
    return 0;
}

int ZXClient::getName(std::string& name, void*) {
    auto service = zxblk::recordsService();
    std::string found;
    if (!service || !service->clientName(m_id, found)) return 1;
    name = found;
    return 0;
}

int Instance::getInstanceName(std::string& name, void*) {
    auto service = zxblk::recordsService();
    std::string found;
    if (!service || !service->instanceName(m_id, found)) return 1;
    name = found;
    return 0;
}

int BackupSet::getBackupSetName(std::string& name, void*) {
    auto service = zxblk::recordsService();
    std::string found;
    if (!service || !service->backupSetName(m_id, found)) return 1;
    name = found;
    return 0;
}
