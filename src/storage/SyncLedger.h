#pragma once

#include "model/Event.h"
#include "platform/Export.h"
#include "platform/Instant.h"
#include "platform/Uuid.h"
#include "storage/StoreError.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace almanor {

// What the store keeps of the record that mirrors an event on the server.
struct ALMANOR_EXPORT RecordState {
    std::string recordName; // the record's name (its resource's UID)
    std::string resource;   // the resource's name in the zone's collection
    std::string etag;       // the server's version the row was last in step with; empty: none

    friend bool operator==(const RecordState&, const RecordState&) = default;
};

// What a decision about a row saw of it: a row changed or deleted since is left alone.
struct ALMANOR_EXPORT RowVersion {
    Instant updated;
    std::optional<Instant> deleted;

    friend bool operator==(const RowVersion&, const RowVersion&) = default;
};

// A row of the store with its sync bookkeeping, as the sync reads it.
struct ALMANOR_EXPORT SyncRow {
    EventPtr event;
    Instant updated;                   // the last change of the event, here or on the server
    std::optional<Instant> deleted;    // the soft deletion
    std::optional<std::string> syncId; // the record's name once the server is known to hold it
    bool dirty = false;                // changed here since the server last had it
    bool deletionSent = false;
    std::optional<RecordState> record; // the record it is, or is about to be, on the server

    bool live() const { return !deleted; }
    RowVersion version() const { return {updated, deleted}; }
    // Whether the row holds something the server has not had: a change, a first save, or a
    // deletion not yet sent.
    bool pending() const {
        if (deleted)
            return !deletionSent && (syncId || record);
        return dirty || !syncId;
    }
};

// The store as the sync sees it: its rows with their bookkeeping, the zone's sync token, and
// writes that land together or not at all. Implemented over the SQLite file, and in memory for
// the rules' tests. Each call throws StoreError.
class ALMANOR_EXPORT SyncLedger {
  public:
    virtual ~SyncLedger() = default;

    // Every row, live or deleted, with its bookkeeping.
    virtual std::vector<SyncRow> syncRows() = 0;
    // The token of the zone's last pull; empty when there is none.
    virtual std::string syncToken(const std::string& zone) = 0;

    // Runs `work` as one transaction: what it writes lands together, or nothing does when it
    // throws. The change notification follows the commit when an event changed.
    virtual void transaction(const std::function<void()>& work) = 0;
    // Inside a transaction: runs `step` so that when it throws none of its writes stay (the rest
    // of the transaction's do). Returns the error's one line, or nullopt on success.
    virtual std::optional<std::string> attempt(const std::function<void()>& step) = 0;

    // The server's version of an event: inserted, or written over the row (live again if it was
    // deleted), clean and linked to its record. `seen` is the row as the decision saw it
    // (nullopt: there was no row): a row changed or deleted since is left alone (StoreError).
    virtual void writePulled(const Event& event, Instant updated, const RecordState& record,
                             std::optional<RowVersion> seen) = 0;
    // The record of a row of an older layout (unlinked), as the start-up pull of such a zone
    // copies it: inserted when missing, else written over the row as a local change.
    virtual void writeUnlinked(const Event& event) = 0;
    // The server no longer holds the event: deleted here, nothing left to send. `seen` as above.
    virtual void writeRemoved(const Uuid& id, RowVersion seen) = 0;
    // Keeps the record the row is, or is about to be, on the server; the event is untouched.
    virtual void setRecord(const Uuid& id, const RecordState& record) = 0;
    // Forgets the row's record (one planned and never made).
    virtual void dropRecord(const Uuid& id) = 0;
    // The server lost the record while the row holds a change: it is to be created again, under
    // the same name.
    virtual void unlink(const Uuid& id) = 0;
    // The server holds the row as it was when its `updated` was `sent`: linked to `record`, and
    // clean unless the row changed since.
    virtual void markPushed(const Uuid& id, const RecordState& record, Instant sent) = 0;
    // Links the row to the server's version of its record while the row keeps a change of its
    // own to send over it (the later one).
    virtual void link(const Uuid& id, const RecordState& record) = 0;
    // The server has the row's deletion.
    virtual void markDeletionSent(const Uuid& id) = 0;
    virtual void setSyncToken(const std::string& zone, const std::string& token) = 0;
};

} // namespace almanor
