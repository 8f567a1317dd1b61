// The folder that keeps a booted VM's writes: one qcow2 overlay per disk
// (DISK.qcow2, no backing file named in it: qemu is given the disk's NBD
// export as its backing at each boot, whatever the socket is then called),
// and overlay.json, which says which store, VM, disks and snapshots the
// overlays lie on, so that they are never put over other bytes.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace zxblk {

struct OverlayDisk {
    std::string name;
    int snapshot = 0;
    uint64_t size = 0;
};

struct OverlayRecord {
    std::string store;  // as canonicalStoreLocation gives it
    std::string client;
    std::vector<OverlayDisk> disks;
    // Where the VM was restored to while it ran (zxblk boot --restore-to):
    // its writes went there, and the overlays are gone.
    std::string restoredTo;
};

// Runs `args` with its output in `log`; the last line it wrote, or "" when
// it succeeded.
std::string runQuietly(const std::vector<std::string>& args, const std::string& log);

class OverlayFolder {
public:
    // Takes the folder (made if missing) for this process: a second boot
    // of the same folder is refused in one line while this one runs.
    explicit OverlayFolder(const std::string& dir);
    ~OverlayFolder();
    OverlayFolder(const OverlayFolder&) = delete;
    OverlayFolder& operator=(const OverlayFolder&) = delete;

    const std::string& dir() const { return m_dir; }
    // What overlay.json records; false when the folder has none yet.
    bool recorded(OverlayRecord* out) const;
    // Why the overlays here cannot take `wanted`'s writes, or "" when they
    // can (the same store and VM, and each disk recorded at the same
    // snapshot and size; a disk new to the record is fine).
    std::string mismatch(const OverlayRecord& wanted) const;
    // Makes the overlay of each disk that has none (qemu-img create), with
    // `fresh` removes the old ones first, and records `wanted`. Returns each
    // disk's overlay, in the order of wanted.disks.
    std::vector<std::string> prepare(const OverlayRecord& wanted, bool fresh, const std::string& qemuImg);
    std::string overlayOf(const std::string& disk) const;
    // The VM now runs from copies in `dir`: the overlays are removed and
    // the record says where the writes went, so that no later boot goes on
    // from what is left here.
    void markRestored(const std::string& dir);

private:
    void record(const OverlayRecord& record);
    std::string m_dir;
    int m_lock = -1;
};

}  // namespace zxblk
