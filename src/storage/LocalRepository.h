#pragma once

#include "model/Event.h"
#include "platform/Clock.h"
#include "platform/Export.h"
#include "platform/Signals.h"
#include "storage/EventsTable.h"
#include "storage/StoreError.h"
#include "storage/sql/Connection.h"

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace almanor {

// Posted after every successful local change, so that the menu and the window reload.
inline constexpr std::string_view eventChangeNotification = "com.vostrel.Almanor.eventChange";

// The store of the user's events in one SQLite file, and the source of truth for them. Deletion is
// soft: a deleted row stays with its deletion time until the cloud has been told.
class ALMANOR_EXPORT LocalRepository {
  public:
    // Opens (creating when missing) directory/fileName; the directory is created with its parents.
    // A failure to open stops the process: nothing can work without the store. The tables are
    // created when the file lacks them; a file that cannot take them (damaged, not a database)
    // is left as it is, and unusable() says why.
    LocalRepository(const std::filesystem::path& directory, std::string_view fileName,
                    Signals& center, const Clock& clock);
    LocalRepository(const LocalRepository&) = delete;
    LocalRepository& operator=(const LocalRepository&) = delete;

    // For a process whose stores are opened and used on one thread only: no locks are taken.
    // Before the first store is opened.
    static void useFromOneThreadOnly();

    sql::Connection& connection() { return connection_; }
    const EventsTable& events() const { return events_; }

    // Nothing when the file serves as the store (its tables made now if the open could not), else
    // one line for the user naming the file, what is wrong with it and what to do.
    std::optional<std::string> unusable();
    // That line for a failure of this store met later, by a read that found a damaged page.
    std::string unusableLine(const StoreError& error) const;

    // Live events ordered by date, then name. Throws StoreError.
    std::vector<EventPtr> fetchAll();
    // Live events whose id starts with `prefix` (upper-case, as ids are stored), by id: a range
    // of the primary key's index, as cheap over 10,000 events as over ten. Throws StoreError.
    std::vector<EventPtr> fetchByIdPrefix(std::string_view prefix);

    // What the store holds under an event's id.
    enum class Held { nothing, live, deleted };
    // Inserts, in one transaction, the events whose ids the store has never held, and says for
    // each what it held before. All land or none do (StoreError); one change notification follows.
    std::vector<Held> insertNew(const std::vector<EventPtr>& events);

    // Each throws StoreError, and posts the change notification only when it succeeded.
    void insert(const Event& event);
    void update(const Event& event);
    void deleteEvent(const Event& event);

    // SQLite's data version of this connection: it changes exactly when another connection (another
    // process) has committed a change to the file, never for this connection's own writes.
    // Throws StoreError.
    std::int64_t dataVersion();

    // Posts the change notification, for changes written around insert, update and delete (the
    // sync's pulls).
    void postChange();
    const Clock& clock() const { return clock_; }

    // The database file, beside which the push keeps its lock.
    const std::filesystem::path& file() const { return file_; }

    // The tables, unless the file has them already. Throws StoreError.
    void ensureSchema();

  private:
    // The insert without its notification.
    void insertRow(const Event& event);
    // Makes sure the directory exists, then opens the connection; stops the process on failure.
    static sql::Connection open(const std::filesystem::path& directory, std::string_view fileName);

    EventsTable events_;
    std::filesystem::path file_;
    sql::Connection connection_;
    Signals& center_;
    const Clock& clock_;
    std::atomic<bool> schemaReady_ = false;
};

} // namespace almanor
