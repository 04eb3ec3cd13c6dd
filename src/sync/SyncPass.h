#pragma once

#include "cloud/CloudEvent.h"
#include "cloud/CloudService.h"
#include "platform/Clock.h"
#include "platform/Export.h"
#include "storage/SyncLedger.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace almanor {

class CloudRepository;
class SettingsFile;

// How a pass ended.
struct ALMANOR_EXPORT PassResult {
    bool pulled = false;      // the server's changes were read and written here
    bool pushed = false;      // every pending change was sent or settled
    std::string problem;      // the first thing that went wrong, one line
    std::size_t received = 0; // the server's changes written here
    std::size_t sent = 0;     // this machine's changes the server took
    // No cloud to sync with: no account, or its service could not be had (its password, say).
    bool unavailable = false;
};

// Which side wins when both changed one event: the later change, ties to the server. Times
// compare to the second, the grain of the record's LAST-MODIFIED; a server copy without a time
// counts as the later one.
enum class Side { here, server };
ALMANOR_EXPORT Side laterChange(Instant here, std::optional<Instant> server);

// One pass of the sync between the store and the app's zone: a pull of what changed on the
// server since the last one, then a push of what changed here. Every write to the server is
// conditional on the version last seen, so a pass cut off anywhere (a kill, a lost answer) is
// finished by a later one without duplicating or overwriting anything; what the server reports
// gone is removed here; when both sides changed one event the later change wins and the other is
// named in one log line.
class ALMANOR_EXPORT SyncPass {
  public:
    SyncPass(CloudRepository& cloud, SyncLedger& ledger, SettingsFile& defaults, const Clock& clock,
             const std::atomic<bool>& stopping);

    // Reads a zone of an older layout while discovery names one, then the app's zone's changes.
    // Returns whether the app's zone was read and written here.
    bool pull();
    // Sends what is pending here. Returns whether nothing failed.
    bool push();

    const std::string& problem() const { return problem_; }
    std::size_t received() const { return received_; }
    std::size_t sent() const { return sent_; }

  private:
    struct Pending;

    void copyOlderZone(const std::string& zoneName);
    bool pullAppZone();
    std::optional<ZoneChanges> fetchAppZoneChanges(const std::string& token,
                                                   const std::map<std::string, std::string>& known);
    void applyChanged(const RemoteRecord& remote);
    SyncRow* rowFor(const RemoteRecord& remote, const Uuid& id);
    void takeServers(SyncRow& row, const EventPtr& event, Instant changed,
                     const RecordState& state);
    void settleDeletion(SyncRow& row, const EventPtr& event, const CloudEvent& theirs,
                        Instant changed, const RecordState& state);
    void applyGone(const SyncRow& row);
    void pushRow(SyncRow& row);
    void create(SyncRow& row, const RecordState& state);
    void replace(SyncRow& row, const RecordState& state);
    void remove(SyncRow& row, const RecordState& state);
    void settleWithServer(SyncRow& row, const RecordState& state, bool creating);
    // The server holds nothing under the row's resource: a deletion is done, a change is sent anew.
    void goneFromServer(SyncRow& row, const RecordState& state, bool creating);
    void keepServerCopy(const SyncRow& row, const RemoteRecord& remote, const CloudEvent& theirs);
    void later(std::function<void()> write, std::string failureMessage);
    void flush();
    void fail(const std::string& problem);

    CloudRepository& cloud_;
    CloudService& service_;
    SyncLedger& ledger_;
    SettingsFile& defaults_;
    const Clock& clock_;
    const std::atomic<bool>& stopping_;
    std::vector<SyncRow> rows_;
    std::vector<std::pair<std::function<void()>, std::string>> marks_;
    std::chrono::steady_clock::time_point firstMark_;
    std::string problem_;
    std::size_t received_ = 0;
    std::size_t sent_ = 0;
};

} // namespace almanor
