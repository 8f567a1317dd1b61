// Subclient parameters of the extent-browse library.
#pragma once
#include <cstdint>

typedef int32_t ZXAppType;

struct SCParams {
    uint64_t srcClientID = 0;
    ZXAppType appType = 0;
    uint64_t bkpSetId = 0;
    uint32_t appId = 0;
    uint64_t appInstance = 0;
    uint64_t browseKey = 0;
    uint64_t reserved = 0;  // stays 0
};

// What the records service knows of a subclient.
struct AppIdInfo {
    uint32_t appId = 0;
    uint64_t clientId = 0;
    ZXAppType appType = 0;
    uint64_t instanceId = 0;
    uint64_t backupSetId = 0;
};
