// Extent browse of one backed-up copy: whether the copy holds an extent and
// where the restore service finds it.
#pragma once
#include <iostream>
#include <stdexcept>
#include <string>

#include "platform/SCParams.h"

enum ExtentBrowseMode { EB_MODE_NONE = 0, EB_MODE_EXTENT = 1 };

class ExtentBrowseError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class ExtentBrowse {
public:
    // Throws ExtentBrowseError when the extent-lookup service is missing or
    // does not know the path.
    ExtentBrowse(SCParams& params, const std::string& path, std::iostream* stream, ExtentBrowseMode mode,
                 unsigned long long pageSize, int depth, bool flag, unsigned int serviceId,
                 const std::string& extra);
    ~ExtentBrowse();

    // 0: the copy holds the extent; 1: it does not; anything else: failure.
    int GetAFInfo(unsigned long long extent, unsigned long long& first, unsigned long long& second);

    const SCParams& Params() const { return m_params; }
    const std::string& Path() const { return m_path; }
    std::iostream* Stream() const { return m_stream; }
    ExtentBrowseMode Mode() const { return m_mode; }
    unsigned long long PageSize() const { return m_pageSize; }
    int Depth() const { return m_depth; }
    bool Flag() const { return m_flag; }
    unsigned int ServiceId() const { return m_serviceId; }
    const std::string& Extra() const { return m_extra; }

private:
    SCParams m_params;
    std::string m_path;
    std::iostream* m_stream;
    ExtentBrowseMode m_mode;
    unsigned long long m_pageSize;
    int m_depth;
    bool m_flag;
    unsigned int m_serviceId;
    std::string m_extra;
};
