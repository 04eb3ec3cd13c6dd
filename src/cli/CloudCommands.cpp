#include "cli/CloudCommands.h"

#include "cli/Cli.h"
#include "cli/JsonText.h"
#include "cloud/CloudAccount.h"
#include "cloud/CloudModule.h"
#include "cloud/RecordMapping.h"
#include "platform/Module.h"
#include "platform/Settings.h"
#include "platform/UrlText.h"
#include "platform/UserDefaults.h"
#include "storage/MigrationManager.h"
#include "storage/Repository.h"
#include "storage/sql/Error.h"

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

int cloudLogin(const std::string& url, const std::string& user,
               const std::string& passwordCommand) {
    try {
        return CloudModuleLoader(modulesDir)
            .module()
            .login(UserDefaults::standard(), url, user, passwordCommand);
    } catch (const ModuleError& e) {
        std::fprintf(stderr, "almanor: %s\n", e.what());
        return exitModuleMissing;
    }
}

int cloudLogout() {
    try {
        return CloudModuleLoader(modulesDir).module().logout(UserDefaults::standard());
    } catch (const ModuleError& e) {
        std::fprintf(stderr, "almanor: %s\n", e.what());
        return exitModuleMissing;
    }
}

int cloudStatus(bool json) {
    auto& defaults = UserDefaults::standard();
    if (!storeIsReadable(Repository::shared()))
        return exitStoreFailed;
    auto account = CloudAccount::load(defaults);
    std::optional<std::string> zone = Settings(defaults).zoneName();
    PendingChanges pending;
    try {
        Settings(defaults).registerDefaults();
        MigrationManager::migrateIfNeeded(Repository::shared(), defaults);
        pending = Repository::shared().local().pendingChanges();
    } catch (const sql::Error& e) {
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
        out += ",\"pending\":{\"inserted\":" + std::to_string(pending.inserted.size()) +
               ",\"updated\":" + std::to_string(pending.updated.size()) +
               ",\"deleted\":" + std::to_string(pending.deleted.size()) + "}}";
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
        std::printf("Pending: %zu inserted, %zu updated, %zu deleted\n", pending.inserted.size(),
                    pending.updated.size(), pending.deleted.size());
    }
    return exitSuccess;
}

int syncNow() {
    auto& defaults = UserDefaults::standard();
    if (!CloudAccount::load(defaults)) {
        std::fprintf(stderr, "no cloud account; run almanor cloud login URL\n");
        return exitPending;
    }
    // One service for the pull and the push: the password is had once, and a server found
    // unreachable by the pull is not waited for again by the push.
    struct Slot {
        std::mutex mutex;
        std::shared_ptr<CloudService> service;
    };
    auto slot = std::make_shared<Slot>();
    Repository::setCloudServiceProvider(
        [provider = accountCloudServiceProvider(defaults, modulesDir), slot] {
            std::lock_guard lock(slot->mutex);
            if (!slot->service)
                slot->service = provider();
            return slot->service;
        });
    Settings(defaults).registerDefaults();
    Repository& repository = Repository::shared();
    if (!storeIsReadable(repository))
        return exitStoreFailed;
    MigrationManager::migrateIfNeeded(repository, defaults);
    repository.populateFromCloud();
    repository.sync();
    repository.waitForSync();
    repository.finishCloudWork();
    PendingChanges pending;
    try {
        pending = repository.local().pendingChanges();
    } catch (const sql::Error& e) {
        std::fprintf(stderr, "almanor: %s\n", e.what());
        return exitStoreFailed;
    }
    const std::size_t left =
        pending.inserted.size() + pending.updated.size() + pending.deleted.size();
    if (left == 0)
        return exitSuccess;
    std::fprintf(stderr, "not yet in the cloud: %zu inserted, %zu updated, %zu deleted\n",
                 pending.inserted.size(), pending.updated.size(), pending.deleted.size());
    return exitPending;
}

} // namespace almanor::cli
