#include "support_services/test_services.h"

#include <chrono>

#include "platform/DMRService/RestoreTarget.h"

namespace zxtest {

namespace {
template <class T>
void useFallback(std::shared_ptr<T> zxblk::ServiceSet::*slot, std::shared_ptr<T> service) {
    zxblk::ServiceRouter& router = zxblk::ServiceRouter::instance();
    zxblk::ServiceSet set = router.fallback();
    set.*slot = std::move(service);
    router.setFallback(set);
}
}  // namespace

void useRestore(std::shared_ptr<zxblk::RestoreService> s) { useFallback(&zxblk::ServiceSet::restore, std::move(s)); }
void useLookup(std::shared_ptr<zxblk::ExtentLookupService> s) { useFallback(&zxblk::ServiceSet::lookup, std::move(s)); }
void useRecords(std::shared_ptr<zxblk::RecordsService> s) { useFallback(&zxblk::ServiceSet::records, std::move(s)); }
void useIndex(std::shared_ptr<zxblk::IndexService> s) { useFallback(&zxblk::ServiceSet::index, std::move(s)); }

bool MapRecordsService::subclient(uint32_t appId, AppIdInfo& info) {
    auto it = subclients.find(appId);
    if (it == subclients.end()) return false;
    info = it->second;
    return true;
}

static bool findName(const std::map<uint64_t, std::string>& names, uint64_t id, std::string& out) {
    auto it = names.find(id);
    if (it == names.end()) return false;
    out = it->second;
    return true;
}

bool MapRecordsService::clientName(uint64_t id, std::string& name) { return findName(clients, id, name); }
bool MapRecordsService::instanceName(uint64_t id, std::string& name) { return findName(instances, id, name); }
bool MapRecordsService::backupSetName(uint64_t id, std::string& name) { return findName(backupSets, id, name); }

bool MapExtentLookupService::open(const SCParams&, const std::string& path, std::string& whyNot) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (refused.count(path)) {
        whyNot = "no such copy";
        return false;
    }
    opened.push_back(path);
    return true;
}

int MapExtentLookupService::lookup(const SCParams&, const std::string& path, unsigned long long extent,
                                   unsigned long long& first, unsigned long long& second) {
    std::lock_guard<std::mutex> lock(m_mutex);
    lookups.emplace_back(path, extent);
    auto it = answers.find({path, extent});
    if (it == answers.end()) return 1;
    first = it->second.first;
    second = it->second.second;
    return it->second.result;
}

Script streamOf(const std::vector<unsigned char>& extent, const std::vector<unsigned char>* bitmap,
                unsigned int chunk, const std::vector<std::pair<unsigned, unsigned>>& holes) {
    Script s;
    if (bitmap) {
        // Split the bitmap over two writes, as a service may.
        size_t cut = bitmap->size() / 3;
        s.steps.push_back({StreamStep::Write, std::vector<unsigned char>(bitmap->begin(), bitmap->begin() + cut), 0});
        s.steps.push_back({StreamStep::Write, std::vector<unsigned char>(bitmap->begin() + cut, bitmap->end()), 0});
    }
    unsigned pos = 0;
    auto emitData = [&](unsigned end) {
        while (pos < end) {
            unsigned n = std::min(chunk, end - pos);
            s.steps.push_back({StreamStep::Write, std::vector<unsigned char>(extent.begin() + pos, extent.begin() + pos + n), 0});
            pos += n;
        }
    };
    for (auto& hole : holes) {
        emitData(hole.first);
        s.steps.push_back({StreamStep::Hole, {}, hole.second - hole.first});
        pos = hole.second;
    }
    emitData(static_cast<unsigned>(extent.size()));
    return s;
}

ScriptedRestoreService::ScriptedRestoreService(std::function<Script(const zxblk::RecallJob&)> scriptFor)
    : m_scriptFor(std::move(scriptFor)) {}

ScriptedRestoreService::~ScriptedRestoreService() {
    releaseGate();
    for (auto& t : m_threads) t.first.join();
}

// Joins the threads of jobs that are done, so a long run keeps no dead ones.
void ScriptedRestoreService::reapFinished() {
    std::vector<std::thread> done;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (auto it = m_threads.begin(); it != m_threads.end();) {
            if (it->second->load()) {
                done.push_back(std::move(it->first));
                it = m_threads.erase(it);
            } else {
                ++it;
            }
        }
    }
    for (auto& t : done) t.join();
}

bool ScriptedRestoreService::submit(const zxblk::RecallJob& job, std::string& whyNot) {
    reapFinished();
    Script script = m_scriptFor(job);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_jobs.push_back(job);
    if (script.refuse) {
        whyNot = "scripted refusal";
        return false;
    }
    ++m_running;
    auto finished = std::make_shared<std::atomic<bool>>(false);
    m_threads.emplace_back(std::thread(&ScriptedRestoreService::run, this, job, std::move(script), finished), finished);
    return true;
}

std::vector<zxblk::RecallJob> ScriptedRestoreService::jobs() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_jobs;
}

void ScriptedRestoreService::releaseGate() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_gateOpen = true;
    m_cond.notify_all();
}

void ScriptedRestoreService::waitIdle() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_cond.wait(lock, [this] { return m_running == 0; });
}

void ScriptedRestoreService::run(zxblk::RecallJob job, Script script, std::shared_ptr<std::atomic<bool>> finished) {
    DMRestoreCompleted_t done;
    done.requestId = job.requestId;
    if (script.delayBeforeMs) std::this_thread::sleep_for(std::chrono::milliseconds(script.delayBeforeMs));
    CRestoreTarget* target = job.target.get();
    CUxError status = target ? target->Open(nullptr) : CUxError(-1);
    for (size_t i = 0; !status.IsError() && i < script.steps.size(); ++i) {
        if (static_cast<int>(i) == script.failAtStep) {
            status = CUxError(-1);
            break;
        }
        const StreamStep& step = script.steps[i];
        status = step.kind == StreamStep::Write
                     ? target->Write(step.data.data(), static_cast<unsigned>(step.data.size()))
                     : target->WriteHole(step.length);
    }
    if (target) {
        if (!status.IsError()) status = target->Flush();
        target->Close(false);
    }
    if (script.status) {
        done.status = script.status;
        done.error = "scripted failure";
    } else if (status.IsError()) {
        done.status = -1;
        done.error = status.AsString();
    }
    if (script.delayMs) std::this_thread::sleep_for(std::chrono::milliseconds(script.delayMs));
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (script.neverComplete || script.waitForGate) {
            --m_running;
            m_cond.notify_all();
            m_cond.wait(lock, [this] { return m_gateOpen; });
            ++m_running;
        }
    }
    if (!script.neverComplete && job.callback) job.callback(job.context, &done);
    std::lock_guard<std::mutex> lock(m_mutex);
    --m_running;
    *finished = true;
    m_cond.notify_all();
}

int RecordingIndexService::initialize(const databrowse::BrowseRequest& request) {
    if (failInitialize > 0) return --failInitialize, 5;
    initializations.push_back(request);
    return 0;
}

int RecordingIndexService::update(const databrowse::BrowseRequest&, const Indexing::IdxLiveUpdateReq& request,
                                  databrowse::BrowseResponse& response) {
    if (failUpdate > 0) return --failUpdate, 7;
    updates.push_back(request);
    response.setint64(1, 1, 1, 1, 0);
    return 0;
}

}  // namespace zxtest
