#pragma once

#include "platform/Export.h"

#include <filesystem>
#include <stdexcept>
#include <string_view>

namespace almanor {

// A module that cannot be found or loaded; what() is one line naming it and the reason.
class ALMANOR_EXPORT ModuleError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Parts of the programs that only some runs need (the window, the CalDAV adapter) are modules,
// loaded with dlopen on first use and kept until the process ends.
namespace module {

// Where `fileName` is: beside the running program (a build tree), else in `installedDir`,
// relative to the program's folder.
// Throws ModuleError when neither holds it.
ALMANOR_EXPORT std::filesystem::path locate(std::string_view fileName,
                                            std::string_view installedDir);

// `fileName` in the folder this library was loaded from: the project's other shared libraries
// live beside it, in a build tree and installed alike.
ALMANOR_EXPORT std::filesystem::path besideThisLibrary(std::string_view fileName);

// Loads the module (once; a second call finds it loaded) and returns its symbol `entryPoint`.
// Throws ModuleError with the loader's message.
ALMANOR_EXPORT void* load(const std::filesystem::path& file, const char* entryPoint);

} // namespace module

} // namespace almanor
