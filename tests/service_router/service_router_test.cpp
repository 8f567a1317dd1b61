// The router as the provider reaches it, through the closed interfaces: two
// stores whose catalogs use the same browse paths and the same record ids
// are told apart, a detached store is called no more, and what no store
// claims goes to the fallback.
#include <gtest/gtest.h>

#include "platform/AppRecords.h"
#include "platform/CNMessage.h"
#include "platform/DMRRequest.h"
#include "platform/ExtentBrowse.h"
#include "platform/IdxBrowseClient.h"
#include "support_services/test_services.h"

namespace {

// One scripted store: the same local ids and copy path in every instance,
// told apart only by its names and the answers of its lookups.
struct FakeStore {
    std::shared_ptr<zxtest::MapRecordsService> records = std::make_shared<zxtest::MapRecordsService>();
    std::shared_ptr<zxtest::MapExtentLookupService> lookup = std::make_shared<zxtest::MapExtentLookupService>();
    std::shared_ptr<zxtest::ScriptedRestoreService> restore = std::make_shared<zxtest::ScriptedRestoreService>(
        [](const zxblk::RecallJob&) { return zxtest::Script(); });
    std::shared_ptr<zxtest::RecordingIndexService> index = std::make_shared<zxtest::RecordingIndexService>();
    std::shared_ptr<zxblk::ServiceRoute> route;

    explicit FakeStore(const std::string& name, unsigned long long answer) {
        AppIdInfo info;
        info.appId = 7;
        info.clientId = 5;
        info.appType = 106;
        info.instanceId = 9;
        info.backupSetId = 11;
        records->subclients[7] = info;
        records->clients[5] = "client of " + name;
        records->instances[9] = "instance of " + name;
        records->backupSets[11] = "set of " + name;
        route = zxblk::ServiceRouter::instance().attach(zxblk::ServiceSet{restore, lookup, records, index});
        // The router hands the path on as the provider made it; the store
        // takes its prefix (and any tag) off.
        lookup->answers[{path(), 3}] = zxtest::LookupAnswer{0, answer, 0};
        lookup->answers[{"EXTENTVIEW" + path(), 3}] = zxtest::LookupAnswer{0, answer, 0};
    }
    std::string path() const { return route->prefix() + "/vm/default/sys/snap0"; }
};

std::string metadata(const std::string& extentPath) {
    return "1:2:0:1:0:1:" + std::to_string(extentPath.size()) + ":" + extentPath;
}

void noCallback(void*, DMRestoreCompleted_t*) {}

bool submit(const std::string& extentPath, std::string* why = nullptr) {
    DMRRequest request("machine", "client", 0);
    request.SetRestoreTargetObject(boost::shared_ptr<CRestoreTarget>());
    request.SetCallbackFn(noCallback, nullptr);
    request.SetSrcPath(metadata(extentPath).c_str());
    bool ok = request.Submit(nullptr, true);
    if (why) *why = request.GetErrorMessage();
    return ok;
}

databrowse::BrowseRequest browseFor(uint64_t clientId) {
    databrowse::BrowseRequest r;
    r.getObjectAccessor(3, 3, 1682736261, 10347491, true, true, 18, 46)
        ->setint64(17, 47, 311168122, 2438726, static_cast<int32_t>(clientId));
    return r;
}

TEST(ServiceRouter, StoresWithTheSameIdsAndPathsAreToldApartUntilDetached) {
    zxblk::ServiceRouter& router = zxblk::ServiceRouter::instance();
    const size_t before = router.attached();
    auto a = std::make_unique<FakeStore>("a", 100), b = std::make_unique<FakeStore>("b", 200);
    ASSERT_EQ(router.attached(), before + 2);
    ASSERT_NE(a->route->prefix(), b->route->prefix());
    ASSERT_EQ(a->path().substr(a->route->prefix().size()), b->path().substr(b->route->prefix().size()));

    struct Seen {
        uint32_t appId;
        AppIdInfo info;
    } seen[2];
    FakeStore* stores[2] = {a.get(), b.get()};
    for (int i = 0; i < 2; ++i) {
        FakeStore& s = *stores[i];
        const std::string name = i ? "b" : "a";
        SCOPED_TRACE(name);
        // Records: the subclient's ids come back routed, and lead to this store's names.
        seen[i].appId = s.route->appId(7);
        EXPECT_EQ(s.route->appId(7), seen[i].appId);  // the same for as long as the route lives
        ApplicationId app(2, seen[i].appId);
        ASSERT_EQ(app.getApplicationId(nullptr), 0);
        seen[i].info = app.getAppIdInfo();
        EXPECT_EQ(seen[i].info.appId, seen[i].appId);
        EXPECT_EQ(seen[i].info.appType, 106);
        std::string client = " ", instance, set = " ";
        EXPECT_EQ(ZXClient(seen[i].info.clientId).getName(client, nullptr), 0);
        EXPECT_EQ(Instance(seen[i].info.instanceId).getInstanceName(instance, nullptr), 0);
        EXPECT_EQ(BackupSet(seen[i].info.backupSetId).getBackupSetName(set, nullptr), 0);
        EXPECT_EQ(client + "|" + instance + "|" + set, "client of " + name + "|instance of " + name + "|set of " + name);

        // Extent lookups by the copy's browse path, with or without the extent-view tag.
        SCParams params;
        for (const std::string& tag : {std::string(), std::string("EXTENTVIEW")}) {
            ExtentBrowse browse(params, tag + s.path(), nullptr, EB_MODE_EXTENT, 100, 8, false, 0, "");
            unsigned long long first = 0, second = 0;
            EXPECT_EQ(browse.GetAFInfo(3, first, second), 0);
            EXPECT_EQ(first, i ? 200u : 100u);
        }
        // Restore jobs by the extent path in the source path.
        ASSERT_TRUE(submit(s.path() + "/Extent3"));
        s.restore->waitIdle();
        ASSERT_EQ(s.restore->jobs().size(), 1u);
        EXPECT_EQ(s.restore->jobs()[0].srcPath, metadata(s.path() + "/Extent3"));

        // Index updates by the client id the disk object reports.
        IdxBrowseClient index;
        EXPECT_EQ(index.Initialize(browseFor(seen[i].info.clientId), nullptr, 2000, nullptr, nullptr), 0);
        Indexing::IdxLiveUpdateReq update;
        databrowse::BrowseResponse response;
        EXPECT_EQ(index.UpdateIndex(update, response), 0);
        EXPECT_EQ(s.index->initializations.size(), 1u);
        EXPECT_EQ(s.index->updates.size(), 1u);
    }
    // Equal ids of the two stores never meet.
    EXPECT_NE(seen[0].appId, seen[1].appId);
    EXPECT_NE(seen[0].info.clientId, seen[1].info.clientId);
    EXPECT_NE(seen[0].info.backupSetId, seen[1].info.backupSetId);

    // Detached: a's paths and ids reach nothing, b goes on.
    const std::string aPath = a->path();
    a.reset();
    EXPECT_EQ(router.attached(), before + 1);
    std::string why;
    EXPECT_FALSE(submit(aPath + "/Extent3", &why));
    EXPECT_EQ(why, "no open store holds " + aPath + "/Extent3");
    SCParams params;
    EXPECT_THROW(ExtentBrowse(params, aPath, nullptr, EB_MODE_EXTENT, 100, 8, false, 0, ""), ExtentBrowseError);
    EXPECT_NE(ApplicationId(2, seen[0].appId).getApplicationId(nullptr), 0);
    std::string name;
    EXPECT_NE(ZXClient(seen[0].info.clientId).getName(name, nullptr), 0);
    EXPECT_TRUE(submit(b->path() + "/Extent3"));
    b->restore->waitIdle();
    EXPECT_EQ(b->restore->jobs().size(), 2u);
}

TEST(ServiceRouter, WhatNoStoreClaimsGoesToTheFallback) {
    auto store = std::make_unique<FakeStore>("attached", 1);
    FakeStore spare("spare", 2);  // its services, as the fallback's
    spare.route.reset();
    zxtest::useLookup(spare.lookup);
    zxtest::useRecords(spare.records);
    zxtest::useRestore(spare.restore);
    // Unrouted paths and ids, including a path that only looks like a prefix.
    const std::string lookalike = store->route->prefix() + "0/vm/default/sys/snap0";
    for (const std::string& path : {std::string("/vm/default/sys/snap0"), lookalike}) {
        SCParams params;
        ExtentBrowse browse(params, path, nullptr, EB_MODE_EXTENT, 100, 8, false, 0, "");
        EXPECT_EQ(spare.lookup->opened.back(), path);
        EXPECT_TRUE(submit(path + "/Extent0"));
    }
    spare.restore->waitIdle();
    EXPECT_EQ(spare.restore->jobs().size(), 2u);
    EXPECT_TRUE(store->restore->jobs().empty());
    ApplicationId app(2, 7);  // the fallback's own id, untranslated
    ASSERT_EQ(app.getApplicationId(nullptr), 0);
    EXPECT_EQ(app.getAppIdInfo().clientId, 5u);
    zxtest::useLookup(nullptr);
    zxtest::useRecords(nullptr);
    zxtest::useRestore(nullptr);
    std::string why;
    EXPECT_FALSE(submit("/vm/default/sys/snap0/Extent0", &why));
    EXPECT_EQ(why, "no open store holds /vm/default/sys/snap0/Extent0");
}

}  // namespace
