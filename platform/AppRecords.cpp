#include "platform/AppRecords.h"

#include "platform/ZxServices.h"

// The kind of application id (2: subclient) is the only kind this host has.
ApplicationId::ApplicationId(unsigned long, unsigned long appId) : m_appId(appId) {
    m_info.appId = static_cast<uint32_t>(appId);
}

int ApplicationId::getApplicationId(void*) {
    AppIdInfo info;
    if (!zxblk::ServiceRouter::instance().subclient(static_cast<uint32_t>(m_appId), info)) return 1;
    m_info = info;
    return 0;
}

int ZXClient::getName(std::string& name, void*) {
    std::string found;
    if (!zxblk::ServiceRouter::instance().recordName(zxblk::RecordKind::Client, m_id, found)) return 1;
    name = found;
    return 0;
}

int Instance::getInstanceName(std::string& name, void*) {
    std::string found;
    if (!zxblk::ServiceRouter::instance().recordName(zxblk::RecordKind::Instance, m_id, found)) return 1;
    name = found;
    return 0;
}

int BackupSet::getBackupSetName(std::string& name, void*) {
    std::string found;
    if (!zxblk::ServiceRouter::instance().recordName(zxblk::RecordKind::BackupSet, m_id, found)) return 1;
    name = found;
    return 0;
}
