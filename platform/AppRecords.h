// Application records: subclient, client, instance and backup set, answered
// by the records service registered with the platform.
#pragma once
#include <string>

#include "platform/SCParams.h"

class ApplicationId {
public:
    ApplicationId(unsigned long kind, unsigned long appId);
    // 0 when the subclient is known; then getAppIdInfo describes it.
    int getApplicationId(void* reserved);
    const AppIdInfo& getAppIdInfo() const { return m_info; }

private:
    unsigned long m_appId;
    AppIdInfo m_info;
};

class ZXClient {
public:
    explicit ZXClient(unsigned long clientId) : m_id(clientId) {}
    // 0 and the name when known; the string is left as it was otherwise.
    int getName(std::string& name, void* reserved);

private:
    unsigned long m_id;
};

class Instance {
public:
    explicit Instance(unsigned long instanceId) : m_id(instanceId) {}
    int getInstanceName(std::string& name, void* reserved);

private:
    unsigned long m_id;
};

class BackupSet {
public:
    explicit BackupSet(unsigned long backupSetId) : m_id(backupSetId) {}
    int getBackupSetName(std::string& name, void* reserved);

private:
    unsigned long m_id;
};
