#pragma once

#include "platform/Clock.h"
#include "storage/SyncLedger.h"

#include <algorithm>
#include <map>
#include <mutex>

namespace almanor::test {

// The store's sync bookkeeping in memory, with the SQLite ledger's rules: transactions that land
// whole or not at all, steps that can be undone alone, writes that leave a row changed meanwhile
// alone. Counts the change notifications it would post.
class MemoryLedger final : public SyncLedger {
  public:
    explicit MemoryLedger(const Clock& clock) : clock_(clock) {}

    // ---- as the rest of the program changes the store ----
    void insert(const Event& e) {
        std::lock_guard lock(mutex_);
        SyncRow row;
        row.event = copy(e);
        row.updated = clock_.now();
        rows_[e.id()] = row;
    }
    void update(const Event& e) {
        std::lock_guard lock(mutex_);
        auto& row = rows_.at(e.id());
        row.event = copy(e);
        row.updated = clock_.now();
        row.dirty = true;
    }
    void remove(const Uuid& id) {
        std::lock_guard lock(mutex_);
        rows_.at(id).deleted = clock_.now();
    }
    std::optional<SyncRow> row(const Uuid& id) const {
        std::lock_guard lock(mutex_);
        auto it = rows_.find(id);
        if (it == rows_.end())
            return std::nullopt;
        return it->second;
    }
    std::vector<EventPtr> live() const {
        std::lock_guard lock(mutex_);
        std::vector<EventPtr> out;
        for (const auto& [id, row] : rows_)
            if (!row.deleted)
                out.push_back(row.event);
        return out;
    }
    int notifications() const { return notifications_; }
    // The next write of this kind fails (once), as a full disk would.
    void failNext(std::string what) { failNext_ = std::move(what); }

    // ---- SyncLedger ----
    std::vector<SyncRow> syncRows() override {
        std::lock_guard lock(mutex_);
        std::vector<SyncRow> out;
        for (const auto& [id, row] : rows_)
            out.push_back(row);
        std::sort(out.begin(), out.end(), [](const SyncRow& a, const SyncRow& b) {
            return std::pair(a.event->date(), a.event->name()) <
                   std::pair(b.event->date(), b.event->name());
        });
        return out;
    }
    std::string syncToken(const std::string& zone) override {
        std::lock_guard lock(mutex_);
        auto it = tokens_.find(zone);
        return it == tokens_.end() ? std::string() : it->second;
    }

    void transaction(const std::function<void()>& work) override {
        auto before = snapshot();
        changed_ = false;
        try {
            work();
        } catch (...) {
            restore(before);
            throw;
        }
        if (changed_)
            ++notifications_;
    }
    std::optional<std::string> attempt(const std::function<void()>& step) override {
        auto before = snapshot();
        bool changed = changed_;
        try {
            step();
            return std::nullopt;
        } catch (const std::exception& e) {
            restore(before);
            changed_ = changed;
            return std::string(e.what());
        }
    }

    void writePulled(const Event& event, Instant updated, const RecordState& record,
                     std::optional<RowVersion> seen) override {
        std::lock_guard lock(mutex_);
        check("writePulled");
        auto it = rows_.find(event.id());
        if (seen ? (it == rows_.end() || it->second.version() != *seen) : it != rows_.end())
            throw StoreError("the event changed here meanwhile");
        SyncRow& row = rows_[event.id()];
        row.event = copy(event);
        row.updated = updated;
        row.deleted.reset();
        row.syncId = record.recordName;
        row.dirty = false;
        row.deletionSent = false;
        row.record = record;
        changed_ = true;
    }
    void writeUnlinked(const Event& event) override {
        std::lock_guard lock(mutex_);
        check("writeUnlinked");
        auto it = rows_.find(event.id());
        SyncRow& row = rows_[event.id()];
        row.event = copy(event);
        row.updated = clock_.now();
        if (it != rows_.end())
            row.dirty = true;
        changed_ = true;
    }
    void writeRemoved(const Uuid& id, RowVersion seen) override {
        std::lock_guard lock(mutex_);
        check("writeRemoved");
        auto it = rows_.find(id);
        if (it == rows_.end() || it->second.version() != seen)
            throw StoreError("the event changed here meanwhile");
        SyncRow& row = it->second;
        if (!row.deleted) {
            row.deleted = clock_.now();
            changed_ = true;
        }
        row.dirty = false;
        row.deletionSent = true;
        row.record.reset();
    }
    void setRecord(const Uuid& id, const RecordState& record) override {
        std::lock_guard lock(mutex_);
        check("setRecord");
        rows_.at(id).record = record;
    }
    void dropRecord(const Uuid& id) override {
        std::lock_guard lock(mutex_);
        check("dropRecord");
        rows_.at(id).record.reset();
    }
    void unlink(const Uuid& id) override {
        std::lock_guard lock(mutex_);
        check("unlink");
        auto& row = rows_.at(id);
        row.syncId.reset();
        if (row.record)
            row.record->etag.clear();
    }
    void markPushed(const Uuid& id, const RecordState& record, Instant sent) override {
        std::lock_guard lock(mutex_);
        check("markPushed");
        auto& row = rows_.at(id);
        row.syncId = record.recordName;
        if (row.updated == sent)
            row.dirty = false;
        row.record = record;
    }
    void link(const Uuid& id, const RecordState& record) override {
        std::lock_guard lock(mutex_);
        check("link");
        auto& row = rows_.at(id);
        row.syncId = record.recordName;
        row.dirty = true;
        row.record = record;
    }
    void markDeletionSent(const Uuid& id) override {
        std::lock_guard lock(mutex_);
        check("markDeletionSent");
        auto& row = rows_.at(id);
        row.deletionSent = true;
        row.record.reset();
    }
    void setSyncToken(const std::string& zone, const std::string& token) override {
        std::lock_guard lock(mutex_);
        check("setSyncToken");
        tokens_[zone] = token;
    }

  private:
    static EventPtr copy(const Event& e) {
        return makeEvent(e.id(), e.date(), e.name(), e.alias(), e.schedule(), e.countMethod());
    }
    void check(const char* what) {
        if (!failNext_.empty() && failNext_ == what) {
            failNext_.clear();
            throw StoreError(std::string("disk full in ") + what);
        }
    }
    std::pair<std::map<Uuid, SyncRow>, std::map<std::string, std::string>> snapshot() {
        std::lock_guard lock(mutex_);
        // Rows hold shared events that writes replace, never mutate: a shallow copy is a copy.
        return {rows_, tokens_};
    }
    void restore(std::pair<std::map<Uuid, SyncRow>, std::map<std::string, std::string>> s) {
        std::lock_guard lock(mutex_);
        rows_ = std::move(s.first);
        tokens_ = std::move(s.second);
    }

    const Clock& clock_;
    mutable std::mutex mutex_;
    std::map<Uuid, SyncRow> rows_;
    std::map<std::string, std::string> tokens_;
    bool changed_ = false;
    int notifications_ = 0;
    std::string failNext_;
};

} // namespace almanor::test
