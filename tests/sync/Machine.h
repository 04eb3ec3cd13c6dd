#pragma once

#include "HookedCalDav.h"
#include "Instants.h"
#include "platform/Settings.h"
#include "platform/SettingsFile.h"
#include "storage/LocalRepository.h"
#include "storage/LocalSyncLedger.h"
#include "storage/MigrationManager.h"

#include <algorithm>

namespace almanor::test {

using Names = std::vector<std::string>;

inline EventPtr event(const std::string& name, Instant date = utc(2030, 5, 1)) {
    return makeEvent(Uuid::random(), date, name, std::nullopt, Schedule::none,
                     CountMethod::standard);
}

// One machine (or one process of it): its store, the real SQLite file, with the sync's ledger
// over it, and its settings, which know the app's zone.
struct Machine {
    Machine(const std::filesystem::path& home, const Clock& clock)
        : defaults(home / "settings.ini"), store(home, "EventsV1.db", center, clock) {
        defaults.setBoolean(Settings::appZoneUsed, true);
        store.connection().run(MigrationManager::createTableStatement(store.events()));
    }
    void rename(const Uuid& id, const std::string& name) {
        const auto event = row(id)->event; // the row is a temporary; its event must outlive it
        const Event& e = *event;
        store.update(*makeEvent(id, e.date(), name, e.alias(), e.schedule(), e.countMethod()));
    }
    void remove(const Uuid& id) { store.deleteEvent(*row(id)->event); }
    std::optional<SyncRow> row(const Uuid& id) {
        auto rows = ledger.syncRows();
        auto it = std::ranges::find(rows, id, [](const SyncRow& r) { return r.event->id(); });
        return it == rows.end() ? std::nullopt : std::optional(*it);
    }
    Names liveNames() {
        Names names;
        for (auto& e : store.fetchAll())
            names.push_back(e->name());
        std::sort(names.begin(), names.end());
        return names;
    }
    std::size_t pending() { return std::ranges::count_if(ledger.syncRows(), &SyncRow::pending); }

    Signals center;
    SettingsFile defaults;
    LocalRepository store;
    LocalSyncLedger ledger{store};
};

} // namespace almanor::test
