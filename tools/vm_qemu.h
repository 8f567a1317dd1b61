// qemu as `zxblk boot` runs it: found, the accelerator that really works
// here, and the command line that attaches each disk of a VM over NBD
// behind an overlay of its own.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace zxblk {

// `name` on the PATH; throws Error "NAME not found; install PACKAGE".
std::string findProgram(const std::string& name, const std::string& package);

// Whether KVM works here: the CPU has hardware virtualisation and the
// kernel makes a VM on /dev/kvm. A device node alone is not enough (qemu
// -enable-kvm then hangs early in the boot).
struct KvmProbe {
    bool usable = false;
    std::string why;  // when not: "the CPU has no vmx or svm flag"
};
KvmProbe probeKvm(const std::string& cpuinfo = "/proc/cpuinfo", const std::string& device = "/dev/kvm");

// `text` split into words as a shell would split them, without running
// one: blanks separate words, quotes ('...', "...") and backslashes keep
// them together. Throws Error on an unfinished quote.
std::vector<std::string> splitShellWords(const std::string& text);

struct VmDisk {
    std::string name;     // the NBD export
    std::string overlay;  // the qcow2 file that takes the VM's writes
};

struct VmSetup {
    std::string qemu;          // the program
    std::string name;          // the VM's, for qemu's -name
    bool kvm = false;
    uint64_t memoryMiB = 1024;
    unsigned cpus = 1;
    std::string nbdSocket;     // the server's Unix socket
    std::vector<VmDisk> disks; // the boot disk first
    std::string bus = "virtio";  // virtio or ide
    std::string qmpSocket;
    std::string kernel, initrd, append;
    std::vector<std::string> extra;  // --qemu, last
};

// qemu's name of the node of disk `index` that the VM's device reads (its
// overlay), and of the node beneath it (the backup over NBD).
std::string diskNode(size_t index);
std::string backupNode(size_t index);

// qemu's arguments, the program first: no display and no default devices,
// the serial console on qemu's standard input and output, QMP on
// setup.qmpSocket, and each disk an NBD node (read-only) under a qcow2 node
// on its overlay, the first one booted from.
std::vector<std::string> qemuArgs(const VmSetup& setup);

}  // namespace zxblk
