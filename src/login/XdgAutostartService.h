#pragma once

#include "login/LoginItemService.h"
#include "platform/Export.h"

#include <filesystem>
#include <string>

namespace almanor {

// Login items as XDG autostart entries in <config home>/autostart: the application's own entry,
// and the older helper's, which earlier versions wrote instead.
class ALMANOR_EXPORT XdgAutostartService final : public LoginItemService {
  public:
    // `program` is the almanor that the entry starts: the entry names it by its absolute path
    // unless it is the one that PATH finds.
    XdgAutostartService(const std::filesystem::path& configHome, std::filesystem::path program);

    Status status() const override;
    void registerItem() override;
    void unregisterItem() override;
    bool legacyIsEnabled() const override;
    void legacySetEnabled(bool enabled) override;
    void unregisterLegacyHelper() override;

    std::filesystem::path entryFile() const;
    std::filesystem::path legacyEntryFile() const;
    // The Exec line of the entry: "almanor", or the program's path quoted as entries require.
    std::string execLine() const;

  private:
    void writeEntry(const std::filesystem::path& file, const std::string& name) const;

    std::filesystem::path folder_;
    std::filesystem::path program_;
};

} // namespace almanor
