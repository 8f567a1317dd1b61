// The statistics files of a server, for `zxblk stats FILE` or a script:
// rewritten whole once a second while it runs, whenever something worth
// seeing at once has happened (a phase), and once more when it stops.
#pragma once
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace zxblk_plugin {

class StatsWriter {
public:
    // What to write: (file, text) pairs, gathered afresh for each round.
    using Gather = std::function<std::vector<std::pair<std::string, std::string>>()>;
    explicit StatsWriter(Gather gather) : m_gather(std::move(gather)) {}
    ~StatsWriter() { stop(); }
    StatsWriter(const StatsWriter&) = delete;
    StatsWriter& operator=(const StatsWriter&) = delete;

    // Writes them now, then each second on a thread of its own.
    void start();
    // Writes them now (from any thread).
    void write();
    // Ends the thread and writes them a last time.
    void stop();

private:
    void loop();
    Gather m_gather;
    std::mutex m_writeMutex;  // one round at a time: they share the files' temporaries
    std::mutex m_mutex;
    std::condition_variable m_cond;
    bool m_stop = false;
    std::thread m_thread;
};

}  // namespace zxblk_plugin
