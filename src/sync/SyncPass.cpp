#include "sync/SyncPass.h"

#include "cloud/CloudRepository.h"
#include "cloud/MigrationHelper.h"
#include "cloud/RecordMapping.h"
#include "platform/Log.h"
#include "platform/Translation.h"

#include <array>
#include <ctime>
#include <set>

namespace almanor {

namespace {

// Marks are written in batches, each commit costing a sync of the file: every couple of seconds,
// or sooner when many pile up (a fast server). A batch lost to a kill costs only a look at the
// server: the next pass's conditional writes find it already in step.
constexpr std::size_t marksPerCommit = 250;
constexpr std::chrono::seconds marksAtMostEvery{2};

const std::string appZone(appZoneName);

std::string utcText(Instant t) {
    std::time_t secs = std::chrono::floor<std::chrono::seconds>(t).time_since_epoch().count();
    std::tm tm{};
    gmtime_r(&secs, &tm);
    std::array<char, 32> buf{};
    std::strftime(buf.data(), buf.size(), "%Y-%m-%dT%H:%M:%SZ", &tm);
    return buf.data();
}

std::string timeText(std::optional<Instant> t) {
    return t ? utcText(*t) : std::string("an unknown time");
}

// One line naming the event, the version kept and the one dropped.
void conflictLine(const Event& event, const std::string& kept, std::optional<Instant> keptTime,
                  const std::string& dropped, std::optional<Instant> droppedTime) {
    Log::warning("Conflict on \"" + event.name() + "\" (" + event.id().uuidString() + "): kept " +
                 kept + " of " + timeText(keptTime) + ", dropped " + dropped + " of " +
                 timeText(droppedTime));
}

// The record a row is on the server: the one kept for it, or for rows synced before records were
// kept, the resource its record name gives. Nullopt for a row that has neither (another process
// added it after this pass named its creates) or whose names are unusable: nothing is sent for it.
std::optional<RecordState> stateOf(const SyncRow& row) {
    std::optional<RecordState> state;
    if (row.record)
        state = *row.record;
    else if (row.syncId)
        state = RecordState{*row.syncId, *row.syncId + ".ics", {}};
    if (state &&
        (state->recordName.empty() || state->resource.empty() || state->resource == ".ics"))
        return std::nullopt;
    return state;
}

// The server's event under the row's own id: a resource linked to a row is that row's event, even
// when a calendar app rewrote it without the event's id.
EventPtr asRow(const Event& theirs, const Uuid& id) {
    return makeEvent(id, theirs.date(), theirs.name(), theirs.alias(), theirs.schedule(),
                     theirs.countMethod());
}

void populating(const Uuid& id, const std::string& recordName) {
    Log::debug("Populating " + id.uuidString() + " " + recordName + " " + appZone);
}

} // namespace

Side laterChange(Instant here, std::optional<Instant> server) {
    if (!server)
        return Side::server;
    using std::chrono::floor;
    using std::chrono::seconds;
    return floor<seconds>(here) > floor<seconds>(*server) ? Side::here : Side::server;
}

SyncPass::SyncPass(CloudRepository& cloud, SyncLedger& ledger, SettingsFile& defaults,
                   const Clock& clock, const std::atomic<bool>& stopping)
    : cloud_(cloud), service_(cloud.service()), ledger_(ledger), defaults_(defaults), clock_(clock),
      stopping_(stopping) {}

void SyncPass::fail(const std::string& problem) {
    if (problem_.empty())
        problem_ = problem;
}

bool SyncPass::pull() {
    auto reader = MigrationHelper::findExistingRecords(cloud_.sharedService(), defaults_);
    if (reader && reader->zoneName() != appZoneName)
        copyOlderZone(reader->zoneName());
    return pullAppZone();
}

// A zone of an older layout is read whole; its records stay unlinked here, so that the push
// moves them into the app's zone.
void SyncPass::copyOlderZone(const std::string& zoneName) {
    MigrationHelper reader(cloud_.sharedService(), zoneName);
    std::vector<CloudEvent> records = reader.fetchRecords(clock_);
    if (records.empty())
        return;
    try {
        rows_ = ledger_.syncRows();
        ledger_.transaction([&] {
            for (const auto& record : records) {
                const Event& event = *record.event;
                Log::debug("Populating " + event.id().uuidString() + " " +
                           (record.recordId ? record.recordId->recordName : "n/a") + " " +
                           (record.recordId ? record.recordId->zoneName : "n/a"));
                auto found = std::find_if(rows_.begin(), rows_.end(), [&](const SyncRow& r) {
                    return r.event->id() == event.id();
                });
                if (found != rows_.end() && (!found->live() || sameContent(*found->event, event))) {
                    Log::debug("  skipping...");
                    continue;
                }
                if (found != rows_.end() && found->pending() && found->syncId) {
                    // An edit made here and not pushed yet wins over the older copy.
                    Log::debug("  keeping local change...");
                    continue;
                }
                Log::debug(found != rows_.end() ? "  updating..." : "  inserting...");
                if (auto error = ledger_.attempt([&] { ledger_.writeUnlinked(event); }))
                    Log::error(std::string(found != rows_.end() ? "Failed to update record: "
                                                                : "Failed to insert record: ") +
                               *error);
                else
                    ++received_;
            }
        });
    } catch (const StoreError& e) {
        Log::error(std::string("Failed to update record: ") + e.what());
        fail(e.what());
    }
}

std::optional<ZoneChanges>
SyncPass::fetchAppZoneChanges(const std::string& token,
                              const std::map<std::string, std::string>& known) {
    try {
        return service_.fetchChanges(appZone, token, known);
    } catch (const ZoneMissing&) {
        // Made below; what this machine knew of it is sent again rather than deleted here.
    } catch (const CloudError& e) {
        Log::error(std::string("Failed to fetch records: ") + e.what());
        fail(e.what());
        return std::nullopt;
    }
    if (!cloud_.saveZone()) {
        fail(_("the zone could not be created"));
        return std::nullopt;
    }
    try {
        ZoneChanges changes = service_.fetchChanges(appZone, {}, {});
        if (!known.empty()) {
            Log::warning("The zone " + appZone +
                         " was missing on the server; every event goes again");
            ledger_.transaction([&] {
                for (const auto& row : rows_) {
                    if (row.live() && (row.syncId || row.record))
                        ledger_.unlink(row.event->id());
                    else if (!row.live() && !row.deletionSent && (row.syncId || row.record))
                        ledger_.markDeletionSent(row.event->id());
                }
            });
            rows_ = ledger_.syncRows();
        }
        return changes;
    } catch (const CloudError& e) {
        Log::error(std::string("Failed to fetch records: ") + e.what());
        fail(e.what());
    } catch (const StoreError& e) {
        Log::error(std::string("Failed to update record: ") + e.what());
        fail(e.what());
    }
    return std::nullopt;
}

bool SyncPass::pullAppZone() {
    std::string token;
    try {
        rows_ = ledger_.syncRows();
        token = ledger_.syncToken(appZone);
    } catch (const StoreError& e) {
        Log::error(std::string("Failed to fetch records: ") + e.what());
        fail(e.what());
        return false;
    }
    std::map<std::string, std::string> known;
    for (const auto& row : rows_)
        if (row.record && !row.deletionSent)
            known[row.record->resource] = row.record->etag;

    std::optional<ZoneChanges> changes = fetchAppZoneChanges(token, known);
    if (!changes)
        return false;
    for (const auto& [resource, reason] : changes->unreadable) {
        std::string text = "Skipping record ";
        text.append(resource).append(": ").append(reason);
        Log::warning(text);
    }

    try {
        ledger_.transaction([&] {
            for (const auto& remote : changes->changed) {
                if (auto error = ledger_.attempt([&] { applyChanged(remote); }))
                    Log::warning("Skipping record " + remote.resource + ": " + *error);
            }
            std::set<std::string> gone(changes->deleted.begin(), changes->deleted.end());
            for (const auto& row : rows_) {
                // Rows synced before records were kept are gone when a whole listing lacks them.
                bool unlisted = changes->complete && !row.record && row.syncId && !row.deletionSent;
                if ((row.record && gone.count(row.record->resource)) || unlisted) {
                    if (auto error = ledger_.attempt([&] { applyGone(row); }))
                        Log::warning("Skipping the deletion of " + row.event->id().uuidString() +
                                     ": " + *error);
                }
            }
            ledger_.setSyncToken(appZone, changes->token);
        });
    } catch (const StoreError& e) {
        Log::error(std::string("Failed to update record: ") + e.what());
        fail(e.what());
        return false;
    }
    return true;
}

// The row the server's record belongs to: the one linked to its resource, else the one of its
// event; nullptr when it is new here.
SyncRow* SyncPass::rowFor(const RemoteRecord& remote, const Uuid& id) {
    auto found = std::find_if(rows_.begin(), rows_.end(), [&](const SyncRow& r) {
        return r.record && !r.deletionSent && r.record->resource == remote.resource;
    });
    if (found == rows_.end())
        found = std::find_if(rows_.begin(), rows_.end(),
                             [&](const SyncRow& r) { return r.event->id() == id; });
    return found == rows_.end() ? nullptr : &*found;
}

void SyncPass::takeServers(SyncRow& row, const EventPtr& event, Instant changed,
                           const RecordState& state) {
    ledger_.writePulled(*event, changed, state, row.version());
    row = SyncRow{event, changed, std::nullopt, state.recordName, false, false, state};
    ++received_;
}

// A record that comes back after this machine's deletion reached the server was made again by a
// machine whose change won: it is taken. Else the later of deletion and edit wins.
void SyncPass::settleDeletion(SyncRow& row, const EventPtr& event, const CloudEvent& theirs,
                              Instant changed, const RecordState& state) {
    if (row.deletionSent || laterChange(*row.deleted, theirs.updated) == Side::server) {
        conflictLine(*event, "the server's edit", theirs.updated, "this machine's deletion",
                     row.deleted);
        takeServers(row, event, changed, state);
    } else {
        // The deletion is the later change: it goes to this version of the record.
        conflictLine(*row.event, "this machine's deletion", row.deleted, "the server's edit",
                     theirs.updated);
        ledger_.setRecord(row.event->id(), state);
        row.record = state;
    }
}

void SyncPass::applyChanged(const RemoteRecord& remote) {
    CloudEvent theirs = eventFromRecord(remote.record, clock_);
    RecordState state{remote.record.recordId.recordName, remote.resource, remote.etag};
    populating(theirs.event->id(), state.recordName);
    SyncRow* found = rowFor(remote, theirs.event->id());
    Instant changed = theirs.updated.value_or(clock_.now());

    if (found == nullptr) {
        Log::debug("  inserting...");
        ledger_.writePulled(*theirs.event, changed, state, std::nullopt);
        ++received_;
        rows_.push_back(
            SyncRow{theirs.event, changed, std::nullopt, state.recordName, false, false, state});
        return;
    }
    SyncRow& row = *found;
    if (row.record && row.record->resource != remote.resource && !row.deletionSent) {
        // Copies of one event (left by older versions): the row stays with its own record.
        Log::warning("Skipping record " + remote.resource + ": a copy of record " +
                     row.record->resource);
        return;
    }
    EventPtr event = asRow(*theirs.event, row.event->id());
    if (row.deleted) {
        settleDeletion(row, event, theirs, changed, state);
        return;
    }
    if (sameContent(*row.event, *event)) {
        Log::debug("  skipping...");
        ledger_.markPushed(row.event->id(), state, row.updated);
        row.syncId = state.recordName;
        row.record = state;
        row.dirty = false;
        return;
    }
    if (!row.pending()) {
        Log::debug("  updating...");
        takeServers(row, event, changed, state);
        return;
    }
    if (laterChange(row.updated, theirs.updated) == Side::server) {
        conflictLine(*event, "the server's version", theirs.updated, "this machine's version",
                     row.updated);
        takeServers(row, event, changed, state);
        return;
    }
    Log::debug("  keeping local change...");
    conflictLine(*row.event, "this machine's version", row.updated, "the server's version",
                 theirs.updated);
    // Linked to the server's version, so that the push replaces exactly that one.
    ledger_.link(row.event->id(), state);
    row.syncId = state.recordName;
    row.record = state;
    row.dirty = true;
}

void SyncPass::applyGone(const SyncRow& row) {
    populating(row.event->id(), row.record ? row.record->recordName : row.syncId.value_or("n/a"));
    if (!row.live()) {
        Log::debug("  skipping...");
        ledger_.markDeletionSent(row.event->id());
    } else if (row.pending()) {
        // A change here that the server never had wins: the event goes again, as a new record
        // under the same name.
        Log::debug("  keeping local change...");
        ledger_.unlink(row.event->id());
    } else {
        Log::debug("  deleting...");
        ledger_.writeRemoved(row.event->id(), row.version());
        ++received_;
    }
}

bool SyncPass::push() {
    try {
        rows_ = ledger_.syncRows();
    } catch (const StoreError& e) {
        Log::error(std::string("Sync query error: ") + e.what());
        fail(e.what());
        return false;
    }
    // Rows never sent get their record's name before anything is sent: a create cut off anywhere
    // is tried again under the same name, so it can never leave a second record.
    std::vector<std::pair<Uuid, RecordState>> names;
    for (const auto& row : rows_) {
        if (row.live() && !row.syncId && !row.record) {
            std::string name = Uuid::random().uuidString();
            names.emplace_back(row.event->id(), RecordState{name, name + ".ics", {}});
        }
    }
    if (!names.empty()) {
        try {
            ledger_.transaction([&] {
                for (const auto& [id, state] : names)
                    ledger_.setRecord(id, state);
            });
            rows_ = ledger_.syncRows();
        } catch (const StoreError& e) {
            Log::error(std::string("Failed to sync inserted: ") + e.what());
            fail(e.what());
            return false;
        }
    }

    // Creates, then changes, then deletions, as the store lists them.
    auto rank = [](const SyncRow& r) { return !r.live() ? 2 : !r.syncId ? 0 : 1; };
    std::vector<SyncRow*> order;
    for (auto& row : rows_)
        if (row.pending())
            order.push_back(&row);
    std::stable_sort(order.begin(), order.end(),
                     [&](const SyncRow* a, const SyncRow* b) { return rank(*a) < rank(*b); });
    for (SyncRow* row : order) {
        if (stopping_) {
            fail(_("stopped"));
            break;
        }
        pushRow(*row);
    }
    flush();
    return problem_.empty();
}

void SyncPass::pushRow(SyncRow& row) {
    const std::optional<RecordState> named = stateOf(row);
    if (!named) {
        // A row added meanwhile is named and sent by the next pass.
        if (row.record || row.syncId)
            Log::warning("Skipping " + row.event->id().uuidString() +
                         ": the store holds no usable record name for it");
        return;
    }
    const RecordState& state = *named;
    try {
        if (!row.live())
            remove(row, state);
        else if (!row.syncId)
            create(row, state);
        else
            replace(row, state);
    } catch (const CloudError& e) {
        const char* what =
            row.live() && row.syncId ? "Unable to update record " : "Unable to insert record ";
        Log::error(what + row.event->id().uuidString() + ": " + e.what());
        fail(e.what());
    }
}

void SyncPass::create(SyncRow& row, const RecordState& state) {
    CloudRecord record =
        recordFromEvent(CloudEvent{RecordId{state.recordName, appZone}, row.event, row.updated});
    std::string etag;
    try {
        etag = service_.createRecord(record, state.resource);
    } catch (const PreconditionFailed&) {
        settleWithServer(row, state, true);
        return;
    }
    ++sent_;
    RecordState sent{state.recordName, state.resource, etag};
    later(
        [this, id = row.event->id(), sent, at = row.updated] { ledger_.markPushed(id, sent, at); },
        "Failed to sync inserted: ");
}

void SyncPass::replace(SyncRow& row, const RecordState& state) {
    if (state.etag.empty()) {
        settleWithServer(row, state, false);
        return;
    }
    CloudRecord record =
        recordFromEvent(CloudEvent{RecordId{state.recordName, appZone}, row.event, row.updated});
    std::string etag;
    try {
        etag = service_.replaceRecord(record, state.resource, state.etag);
    } catch (const PreconditionFailed&) {
        settleWithServer(row, state, false);
        return;
    }
    ++sent_;
    RecordState sent{state.recordName, state.resource, etag};
    later(
        [this, id = row.event->id(), sent, at = row.updated] { ledger_.markPushed(id, sent, at); },
        "Failed to sync updated: ");
}

void SyncPass::remove(SyncRow& row, const RecordState& state) {
    if (state.etag.empty()) {
        settleWithServer(row, state, false);
        return;
    }
    try {
        service_.deleteRecord(appZone, state.resource, state.etag);
    } catch (const PreconditionFailed&) {
        settleWithServer(row, state, false);
        return;
    }
    ++sent_;
    later([this, id = row.event->id()] { ledger_.markDeletionSent(id); },
          "Failed to sync deleted: ");
}

void SyncPass::goneFromServer(SyncRow& row, const RecordState& state, bool creating) {
    const Uuid id = row.event->id();
    if (!row.live()) {
        if (row.syncId)
            later([this, id] { ledger_.markDeletionSent(id); }, "Failed to sync deleted: ");
        else
            later([this, id] { ledger_.dropRecord(id); }, "Failed to sync deleted: ");
        return;
    }
    // Gone from the server while this row holds a change: the change wins, as a new record under
    // the same name. A second refusal ends this row's turn; the next pass settles it.
    CloudRecord record =
        recordFromEvent(CloudEvent{RecordId{state.recordName, appZone}, row.event, row.updated});
    std::string etag = service_.createRecord(record, state.resource);
    ++sent_;
    RecordState sent{state.recordName, state.resource, etag};
    later([this, id, sent, at = row.updated] { ledger_.markPushed(id, sent, at); },
          creating ? "Failed to sync inserted: " : "Failed to sync updated: ");
}

// The server did not hold the version this row was last in step with (or it is not known): look
// at what it holds now and settle by the later change.
void SyncPass::settleWithServer(SyncRow& row, const RecordState& state, bool creating) {
    const Uuid id = row.event->id();
    std::optional<RemoteRecord> current = service_.fetchRecord(appZone, state.resource);
    if (!current) {
        goneFromServer(row, state, creating);
        return;
    }
    CloudEvent theirs = eventFromRecord(current->record, clock_);
    EventPtr event = asRow(*theirs.event, id);
    RecordState seen{current->record.recordId.recordName, current->resource, current->etag};

    if (row.live()) {
        if (sameContent(*event, *row.event)) {
            // What this row holds reached the server before (its answer was lost).
            later([this, id, seen, at = row.updated] { ledger_.markPushed(id, seen, at); },
                  creating ? "Failed to sync inserted: " : "Failed to sync updated: ");
            return;
        }
        if (laterChange(row.updated, theirs.updated) == Side::here) {
            conflictLine(*row.event, "this machine's version", row.updated, "the server's version",
                         theirs.updated);
            CloudRecord record = recordFromEvent(
                CloudEvent{RecordId{seen.recordName, appZone}, row.event, row.updated});
            std::string etag = service_.replaceRecord(record, seen.resource, seen.etag);
            ++sent_;
            RecordState sent{seen.recordName, seen.resource, etag};
            later([this, id, sent, at = row.updated] { ledger_.markPushed(id, sent, at); },
                  "Failed to sync updated: ");
            return;
        }
        conflictLine(*event, "the server's version", theirs.updated, "this machine's version",
                     row.updated);
        keepServerCopy(row, *current, theirs);
        return;
    }
    if (laterChange(*row.deleted, theirs.updated) == Side::here) {
        conflictLine(*row.event, "this machine's deletion", row.deleted, "the server's edit",
                     theirs.updated);
        service_.deleteRecord(appZone, seen.resource, seen.etag);
        ++sent_;
        later([this, id] { ledger_.markDeletionSent(id); }, "Failed to sync deleted: ");
        return;
    }
    conflictLine(*event, "the server's edit", theirs.updated, "this machine's deletion",
                 row.deleted);
    keepServerCopy(row, *current, theirs);
}

void SyncPass::keepServerCopy(const SyncRow& row, const RemoteRecord& remote,
                              const CloudEvent& theirs) {
    EventPtr event = asRow(*theirs.event, row.event->id());
    RecordState seen{remote.record.recordId.recordName, remote.resource, remote.etag};
    Instant changed = theirs.updated.value_or(clock_.now());
    ++received_;
    later([this, event, changed, seen,
           version = row.version()] { ledger_.writePulled(*event, changed, seen, version); },
          "Failed to update record: ");
}

void SyncPass::later(std::function<void()> write, std::string failureMessage) {
    if (marks_.empty())
        firstMark_ = std::chrono::steady_clock::now();
    marks_.emplace_back(std::move(write), std::move(failureMessage));
    if (marks_.size() >= marksPerCommit ||
        std::chrono::steady_clock::now() - firstMark_ >= marksAtMostEvery)
        flush();
}

void SyncPass::flush() {
    if (marks_.empty())
        return;
    auto marks = std::move(marks_);
    marks_.clear();
    try {
        ledger_.transaction([&] {
            for (const auto& [write, message] : marks) {
                if (auto error = ledger_.attempt(write)) {
                    Log::error(message + *error);
                    fail(*error);
                }
            }
        });
    } catch (const StoreError& e) {
        // The rows stay pending: the next pass finds the server already in step with them.
        Log::error(marks.front().second + e.what());
        fail(e.what());
    }
}

} // namespace almanor
