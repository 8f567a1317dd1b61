#include "vm_qemu.h"

#include <fcntl.h>
#include <linux/kvm.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "zxblk/zxblk.h"

namespace zxblk {

std::string findProgram(const std::string& name, const std::string& package) {
    const char* path = std::getenv("PATH");
    std::string dirs = path ? path : "/usr/bin:/bin";
    for (size_t at = 0; at <= dirs.size();) {
        size_t end = dirs.find(':', at);
        if (end == std::string::npos) end = dirs.size();
        std::string candidate = (end > at ? dirs.substr(at, end - at) : ".") + "/" + name;
        if (::access(candidate.c_str(), X_OK) == 0) return candidate;
        at = end + 1;
    }
    throw Error(name + " not found; install " + package, ErrorKind::notFound);
}

KvmProbe probeKvm(const std::string& cpuinfo, const std::string& device) {
    KvmProbe probe;
    bool flag = false;
    std::ifstream in(cpuinfo);
    for (std::string line; !flag && std::getline(in, line);) {
        if (line.compare(0, 5, "flags") != 0) continue;
        std::istringstream words(line.substr(line.find(':') + 1));
        for (std::string w; words >> w;) flag = flag || w == "vmx" || w == "svm";
    }
    if (!flag) {
        probe.why = "the CPU has no vmx or svm flag";
        return probe;
    }
    int fd = ::open(device.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        probe.why = device + ": " + std::strerror(errno);
        return probe;
    }
    int version = ::ioctl(fd, KVM_GET_API_VERSION, 0);
    int vm = version == KVM_API_VERSION ? ::ioctl(fd, KVM_CREATE_VM, 0) : -1;
    if (version != KVM_API_VERSION)
        probe.why = device + " speaks KVM API " + std::to_string(version) + ", not " + std::to_string(KVM_API_VERSION);
    else if (vm < 0)
        probe.why = "the kernel cannot make a VM (" + std::string(std::strerror(errno)) + ")";
    else
        probe.usable = true;
    if (vm >= 0) ::close(vm);
    ::close(fd);
    return probe;
}

std::vector<std::string> splitShellWords(const std::string& text) {
    std::vector<std::string> words;
    std::string word;
    bool inWord = false;
    char quote = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        const bool more = i + 1 < text.size();
        if (quote == '\'') {
            if (c == '\'')
                quote = 0;
            else
                word += c;
        } else if (quote == '"') {
            // As in a shell, a backslash in double quotes keeps only these.
            if (c == '"')
                quote = 0;
            else if (c == '\\' && more && std::strchr("\"\\$`", text[i + 1]))
                word += text[++i];
            else
                word += c;
        } else if (c == ' ' || c == '\t' || c == '\n') {
            if (inWord) words.push_back(word), word.clear(), inWord = false;
        } else if (c == '\'' || c == '"') {
            quote = c, inWord = true;
        } else {
            word += c == '\\' && more ? text[++i] : c;
            inWord = true;
        }
    }
    if (quote)
        throw Error(std::string("--qemu: unfinished ") + (quote == '"' ? "double" : "single") + " quote in: " + text,
                    ErrorKind::invalidArgument);
    if (inWord) words.push_back(word);
    return words;
}

std::string diskNode(size_t index) { return "disk" + std::to_string(index); }
std::string backupNode(size_t index) { return diskNode(index) + "-backup"; }

std::vector<std::string> qemuArgs(const VmSetup& s) {
    // A comma in an option's value is written twice.
    std::string name;
    for (char c : s.name) name += c == ',' ? std::string(",,") : std::string(1, c);
    std::vector<std::string> a = {s.qemu, "-name", name, "-nodefaults", "-no-user-config", "-display", "none"};
    a.insert(a.end(), {"-machine", "pc", "-accel", s.kvm ? "kvm" : "tcg", "-cpu", "max"});
    a.insert(a.end(), {"-m", std::to_string(s.memoryMiB) + "M", "-smp", std::to_string(s.cpus)});
    // The console comes to zxblk, which puts it on the terminal or in the
    // log; qemu never touches the terminal, so Ctrl-C reaches zxblk alone.
    a.insert(a.end(), {"-chardev", "stdio,id=console,signal=off", "-serial", "chardev:console"});
    a.insert(a.end(), {"-qmp", "unix:" + s.qmpSocket + ",server=on,wait=off"});
    if (s.bus == "ide" && s.disks.size() > 4)
        throw Error("--bus ide attaches at most 4 disks; the VM has " + std::to_string(s.disks.size()),
                    ErrorKind::invalidArgument);
    for (size_t i = 0; i < s.disks.size(); ++i) {
        // Node names are qemu's own; the disk's name is the export's.
        const std::string node = diskNode(i);
        nlohmann::json nbd = {{"driver", "nbd"},
                              {"node-name", backupNode(i)},
                              {"server", {{"type", "unix"}, {"path", s.nbdSocket}}},
                              {"export", s.disks[i].name},
                              {"read-only", true}};
        nlohmann::json overlay = {{"driver", "qcow2"},
                                  {"node-name", node},
                                  {"file", {{"driver", "file"}, {"filename", s.disks[i].overlay}}},
                                  {"backing", backupNode(i)}};
        nlohmann::json device = {{"drive", node}};
        if (s.bus == "ide") {
            device["driver"] = "ide-hd";
            device["bus"] = "ide." + std::to_string(i / 2);
            device["unit"] = i % 2;
        } else {
            device["driver"] = "virtio-blk-pci";
            // The guest finds it under /dev/disk/by-id by the disk's name.
            device["serial"] = s.disks[i].name.substr(0, 20);
        }
        if (i == 0 && s.kernel.empty()) device["bootindex"] = 0;
        a.insert(a.end(), {"-blockdev", nbd.dump(), "-blockdev", overlay.dump(), "-device", device.dump()});
    }
    if (!s.kernel.empty()) a.insert(a.end(), {"-kernel", s.kernel});
    if (!s.initrd.empty()) a.insert(a.end(), {"-initrd", s.initrd});
    if (!s.append.empty()) a.insert(a.end(), {"-append", s.append});
    a.insert(a.end(), s.extra.begin(), s.extra.end());
    return a;
}

}  // namespace zxblk
