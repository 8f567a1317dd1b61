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
    std::shared_ptr<zxblk::ExtentLookupService> service = zxblk::extentLookupService();
    if (!service) throw ExtentBrowseError("cannot browse " + path + ": no extent-lookup service is registered");
    std::string whyNot;
    if (!service->open(m_params, path, whyNot)) throw ExtentBrowseError("cannot browse " + path + ": " + whyNot);
}

ExtentBrowse::~ExtentBrowse() {}

int ExtentBrowse::GetAFInfo(unsigned long long extent, unsigned long long& first, unsigned long long& second) {
    std::shared_ptr<zxblk::ExtentLookupService> service = zxblk::extentLookupService();
    if (!service) {
        zxblk::LogSink::write(zxblk::kLevelError, "ExtentBrowse::GetAFInfo",
                              "cannot look up extents of " + m_path + ": no extent-lookup service is registered");
        return -1;
    }
    return service->lookup(m_params, m_path, extent, first, second);
}
