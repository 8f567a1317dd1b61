// zxblk demo: the main job. Builds a sample backup of an ext4 disk (a dynamic
// VHD and a differencing snapshot in which some files changed), mounts the
// newest snapshot, reads two files out of its file system, and shows how
// little of the disk had to be recalled to do it.
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <thread>

#include "commands.h"
#include "zxblk/zxblk.h"

extern char** environ;

namespace zxblk {
namespace {

namespace fs = std::filesystem;

const char* const kMarker = ".zxblk-demo";  // what makes a folder safe to build the sample in again

// How a user runs this program again: "zxblk" where that is what the
// shell finds, else its path (after ./run.sh it is in the build tree, not
// on PATH).
std::string commandName() {
    std::error_code ec;
    const fs::path self = fs::read_symlink("/proc/self/exe", ec);
    if (ec) return "zxblk";
    const char* path = std::getenv("PATH");
    std::stringstream dirs(path ? path : "");
    for (std::string dir; std::getline(dirs, dir, ':');)
        if (!dir.empty() && fs::equivalent(fs::path(dir) / "zxblk", self, ec)) return "zxblk";
    const fs::path here = fs::current_path(ec);
    const fs::path relative = ec ? fs::path() : self.lexically_relative(here);
    if (!relative.empty() && *relative.begin() != "..") return (fs::path(".") / relative).string();
    return self.string();
}
const int kFiles = 36;
const int kChanged[] = {3, 17, 30};

// Paths as the user would type them: the home folder as "~".
std::string shown(std::string text) {
    const char* home = std::getenv("HOME");
    if (!home || !*home || std::string(home) == "/") return text;
    const std::string prefix = std::string(home) + "/";
    for (size_t at = text.find(prefix); at != std::string::npos; at = text.find(prefix, at + 2))
        text.replace(at, prefix.size(), "~/");
    return text;
}

void say(const std::string& text) {
    std::printf("==> %s\n", shown(text).c_str());
    std::fflush(stdout);
}

std::string quote(const std::string& s) {
    std::string out = "'";
    for (char c : s) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

void run(const std::string& command, const std::string& output = "/dev/null") {
    if (std::system((command + " >" + quote(output) + " 2>/dev/null").c_str()) != 0)
        throw Error("demo step failed: " + command, ErrorKind::io);
}

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

void spit(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << bytes;
    if (!out.flush()) throw Error(path + ": cannot write it", ErrorKind::io);
}

// A file's bytes depend only on its name and version, so the demo can tell
// without any copy whether what it read back is right.
std::string contents(const std::string& name, int version, size_t size) {
    std::mt19937_64 rng(std::hash<std::string>()(name) + static_cast<uint64_t>(version));
    std::string s(size, '\0');
    for (size_t i = 0; i + 8 <= size; i += 8) {
        uint64_t v = rng();
        std::memcpy(&s[i], &v, 8);
    }
    return s;
}

std::string dataFile(int i) { return "data/file" + std::to_string(i) + ".bin"; }
size_t originalSize(int i) { return (1 + i % 5) * (1 << 20) + static_cast<size_t>(i) * 4096; }
const size_t kChangedSize = 2 << 20;

bool fuseMounted(const std::string& dir) {
    struct statfs st;
    return ::statfs(dir.c_str(), &st) == 0 && st.f_type == 0x65735546;  // FUSE_SUPER_MAGIC
}

// `zxblk mount -f` as a child of the demo, unmounted and waited for however
// the demo ends.
class DemoMount {
public:
    DemoMount(const std::string& store, const std::string& cache, const std::string& mountpoint) : m_mountpoint(mountpoint) {
        std::vector<std::string> args = {"zxblk", "mount", "--store", store, "--disk", "demo", "--cache", cache,
                                         "--log-level", "-1", "-f", mountpoint};
        std::vector<char*> argv;
        for (auto& a : args) argv.push_back(&a[0]);
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);  // the demo says what it mounted
        int rc = posix_spawn(&m_pid, "/proc/self/exe", &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        if (rc != 0) throw Error(std::string("cannot start zxblk mount: ") + std::strerror(rc), ErrorKind::io);
        for (int i = 0; i < 600 && !fuseMounted(mountpoint); ++i) {
            int status = 0;
            if (::waitpid(m_pid, &status, WNOHANG) == m_pid) {
                m_pid = -1;
                throw Error(mountpoint + ": zxblk mount ended before the disk was mounted (see above)", ErrorKind::io);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        if (!fuseMounted(mountpoint))
            throw Error(mountpoint + ": the mount did not come up within 30 s", ErrorKind::unavailable);
    }
    // Unmounts and returns whether the mount process ended cleanly.
    bool close() {
        if (m_pid < 0) return true;
        run("fusermount3 -u " + quote(m_mountpoint));
        int status = 0;
        ::waitpid(m_pid, &status, 0);
        m_pid = -1;
        return WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }
    ~DemoMount() {
        if (m_pid < 0) return;
        if (std::system(("fusermount3 -u " + quote(m_mountpoint) + " 2>/dev/null").c_str()) != 0) ::kill(m_pid, SIGTERM);
        ::waitpid(m_pid, nullptr, 0);
    }

private:
    std::string m_mountpoint;
    pid_t m_pid = -1;
};

std::map<std::string, unsigned long long> parseStats(const std::string& text) {
    std::map<std::string, unsigned long long> out;
    std::istringstream in(text);
    std::string key;
    unsigned long long value;
    while (in >> key >> value) out[key] = value;
    return out;
}

// Makes the sample: files, an ext4 image of them, its dynamic VHD, a copy in
// which three files changed, the differencing VHD between the two, and a
// store holding both as snapshots 0 and 1 of disk "demo".
void buildSample(const std::string& dir, const std::string& work, const std::string& store) {
    std::string src = dir + "/files";
    fs::create_directories(src + "/data");
    fs::create_directories(src + "/docs");
    fs::create_directories(work);
    say("generating " + std::to_string(kFiles) + " files and an ext4 file system of 256 MiB from them (mke2fs -d)");
    for (int i = 0; i < kFiles; ++i) spit(src + "/" + dataFile(i), contents(dataFile(i), 0, originalSize(i)));
    for (int i = 0; i < 20; ++i)
        spit(src + "/docs/note" + std::to_string(i) + ".txt",
             "note " + std::to_string(i) + ": backed-up disks are readable before they are restored.\n");
    run("mke2fs -q -F -t ext4 -L zxblk-demo -d " + quote(src) + " " + quote(work + "/base.img") + " 256M");
    say("turning it into a dynamic VHD (qemu-img convert -O vpc)");
    run("qemu-img convert -f raw -O vpc -o force_size=on " + quote(work + "/base.img") + " " + quote(work + "/base.vhd"));

    say("changing three files for a second snapshot, a differencing VHD");
    run("cp --sparse=always " + quote(work + "/base.img") + " " + quote(work + "/changed.img"));
    std::string commands = "cd /data\n";
    for (int i : kChanged) {
        std::string name = "file" + std::to_string(i) + ".bin";
        spit(work + "/" + name, contents(dataFile(i), 1, kChangedSize));
        commands += "rm " + name + "\nwrite " + name + " " + name + "\n";
    }
    spit(work + "/debugfs.cmds", commands);
    // debugfs splits its commands at spaces, and does not fail for a
    // command that fails: the files to write are named from the work
    // folder it runs in, never by a path that may hold a space.
    run("cd " + quote(work) + " && debugfs -w -f debugfs.cmds changed.img");
    DifferencingStats diff = writeDifferencingVhd(work + "/base.vhd", work + "/base.img", work + "/changed.img", work + "/child.vhd");
    std::printf("    %llu sectors changed, in %llu blocks of the differencing VHD\n",
                static_cast<unsigned long long>(diff.sectorsChanged), static_cast<unsigned long long>(diff.blocksAllocated));
    say("importing both into the store " + store);
    // The images are named without the scratch folder, which is gone when
    // the demo ends: a path there would point the user at nothing.
    for (std::string line : Store::importImages(store, "demo", {work + "/base.vhd", work + "/child.vhd"})) {
        for (size_t at = line.find(work + "/"); at != std::string::npos; at = line.find(work + "/", at))
            line.erase(at, work.size() + 1);
        std::printf("    %s\n", shown(line).c_str());
    }
}

}  // namespace

void registerDemoCommand(CLI::App& app) {
    auto* cmd = app.add_subcommand("demo", "build a sample backup of an ext4 disk, mount it and read files from it");
    static std::string dir;
    cmd->add_option("--dir", dir, "where the sample lives (default: ~/.cache/zxblk/demo); built anew each run");
    addCommonOptions(cmd);
    cmd->callback([] {
        applyCommonOptions();
        dir = absolutePath(dir.empty() ? defaultCacheRoot() + "/demo" : dir);
        std::error_code ec;
        if (fs::exists(dir) && !fs::is_empty(dir, ec) && !fs::exists(dir + "/" + kMarker))
            throw Error(dir + " is not empty and holds no earlier demo: give --dir an empty or new folder",
                        ErrorKind::invalidArgument);
        for (const char* part : {"files", "store", "work", "cache", "mnt"}) fs::remove_all(dir + "/" + part, ec);
        fs::create_directories(dir, ec);
        if (ec) throw Error(dir + ": " + ec.message(), ErrorKind::io);
        spit(dir + "/" + kMarker, "a sample made by zxblk demo; the demo replaces it when it runs again\n");
        std::string store = dir + "/store", work = dir + "/work", cache = dir + "/cache", mnt = dir + "/mnt";
        buildSample(dir, work, store);

        bool fuse = ::access("/dev/fuse", R_OK | W_OK) == 0;
        std::string disk = fuse ? mnt + "/disk.raw" : work + "/exported.raw";
        std::unique_ptr<DemoMount> mount;
        auto start = std::chrono::steady_clock::now();
        if (fuse) {
            say("mounting the newest snapshot: zxblk mount --store " + store + " --disk demo " + mnt);
            fs::create_directories(mnt);
            mount.reset(new DemoMount(store, cache, mnt));
        } else {
            say("no /dev/fuse here: exporting the disk through the provider to " + disk + " instead of mounting it");
            run("/proc/self/exe export --store " + quote(store) + " --disk demo --cache " + quote(cache) + " --out " + quote(disk));
        }
        auto check = [&](int i, int version) {
            std::string out = work + "/read" + std::to_string(i);
            run("debugfs -R " + quote("cat /" + dataFile(i)) + " " + quote(disk), out);
            size_t size = version ? kChangedSize : originalSize(i);
            if (slurp(out) != contents(dataFile(i), version, size))
                throw Error("/" + dataFile(i) + " read from the disk differs from the " +
                                (version ? "changed file" : "original"),
                            ErrorKind::corruption);
            std::printf("    /%s: %zu bytes, identical to the %s\n", dataFile(i).c_str(), size,
                        version ? "changed file of snapshot 1" : "original");
        };
        say("reading two files out of the file system: debugfs -R 'cat ...' " + disk);
        check(kChanged[1], 1);
        double firstFile = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        check(8, 0);

        std::map<std::string, unsigned long long> stats;
        if (mount) {
            say("marking the mount complete: the index learns which extents mounting needed");
            spit(mnt + "/.control", "mount-complete\n");
            stats = parseStats(slurp(mnt + "/.stats"));
            if (!mount->close()) throw Error("zxblk mount did not end cleanly (see above)", ErrorKind::io);
            mount.reset();
        }
        std::vector<IndexRow> rows = Store::open(store).indexRows("demo", 1, "mount");
        say("done");
        if (fuse) {
            unsigned long long E = stats["extent_size"] ? stats["extent_size"] : 1, size = stats["disk_bytes"];
            std::printf("    recalled %llu of %llu extents: %.1f MiB of a %.0f MiB disk (%.1f%%)\n", stats["extents_recalled"],
                        (size + E - 1) / E, stats["bytes_recalled"] / 1048576.0, size / 1048576.0,
                        size ? 100.0 * stats["bytes_recalled"] / size : 0.0);
        }
        std::printf("    time to the first file: %.2f s%s\n", firstFile, fuse ? " (mount included)" : " (a whole export)");
        std::printf("    extents the index flags as mount extents of snapshot 1: %zu", rows.size());
        for (size_t i = 0; i < rows.size() && i < 16; ++i)
            std::printf("%s%llu", i ? "," : " (", static_cast<unsigned long long>(rows[i].extent));
        std::printf("%s\n", rows.empty() ? "" : rows.size() > 16 ? ", ...)" : ")");

        fs::remove_all(work, ec);
        fs::remove_all(cache, ec);
        fs::remove(mnt, ec);
        const std::string me = commandName();
        std::printf("%s", shown("    cleaned up. The sample store stays in " + store + " (the original files in " + dir +
                                "/files). Try:\n"
                                "      mkdir -p /tmp/mnt && " + me + " mount --store " + store + " --disk demo /tmp/mnt\n"
                                "      debugfs -R 'ls -l /data' /tmp/mnt/disk.raw; cat /tmp/mnt/.stats; fusermount3 -u /tmp/mnt\n"
                                "      " + me + " index --store " + store + " --disk demo\n")
                              .c_str());
    });
}

}  // namespace zxblk
