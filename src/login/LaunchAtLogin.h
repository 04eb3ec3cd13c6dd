#pragma once

#include "login/LoginItemService.h"
#include "platform/Export.h"

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace almanor {

class SettingsFile;

// Registers the application as a login item, tells whether it is, and once moves users of the
// older helper-based registration over.
class ALMANOR_EXPORT LaunchAtLogin {
  public:
    using Observer = std::function<void(bool enabled)>;
    using Token = std::uint64_t;

    LaunchAtLogin(LoginItemService& service, SettingsFile& defaults);

    // The application's own identifier, and the older helper's: it followed by
    // "-LaunchAtLoginHelper".
    static constexpr const char* bundleIdentifier = "com.vostrel.Almanor";
    static std::string helperIdentifier();

    bool isEnabled() const;
    // Registers (re-registering an enabled item) or unregisters; a refusal is logged, not thrown.
    // Observers hear the requested state afterwards.
    void setEnabled(bool enabled);
    // Once per user: carries an enabled older helper over to the application, then switches
    // the helper off.
    void migrateIfNeeded();

    // The change signal: called with the requested state after every setEnabled.
    Token observe(Observer observer);
    void disconnect(Token token);

  private:
    void registration(bool enabled);

    LoginItemService& service_;
    SettingsFile& defaults_;
    std::mutex mutex_;
    std::vector<std::pair<Token, Observer>> observers_;
    Token next_ = 1;
};

} // namespace almanor
