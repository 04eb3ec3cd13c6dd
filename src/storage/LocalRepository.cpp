#include "storage/LocalRepository.h"

#include "platform/Fatal.h"
#include "platform/Log.h"
#include "platform/Paths.h"
#include "platform/Settings.h"
#include "platform/Translation.h"
#include "storage/StoreSchema.h"
#include "storage/sql/Error.h"

#include <algorithm>
#include <sqlite3.h>
#include <system_error>

namespace almanor {

namespace {

// The fatal message names this site and line; they stay fixed so that reports of it match.
constexpr std::string_view fatalSite = "Almanor/LocalRepository";
constexpr int fatalLine = 40;

// The SQL layer's errors end here: callers get the store's own.
template <class Call> auto storeCall(Call&& call) {
    try {
        return call();
    } catch (const sql::Error& e) {
        throw StoreError(e.what(), e.code());
    }
}

[[noreturn]] void failToInitialize(const std::string& description) {
    fatalError(fatalSite, fatalLine, "Failed to initialize local database: " + description);
}

// The columns that make an Event, resolved once per query rather than per row.
struct EventColumns {
    sql::ColumnIndex<Uuid> id;
    sql::ColumnIndex<std::string> name;
    sql::ColumnIndex<std::optional<std::string>> alias;
    sql::ColumnIndex<Instant> date;
    sql::ColumnIndex<std::int64_t> schedule;
    sql::ColumnIndex<std::int64_t> method;

    EventColumns(const sql::Rows& rows, const EventsTable& t)
        : id(rows.resolve(t.id)), name(rows.resolve(t.name)), alias(rows.resolve(t.alias)),
          date(rows.resolve(t.date)), schedule(rows.resolve(t.schedule)),
          method(rows.resolve(t.method)) {}

    EventPtr event(const sql::Row& row) const {
        return makeEvent(row.get(id), row.get(date), row.get(name), row.get(alias),
                         scheduleFromRawValue(row.get(schedule)),
                         countMethodFromRawValue(row.get(method)));
    }
};

} // namespace

void LocalRepository::useFromOneThreadOnly() {
    sql::Connection::useFromOneThreadOnly();
}

sql::Connection LocalRepository::open(const std::filesystem::path& directory,
                                      std::string_view fileName) {
    // SQLite gives its journal and WAL files the database file's mode.
    auto why = paths::makePrivateFolder(directory);
    if (why.empty()) {
        why = paths::makePrivateFile(directory / fileName);
    }
    if (!why.empty()) {
        failToInitialize(why);
    }
    try {
        return sql::Connection(directory.string() + "/" + std::string(fileName));
    } catch (const sql::Error& e) {
        failToInitialize(e.what());
    }
}

LocalRepository::LocalRepository(const std::filesystem::path& directory, std::string_view fileName,
                                 Signals& center, const Clock& clock)
    : file_(directory / fileName), connection_(open(directory, fileName)), center_(center),
      clock_(clock) {
    try {
        ensureSchema();
    } catch (const StoreError&) {
        // Told by unusable(), and by every call that needs the tables.
    }
}

void LocalRepository::ensureSchema() {
    if (schemaReady_) {
        return;
    }
    storeCall([&] { prepareSchema(connection_, events_); });
    schemaReady_ = true;
}

std::optional<std::string> LocalRepository::unusable() {
    try {
        ensureSchema();
        return std::nullopt;
    } catch (const StoreError& e) {
        return unusableLine(e);
    }
}

std::string LocalRepository::unusableLine(const StoreError& error) const {
    const char* remedy = _("restore it from a backup, or move it away to start afresh");
    switch (error.code()) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
        remedy = _("another program holds it: try again when it is done");
        break;
    case SQLITE_READONLY:
    case SQLITE_PERM:
    case SQLITE_CANTOPEN:
        remedy = _("make it and its folder writable");
        break;
    case SQLITE_FULL:
        remedy = _("free some disk space");
        break;
    default:
        break;
    }
    // TRANSLATORS: the file, SQLite's own message, then what to do.
    return formatText(_("The event store %s could not be read: %s; %s"),
                      {file_.string(), error.what(), remedy});
}

std::vector<EventPtr> LocalRepository::fetchAll() {
    ensureSchema();
    const auto& t = events_;
    return storeCall([&] {
        return connection_.sync([&] {
            auto rows = connection_.prepare(t.table.select(t.deleted == std::nullopt));
            EventColumns columns(rows, t);
            std::vector<EventPtr> result;
            for (const auto& row : rows) {
                result.push_back(columns.event(row));
            }
            // By date, then name as bytes, as ORDER BY would; sorting the parsed events costs a
            // fraction of SQLite's sorter, which copies every row.
            std::stable_sort(
                result.begin(), result.end(), [](const EventPtr& a, const EventPtr& b) {
                    return a->date() != b->date() ? a->date() < b->date() : a->name() < b->name();
                });
            return result;
        });
    });
}

std::vector<EventPtr> LocalRepository::fetchByIdPrefix(std::string_view prefix) {
    ensureSchema();
    const auto& t = events_;
    // Every id that starts with the prefix sorts from it up to the prefix with its last character
    // raised by one; ids are canonical text, so no other row falls in between.
    std::string end(prefix);
    if (!end.empty()) {
        ++end.back();
    }
    sql::Expression range("(" + t.id.text() + " >= ? AND " + t.id.text() + " < ?)",
                          {std::string(prefix), end});
    return storeCall([&] {
        return connection_.sync([&] {
            auto rows =
                connection_.prepare(t.table.select(range && t.deleted == std::nullopt, {t.id}));
            EventColumns columns(rows, t);
            std::vector<EventPtr> result;
            for (const auto& row : rows) {
                result.push_back(columns.event(row));
            }
            return result;
        });
    });
}

std::vector<LocalRepository::Held> LocalRepository::insertNew(const std::vector<EventPtr>& events) {
    ensureSchema();
    const auto& t = events_;
    std::vector<Held> held;
    storeCall([&] {
        connection_.sync([&] {
            connection_.run("BEGIN IMMEDIATE");
            try {
                for (const auto& event : events) {
                    auto rows = connection_.prepare(t.table.select(t.id == event->id()));
                    held.push_back(!rows.next()                ? Held::nothing
                                   : rows.row().get(t.deleted) ? Held::deleted
                                                               : Held::live);
                    if (held.back() == Held::nothing) {
                        insertRow(*event);
                    }
                }
                connection_.run("COMMIT");
            } catch (...) {
                try {
                    connection_.run("ROLLBACK");
                } catch (const sql::Error&) {
                    // SQLite has rolled back already.
                }
                throw;
            }
        });
    });
    if (std::find(held.begin(), held.end(), Held::nothing) != held.end()) {
        center_.emit(eventChangeNotification);
    }
    return held;
}

std::int64_t LocalRepository::dataVersion() {
    return storeCall([&] {
        return connection_.sync([&] {
            auto rows = connection_.prepare(sql::Statement{"PRAGMA data_version", {}});
            rows.next();
            return rows.row().integer(0);
        });
    });
}

void LocalRepository::insert(const Event& event) {
    ensureSchema();
    insertRow(event);
    center_.emit(eventChangeNotification);
}

void LocalRepository::insertRow(const Event& event) {
    const auto& t = events_;
    Instant now = clock_.now();
    storeCall([&] {
        connection_.run(t.table.insert({
            t.id.set(event.id()),
            t.name.set(event.name()),
            t.alias.set(event.alias()),
            t.date.set(event.date()),
            t.schedule.set(rawValue(event.schedule())),
            t.method.set(rawValue(event.countMethod())),
            t.created.set(now),
            t.updated.set(now),
        }));
    });
}

void LocalRepository::update(const Event& event) {
    ensureSchema();
    const auto& t = events_;
    Instant now = clock_.now();
    storeCall([&] {
        connection_.run(t.table.update(
            {
                t.name.set(event.name()), t.alias.set(event.alias()), t.date.set(event.date()),
                t.schedule.set(rawValue(event.schedule())),
                t.method.set(rawValue(event.countMethod())), t.updated.set(now),
                t.syncDirty.setLiteral(true), // also before the first push: see markInserted
            },
            t.id == event.id()));
    });
    center_.emit(eventChangeNotification);
}

void LocalRepository::deleteEvent(const Event& event) {
    ensureSchema();
    const auto& t = events_;
    storeCall([&] {
        connection_.run(t.table.update({t.deleted.set(clock_.now())}, t.id == event.id()));
    });
    center_.emit(eventChangeNotification);
}

void LocalRepository::postChange() {
    center_.emit(eventChangeNotification);
}

} // namespace almanor
