#pragma once
// The seam between the programs and the CalDAV adapter. The adapter, and libcurl, libxml2,
// libical and libsecret with it, is a module loaded the first time a program talks to the
// cloud or reads or writes a calendar file: the commands that only read the store, and a tray
// without an account, never load it.

#include "cloud/CalendarFile.h"
#include "cloud/CloudService.h"
#include "cloud/CloudServiceProvider.h"
#include "platform/Export.h"

#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>

namespace almanor {

class PasswordHandover;
class SettingsFile;

struct ALMANOR_EXPORT CloudModule {
    // Raised whenever this table changes: a program refuses a module built for another one.
    static constexpr int currentVersion = 2;
    static constexpr const char* fileName = "almanor-caldav.so";
    static constexpr const char* entryPoint = "almanor_caldav_module";

    int version;
    // The CalDAV service of the account in the settings; one that reports noAccount when there
    // is none. Its password goes through `handover` when one is given.
    std::shared_ptr<CloudService> (*makeCloudService)(
        SettingsFile& defaults, const std::shared_ptr<PasswordHandover>& handover);
    // `almanor cloud login URL [--user NAME] [--password-command CMD]` and `almanor cloud
    // logout`: each says what happened on standard error and returns the exit status.
    int (*login)(SettingsFile& defaults, const std::string& url, const std::string& user,
                 const std::string& passwordCommand);
    int (*logout)(SettingsFile& defaults);
    // Calendar files, through the adapter's own iCalendar writer and reader (RecordCalendar.h):
    // every record as a VEVENT of one VCALENDAR; and a file's events as records, or CloudError
    // with one line when the text is not iCalendar or is cut short.
    std::string (*writeCalendar)(std::span<const CloudRecord> records, Instant now);
    CalendarFile (*readCalendarFile)(std::string_view text, const std::string& recordType,
                                     const std::string& zoneName);
};

// Loads the module once, on first use, from beside the program or from `installedDir`
// (relative to the program's folder). Thread-safe.
class ALMANOR_EXPORT CloudModuleLoader {
  public:
    explicit CloudModuleLoader(std::string installedDir) : installedDir_(std::move(installedDir)) {}

    // Throws ModuleError with one line naming the module and the reason.
    const CloudModule& module();

  private:
    std::string installedDir_;
    std::mutex mutex_;
    const CloudModule* module_ = nullptr;
};

// The service of the account in `defaults`, for the repository, through a loader the caller
// shares with its other uses of the module; its password through `handover` when one is given.
// While no account is configured (no cloudServer) it gives none and loads nothing; a module that
// cannot be loaded is one log line and no service.
ALMANOR_EXPORT CloudServiceProvider
accountCloudServiceProvider(SettingsFile& defaults, std::shared_ptr<CloudModuleLoader> loader,
                            std::shared_ptr<PasswordHandover> handover = nullptr);

} // namespace almanor
