// The cloud logic's own cost, with the cloud in memory so that only the mapping, the store's
// writes and the bookkeeping are measured: a full pull of N records into an empty store, and
// the first push of N new events.
#include "MemoryCloud.h"
#include "TempDir.h"
#include "cloud/RecordMapping.h"
#include "platform/Log.h"
#include "platform/Settings.h"
#include "platform/SettingsFile.h"
#include "storage/LocalSyncLedger.h"
#include "storage/MigrationManager.h"
#include "storage/Repository.h"
#include "sync/CloudSync.h"

#include <benchmark/benchmark.h>

using namespace almanor;

namespace {

struct Store {
    test::TempDir dir;
    Signals center;
    SystemClock clock;
    SettingsFile defaults{dir / "settings.ini"};
    std::shared_ptr<bench::MemoryCloud> cloud = std::make_shared<bench::MemoryCloud>();
    Repository repository{
        std::make_unique<LocalRepository>(dir / "Almanor", "EventsV1.db", center, clock)};
    LocalSyncLedger ledger{(createTable(), repository.local())};
    CloudSync sync{ledger, [this] { return std::static_pointer_cast<CloudService>(cloud); },
                   defaults, clock, dir / "Almanor/EventsV1.db.sync-lock"};
    int createTable() {
        repository.local().connection().run(
            MigrationManager::createTableStatement(repository.local().events()));
        return 0;
    }
    Store() {
        Log::setSink([](std::string_view) {});
        repository.local().connection().run(
            MigrationManager::createTableStatement(repository.local().events()));
        defaults.setBoolean(Settings::appZoneUsed, true);
    }
    ~Store() { Log::setSink({}); }
};

EventPtr someEvent(int i) {
    return makeEvent(Uuid::random(), Instant(std::chrono::hours(24 * (19000 + i))),
                     "Event " + std::to_string(i),
                     i % 3 ? std::optional<std::string>("alias") : std::nullopt,
                     static_cast<Schedule>(i % 4), static_cast<CountMethod>(i % 4));
}

void pullIntoEmptyStore(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    for (auto _ : state) {
        state.PauseTiming();
        auto store = std::make_unique<Store>();
        store->cloud->saveZone(std::string(appZoneName));
        for (int i = 0; i < n; ++i)
            store->cloud->seed(recordFromEvent(CloudEvent{std::nullopt, someEvent(i)}));
        state.ResumeTiming();
        store->sync.populateFromCloud();
        state.PauseTiming();
        store.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * n);
}

void firstPush(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    for (auto _ : state) {
        state.PauseTiming();
        auto store = std::make_unique<Store>();
        for (int i = 0; i < n; ++i)
            store->repository.insert(*someEvent(i));
        state.ResumeTiming();
        store->sync.sync();
        store->sync.waitForSync();
        state.PauseTiming();
        store.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * n);
}

} // namespace

BENCHMARK(pullIntoEmptyStore)->Arg(300)->Arg(1000)->Unit(benchmark::kMillisecond);
BENCHMARK(firstPush)->Arg(300)->Arg(1000)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
