#include "cli/Services.h"

#include "cloud/CloudModule.h"
#include "platform/Paths.h"
#include "storage/Repository.h"

#ifndef ALMANOR_MODULES_RELATIVE
#error "ALMANOR_MODULES_RELATIVE must be defined by the build"
#endif

namespace almanor::cli {

Services::Services(SettingsFile& defaults, Signals& center, const Clock& clock,
                   std::filesystem::path databaseDirectory)
    : defaults_(defaults), center_(center), clock_(clock),
      databaseDirectory_(std::move(databaseDirectory)),
      cloudModule_(std::make_shared<CloudModuleLoader>(ALMANOR_MODULES_RELATIVE)) {}

Services::~Services() = default;

CloudServiceProvider Services::cloudServices(std::shared_ptr<PasswordHandover> handover) const {
    return accountCloudServiceProvider(defaults_, cloudModule_, std::move(handover));
}

std::filesystem::path Services::databaseFile() const {
    return databaseDirectory_ / paths::databaseFileName;
}

Repository& Services::repository() {
    if (!repository_) {
        repository_ = std::make_unique<Repository>(std::make_unique<LocalRepository>(
            databaseDirectory_, paths::databaseFileName, center_, clock_));
    }
    return *repository_;
}

} // namespace almanor::cli
