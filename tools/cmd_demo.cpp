// zxblk demo: the main job. Builds a sample backup of an ext4 disk (a dynamic
// VHD and a differencing snapshot in which some files changed), mounts the
// newest snapshot, reads two files out of its file system, and shows how
// little of the disk had to be recalled to do it.
#include <spawn.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>

#include "host/disk_host.h"
#include "store/importer.h"
#include "store/index_service.h"
#include "store/vhd_diff_writer.h"
#include "tools/commands.h"

extern char** environ;

namespace zxblk {
namespace {

void say(const std::string& text) {
    std::printf("==> %s\n", text.c_str());
    std::fflush(stdout);
}

std::string quote(const std::string& s) {
    std::string out = "'";
    for (char c : s) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

void run(const std::string& command) {
    if (std::system((command + " >/dev/null 2>&1").c_str()) != 0) throw StoreError("demo step failed: " + command);
}

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

void spit(const std::string& path, const std::string& bytes) { std::ofstream(path, std::ios::binary) << bytes; }

// Deterministic contents: a file's bytes depend only on its name and version.
std::string contents(const std::string& name, int version, size_t size) {
    std::mt19937_64 rng(std::hash<std::string>()(name) + static_cast<uint64_t>(version));
    std::string s(size, '\0');
    for (size_t i = 0; i + 8 <= size; i += 8) {
        uint64_t v = rng();
        std::memcpy(&s[i], &v, 8);
    }
    return s;
}

bool fuseMounted(const std::string& dir) {
    struct statfs fs;
    return ::statfs(dir.c_str(), &fs) == 0 && fs.f_type == 0x65735546;  // FUSE_SUPER_MAGIC
}

}  // namespace

void registerDemoCommand(CLI::App& app) {
    auto* cmd = app.add_subcommand("demo", "build a sample backup of an ext4 disk, mount it and read files from it");
    static std::string dir;
    static bool keep = false;
    cmd->add_option("--dir", dir, "where to build the sample (default: a new folder in /tmp)");
    cmd->add_flag("--keep", keep, "keep the sample afterwards");
    addCommonOptions(cmd);
    cmd->callback([] {
        applyCommonOptions();
        if (dir.empty()) {
            char tmpl[] = "/tmp/zxblk-demo-XXXXXX";
            if (!::mkdtemp(tmpl)) throw StoreError(std::string("cannot make a folder in /tmp: ") + std::strerror(errno));
            dir = tmpl;
        }
        ::mkdir(dir.c_str(), 0755);
        std::string src = dir + "/files", store = dir + "/store", mnt = dir + "/mnt";
        run("rm -rf " + quote(src) + " " + quote(store) + " " + quote(dir + "/cache") + " && mkdir -p " + quote(src + "/data") +
            " " + quote(src + "/docs") + " " + quote(mnt));

        say("generating files for a 256 MiB ext4 file system in " + src);
        size_t total = 0;
        for (int i = 0; i < 36; ++i) {
            std::string name = "data/file" + std::to_string(i) + ".bin";
            size_t size = (1 + i % 5) * (1 << 20) + static_cast<size_t>(i) * 4096;
            spit(src + "/" + name, contents(name, 0, size));
            total += size;
        }
        for (int i = 0; i < 20; ++i)
            spit(src + "/docs/note" + std::to_string(i) + ".txt",
                 "note " + std::to_string(i) + ": backed-up disks are readable before they are restored.\n");
        run("mke2fs -q -F -t ext4 -L zxblk-demo -d " + quote(src) + " " + quote(dir + "/base.img") + " 256M");
        run("qemu-img convert -f raw -O vpc -o force_size=on " + quote(dir + "/base.img") + " " + quote(dir + "/base.vhd"));

        say("changing three files for a second snapshot (a differencing VHD)");
        run("cp --sparse=always " + quote(dir + "/base.img") + " " + quote(dir + "/changed.img"));
        std::string commands = "cd /data\n";
        for (int i : {3, 17, 30}) {
            std::string name = "data/file" + std::to_string(i) + ".bin";
            spit(dir + "/new" + std::to_string(i), contents(name, 1, 2 << 20));
            commands += "rm file" + std::to_string(i) + ".bin\nwrite " + dir + "/new" + std::to_string(i) + " file" +
                        std::to_string(i) + ".bin\n";
        }
        spit(dir + "/debugfs.cmds", commands);
        run("debugfs -w -f " + quote(dir + "/debugfs.cmds") + " " + quote(dir + "/changed.img"));
        DiffStats diff = writeDifferencingVhd(dir + "/base.vhd", dir + "/base.img", dir + "/changed.img", dir + "/child.vhd");
        std::printf("    %llu sectors changed in %llu blocks\n", static_cast<unsigned long long>(diff.sectorsChanged),
                    static_cast<unsigned long long>(diff.blocksAllocated));
        for (const std::string& line : importImages(store, "demo", {dir + "/base.vhd", dir + "/child.vhd"}, ImportOptions()))
            std::printf("    %s\n", line.c_str());

        bool fuse = ::access("/dev/fuse", R_OK | W_OK) == 0;
        std::string disk = fuse ? mnt + "/disk.raw" : dir + "/exported.raw";
        pid_t child = -1;
        auto start = std::chrono::steady_clock::now();
        if (fuse) {
            say("mounting the newest snapshot at " + mnt);
            std::vector<std::string> args = {"zxblk", "mount", "--store", store, "--disk", "demo", "--cache", dir + "/cache", "-f", mnt};
            std::vector<char*> argv;
            for (auto& a : args) argv.push_back(&a[0]);
            argv.push_back(nullptr);
            if (posix_spawn(&child, "/proc/self/exe", nullptr, nullptr, argv.data(), environ) != 0)
                throw StoreError("cannot start zxblk mount");
            for (int i = 0; i < 200 && !fuseMounted(mnt); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(50));
            if (!fuseMounted(mnt)) throw StoreError(mnt + ": the mount did not come up");
        } else {
            say("no /dev/fuse here: reading the disk through the provider into " + disk + " instead of mounting it");
            run("/proc/self/exe export --store " + quote(store) + " --disk demo --cache " + quote(dir + "/cache") + " --out " + quote(disk));
        }
        auto check = [&](int i, int version) {
            std::string name = "data/file" + std::to_string(i) + ".bin";
            std::string out = dir + "/read" + std::to_string(i);
            run("debugfs -R " + quote("dump /" + name + " " + out) + " " + quote(disk));
            size_t size = version ? (2 << 20) : (1 + i % 5) * (1 << 20) + static_cast<size_t>(i) * 4096;
            if (slurp(out) != contents(name, version, size)) throw StoreError(name + " read from the disk differs from the original");
            std::printf("    /%s: %zu bytes, identical to the %s\n", name.c_str(), size, version ? "changed file" : "original");
        };
        say("reading two files out of the file system with debugfs");
        check(17, 1);
        double firstFile = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        check(8, 0);

        std::string stats;
        if (fuse) {
            spit(mnt + "/.control", "mount-complete\n");
            stats = slurp(mnt + "/.stats");
            run("fusermount3 -u " + quote(mnt));
            int status = 0;
            ::waitpid(child, &status, 0);
        }
        auto value = [&](const std::string& key) -> unsigned long long {
            std::istringstream in(stats);
            std::string k;
            unsigned long long v;
            while (in >> k >> v)
                if (k == key) return v;
            return 0;
        };
        SqliteIndexService index(store);
        auto rows = index.rows("demo", 1, "mount");
        say("done");
        if (fuse) {
            unsigned long long bytes = value("bytes_recalled"), size = value("disk_bytes");
            std::printf("    recalled %llu of %llu extents: %.1f MiB of a %.0f MiB disk (%.1f%%)\n", value("extents_recalled"),
                        size / static_cast<unsigned long long>(value("extent_size") ? value("extent_size") : 1),
                        bytes / 1048576.0, size / 1048576.0, size ? 100.0 * bytes / size : 0.0);
        }
        std::printf("    time to the first file: %.2f s\n", firstFile);
        std::printf("    extents the index flags as mount extents: %zu", rows.size());
        for (size_t i = 0; i < rows.size() && i < 12; ++i) std::printf("%s%llu", i ? "," : " (", static_cast<unsigned long long>(rows[i].extent));
        std::printf("%s\n", rows.empty() ? "" : rows.size() > 12 ? ", ...)" : ")");
        (void)total;
        if (keep) {
            std::printf("    the sample stays in %s: try\n      zxblk mount --store %s --disk demo %s\n", dir.c_str(),
                        store.c_str(), mnt.c_str());
        } else {
            run("rm -rf " + quote(dir));
            std::printf("    cleaned up; run with --keep (or --dir DIR) to keep the sample and play with it\n");
        }
    });
}

}  // namespace zxblk
