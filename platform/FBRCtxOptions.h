// The subclient options that the host passes to a disk object.
#pragma once
#include <cstdint>

enum ctxOType { CTXO_NONE = 0, CTXO_BLOCK_LEVEL = 1 };

struct SpecialOptsRecord {
    uint32_t appId = 0;
    uint64_t idxKey1 = 0;
    uint64_t idxKey2 = 0;
    uint64_t entityId = 0;
    uint64_t serviceId = 0;
};

struct FBRCtxSpecialOpts {
    SpecialOptsRecord* specialOptsRecord = nullptr;
};
