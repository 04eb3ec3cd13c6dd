#include "storage/LocalRepository.h"

#include "platform/Fatal.h"
#include "platform/Log.h"
#include "platform/Settings.h"
#include "storage/sql/Error.h"

#include <system_error>

namespace almanor {

namespace {

// The fatal message names this site and line; they stay fixed so that reports of it match.
constexpr std::string_view fatalSite = "Almanor/LocalRepository";
constexpr int fatalLine = 40;

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

sql::Connection LocalRepository::open(const std::filesystem::path& directory,
                                      std::string_view fileName) {
    std::error_code error;
    if (!std::filesystem::exists(directory, error)) {
        std::filesystem::create_directories(directory, error);
        if (error) {
            failToInitialize(error.message());
        }
    }
    try {
        return sql::Connection(directory.string() + "/" + std::string(fileName));
    } catch (const sql::Error& e) {
        failToInitialize(e.what());
    }
}

LocalRepository::LocalRepository(const std::filesystem::path& directory, std::string_view fileName,
                                 NotificationCenter& center, const Clock& clock)
    : file_(directory / fileName), connection_(open(directory, fileName)), center_(center),
      clock_(clock) {}

std::vector<EventPtr> LocalRepository::fetchAll() {
    const auto& t = events_;
    return connection_.sync([&] {
        auto rows =
            connection_.prepare(t.table.select(t.deleted == std::nullopt, {t.date, t.name}));
        EventColumns columns(rows, t);
        std::vector<EventPtr> result;
        for (const auto& row : rows) {
            result.push_back(columns.event(row));
        }
        return result;
    });
}

std::int64_t LocalRepository::dataVersion() {
    return connection_.sync([&] {
        auto rows = connection_.prepare(sql::Statement{"PRAGMA data_version", {}});
        rows.next();
        return rows.row().integer(0);
    });
}

void LocalRepository::insert(const Event& event) {
    const auto& t = events_;
    Instant now = clock_.now();
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
    center_.post(eventChangeNotification);
}

void LocalRepository::update(const Event& event) {
    const auto& t = events_;
    Instant now = clock_.now();
    connection_.run(t.table.update(
        {
            t.name.set(event.name()), t.alias.set(event.alias()), t.date.set(event.date()),
            t.schedule.set(rawValue(event.schedule())), t.method.set(rawValue(event.countMethod())),
            t.updated.set(now),
            t.syncDirty.setLiteral(true), // also before the first push: see markInserted
        },
        t.id == event.id()));
    center_.post(eventChangeNotification);
}

void LocalRepository::deleteEvent(const Event& event) {
    const auto& t = events_;
    connection_.run(t.table.update({t.deleted.set(clock_.now())}, t.id == event.id()));
    center_.post(eventChangeNotification);
}

void LocalRepository::postChange() {
    center_.post(eventChangeNotification);
}

} // namespace almanor
