// Scripted services for tests, put in the platform router's fallback in
// place of a store's real ones.
#pragma once
#include <atomic>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <tuple>
#include <vector>

#include "platform/CNMessage.h"
#include "platform/ZxServices.h"

namespace zxtest {

// Puts a scripted service in the router's fallback, which answers whatever
// no attached store claims; null takes it out again.
void useRestore(std::shared_ptr<zxblk::RestoreService> service);
void useLookup(std::shared_ptr<zxblk::ExtentLookupService> service);
void useRecords(std::shared_ptr<zxblk::RecordsService> service);
void useIndex(std::shared_ptr<zxblk::IndexService> service);

class MapRecordsService : public zxblk::RecordsService {
public:
    std::map<uint32_t, AppIdInfo> subclients;
    std::map<uint64_t, std::string> clients, instances, backupSets;
    bool subclient(uint32_t appId, AppIdInfo& info) override;
    bool clientName(uint64_t id, std::string& name) override;
    bool instanceName(uint64_t id, std::string& name) override;
    bool backupSetName(uint64_t id, std::string& name) override;
};

struct LookupAnswer {
    int result = 1;
    unsigned long long first = 0, second = 0;
};

class MapExtentLookupService : public zxblk::ExtentLookupService {
public:
    std::set<std::string> refused;                                    // paths whose browse cannot open
    std::map<std::pair<std::string, unsigned long long>, LookupAnswer> answers;  // absent: 1
    std::vector<std::string> opened;
    std::vector<std::pair<std::string, unsigned long long>> lookups;

    bool open(const SCParams& params, const std::string& path, std::string& whyNot) override;
    int lookup(const SCParams& params, const std::string& path, unsigned long long extent,
               unsigned long long& first, unsigned long long& second) override;

private:
    std::mutex m_mutex;
};

// One step of a scripted stream.
struct StreamStep {
    enum Kind { Write, Hole } kind;
    std::vector<unsigned char> data;  // Write
    unsigned int length = 0;          // Hole
};

struct Script {
    std::vector<StreamStep> steps;
    bool refuse = false;            // Submit is refused
    int failAtStep = -1;            // the step at which the run stops with an error
    unsigned int delayBeforeMs = 0; // before the stream starts
    unsigned int delayMs = 0;       // before the completion
    int status = 0;                 // reported in the completion (non-zero: failed)
    bool neverComplete = false;     // the callback never comes
    bool waitForGate = false;       // callback only after releaseGate()
};

// Builds the steps of a stream from an extent's bytes: an optional 512-byte
// sector bitmap (MSB first) in two writes, then data in chunks, with the
// listed byte ranges sent as holes.
Script streamOf(const std::vector<unsigned char>& extent, const std::vector<unsigned char>* bitmap,
                unsigned int chunk, const std::vector<std::pair<unsigned, unsigned>>& holes = {});

// Runs every accepted job on a thread of its own: Open, the script's steps,
// Flush, Close, then the callback with the request id echoed.
class ScriptedRestoreService : public zxblk::RestoreService {
public:
    explicit ScriptedRestoreService(std::function<Script(const zxblk::RecallJob&)> scriptFor);
    ~ScriptedRestoreService() override;

    bool submit(const zxblk::RecallJob& job, std::string& whyNot) override;
    std::vector<zxblk::RecallJob> jobs();
    void releaseGate();  // lets late jobs call back
    void waitIdle();     // until every job has called back or is parked at the gate

private:
    void run(zxblk::RecallJob job, Script script, std::shared_ptr<std::atomic<bool>> finished);
    void reapFinished();
    std::function<Script(const zxblk::RecallJob&)> m_scriptFor;
    std::mutex m_mutex;
    std::condition_variable m_cond;
    bool m_gateOpen = false;
    int m_running = 0;
    std::vector<zxblk::RecallJob> m_jobs;
    std::vector<std::pair<std::thread, std::shared_ptr<std::atomic<bool>>>> m_threads;
};

// Records every initialize and update; can be told to fail the next ones.
class RecordingIndexService : public zxblk::IndexService {
public:
    int failInitialize = 0;  // the next N initializations fail
    int failUpdate = 0;      // the next N updates fail
    std::vector<databrowse::BrowseRequest> initializations;
    std::vector<Indexing::IdxLiveUpdateReq> updates;
    int initialize(const databrowse::BrowseRequest& request) override;
    int update(const databrowse::BrowseRequest& browse, const Indexing::IdxLiveUpdateReq& update,
               databrowse::BrowseResponse& response) override;
};

}  // namespace zxtest
