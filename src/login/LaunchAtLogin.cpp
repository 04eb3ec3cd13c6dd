#include "login/LaunchAtLogin.h"

#include "platform/Settings.h"
#include "platform/SettingsFile.h"

#include <glib.h>

namespace almanor {

namespace {

constexpr const char* logDomain = "com.brimwell.LaunchAtLogin";

void logFailure(bool enabled, const std::string& reason) {
    g_log_structured(logDomain, G_LOG_LEVEL_CRITICAL, "CATEGORY", "main", "MESSAGE",
                     "Failed to %s launch at login: %s", enabled ? "enable" : "disable",
                     reason.c_str());
}

} // namespace

LaunchAtLogin::LaunchAtLogin(LoginItemService& service, SettingsFile& defaults)
    : service_(service), defaults_(defaults) {}

std::string LaunchAtLogin::helperIdentifier() {
    static const std::string identifier = std::string(bundleIdentifier) + "-LaunchAtLoginHelper";
    return identifier;
}

bool LaunchAtLogin::isEnabled() const {
    return service_.status() == LoginItemService::Status::enabled;
}

void LaunchAtLogin::registration(bool enabled) {
    try {
        if (enabled) {
            if (service_.status() == LoginItemService::Status::enabled) {
                try {
                    service_.unregisterItem();
                } catch (const LoginItemError&) {
                    // The register below decides the outcome.
                }
            }
            service_.registerItem();
        } else {
            service_.unregisterItem();
        }
    } catch (const LoginItemError& e) {
        logFailure(enabled, e.what());
    }
}

void LaunchAtLogin::setEnabled(bool enabled) {
    registration(enabled);
    std::vector<Observer> observers;
    {
        std::lock_guard lock(mutex_);
        for (const auto& [token, observer] : observers_) {
            observers.push_back(observer);
        }
    }
    for (const auto& observer : observers) {
        observer(enabled);
    }
}

void LaunchAtLogin::migrateIfNeeded() {
    if (defaults_.boolean(Settings::launchAtLoginHasMigrated)) {
        return;
    }
    // Set first, so that a migration that fails is never tried again.
    defaults_.setBoolean(Settings::launchAtLoginHasMigrated, true);
    if (service_.legacyIsEnabled()) {
        registration(true);
    }
    service_.legacySetEnabled(false);
    try {
        service_.unregisterLegacyHelper();
    } catch (const LoginItemError&) {
    }
}

LaunchAtLogin::Token LaunchAtLogin::observe(Observer observer) {
    std::lock_guard lock(mutex_);
    Token token = next_++;
    observers_.emplace_back(token, std::move(observer));
    return token;
}

void LaunchAtLogin::disconnect(Token token) {
    std::lock_guard lock(mutex_);
    std::erase_if(observers_, [&](const auto& entry) { return entry.first == token; });
}

} // namespace almanor
