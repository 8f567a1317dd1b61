// The names of a snapshot's kind and status.
#include "zxblk/zxblk.h"

namespace zxblk {

const char* kindName(SnapshotKind kind) {
    switch (kind) {
        case SnapshotKind::fixed: return "fixed VHD";
        case SnapshotKind::dynamic: return "dynamic VHD";
        case SnapshotKind::differencing: return "differencing VHD";
        case SnapshotKind::raw: return "raw";
    }
    return "?";
}

std::string kindName(const SnapshotInfo& snapshot) {
    std::string name = kindName(snapshot.kind);
    return snapshot.vhdx ? name + "X" : name;
}

const char* statusName(SnapshotStatus status) {
    switch (status) {
        case SnapshotStatus::ok: return "ok";
        case SnapshotStatus::missing: return "missing";
        case SnapshotStatus::damaged: return "damaged";
    }
    return "?";
}

}  // namespace zxblk
