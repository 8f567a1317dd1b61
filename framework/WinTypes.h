// Windows-style scalar types that the provider's signatures keep on Linux.
#pragma once
#include <cstdint>

typedef unsigned long long ULONGLONG;
typedef long long LONGLONG;
typedef uint32_t DWORD;
typedef int BOOL;

struct FILETIME {
    DWORD dwLowDateTime;
    DWORD dwHighDateTime;
};

union LARGE_INTEGER {
    struct {
        DWORD LowPart;
        int32_t HighPart;
    } u;
    LONGLONG QuadPart;
};

// Win32 values that FXFile takes on every platform.
#define GENERIC_READ 0x80000000u
#define GENERIC_WRITE 0x40000000u
#define FILE_SHARE_READ 0x1u
#define FILE_SHARE_WRITE 0x2u
#define FILE_SHARE_DELETE 0x4u
#define CREATE_NEW 1u
#define CREATE_ALWAYS 2u
#define OPEN_EXISTING 3u
#define OPEN_ALWAYS 4u
#define TRUNCATE_EXISTING 5u
#define FILE_ATTRIBUTE_NORMAL 0x80u
#define FILE_BEGIN 0u
#define FILE_CURRENT 1u
#define FILE_END 2u

// Windows system error codes used by the provider.
#define ERROR_NOT_SUPPORTED 50u
#define ERROR_INTERNAL_ERROR 1359u
