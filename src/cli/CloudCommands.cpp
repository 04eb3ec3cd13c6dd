#include "cli/CloudCommands.h"

#include "cli/Cli.h"
#include "cli/JsonText.h"
#include "cloud/CloudAccount.h"
#include "cloud/CloudModule.h"
#include "cloud/MigrationHelper.h"
#include "cloud/RecordMapping.h"
#include "platform/Module.h"
#include "platform/Settings.h"
#include "platform/UrlText.h"
#include "platform/UserDefaults.h"
#include "storage/LocalSyncLedger.h"
#include "storage/MigrationManager.h"
#include "storage/Repository.h"
#include "sync/CloudSync.h"

#include <cstdio>
#include <mutex>

namespace almanor::cli {

namespace {

constexpr int exitPending = 1;

#ifndef ALMANOR_MODULES_RELATIVE
#define ALMANOR_MODULES_RELATIVE "../libexec/almanor"
#endif
// Where an install puts the modules, from the folder of almanor.
constexpr const char* modulesDir = ALMANOR_MODULES_RELATIVE;

} // namespace

int cloudLogin(const Services& services, const std::string& url, const std::string& user,
               const std::string& passwordCommand) {
    try {
        return CloudModuleLoader(modulesDir)
            .module()
            .login(services.defaults, url, user, passwordCommand);
    } catch (const ModuleError& e) {
        std::fprintf(stderr, "almanor: %s\n", e.what());
        return exitModuleMissing;
    }
}

int cloudLogout(const Services& services) {
    try {
        return CloudModuleLoader(modulesDir).module().logout(services.defaults);
    } catch (const ModuleError& e) {
        std::fprintf(stderr, "almanor: %s\n", e.what());
        return exitModuleMissing;
    }
}

namespace {

// What is not yet on the server, counted as the push will send it.
struct Pending {
    std::size_t inserted = 0;
    std::size_t updated = 0;
    std::size_t deleted = 0;

    std::size_t total() const { return inserted + updated + deleted; }
};

Pending countPending(SyncLedger& ledger) {
    Pending p;
    for (const auto& row : ledger.syncRows()) {
        if (!row.pending())
            continue;
        if (!row.live())
            ++p.deleted;
        else if (!row.syncId)
            ++p.inserted;
        else
            ++p.updated;
    }
    return p;
}

std::filesystem::path syncLockFile(LocalRepository& local) {
    std::filesystem::path file = local.file();
    file += ".sync-lock";
    return file;
}

} // namespace

int cloudStatus(const Services& services, bool json) {
    UserDefaults& defaults = services.defaults;
    Repository& repository = services.repository();
    if (!storeIsReadable(repository))
        return exitStoreFailed;
    auto account = CloudAccount::load(defaults);
    std::optional<std::string> zone = MigrationHelper::zoneInUse(defaults);
    Pending pending;
    try {
        Settings(defaults).registerDefaults();
        MigrationManager::migrateIfNeeded(repository, defaults);
        LocalSyncLedger ledger(repository.local());
        pending = countPending(ledger);
    } catch (const StoreError& e) {
        std::fprintf(stderr, "almanor: %s\n", e.what());
        return exitStoreFailed;
    }
    if (json) {
        std::string out = "{\"server\":";
        auto text = [&](const std::optional<std::string>& s) {
            if (s)
                appendJsonString(out, *s);
            else
                out += "null";
        };
        text(account ? std::optional(redactUrl(account->server)) : std::nullopt);
        out += ",\"user\":";
        text(account ? std::optional(account->user) : std::nullopt);
        out += ",\"zone\":";
        text(zone);
        out += ",\"pending\":{\"inserted\":" + std::to_string(pending.inserted) +
               ",\"updated\":" + std::to_string(pending.updated) +
               ",\"deleted\":" + std::to_string(pending.deleted) + "}}";
        std::printf("%s\n", out.c_str());
    } else {
        if (account)
            std::printf("Server: %s\nUser: %s\n", redactUrl(account->server).c_str(),
                        account->user.c_str());
        else
            std::printf("No cloud account\n");
        // The zone is learnt from the server's listing at the next pull; pushes always go to ours.
        if (zone)
            std::printf("Zone: %s\n", zone->c_str());
        else if (!account)
            std::printf("Zone: none\n");
        else
            std::printf("Zone: none found yet (new events go to %s)\n",
                        std::string(appZoneName).c_str());
        std::printf("Pending: %zu inserted, %zu updated, %zu deleted\n", pending.inserted,
                    pending.updated, pending.deleted);
    }
    return exitSuccess;
}

int syncNow(const Services& services) {
    UserDefaults& defaults = services.defaults;
    if (!CloudAccount::load(defaults)) {
        std::fprintf(stderr, "no cloud account; run almanor cloud login URL\n");
        return exitPending;
    }
    Settings(defaults).registerDefaults();
    Repository& repository = services.repository();
    if (!storeIsReadable(repository))
        return exitStoreFailed;
    MigrationManager::migrateIfNeeded(repository, defaults);
    PassResult result;
    Pending pending;
    try {
        LocalSyncLedger ledger(repository.local());
        {
            CloudSync cloudSync(ledger, accountCloudServiceProvider(defaults, modulesDir), defaults,
                                services.clock, syncLockFile(repository.local()));
            cloudSync.populateFromCloud();
            result = cloudSync.waitForSync();
        }
        pending = countPending(ledger);
    } catch (const StoreError& e) {
        std::fprintf(stderr, "almanor: %s\n", e.what());
        return exitStoreFailed;
    }
    if (result.pulled && result.pushed && pending.total() == 0)
        return exitSuccess;
    // One line: what did not complete, and what is still to send.
    std::string line = !result.pulled   ? "sync incomplete: the pull did not complete"
                       : !result.pushed ? "sync incomplete: the push did not complete"
                                        : "sync incomplete";
    if (!result.problem.empty())
        line += " (" + result.problem + ")";
    line += "; not yet in the cloud: " + std::to_string(pending.inserted) + " inserted, " +
            std::to_string(pending.updated) + " updated, " + std::to_string(pending.deleted) +
            " deleted";
    std::fprintf(stderr, "%s\n", line.c_str());
    return exitPending;
}

} // namespace almanor::cli
