#include "storage/LocalSyncLedger.h"

#include "storage/LocalRepository.h"
#include "storage/sql/Date.h"
#include "storage/sql/Error.h"

namespace almanor {

namespace {

using sql::Binding;
using sql::Statement;

Binding text(std::string_view s) {
    return std::string(s);
}
Binding date(Instant t) {
    return sql::formatDate(t);
}
Binding optionalDate(const std::optional<Instant>& t) {
    return t ? date(*t) : Binding{nullptr};
}
Binding id(const Uuid& u) {
    return u.uuidString();
}

// Reads a column that must hold a date; a damaged one is the store's error, not a crash.
Instant dateAt(const sql::Row& row, int index) {
    auto parsed = sql::parseDate(row.text(index));
    if (!parsed)
        throw sql::Error("Unreadable date in the store: " + std::string(row.text(index)));
    return *parsed;
}

std::optional<std::string> optionalText(const sql::Row& row, int index) {
    if (row.storage(index) == sql::Row::Storage::null)
        return std::nullopt;
    return std::string(row.text(index));
}

void upsertRecord(sql::Connection& db, const Uuid& eventId, const RecordState& record) {
    db.run(Statement{
        "INSERT INTO \"sync_records\" (\"id\", \"record_name\", \"resource\", "
        "\"etag\") VALUES (?, ?, ?, ?) ON CONFLICT (\"id\") DO UPDATE SET "
        "\"record_name\" = excluded.\"record_name\", \"resource\" = "
        "excluded.\"resource\", \"etag\" = excluded.\"etag\"",
        {id(eventId), text(record.recordName), text(record.resource), text(record.etag)}});
}

void deleteRecord(sql::Connection& db, const Uuid& eventId) {
    db.run(Statement{"DELETE FROM \"sync_records\" WHERE (\"id\" = ?)", {id(eventId)}});
}

} // namespace

// Every call turns the SQL layer's errors into the store's own, the line naming the file.
template <class Work> auto LocalSyncLedger::guarded(Work&& work) {
    try {
        return local_.connection().sync([&] {
            local_.ensureSchema();
            return std::forward<Work>(work)();
        });
    } catch (const sql::Error& e) {
        throw StoreError(e.what(), e.code());
    }
}

LocalSyncLedger::LocalSyncLedger(LocalRepository& local) : local_(local) {}

std::vector<SyncRow> LocalSyncLedger::syncRows() {
    return guarded([&] {
        auto& db = local_.connection();
        auto rows = db.prepare(Statement{
            "SELECT e.\"id\", e.\"name\", e.\"alias\", e.\"date\", e.\"schedule\", e.\"method\", "
            "e.\"updated\", e.\"deleted\", e.\"sync_id\", e.\"sync_dirty\", e.\"sync_deleted\", "
            "r.\"record_name\", r.\"resource\", r.\"etag\" FROM \"events\" e LEFT JOIN "
            "\"sync_records\" r ON r.\"id\" = e.\"id\" ORDER BY e.\"date\", e.\"name\"",
            {}});
        std::vector<SyncRow> out;
        while (rows.next()) {
            const auto& row = rows.row();
            auto eventId = Uuid::parse(row.text(0));
            if (!eventId)
                throw sql::Error("Unreadable event id in the store: " + std::string(row.text(0)));
            SyncRow r;
            r.event = makeEvent(*eventId, dateAt(row, 3), std::string(row.text(1)),
                                optionalText(row, 2), scheduleFromRawValue(row.integer(4)),
                                countMethodFromRawValue(row.integer(5)));
            r.updated = dateAt(row, 6);
            if (row.storage(7) != sql::Row::Storage::null)
                r.deleted = dateAt(row, 7);
            r.syncId = optionalText(row, 8);
            r.dirty = row.integer(9) != 0;
            r.deletionSent = row.integer(10) != 0;
            if (row.storage(11) != sql::Row::Storage::null)
                r.record = RecordState{std::string(row.text(11)), std::string(row.text(12)),
                                       std::string(row.text(13))};
            out.push_back(std::move(r));
        }
        return out;
    });
}

std::string LocalSyncLedger::syncToken(const std::string& zone) {
    return guarded([&] {
        auto rows = local_.connection().prepare(
            Statement{"SELECT \"token\" FROM \"sync_zones\" WHERE (\"zone\" = ?)", {text(zone)}});
        return rows.next() ? std::string(rows.row().text(0)) : std::string();
    });
}

void LocalSyncLedger::transaction(const std::function<void()>& work) {
    bool changed = false;
    guarded([&] {
        // The connection's queue is held throughout, so other threads' statements stay out of
        // the transaction.
        auto& db = local_.connection();
        db.run("BEGIN IMMEDIATE");
        eventsChanged_ = false;
        try {
            work();
            db.run("COMMIT");
        } catch (...) {
            try {
                db.run("ROLLBACK");
            } catch (const sql::Error&) {
                // Nothing more to undo.
            }
            eventsChanged_ = false;
            throw;
        }
        changed = eventsChanged_;
        eventsChanged_ = false;
    });
    if (changed)
        local_.postChange();
}

std::optional<std::string> LocalSyncLedger::attempt(const std::function<void()>& step) {
    auto& db = local_.connection();
    return local_.connection().sync([&]() -> std::optional<std::string> {
        const std::string name = "step" + std::to_string(++savepoints_);
        bool changedBefore = eventsChanged_;
        try {
            db.run("SAVEPOINT " + name);
        } catch (const sql::Error& e) {
            return std::string(e.what());
        }
        try {
            step();
            db.run("RELEASE " + name);
            return std::nullopt;
        } catch (const std::exception& e) {
            eventsChanged_ = changedBefore;
            try {
                db.run("ROLLBACK TO " + name);
                db.run("RELEASE " + name);
            } catch (const sql::Error&) {
                // The enclosing transaction's rollback undoes it.
            }
            return std::string(e.what());
        }
    });
}

void LocalSyncLedger::writePulled(const Event& event, Instant updated, const RecordState& record,
                                  std::optional<RowVersion> seen) {
    guarded([&] {
        auto& db = local_.connection();
        Instant now = local_.clock().now();
        if (seen) {
            db.run(Statement{
                "UPDATE \"events\" SET \"name\" = ?, \"alias\" = ?, \"date\" = ?, \"schedule\" = "
                "?, \"method\" = ?, \"updated\" = ?, \"deleted\" = NULL, \"sync_id\" = ?, "
                "\"sync_date\" = ?, \"sync_dirty\" = 0, \"sync_deleted\" = 0 WHERE ((\"id\" = ?) "
                "AND (\"updated\" = ?) AND (\"deleted\" IS ?))",
                {text(event.name()), event.alias() ? text(*event.alias()) : Binding{nullptr},
                 date(event.date()), std::int64_t{rawValue(event.schedule())},
                 std::int64_t{rawValue(event.countMethod())}, date(updated),
                 text(record.recordName), date(now), id(event.id()), date(seen->updated),
                 optionalDate(seen->deleted)}});
            if (db.changes() == 0)
                throw sql::Error("the event changed here meanwhile");
        } else {
            db.run(Statement{
                "INSERT INTO \"events\" (\"id\", \"name\", \"alias\", \"date\", \"schedule\", "
                "\"method\", \"created\", \"updated\", \"sync_id\", \"sync_date\") VALUES (?, ?, "
                "?, ?, ?, ?, ?, ?, ?, ?)",
                {id(event.id()), text(event.name()),
                 event.alias() ? text(*event.alias()) : Binding{nullptr}, date(event.date()),
                 std::int64_t{rawValue(event.schedule())},
                 std::int64_t{rawValue(event.countMethod())}, date(now), date(updated),
                 text(record.recordName), date(now)}});
        }
        upsertRecord(db, event.id(), record);
        eventsChanged_ = true;
    });
}

void LocalSyncLedger::writeUnlinked(const Event& event) {
    guarded([&] {
        auto& db = local_.connection();
        Instant now = local_.clock().now();
        db.run(Statement{
            "INSERT INTO \"events\" (\"id\", \"name\", \"alias\", \"date\", \"schedule\", "
            "\"method\", \"created\", \"updated\") VALUES (?, ?, ?, ?, ?, ?, ?, ?) ON CONFLICT "
            "(\"id\") DO UPDATE SET \"name\" = excluded.\"name\", \"alias\" = excluded.\"alias\", "
            "\"date\" = excluded.\"date\", \"schedule\" = excluded.\"schedule\", \"method\" = "
            "excluded.\"method\", \"updated\" = excluded.\"updated\", \"sync_dirty\" = 1",
            {id(event.id()), text(event.name()),
             event.alias() ? text(*event.alias()) : Binding{nullptr}, date(event.date()),
             std::int64_t{rawValue(event.schedule())}, std::int64_t{rawValue(event.countMethod())},
             date(now), date(now)}});
        eventsChanged_ = true;
    });
}

void LocalSyncLedger::writeRemoved(const Uuid& eventId, RowVersion seen) {
    guarded([&] {
        auto& db = local_.connection();
        Instant now = local_.clock().now();
        db.run(Statement{
            "UPDATE \"events\" SET \"deleted\" = COALESCE(\"deleted\", ?), "
            "\"sync_dirty\" = 0, \"sync_deleted\" = 1, \"sync_date\" = ? WHERE "
            "((\"id\" = ?) AND (\"updated\" = ?) AND (\"deleted\" IS ?))",
            {date(now), date(now), id(eventId), date(seen.updated), optionalDate(seen.deleted)}});
        if (db.changes() == 0)
            throw sql::Error("the event changed here meanwhile");
        deleteRecord(db, eventId);
        eventsChanged_ = eventsChanged_ || !seen.deleted;
    });
}

void LocalSyncLedger::setRecord(const Uuid& eventId, const RecordState& record) {
    guarded([&] { upsertRecord(local_.connection(), eventId, record); });
}

void LocalSyncLedger::dropRecord(const Uuid& eventId) {
    guarded([&] { deleteRecord(local_.connection(), eventId); });
}

void LocalSyncLedger::unlink(const Uuid& eventId) {
    guarded([&] {
        auto& db = local_.connection();
        db.run(Statement{"UPDATE \"events\" SET \"sync_id\" = NULL WHERE (\"id\" = ?)",
                         {id(eventId)}});
        db.run(Statement{"UPDATE \"sync_records\" SET \"etag\" = '' WHERE (\"id\" = ?)",
                         {id(eventId)}});
    });
}

void LocalSyncLedger::markPushed(const Uuid& eventId, const RecordState& record, Instant sent) {
    guarded([&] {
        auto& db = local_.connection();
        Instant now = local_.clock().now();
        // A row changed while its push was on the way stays dirty: the newer change goes next.
        db.run(Statement{"UPDATE \"events\" SET \"sync_id\" = ?, \"sync_date\" = ?, "
                         "\"sync_dirty\" = CASE WHEN \"updated\" = ? THEN 0 ELSE \"sync_dirty\" "
                         "END WHERE (\"id\" = ?)",
                         {text(record.recordName), date(now), date(sent), id(eventId)}});
        upsertRecord(db, eventId, record);
    });
}

void LocalSyncLedger::link(const Uuid& eventId, const RecordState& record) {
    guarded([&] {
        auto& db = local_.connection();
        db.run(Statement{
            "UPDATE \"events\" SET \"sync_id\" = ?, \"sync_dirty\" = 1 WHERE (\"id\" = ?)",
            {text(record.recordName), id(eventId)}});
        upsertRecord(db, eventId, record);
    });
}

void LocalSyncLedger::markDeletionSent(const Uuid& eventId) {
    guarded([&] {
        auto& db = local_.connection();
        db.run(Statement{"UPDATE \"events\" SET \"sync_deleted\" = 1, \"sync_date\" = ? WHERE "
                         "(\"id\" = ?)",
                         {date(local_.clock().now()), id(eventId)}});
        deleteRecord(db, eventId);
    });
}

void LocalSyncLedger::setSyncToken(const std::string& zone, const std::string& token) {
    guarded([&] {
        local_.connection().run(
            Statement{"INSERT INTO \"sync_zones\" (\"zone\", \"token\") VALUES (?, ?) ON CONFLICT "
                      "(\"zone\") DO UPDATE SET \"token\" = excluded.\"token\"",
                      {text(zone), text(token)}});
    });
}

} // namespace almanor
