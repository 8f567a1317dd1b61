// Lays one recalled extent, delivered by the restore service as a stream of
// data and holes, into a local file.
#pragma once
#include <boost/shared_ptr.hpp>
#include <string>
#include <vector>

#include "bitmap/BitmapInfo.h"
#include "framework/AutoHandles.h"
#include "framework/Export.h"
#include "platform/DMRService/RestoreTarget.h"

class ZXBLK_EXPORT CExtentRestoreTarget : public CRestoreTarget {
public:
    enum LOG_MSG_ENTRY { LOG_MSG_NONE = 0, LOG_MSG_SKIP = 1, LOG_MSG_HOLE = 2, LOG_MSG_ZERO = 3, LOG_MSG_DATA = 4 };

    CExtentRestoreTarget(const std::string& targetPath, unsigned int extentSize, unsigned int sectorSize,
                         bool bUpdateExistingFile);
    ~CExtentRestoreTarget() override;

    CUxError Open(void* context) override;
    CUxError Write(const void* data, unsigned int length) override;
    CUxError WriteHole(unsigned int length) override;
    CUxError Flush() override;
    CUxError Close(bool flag) override;
    bool Exists() override;

    void SetExtentNumber(unsigned long long number) { m_nExtentNumber = number; }
    void SetSrcPath(const std::string& path) { m_strSrcPath = path; }
    void SetSectorsToWrite(const boost::shared_ptr<CBitmapInfo>& sectors) { m_ptrSectorsToWrite = sectors; }
    void GetParentSectors(boost::shared_ptr<CBitmapInfo>& out) { out = m_ptrParentSectors; }
    void SetRestoreToExistingFileAt(unsigned long long offset) {
        m_nExistingFileOffset = offset;
        m_bRestoreToExistingFile = true;
    }
    void SetBitmapInExtent() { m_bBitmapInExtent = true; }
    void SetSkipBitmapInExtent() { m_bSkipBitmapInExtent = true; }

    // Read-only views for the host and tests.
    const std::string& GetTargetPath() const { return m_strTargetPath; }
    unsigned int GetCurrentOffset() const { return m_nCurrentOffset; }
    unsigned long long GetExtentNumber() const { return m_nExtentNumber; }
    unsigned long long GetExistingFileOffset() const { return m_nExistingFileOffset; }
    bool IsRestoreToExistingFile() const { return m_bRestoreToExistingFile; }
    bool IsBitmapInExtent() const { return m_bBitmapInExtent; }
    bool IsSkipBitmapInExtent() const { return m_bSkipBitmapInExtent; }
    bool IsLogSummary() const { return m_bLogSummary; }
    const std::string& GetSrcPath() const { return m_strSrcPath; }
    const std::string& GetExtentDataSummary() const { return m_strExtentDataSummary; }
    boost::shared_ptr<CBitmapInfo> GetSectorsToWrite() const { return m_ptrSectorsToWrite; }

private:
    CUxError WriteInternal(const void* data, unsigned int length);
    CUxError WriteData(const void* data, unsigned int length);
    CUxError WriteHoleOf(unsigned int length, bool full);
    CUxError WriteZeroes(unsigned int length);
    CUxError SeekData(unsigned int length);
    CUxError SetMissingSectorBits(unsigned int length);
    CUxError GatherHoleBitmap(const void*& data, unsigned int& length);
    bool IsSectorWanted(unsigned int sector);
    // The sectors to write, taken once per stream (Open starts a new one).
    const std::vector<unsigned char>& WantedSectors();
    // Bytes from the current offset, at most `length`, up to where the
    // sector flag in `flags` (one byte per sector) changes; `set` is the
    // flag of the run. Data and holes are laid run by run, not sector by
    // sector: one file call per run.
    unsigned int RunOf(const std::vector<unsigned char>& flags, unsigned int length, bool& set) const;
    CUxError CheckRange(const FXCodeLocation& location, unsigned int length);
    void AccumulateLog(LOG_MSG_ENTRY kind, int bytes);
    void AccumulateExtentDataSummary(LOG_MSG_ENTRY kind);

    std::string m_strTargetPath;
    auto_handle m_hFile;
    bool m_bBitmapInExtent;
    bool m_bSkipBitmapInExtent;
    bool m_bBitmapGathered;
    unsigned int m_nBitmapBytesGathered;
    // The stream's sector bitmap and the sectors to write, one byte per
    // sector, taken once per stream rather than asked of a locked bitmap
    // for every sector.
    std::vector<unsigned char> m_holeBitmap;
    std::vector<unsigned char> m_wantedSectors;
    bool m_bUpdateExistingFile;
    unsigned int m_nExtentSize;
    unsigned int m_nSectorSize;
    unsigned int m_nCurrentOffset;
    boost::shared_ptr<CBitmapInfo> m_ptrParentSectors;
    boost::shared_ptr<CBitmapInfo> m_ptrSectorsToWrite;
    unsigned long long m_nExistingFileOffset;
    bool m_bRestoreToExistingFile;
    bool m_bLogSummary;
    std::string m_strSrcPath;
    unsigned long long m_nExtentNumber;
    std::string m_strExtentDataSummary;
    int m_nAccumulatedBytes;
    LOG_MSG_ENTRY m_currentLogEntry;
};
