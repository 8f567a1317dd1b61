#include "platform/ExtentBrowse.h"

#include "platform/Log.h"
#include "platform/ZxServices.h"

ExtentBrowse::ExtentBrowse(SCParams& params, const std::string& path, std::iostream* stream, ExtentBrowseMode mode,
                           unsigned long long pageSize, int depth, bool flag, unsigned int serviceId,
                           const std::string& extra)
    : m_params(params),
      m_path(path),
      m_stream(stream),
      m_mode(mode),
      m_pageSize(pageSize),
      m_depth(depth),
      m_flag(flag),
      m_serviceId(serviceId),
      m_extra(extra) {
    std::string whyNot;
    if (!zxblk::ServiceRouter::instance().openBrowse(m_params, path, whyNot))
        throw ExtentBrowseError("cannot browse " + path + ": " + whyNot);
}

ExtentBrowse::~ExtentBrowse() {}

int ExtentBrowse::GetAFInfo(unsigned long long extent, unsigned long long& first, unsigned long long& second) {
    std::string whyNot;
    int result = zxblk::ServiceRouter::instance().lookup(m_params, m_path, extent, first, second, whyNot);
    if (!whyNot.empty())
        zxblk::LogSink::write(zxblk::kLevelError, "ExtentBrowse::GetAFInfo", "cannot look up extents of " + m_path + ": " + whyNot);
    return result;
}
