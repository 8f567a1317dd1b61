#include "vm_overlay.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "zxblk/zxblk.h"

namespace zxblk {
namespace {

namespace fs = std::filesystem;

}  // namespace

std::string runQuietly(const std::vector<std::string>& args, const std::string& log) {
    std::vector<char*> argv;
    for (const std::string& s : args) argv.push_back(const_cast<char*>(s.c_str()));
    argv.push_back(nullptr);
    int out = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (out < 0) throw Error("cannot write " + log + ": " + std::strerror(errno), ErrorKind::io);
    pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(out, 1), ::dup2(out, 2);
        ::execv(argv[0], argv.data());
        _exit(127);
    }
    ::close(out);
    int status = 0;
    while (pid > 0 && ::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (pid > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0) return std::string();
    std::string last = "it failed";
    std::ifstream in(log);
    for (std::string line; std::getline(in, line);)
        if (!line.empty()) last = line;
    return last;
}

OverlayFolder::OverlayFolder(const std::string& dir) : m_dir(dir) {
    std::error_code ec;
    fs::create_directories(dir, ec);
    if (ec) throw Error("--overlay-dir " + dir + ": " + ec.message(), ErrorKind::io);
    const std::string lock = dir + "/lock";
    m_lock = ::open(lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (m_lock < 0) throw Error("cannot write " + lock + ": " + std::strerror(errno), ErrorKind::io);
    if (::flock(m_lock, LOCK_EX | LOCK_NB) != 0) {
        char pid[32] = "";
        ssize_t n = ::pread(m_lock, pid, sizeof pid - 1, 0);
        ::close(m_lock);
        std::string who = n > 0 ? std::string(pid, static_cast<size_t>(n)) : "";
        while (!who.empty() && (who.back() == '\n' || who.back() == ' ')) who.pop_back();
        throw Error("the overlays in " + dir + " are in use by another zxblk boot" +
                        (who.empty() ? std::string() : " (pid " + who + ")"),
                    ErrorKind::busy);
    }
    std::string me = std::to_string(::getpid()) + "\n";
    if (::ftruncate(m_lock, 0) != 0 || ::pwrite(m_lock, me.data(), me.size(), 0) < 0) {
        // Only the note of who holds it is lost; the lock itself holds.
    }
}

OverlayFolder::~OverlayFolder() {
    if (m_lock >= 0) ::close(m_lock);
}

std::string OverlayFolder::overlayOf(const std::string& disk) const { return m_dir + "/" + disk + ".qcow2"; }

bool OverlayFolder::recorded(OverlayRecord* out) const {
    const std::string file = m_dir + "/overlay.json";
    std::ifstream in(file);
    if (!in) return false;
    nlohmann::json j = nlohmann::json::parse(in, nullptr, false);
    try {
        out->store = j.at("store").get<std::string>();
        out->client = j.at("client").get<std::string>();
        out->disks.clear();
        for (const nlohmann::json& d : j.at("disks"))
            out->disks.push_back(
                {d.at("name").get<std::string>(), d.at("snapshot").get<int>(), d.at("size").get<uint64_t>()});
        out->restoredTo = j.value("restored-to", std::string());
    } catch (const nlohmann::json::exception&) {
        throw Error(file +
                        " is damaged: it should name the store, client and disks the overlays lie on (remove the "
                        "folder, or boot with --new-overlay, to start again)",
                    ErrorKind::corruption);
    }
    return true;
}

std::string OverlayFolder::mismatch(const OverlayRecord& wanted) const {
    OverlayRecord have;
    if (!recorded(&have)) return std::string();
    if (!have.restoredTo.empty())
        return "holds no writes: the VM was restored to " + have.restoredTo + " while it ran, and wrote there since";
    if (have.store != wanted.store) return "holds writes to the disks of store " + have.store + ", not " + wanted.store;
    if (have.client != wanted.client) return "holds writes to the disks of " + have.client + ", not " + wanted.client;
    for (const OverlayDisk& w : wanted.disks)
        for (const OverlayDisk& h : have.disks) {
            if (h.name != w.name) continue;
            if (h.snapshot != w.snapshot)
                return "holds writes to " + h.name + " snapshot " + std::to_string(h.snapshot) + ", not snapshot " +
                       std::to_string(w.snapshot);
            if (h.size != w.size)
                return "holds writes to " + h.name + " of " + std::to_string(h.size) + " bytes; it has " +
                       std::to_string(w.size) + " now";
        }
    return std::string();
}

std::vector<std::string> OverlayFolder::prepare(const OverlayRecord& wanted, bool fresh, const std::string& qemuImg) {
    OverlayRecord record;
    bool had = recorded(&record);
    if (fresh || !had) record = OverlayRecord{wanted.store, wanted.client, {}, {}};
    std::vector<std::string> paths;
    for (const OverlayDisk& d : wanted.disks) {
        const std::string path = overlayOf(d.name);
        std::error_code ec;
        if (fresh) fs::remove(path, ec);
        bool known = false;
        for (const OverlayDisk& r : record.disks) known = known || r.name == d.name;
        // An overlay the record does not name is one whose making was cut
        // short: nothing of the VM's is in it yet.
        if (!known || !fs::exists(path, ec)) {
            std::string why = runQuietly({qemuImg, "create", "-q", "-f", "qcow2", path, std::to_string(d.size)},
                                         m_dir + "/qemu-img.log");
            if (!why.empty()) throw Error("cannot make the overlay " + path + ": " + why, ErrorKind::io);
            if (!known) record.disks.push_back(d);
        }
        paths.push_back(path);
    }
    this->record(record);
    return paths;
}

void OverlayFolder::markRestored(const std::string& dir) {
    OverlayRecord r;
    if (!recorded(&r)) return;
    std::error_code ec;
    for (const OverlayDisk& d : r.disks) fs::remove(overlayOf(d.name), ec);
    r.restoredTo = dir;
    record(r);
}

void OverlayFolder::record(const OverlayRecord& record) {
    nlohmann::json j = {{"store", record.store}, {"client", record.client}, {"disks", nlohmann::json::array()}};
    for (const OverlayDisk& d : record.disks)
        j["disks"].push_back({{"name", d.name}, {"snapshot", d.snapshot}, {"size", d.size}});
    if (!record.restoredTo.empty()) j["restored-to"] = record.restoredTo;
    // Written whole and then renamed over the old record.
    const std::string file = m_dir + "/overlay.json", temp = file + ".new";
    {
        std::ofstream out(temp, std::ios::trunc);
        out << j.dump(2) << "\n";
        if (!out.flush()) throw Error("cannot write " + temp, ErrorKind::io);
    }
    std::error_code ec;
    fs::rename(temp, file, ec);
    if (ec) throw Error("cannot write " + file + ": " + ec.message(), ErrorKind::io);
}

}  // namespace zxblk
