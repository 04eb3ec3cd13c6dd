#include "platform/Module.h"

#include <gmodule.h>
#include <string>

namespace almanor::module {

namespace {

std::filesystem::path programFolder() {
    std::error_code ec;
    auto self = std::filesystem::read_symlink("/proc/self/exe", ec);
    return ec ? std::filesystem::path() : self.parent_path();
}

} // namespace

std::filesystem::path locate(std::string_view fileName, std::string_view installedDir) {
    const auto folder = programFolder();
    std::error_code ec;
    for (const auto& candidate :
         {folder / fileName, (folder / installedDir / fileName).lexically_normal()}) {
        if (!folder.empty() && std::filesystem::is_regular_file(candidate, ec)) {
            return candidate;
        }
    }
    throw ModuleError(std::string(fileName) + " is not installed beside " + folder.string());
}

void* load(const std::filesystem::path& file, const char* entryPoint) {
    // Kept for good: what it made (windows, services) runs its code until the process ends.
    GModule* loaded = g_module_open(file.c_str(), G_MODULE_BIND_LOCAL);
    if (loaded == nullptr) {
        throw ModuleError("cannot load " + file.string() + ": " + g_module_error());
    }
    g_module_make_resident(loaded);
    gpointer symbol = nullptr;
    if (!g_module_symbol(loaded, entryPoint, &symbol) || symbol == nullptr) {
        throw ModuleError(file.string() + " has no " + entryPoint);
    }
    return symbol;
}

} // namespace almanor::module
