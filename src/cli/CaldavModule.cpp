// The CalDAV adapter's module: the account's service for the repository, and the commands that
// need the network and the keyring, and the reader and writer of calendar files.

#include "cli/CloudLogin.h"
#include "cloud/CloudModule.h"
#include "cloud/caldav/CloudAccount.h"
#include "cloud/caldav/RecordCalendar.h"

namespace {

constexpr almanor::CloudModule table{almanor::CloudModule::currentVersion,
                                     &almanor::makeAccountCloudService,
                                     &almanor::cli::cloudLogin,
                                     &almanor::cli::cloudLogout,
                                     &almanor::caldav::writeCalendar,
                                     &almanor::caldav::readCalendarFile};

} // namespace

extern "C" __attribute__((visibility("default"))) const almanor::CloudModule*
almanor_caldav_module() {
    return &table;
}
