// The restore service's view of the object that receives a restored stream.
#pragma once
#include <boost/shared_ptr.hpp>
#include <string>
#include "framework/CUxError.h"
#include "framework/WinTypes.h"
#include "platform/FXErrorUtil.h"

class IFileExtentHandleMgr;
class IFileRecallRestoreTargetStateChangeEvents;

class CRestoreTarget {
public:
    virtual ~CRestoreTarget() {}
    virtual CUxError Open(void* context) = 0;
    virtual CUxError Write(const void* data, unsigned int length) = 0;
    virtual CUxError WriteHole(unsigned int length) = 0;
    virtual CUxError Flush() = 0;
    virtual CUxError Close(bool flag) = 0;
    virtual CUxError GetFileInfo(FILETIME*, FILETIME*, FILETIME*, LARGE_INTEGER*) {
        FXCodeLocation location("DMRService/RestoreTarget",
                                "virtual CUxError CRestoreTarget::GetFileInfo(FILETIME*, FILETIME*, "
                                "FILETIME*, LARGE_INTEGER*)",
                                __LINE__);
        return FXErrorUtil::ErrorWin32(location, ERROR_NOT_SUPPORTED);
    }
    virtual bool Exists() = 0;
    virtual void SetFileHandleMgr(boost::shared_ptr<IFileExtentHandleMgr>) {}
    virtual void SetFileRecallRestoreTargetStateChangeEventConsumer(
        boost::shared_ptr<IFileRecallRestoreTargetStateChangeEvents>) {}
    virtual std::string GetTargetFilePath() { return std::string(); }
};
