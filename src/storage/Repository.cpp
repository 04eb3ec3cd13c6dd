#include "storage/Repository.h"

#include "cloud/MigrationHelper.h"
#include "cloud/RecordMapping.h"
#include "platform/Fatal.h"
#include "platform/Log.h"
#include "platform/Paths.h"
#include "platform/UserDefaults.h"
#include "storage/sql/Error.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <semaphore>
#include <set>
#include <string>
#include <sys/file.h>
#include <unistd.h>

namespace almanor {

namespace {

// Runs a call of the store, logging its failure as `message` followed by the error's description.
// Only the store's own errors are caught: an exception from a notification observer is the
// observer's fault, not a failed write.
template <class Call> bool logged(std::string_view message, Call&& call) {
    try {
        call();
        return true;
    } catch (const sql::Error& e) {
        Log::line(std::string(message) + e.what());
        return false;
    }
}

// Runs `work` as one transaction, with the connection's queue held so that other threads'
// statements stay out of it. A commit per row costs a sync of the file each: seconds for a
// thousand rows. A failing BEGIN or COMMIT is logged as `message` and the work runs (or is
// undone) without it.
template <class Work>
void inOneTransaction(sql::Connection& db, std::string_view message, Work&& work) {
    db.sync([&] {
        bool inTransaction = logged(message, [&] { db.run("BEGIN IMMEDIATE"); });
        work();
        if (inTransaction && !logged(message, [&] { db.run("COMMIT"); })) {
            try {
                db.run("ROLLBACK");
            } catch (const sql::Error&) {
                // Nothing more to undo.
            }
        }
    });
}

CloudServiceProvider& sharedProvider() {
    static CloudServiceProvider provider;
    return provider;
}

std::string orNotAvailable(const std::optional<RecordId>& id, std::string RecordId::*member) {
    return id ? (*id).*member : std::string("n/a");
}

// An exclusive lock on a file, held while it lives; blocks until the other holder lets go.
class FileLock {
  public:
    explicit FileLock(const std::filesystem::path& file) {
        fd_ = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (fd_ < 0) {
            error_ = std::strerror(errno);
            return;
        }
        int rc;
        do {
            rc = ::flock(fd_, LOCK_EX);
        } while (rc != 0 && errno == EINTR);
        if (rc != 0) {
            error_ = std::strerror(errno);
            ::close(fd_);
            fd_ = -1;
        }
    }
    ~FileLock() {
        if (fd_ >= 0)
            ::close(fd_); // closing lets go of the lock
    }
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

    bool held() const { return fd_ >= 0; }
    const std::string& error() const { return error_; }

  private:
    int fd_ = -1;
    std::string error_;
};

} // namespace

Repository::Repository(std::unique_ptr<LocalRepository> local, CloudServiceProvider provider,
                       UserDefaults* defaults)
    : local_(std::move(local)), provider_(provider), defaults_(defaults),
      cloud_(std::move(provider)) {}

Repository::~Repository() {
    {
        std::lock_guard lock(syncMutex_);
        stopping_ = true;
    }
    syncChanged_.notify_all();
    if (worker_.joinable())
        worker_.join();
}

Repository& Repository::shared() {
    // A function-local static: created once, under the language's own once-only guard.
    static Repository repository(
        std::make_unique<LocalRepository>(paths::databaseDirectory(), paths::databaseFileName),
        sharedProvider());
    return repository;
}

void Repository::setCloudServiceProvider(CloudServiceProvider provider) {
    sharedProvider() = std::move(provider);
}

UserDefaults& Repository::defaults() {
    return defaults_ ? *defaults_ : UserDefaults::standard();
}

std::vector<EventPtr> Repository::fetchAll() {
    return tryFetchAll().value_or(std::vector<EventPtr>{});
}

std::optional<std::vector<EventPtr>> Repository::tryFetchAll() {
    std::optional<std::vector<EventPtr>> events;
    logged("Failed to fetch records: ", [&] { events = local_->fetchAll(); });
    return events;
}

bool Repository::insert(const Event& event) {
    return logged("Failed to insert record: ", [&] { local_->insert(event); });
}

bool Repository::update(const Event& event) {
    return logged("Failed to update record: ", [&] { local_->update(event); });
}

bool Repository::deleteEvent(const Event& event) {
    return logged("Failed to delete record: ", [&] { local_->deleteEvent(event); });
}

void Repository::populateFromCloud() {
    std::counting_semaphore<> done(0);
    std::thread task([this, &done] {
        struct Signal {
            std::counting_semaphore<>& s;
            ~Signal() { s.release(); }
        } signal{done};

        std::shared_ptr<CloudService> service = provider_ ? provider_() : nullptr;
        bool noAccount = !service;
        if (service) {
            try {
                noAccount = service->accountStatus() == AccountStatus::noAccount;
            } catch (const CloudError&) {
                // The zone listing below reports what is wrong.
            }
        }
        if (noAccount) {
            Log::line("No zone found in the cloud, no need to migrate");
            return;
        }
        auto reader = MigrationHelper::findExistingRecords(service, defaults());
        if (!reader)
            return;
        std::vector<EventPtr> localEvents;
        std::set<Uuid> dirty;
        try {
            localEvents = local_->fetchAll();
            auto ids = local_->dirtyIds();
            dirty.insert(ids.begin(), ids.end());
        } catch (const sql::Error& e) {
            Log::line(std::string("Failed to fetch records: ") + e.what());
            return;
        }
        std::map<Uuid, EventPtr> byId;
        for (const auto& e : localEvents)
            byId.emplace(e->id(), e);

        std::vector<CloudEvent> cloudEvents = reader->fetchRecords();
        if (cloudEvents.empty())
            return;
        inOneTransaction(local_->connection(), "Failed to update record: ", [&] {
            for (const auto& cloudEvent : cloudEvents) {
                const Event& event = *cloudEvent.event;
                Log::line("Populating " + event.id().uuidString() + " " +
                          orNotAvailable(cloudEvent.recordId, &RecordId::recordName) + " " +
                          orNotAvailable(cloudEvent.recordId, &RecordId::zoneName));
                auto found = byId.find(event.id());
                bool ok = true;
                if (found != byId.end() && sameContent(*found->second, event)) {
                    Log::line("  skipping...");
                    continue;
                }
                if (found != byId.end() && dirty.count(event.id())) {
                    // An edit made here and not pushed yet wins over the older cloud copy.
                    Log::line("  keeping local change...");
                } else if (found != byId.end()) {
                    Log::line("  updating...");
                    ok = logged("Failed to update record: ", [&] { local_->update(event); });
                } else {
                    Log::line("  inserting...");
                    ok = logged("Failed to insert record: ", [&] { local_->insert(event); });
                }
                // Records of any other zone stay unlinked, so the next push moves them into ours.
                if (ok && cloudEvent.recordId && cloudEvent.recordId->zoneName == appZoneName) {
                    ok = logged("Failed to update record: ", [&] {
                        local_->markInserted(event.id(), cloudEvent.recordId->recordName);
                    });
                }
                if (!ok)
                    return;
            }
        });
    });
    done.acquire();
    task.join();
}

void Repository::sync() {
    std::lock_guard lock(syncMutex_);
    syncRequested_ = true;
    if (!worker_.joinable())
        worker_ = std::thread([this] { syncWorker(); });
    syncChanged_.notify_all();
}

void Repository::syncWorker() {
    std::unique_lock lock(syncMutex_);
    for (;;) {
        syncChanged_.wait(lock, [this] { return syncRequested_ || stopping_; });
        if (!syncRequested_)
            return; // stopping, nothing asked for
        syncRequested_ = false;
        syncRunning_ = true;
        lock.unlock();
        pushPass();
        lock.lock();
        syncRunning_ = false;
        syncChanged_.notify_all();
    }
}

void Repository::waitForSync() {
    std::unique_lock lock(syncMutex_);
    syncChanged_.wait(lock, [this] { return !syncRequested_ && !syncRunning_; });
}

void Repository::pushPass() {
    std::shared_ptr<CloudRepository> cloud = cloud_.get();
    if (!cloud) {
        Log::line("Cloud not available for syncing");
        return;
    }
    std::filesystem::path lockFile = local_->file();
    lockFile += ".sync-lock";
    FileLock lock(lockFile);
    if (!lock.held()) {
        Log::line("Failed to lock the store for syncing: " + lock.error());
        return;
    }
    try {
        cloud->service().flushUnsent();
    } catch (const CloudError&) {
        // What is still unsent stays with the service for the next pass.
    }

    PendingChanges changes = local_->pendingChanges();
    sql::Connection& db = local_->connection();
    if (auto inserted = cloud->insert(changes.inserted); !inserted.empty()) {
        for (const auto& id : inserted) {
            if (!id.recordId) {
                fatalError("Almanor/Repository", 0, "A saved record without its identity");
            }
        }
        inOneTransaction(db, "Failed to sync inserted: ", [&] {
            for (const auto& id : inserted) {
                logged("Failed to sync inserted: ",
                       [&] { local_->markInserted(id.eventId, id.recordId->recordName); });
            }
        });
    }
    if (auto updated = cloud->update(changes.updated); !updated.empty()) {
        inOneTransaction(db, "Failed to sync updated: ", [&] {
            for (const auto& id : updated)
                logged("Failed to sync updated: ", [&] { local_->markUpdated(id.eventId); });
        });
    }
    if (auto deleted = cloud->deleteRecords(changes.deleted); !deleted.empty()) {
        inOneTransaction(db, "Failed to sync deleted: ", [&] {
            for (const auto& id : deleted)
                logged("Failed to sync deleted: ", [&] { local_->markDeleted(id.eventId); });
        });
    }
}

void Repository::finishCloudWork() {
    waitForSync();
    std::shared_ptr<CloudRepository> cloud = cloud_.existing();
    if (!cloud)
        return;
    CloudService& service = cloud->service();
    service.waitForBackgroundWork();
    for (const auto& record : service.unsentRecords()) {
        CloudEvent unsent = eventFromRecord(record);
        logged("Failed to update record: ", [&] { local_->markDirty(unsent.event->id()); });
    }
}

void Repository::networkCameBack() {
    cloud_.networkCameBack();
}

} // namespace almanor
