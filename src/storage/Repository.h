#pragma once

#include "model/Event.h"
#include "platform/Export.h"
#include "storage/LocalRepository.h"

#include <memory>
#include <optional>
#include <vector>

namespace almanor {

// The one entry point through which the rest of the system reads and changes events. Failures of
// the store are logged as one line each and swallowed; callers see an empty list or false.
class ALMANOR_EXPORT Repository {
  public:
    explicit Repository(std::unique_ptr<LocalRepository> local);
    Repository(const Repository&) = delete;
    Repository& operator=(const Repository&) = delete;

    LocalRepository& local() { return *local_; }

    // Live events by date, then name; empty when the store cannot be read.
    std::vector<EventPtr> fetchAll();
    // The same, but nullopt when the store cannot be read, for callers that must tell an empty
    // list from a failure.
    std::optional<std::vector<EventPtr>> tryFetchAll();

    // Each returns whether the change was written.
    bool insert(const Event& event);
    bool update(const Event& event);
    bool deleteEvent(const Event& event);

  private:
    std::unique_ptr<LocalRepository> local_;
};

} // namespace almanor
