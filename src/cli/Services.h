#pragma once

#include "cloud/CloudServiceProvider.h"

#include <filesystem>
#include <memory>
#include <string>

namespace almanor {
class Clock;
class CloudModuleLoader;
class PasswordHandover;
class Signals;
class Repository;
class SettingsFile;
} // namespace almanor

namespace almanor::cli {

// What the commands work with, built once by the program's entry point and handed to each
// command; the CalDAV adapter's module is looked for where an install puts it. The store is opened
// on first use, so that a command refused for its usage, and the cloud commands that never read it,
// neither open nor create the file.
class Services {
  public:
    Services(SettingsFile& defaults, Signals& center, const Clock& clock,
             std::filesystem::path databaseDirectory);
    ~Services();
    Services(const Services&) = delete;
    Services& operator=(const Services&) = delete;

    SettingsFile& defaults() { return defaults_; }
    const Clock& clock() const { return clock_; }
    // The database file, whether or not it has been opened yet.
    std::filesystem::path databaseFile() const;
    Repository& repository();
    // The CalDAV adapter's module, loaded on first use; and the account's service through it,
    // its password through `handover` when one is given.
    CloudModuleLoader& cloudModule() { return *cloudModule_; }
    CloudServiceProvider cloudServices(std::shared_ptr<PasswordHandover> handover = nullptr) const;

  private:
    SettingsFile& defaults_;
    Signals& center_;
    const Clock& clock_;
    std::filesystem::path databaseDirectory_;
    std::unique_ptr<Repository> repository_;
    std::shared_ptr<CloudModuleLoader> cloudModule_;
};

} // namespace almanor::cli
