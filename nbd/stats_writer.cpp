#include "stats_writer.h"

#include <nbdkit-plugin.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

namespace zxblk_plugin {

void StatsWriter::start() {
    write();
    m_thread = std::thread(&StatsWriter::loop, this);
}

void StatsWriter::write() {
    std::vector<std::pair<std::string, std::string>> files = m_gather();
    std::lock_guard<std::mutex> lock(m_writeMutex);
    for (const auto& [file, text] : files) {
        // Written aside and renamed, so that a reader never sees half of it.
        std::string tmp = file + ".tmp";
        FILE* f = std::fopen(tmp.c_str(), "w");
        bool ok = f && std::fwrite(text.data(), 1, text.size(), f) == text.size();
        if (f && std::fclose(f) != 0) ok = false;
        if (!ok || std::rename(tmp.c_str(), file.c_str()) != 0) {
            nbdkit_error("%s: cannot write the statistics: %s", file.c_str(), std::strerror(errno));
            std::remove(tmp.c_str());
        }
    }
}

void StatsWriter::stop() {
    if (!m_thread.joinable()) return;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    m_cond.notify_all();
    m_thread.join();
    write();
}

void StatsWriter::loop() {
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_cond.wait_for(lock, std::chrono::seconds(1), [this] { return m_stop; })) {
        lock.unlock();
        write();
        lock.lock();
    }
}

}  // namespace zxblk_plugin
