#include "cli/Store.h"

#include "cli/Cli.h"
#include "cli/Services.h"
#include "storage/MigrationManager.h"
#include "storage/Repository.h"
#include "storage/StoreError.h"

#include <cstdio>
#include <filesystem>

namespace almanor::cli {

Store::Store(Services& services)
    : settings_(services.defaults()), repository_(services.repository()) {
    settings_.registerDefaults();
    if (!storeIsReadable(repository_)) {
        throw Failed{};
    }
    MigrationManager::migrateIfNeeded(repository_, services.defaults());
}

std::vector<EventPtr> Store::events() {
    try {
        return repository_.local().fetchAll();
    } catch (const StoreError& e) {
        // A damaged page that opening the file did not reach.
        std::fprintf(stderr, "almanor: %s\n", repository_.local().unusableLine(e).c_str());
        throw Failed{};
    }
}

EventPtr Store::event(const Uuid& id) {
    for (auto& e : events()) {
        if (e->id() == id) {
            return e;
        }
    }
    throw NotFound{id};
}

} // namespace almanor::cli
