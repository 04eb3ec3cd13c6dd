#include "storage/Repository.h"

#include "platform/Log.h"

#include <string>

namespace almanor {

namespace {

// Runs a call of the store, logging its failure as `message` followed by the error's description.
// Only the store's own errors are caught: an exception from a notification observer is the
// observer's fault, not a failed write.
template <class Call> bool logged(std::string_view message, Call&& call) {
    try {
        call();
        return true;
    } catch (const StoreError& e) {
        Log::error(std::string(message) + e.what());
        return false;
    }
}

} // namespace

Repository::Repository(std::unique_ptr<LocalRepository> local) : local_(std::move(local)) {}

std::vector<EventPtr> Repository::fetchAll() {
    return tryFetchAll().value_or(std::vector<EventPtr>{});
}

std::optional<std::vector<EventPtr>> Repository::tryFetchAll() {
    std::optional<std::vector<EventPtr>> events;
    logged("Failed to fetch records: ", [&] { events = local_->fetchAll(); });
    return events;
}

bool Repository::insert(const Event& event) {
    return logged("Failed to insert record: ", [&] { local_->insert(event); });
}

bool Repository::update(const Event& event) {
    return logged("Failed to update record: ", [&] { local_->update(event); });
}

bool Repository::deleteEvent(const Event& event) {
    return logged("Failed to delete record: ", [&] { local_->deleteEvent(event); });
}

} // namespace almanor
