// Where `zxblk export` writes a disk image, and how. A new or regular file is
// written sparse under a temporary name in its folder and renamed over the
// target once complete and synced; a block device, FIFO, character device,
// symbolic link or standard output ("-") is written in place and never
// renamed over. The temporary's name carries the exporting process's id
// (".NAME.zxblk-PID-XXXXXX"), so that the next export to the same target
// knows one whose process is gone (killed) and removes it.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace zxblk {

class ExportSink {
public:
    // Opens the target for a disk of `size` bytes; throws zxblk::Error.
    ExportSink(const std::string& target, uint64_t size);
    // Removes a temporary that was not committed.
    ~ExportSink();
    ExportSink(const ExportSink&) = delete;
    ExportSink& operator=(const ExportSink&) = delete;

    // Writes `length` bytes of the disk at `offset`, taken from the extent
    // file `fd` at `fileOffset`: its data ranges are copied, its holes
    // become holes (or zeros where the target cannot hold holes).
    // Calls come in disk order.
    void copyFrom(int fd, uint64_t fileOffset, uint64_t offset, uint64_t length);
    // Writes `length` bytes of the disk at `offset` from memory.
    void write(const char* bytes, uint64_t offset, uint64_t length);
    // Writes `length` zero bytes of the disk at `offset` (a hole where the
    // target can hold one).
    void zeros(uint64_t offset, uint64_t length);
    // Syncs what was written, once: after it, commit() only renames.
    void sync();
    // Syncs (unless sync() did) and puts a temporary in place.
    void commit();
    const std::string& describe() const { return m_what; }
    // Whether the target itself is being written (no temporary): what is
    // there after a failure is part of the disk.
    bool inPlace() const { return m_temp.empty(); }
    // The leftovers of killed exports that opening removed, one line each.
    const std::vector<std::string>& removed() const { return m_removed; }
    // Whether the image goes where standard output goes ("-", /dev/stdout).
    bool toStandardOutput() const;

private:
    void data(int fd, uint64_t fileOffset, uint64_t offset, uint64_t length);
    void writeAt(const char* bytes, uint64_t offset, size_t length);
    [[noreturn]] void fail(const std::string& what, int err) const;

    std::string m_target;  // what the user named
    std::string m_temp;    // the temporary name, or empty when written in place
    std::string m_what;    // the file actually written, for messages
    int m_fd = -1;
    bool m_ownFd = false;
    bool m_sparse = false;      // holes may be left unwritten (a regular file)
    bool m_positional = false;  // pwrite at offsets; otherwise a stream in order
    bool m_sync = false;        // fsync at the end (not for pipes and terminals)
    bool m_synced = false;
    uint64_t m_base = 0;        // where the disk starts in the target
    uint64_t m_streamed = 0;    // bytes written so far to a stream
    bool m_copyRange = true;    // copy_file_range works between these files
    std::vector<std::string> m_removed;
};

}  // namespace zxblk
