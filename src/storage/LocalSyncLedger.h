#pragma once

#include "platform/Export.h"
#include "storage/SyncLedger.h"

namespace almanor {

class LocalRepository;

// The sync's bookkeeping in the store's file: the events table's sync columns, beside them one
// row per record ("sync_records": the record's name, its resource and the version last in step)
// and the zones' sync tokens ("sync_zones"). The events table keeps its own schema.
class ALMANOR_EXPORT LocalSyncLedger final : public SyncLedger {
  public:
    // The tables are the store's own (its schema's second step).
    explicit LocalSyncLedger(LocalRepository& local);

    std::vector<SyncRow> syncRows() override;
    std::string syncToken(const std::string& zone) override;

    void transaction(const std::function<void()>& work) override;
    std::optional<std::string> attempt(const std::function<void()>& step) override;

    void writePulled(const Event& event, Instant updated, const RecordState& record,
                     std::optional<RowVersion> seen) override;
    void writeUnlinked(const Event& event) override;
    void writeRemoved(const Uuid& id, RowVersion seen) override;
    void setRecord(const Uuid& id, const RecordState& record) override;
    void dropRecord(const Uuid& id) override;
    void unlink(const Uuid& id) override;
    void markPushed(const Uuid& id, const RecordState& record, Instant sent) override;
    void link(const Uuid& id, const RecordState& record) override;
    void markDeletionSent(const Uuid& id) override;
    void setSyncToken(const std::string& zone, const std::string& token) override;

  private:
    template <class Work> auto guarded(Work&& work);

    LocalRepository& local_;
    bool eventsChanged_ = false; // by the transaction under way
    int savepoints_ = 0;
};

} // namespace almanor
