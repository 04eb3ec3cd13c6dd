#include "cloud/CloudModule.h"

#include "cloud/CloudAccount.h"
#include "platform/Log.h"
#include "platform/Module.h"

namespace almanor {

const CloudModule& CloudModuleLoader::module() {
    std::lock_guard lock(mutex_);
    if (module_ == nullptr) {
        auto entry = reinterpret_cast<const CloudModule* (*)()>(module::load(
            module::locate(CloudModule::fileName, installedDir_), CloudModule::entryPoint));
        const CloudModule* loaded = entry();
        if (loaded->version != CloudModule::currentVersion) {
            throw ModuleError(std::string(CloudModule::fileName) +
                              " belongs to another version of almanor");
        }
        module_ = loaded;
    }
    return *module_;
}

CloudServiceProvider accountCloudServiceProvider(SettingsFile& defaults,
                                                 std::shared_ptr<CloudModuleLoader> loader,
                                                 std::shared_ptr<PasswordHandover> handover) {
    return [loader = std::move(loader), handover = std::move(handover),
            &defaults]() -> std::shared_ptr<CloudService> {
        if (!CloudAccount::load(defaults)) {
            return nullptr;
        }
        try {
            return loader->module().makeCloudService(defaults, handover);
        } catch (const ModuleError& e) {
            Log::error(std::string("Failed to load the CalDAV adapter: ") + e.what());
            return nullptr;
        }
    };
}

} // namespace almanor
