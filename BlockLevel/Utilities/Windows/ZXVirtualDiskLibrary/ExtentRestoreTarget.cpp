#include "BlockLevel/Utilities/Windows/ZXVirtualDiskLibrary/ExtentRestoreTarget.h"

#include <algorithm>
#include <cstring>

#include "framework/WinTypes.h"
#include "platform/FXErrorUtil.h"
#include "platform/FXFile.h"
#include "platform/FXString.h"
#include "platform/Log.h"

#define ERT_SOURCE "BlockLevel/Utilities/Windows/ZXVirtualDiskLibrary/ExtentRestoreTarget"
#define ERT_LOCATION(signature) FXCodeLocation(ERT_SOURCE, signature, __LINE__)

static const char* const kOpen = "virtual CUxError CExtentRestoreTarget::Open(void*)";
static const char* const kWrite = "virtual CUxError CExtentRestoreTarget::Write(const void*, unsigned int)";
static const char* const kWriteHole = "virtual CUxError CExtentRestoreTarget::WriteHole(unsigned int)";
static const char* const kFlush = "virtual CUxError CExtentRestoreTarget::Flush()";
static const char* const kClose = "virtual CUxError CExtentRestoreTarget::Close(bool)";
static const char* const kWriteInternal = "CUxError CExtentRestoreTarget::WriteInternal(const void*, unsigned int)";
static const char* const kWriteData = "CUxError CExtentRestoreTarget::WriteData(const void*, unsigned int)";
static const char* const kWriteZeroes = "CUxError CExtentRestoreTarget::WriteZeroes(unsigned int)";
static const char* const kSeekData = "CUxError CExtentRestoreTarget::SeekData(unsigned int)";
static const char* const kSetMissing = "CUxError CExtentRestoreTarget::SetMissingSectorBits(unsigned int)";

CExtentRestoreTarget::CExtentRestoreTarget(const std::string& targetPath, unsigned int extentSize,
                                           unsigned int sectorSize, bool bUpdateExistingFile)
    : m_strTargetPath(targetPath),
      m_bBitmapInExtent(false),
      m_bSkipBitmapInExtent(false),
      m_bBitmapGathered(false),
      m_nBitmapBytesGathered(0),
      m_holeBitmap(8ull * sectorSize, 0),
      m_bUpdateExistingFile(bUpdateExistingFile),
      m_nExtentSize(extentSize),
      m_nSectorSize(sectorSize),
      m_nCurrentOffset(0),
      m_nExistingFileOffset(0),
      m_bRestoreToExistingFile(false),
      m_bLogSummary(g_ptrLogWriter && g_ptrLogWriter->GetLogLevel() > 2),
      m_nExtentNumber(0),  // the read path always sets it; 0 until then
      m_nAccumulatedBytes(0),
      m_currentLogEntry(LOG_MSG_NONE) {}

CExtentRestoreTarget::~CExtentRestoreTarget() {}

CUxError CExtentRestoreTarget::Open(void*) {
    m_wantedSectors.clear();
    DWORD disposition = CREATE_ALWAYS;
    if ((m_bUpdateExistingFile && m_ptrSectorsToWrite) || m_bRestoreToExistingFile) disposition = OPEN_EXISTING;
    CUxError status = FXFile::ZXCreateFile(m_hFile, m_strTargetPath, GENERIC_READ | GENERIC_WRITE,
                                           FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                           disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (status.IsError()) {
        status.Push(ERT_LOCATION(kOpen), "Error opening restore target file %s", m_strTargetPath.c_str());
        return status;
    }
    if (m_bRestoreToExistingFile && m_nExistingFileOffset != 0) {
        status = FXFile::ZXSetFilePointer(m_hFile, static_cast<LONGLONG>(m_nExistingFileOffset), FILE_BEGIN, nullptr);
        if (status.IsError()) {
            status.Push(ERT_LOCATION(kOpen));
            return status;
        }
    }
    return CUxError::Success();
}

CUxError CExtentRestoreTarget::Flush() {
    CUxError status = FXFile::ZXFlushFileBuffers(m_hFile);
    if (status.IsError()) status.Push(ERT_LOCATION(kFlush));
    return status;
}

CUxError CExtentRestoreTarget::Close(bool) {
    AccumulateExtentDataSummary(m_currentLogEntry);
    if (!m_strExtentDataSummary.empty() && g_ptrLogWriter && g_ptrLogWriter->GetLogLevel() >= 0)
        g_ptrLogWriter->WriteLog(0, kClose, __LINE__, 0, 0, "Recalled Extent %lld from %s: %s",
                                 static_cast<long long>(m_nExtentNumber), m_strSrcPath.c_str(),
                                 m_strExtentDataSummary.c_str());
    if (m_hFile.is_valid()) m_hFile.reset();
    return CUxError::Success();
}

bool CExtentRestoreTarget::Exists() { return false; }

// A sectors-to-write bitmap may be shorter than the extent (a copy whose
// extent is not a whole number of bitmap bytes): the sectors past its end
// are not wanted here, and an older copy supplies them.
bool CExtentRestoreTarget::IsSectorWanted(unsigned int sector) {
    return static_cast<unsigned long long>(sector) < static_cast<unsigned long long>(m_ptrSectorsToWrite->Size()) * 8 &&
           m_ptrSectorsToWrite->IsBitSet(sector);
}

unsigned int CExtentRestoreTarget::RunOf(const std::vector<unsigned char>& flags, unsigned int length, bool& set) const {
    // A sector past the flags reads as clear, as a bitmap's bits past its end do.
    auto flag = [&](unsigned long long sector) { return sector < flags.size() && flags[sector]; };
    unsigned long long sector = m_nCurrentOffset / m_nSectorSize, end = static_cast<unsigned long long>(m_nCurrentOffset) + length;
    set = flag(sector);
    unsigned long long at = (sector + 1) * m_nSectorSize;
    while (at < end && flag(at / m_nSectorSize) == set) at += m_nSectorSize;
    return static_cast<unsigned int>(std::min(at, end) - m_nCurrentOffset);
}

const std::vector<unsigned char>& CExtentRestoreTarget::WantedSectors() {
    if (m_wantedSectors.empty() && m_nSectorSize) {
        m_wantedSectors.resize(m_nExtentSize / m_nSectorSize, 0);
        for (unsigned int s = 0; s < m_wantedSectors.size(); ++s) m_wantedSectors[s] = IsSectorWanted(s);
    }
    return m_wantedSectors;
}

// A stream that would run past the extent is refused before a byte is
// written: the file must not grow past the extent.
CUxError CExtentRestoreTarget::CheckRange(const FXCodeLocation& location, unsigned int length) {
    if (m_nSectorSize == 0)
        return FXErrorUtil::ErrorWin32(location, ERROR_INTERNAL_ERROR, "sector size 0 for %s", m_strTargetPath.c_str());
    if (static_cast<unsigned long long>(m_nCurrentOffset) + length > m_nExtentSize)
        return FXErrorUtil::ErrorWin32(location, ERROR_INTERNAL_ERROR,
                                       "stream of %u bytes at offset %u runs past the extent size %u of %s", length,
                                       m_nCurrentOffset, m_nExtentSize, m_strTargetPath.c_str());
    return CUxError::Success();
}

CUxError CExtentRestoreTarget::Write(const void* data, unsigned int length) {
    if (!m_bBitmapInExtent) {
        CUxError status = CheckRange(ERT_LOCATION(kWrite), length);
        if (!status.IsError()) status = WriteInternal(data, length);
        if (status.IsError()) status.Push(ERT_LOCATION(kWrite));
        return status;
    }
    if (!m_bBitmapGathered) {
        GatherHoleBitmap(data, length);
        if (length == 0) return CUxError::Success();
    }
    CUxError status = CheckRange(ERT_LOCATION(kWrite), length);
    if (status.IsError()) return status;
    if (m_bSkipBitmapInExtent) {
        status = WriteInternal(data, length);
        if (status.IsError()) status.Push(ERT_LOCATION(kWrite));
        return status;
    }
    if (m_nExtentSize / m_nSectorSize > 8ull * m_nSectorSize)
        return FXErrorUtil::ErrorWin32(ERT_LOCATION(kWrite), ERROR_INTERNAL_ERROR,
                                       "hole bitmap covers %llu sectors, extent size %u has more (offset %u)",
                                       8ull * m_nSectorSize, m_nExtentSize, m_nCurrentOffset);
    const unsigned char* bytes = static_cast<const unsigned char*>(data);
    for (unsigned int done = 0; done < length;) {
        bool present;
        unsigned int chunk = RunOf(m_holeBitmap, length - done, present);
        status = present ? WriteInternal(bytes + done, chunk) : WriteHoleOf(chunk, false);
        if (status.IsError()) {
            status.Push(ERT_LOCATION(kWrite));
            return status;
        }
        done += chunk;
    }
    return CUxError::Success();
}

CUxError CExtentRestoreTarget::GatherHoleBitmap(const void*& data, unsigned int& length) {
    unsigned int remaining = m_nSectorSize - m_nBitmapBytesGathered;
    unsigned int take = std::min(length, remaining);
    const unsigned char* bytes = static_cast<const unsigned char*>(data);
    // The stream carries the most significant bit first; the bitmap keeps
    // the least significant first, so bits are moved one at a time.
    for (unsigned int i = 0; i < take; ++i) {
        for (unsigned int j = 0; j < 8; ++j) {
            size_t sector = (static_cast<size_t>(m_nBitmapBytesGathered) + i) * 8 + j;
            m_holeBitmap[sector] = (bytes[i] & (0x80u >> j)) != 0;
        }
    }
    m_nBitmapBytesGathered += take;
    data = bytes + take;
    length -= take;
    if (m_nBitmapBytesGathered >= m_nSectorSize) m_bBitmapGathered = true;
    return CUxError::Success();
}

CUxError CExtentRestoreTarget::WriteInternal(const void* data, unsigned int length) {
    CUxError status;
    if (!m_ptrSectorsToWrite) {
        status = WriteData(data, length);
    } else {
        const unsigned char* bytes = static_cast<const unsigned char*>(data);
        for (unsigned int done = 0; done < length && !status.IsError();) {
            bool wanted;
            unsigned int chunk = RunOf(WantedSectors(), length - done, wanted);
            status = wanted ? WriteData(bytes + done, chunk) : SeekData(chunk);
            done += chunk;
        }
    }
    if (status.IsError()) status.Push(ERT_LOCATION(kWriteInternal));
    return status;
}

CUxError CExtentRestoreTarget::WriteHole(unsigned int length) {
    CUxError status = CheckRange(ERT_LOCATION(kWriteHole), length);
    if (status.IsError()) return status;
    return WriteHoleOf(length, length == m_nExtentSize);
}

// A hole of the whole extent is zeros; a hole within it (also one that the
// stream's sector bitmap makes of every sector) leaves its sectors to the parent.
CUxError CExtentRestoreTarget::WriteHoleOf(unsigned int length, bool full) {
    CUxError status;
    if (!m_ptrSectorsToWrite) {
        status = full ? WriteZeroes(length) : SetMissingSectorBits(length);
    } else {
        for (unsigned int done = 0; done < length && !status.IsError();) {
            bool wanted;
            unsigned int chunk = RunOf(WantedSectors(), length - done, wanted);
            if (wanted)
                status = full ? WriteZeroes(chunk) : SetMissingSectorBits(chunk);
            else
                status = SeekData(chunk);
            done += chunk;
        }
    }
    if (status.IsError()) status.Push(ERT_LOCATION(kWriteHole));
    return status;
}

CUxError CExtentRestoreTarget::WriteData(const void* data, unsigned int length) {
    AccumulateLog(LOG_MSG_DATA, static_cast<int>(length));
    DWORD written = 0;
    CUxError status = FXFile::ZXWriteFile(m_hFile, data, length, &written, nullptr);
    if (status.IsError()) {
        status.Push(ERT_LOCATION(kWriteData), "Error writing to restore target file %s", m_strTargetPath.c_str());
        return status;
    }
    if (written != length) return FXErrorUtil::ErrorWin32(ERT_LOCATION(kWriteData), ERROR_INTERNAL_ERROR);
    m_nCurrentOffset += length;
    return CUxError::Success();
}

CUxError CExtentRestoreTarget::WriteZeroes(unsigned int length) {
    AccumulateLog(LOG_MSG_ZERO, static_cast<int>(length));
    auto_ptr_array<char> zeros(new char[length ? length : 1]());
    DWORD written = 0;
    CUxError status = FXFile::ZXWriteFile(m_hFile, zeros.get(), length, &written, nullptr);
    if (status.IsError()) {
        status.Push(ERT_LOCATION(kWriteZeroes), "Error writing to restore target file %s", m_strTargetPath.c_str());
        return status;
    }
    if (written != length) return FXErrorUtil::ErrorWin32(ERT_LOCATION(kWriteZeroes), ERROR_INTERNAL_ERROR);
    m_nCurrentOffset += length;
    return CUxError::Success();
}

CUxError CExtentRestoreTarget::SeekData(unsigned int length) {
    AccumulateLog(LOG_MSG_SKIP, static_cast<int>(length));
    CUxError status = FXFile::ZXSetFilePointer(m_hFile, length, FILE_CURRENT, nullptr);
    if (status.IsError()) {
        status.Push(ERT_LOCATION(kSeekData), "Error seeking in restore target file %s", m_strTargetPath.c_str());
        return status;
    }
    m_nCurrentOffset += length;
    return CUxError::Success();
}

CUxError CExtentRestoreTarget::SetMissingSectorBits(unsigned int length) {
    AccumulateLog(LOG_MSG_HOLE, static_cast<int>(length));
    // Every sector the hole touches is recorded, also one it ends inside, and
    // the offset moves by exactly the hole's length, as the file position
    // does, so that the two never disagree. An empty hole records nothing.
    if (length > 0) {
        if (!m_ptrParentSectors)
            m_ptrParentSectors.reset(new CBitmapInfo((m_nExtentSize / m_nSectorSize) / 8));
        unsigned int first = m_nCurrentOffset / m_nSectorSize;
        unsigned int last = (m_nCurrentOffset + length - 1) / m_nSectorSize;
        for (unsigned int s = first; s <= last; ++s) m_ptrParentSectors->SetBit(s);
    }
    m_nCurrentOffset += length;
    CUxError status = FXFile::ZXSetFilePointer(m_hFile, length, FILE_CURRENT, nullptr);
    if (status.IsError()) {
        status.Push(ERT_LOCATION(kSetMissing), "Error seeking in restore target file %s", m_strTargetPath.c_str());
        return status;
    }
    return CUxError::Success();
}

void CExtentRestoreTarget::AccumulateLog(LOG_MSG_ENTRY kind, int bytes) {
    if (!m_bLogSummary) return;
    if (m_currentLogEntry == LOG_MSG_NONE) m_currentLogEntry = kind;
    if (kind != m_currentLogEntry) {
        AccumulateExtentDataSummary(m_currentLogEntry);
        m_currentLogEntry = kind;
    }
    m_nAccumulatedBytes = static_cast<int>(static_cast<unsigned int>(m_nAccumulatedBytes) + static_cast<unsigned int>(bytes));
}

void CExtentRestoreTarget::AccumulateExtentDataSummary(LOG_MSG_ENTRY kind) {
    if (!m_bLogSummary || m_nAccumulatedBytes == 0) return;
    const char* format = nullptr;
    switch (kind) {
        case LOG_MSG_SKIP: format = "|--SKIP(%d)--|"; break;
        case LOG_MSG_HOLE: format = "|--HOLE(%d)--|"; break;
        case LOG_MSG_ZERO: format = "|--ZERO(%d)--|"; break;
        case LOG_MSG_DATA: format = "|--DATA(%d)--|"; break;
        default: break;
    }
    if (format) m_strExtentDataSummary += FXString::Format(format, m_nAccumulatedBytes);
    m_nAccumulatedBytes = 0;
}
