#include "cli/Store.h"

#include "cli/Cli.h"
#include "cli/Services.h"
#include "platform/Heap.h"
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

void reserveForReading(const Services& services, double bytesPerStoreByte) {
    std::error_code error;
    auto size = std::filesystem::file_size(services.databaseFile(), error);
    if (!error) {
        heap::reserve(std::size_t(double(size) * bytesPerStoreByte));
    }
}

} // namespace almanor::cli
